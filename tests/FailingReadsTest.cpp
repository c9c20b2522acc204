// Reads that the system refuses, cuts short or interrupts: what is told of them, and that whatever
// comes of a file then is a part of what it holds.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
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

}  // namespace
}  // namespace tolvex::test
