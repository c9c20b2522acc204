// Reads that the system refuses, cuts short or interrupts: what is told of them, and that whatever
// comes of a file then is a part of what it holds.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FailingReads.h"
#include "tests/support/SampleFiles.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

using Fault = FailingReads::Fault;

// What a reader gave: the records of each data group.
struct Contents {
  std::map<int, std::vector<std::string>> groups;
  std::string failure;  // of the opening
  std::vector<std::string> problems;

  bool tells(const std::string& what) const {
    const auto has = [&](const std::string& text) { return text.find(what) != std::string::npos; };
    return has(failure) || std::ranges::any_of(problems, has);
  }
};

std::string shown(const std::vector<std::uint8_t>& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// All records, one by one. At the end of a group it is asked again, as often.
Contents recordsOf(const std::string& path, int attempts) {
  MdfSigReader reader(path);
  Contents contents;
  if (!reader.open()) {
    contents.failure = reader.getLastError();
    return contents;
  }
  for (const int dg : reader.getDataGroupSigsIndex()) {
    std::vector<std::string>& group = contents.groups[dg];
    for (int ends = 0; ends < attempts;) {
      const auto record = reader.readSignalData(dg);
      if (record == nullptr) {
        ++ends;
      } else {
        group.push_back(shown(record->data));
      }
    }
  }
  contents.problems = reader.getProblems();
  return contents;
}

// Whether `part` is `whole` without some of its elements.
bool isPart(const std::vector<std::string>& part, const std::vector<std::string>& whole) {
  auto at = whole.begin();
  for (const std::string& element : part) {
    at = std::find(at, whole.end(), element);
    if (at++ == whole.end()) return false;
  }
  return true;
}

TEST(FailingReads, ShortAndInterruptedReadsChangeNothing) {
  const CapturedDiagnostics quiet;
  for (const auto& [name, file] : sampleFiles()) {
    SCOPED_TRACE(name);
    const std::string path = file.write();
    const Contents want = recordsOf(path, 1);
    for (const Fault fault : {Fault::Short, Fault::Interrupted}) {
      FailingReads reads(path);
      reads.failFrom(0, fault);
      if (fault == Fault::Interrupted) reads.setPeriod(2);
      const Contents got = recordsOf(path, 1);
      EXPECT_GT(reads.failures(), 0U);
      EXPECT_EQ(got.groups, want.groups);
      EXPECT_EQ(got.problems, want.problems);
    }
  }
}

// Of a file that fails to be read, everything is told or there.
TEST(FailingReads, AReaderGivesAPartAndSaysSo) {
  const CapturedDiagnostics quiet;
  std::uint64_t faults = 0;
  for (const auto& [name, file] : sampleFiles()) {
    const std::string path = file.write();
    const Contents want = recordsOf(path, 1);
    FailingReads reads(path);
    recordsOf(path, 1);
    for (std::uint64_t n = 0, all = reads.reads(); n < all; ++n) {
      for (const std::uint64_t more : {std::uint64_t{0}, ~std::uint64_t{0}}) {
        for (const Fault fault : {Fault::Error, Fault::End}) {
          SCOPED_TRACE(testing::Message() << name << ": read " << n << " and " << more << " more "
                                          << (fault == Fault::Error ? "refused" : "short"));
          reads.clear();
          reads.fail(n, fault, more);
          const Contents got = recordsOf(path, 1);
          faults += reads.failures();
          for (const auto& [dg, records] : got.groups) {
            EXPECT_TRUE(isPart(records, want.groups.at(dg))) << dg;
          }
          if (got.groups == want.groups) continue;
          EXPECT_TRUE(got.tells(fault == Fault::Error ? "failed: Input/output error"
                                                      : "failed: the file ends earlier"));
        }
      }
    }
  }
  EXPECT_GT(faults, 100U);
}

// A frame without its payload, and the payload.
using Frames = std::vector<std::pair<std::string, std::string>>;

Frames framesOf(const std::string& path, bool& told) {
  MdfReader reader(path);
  Frames frames;
  told = !reader.open();
  while (!told) {
    const MdfFrame frame = reader.getNext();
    const auto add = [&](const auto& bus, std::uint32_t id) {
      if (bus == nullptr) return false;
      frames.emplace_back(std::to_string(bus->Timestamp()) + ' ' + std::to_string(id) + ' ' +
                              std::to_string(bus->BusChannel()),
                          shown(bus->DataBytes()));
      return true;
    };
    const auto* const message = std::get_if<0>(&frame);
    if (message == nullptr) {
      add(std::get<1>(frame), std::get<1>(frame)->MessageId());
    } else if (!add(*message, *message == nullptr ? 0 : (*message)->MessageId())) {
      break;
    }
  }
  const std::vector<std::string> problems = reader.getProblems();
  told = told || std::ranges::any_of(problems, [](const std::string& text) {
           return text.find("failed: Input/output error") != std::string::npos;
         });
  return frames;
}

TEST(FailingReads, FramesAreMissingOrWithoutTheirPayloadAndThatIsSaid) {
  const CapturedDiagnostics quiet;
  for (const auto& [name, file] : sampleFiles()) {
    const std::string path = file.write();
    bool told = false;
    const Frames want = framesOf(path, told);
    FailingReads reads(path);
    framesOf(path, told);
    for (std::uint64_t n = 0, all = reads.reads(); n < all; ++n) {
      for (const std::uint64_t more : {std::uint64_t{0}, ~std::uint64_t{0}}) {
        SCOPED_TRACE(testing::Message() << name << ": read " << n << " and " << more << " more");
        reads.clear();
        reads.fail(n, Fault::Error, more);
        const Frames got = framesOf(path, told);
        EXPECT_TRUE(told || got == want);
        auto at = want.begin();
        for (const auto& frame : got) {
          at = std::find_if(at, want.end(), [&](const auto& other) {
            return frame.first == other.first && (frame.second == other.second || told);
          });
          ASSERT_NE(at, want.end()) << frame.first;
          ++at;
        }
      }
    }
  }
}

TEST(FailingReads, ACheckTriesAgainAndFindsWhatCannotBeRead) {
  const CapturedDiagnostics quiet;
  const auto textOf = [](const MdfCheckReport& report) {
    std::string text = report.failure;
    for (const MdfFinding& finding : report.findings) {
      text += std::to_string(finding.position) + finding.what + finding.found + '\n';
    }
    return text;
  };
  for (const auto& [name, file] : sampleFiles()) {
    const std::string path = file.write();
    const std::string want = textOf(checkFile(path));
    FailingReads reads(path);
    static_cast<void>(checkFile(path));
    for (std::uint64_t n = 0, all = reads.reads(); n < all; ++n) {
      SCOPED_TRACE(testing::Message() << name << ": read " << n);
      reads.clear();
      reads.fail(n, Fault::Error);
      EXPECT_EQ(textOf(checkFile(path)), want);
      reads.clear();
      reads.failFrom(n, Fault::Error);
      const MdfCheckReport broken = checkFile(path);
      EXPECT_GT(broken.errors, 0U);
      EXPECT_NE(textOf(broken).find("bytes failed: Input/output error"), std::string::npos);
    }
  }
}

}  // namespace
}  // namespace tolvex::test
