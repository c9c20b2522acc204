// Recovery and check of files whose reading fails: what can be read comes back, nothing appears
// twice, and what does not come back is told.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Mdf4/MdfRecorder.h"
#include "Mdf4/format/DirectFile.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FailingReads.h"
#include "tests/support/RecoveredContent.h"
#include "tests/support/SampleFiles.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

using Fault = FailingReads::Fault;

constexpr std::uint64_t kSector = 512;
constexpr std::uint64_t kPage = 4096;

std::string textOf(const MdfRecoveryReport& report) {
  std::string text = report.failure;
  for (const std::string& loss : report.losses) text += '\n' + loss;
  for (const MdfRecoveredGroup& group : report.groups) {
    for (const std::string& loss : group.losses) text += "\n  " + loss;
  }
  return text;
}

bool tells(const MdfRecoveryReport& report) {
  return textOf(report).find("failed: Input/output error") != std::string::npos;
}

// A recovered file and its records.
struct Result {
  MdfRecoveryReport report;
  RecoveredContent groups;

  std::uint64_t records() const {
    std::uint64_t all = 0;
    for (const MdfRecoveredGroup& group : report.groups) all += group.records;
    return all;
  }
};

Result recovered(const std::string& path) {
  const TempDir dir;
  Result result;
  result.report = recoverFile(path, dir.path("out.mf4"));
  if (!result.report.failure.empty()) return result;
  result.groups = recoveredContent(dir.path("out.mf4"));
  for (const MdfFinding& finding : checkFile(dir.path("out.mf4")).findings) {
    EXPECT_FALSE(finding.error) << finding.position << ": " << finding.what << ": expected "
                                << finding.expected << ", found " << finding.found;
  }
  return result;
}

// Holds what comes of a file whose reading fails against what comes of it else.
void expectPart(const Result& got, const Result& whole) {
  EXPECT_TRUE(isPart(got.groups, whole.groups)) << textOf(got.report);
  EXPECT_TRUE(!got.report.lossless() || count(got.groups) == count(whole.groups));
}

// Records of 56 bytes, all different, in 8 data blocks and two lists.
constexpr std::uint64_t kRecords = 4000;
constexpr std::uint64_t kRecordSize = 56;
std::string recordedFile(const TempDir& dir) {
  std::string path = dir.path("recorded.mf4");
  MdfRecorder recorder;
  EXPECT_EQ(recorder.startRecord(path, 1'700'000'000'000'000), 0);
  const int group = recorder.addDataGroup("signals");
  recorder.addChannel(group, timeChannel());
  ChannelInfo bytes;
  bytes.name = "bytes";
  bytes.dataType = 10;
  bytes.byteCount = kRecordSize - sizeof(double);
  recorder.addChannel(group, bytes);
  for (std::uint32_t i = 0; i < kRecords; ++i) {
    const auto record = recorder.createRecordData(group);
    record->setTime(1 + i * 0.001);
    Bytes value(bytes.byteCount, static_cast<std::uint8_t>(1 + i % 255));
    std::memcpy(value.data(), &i, sizeof i);
    record->setData("bytes", bytes.byteCount, value.data());
    recorder.insertRecord(*record, group);
  }
  recorder.stopRecord(1'700'000'010'000'000);
  return path;
}

// ---------------------------------------------------------------------------------------------

// Held against a map of the sectors that cannot be read.
TEST(FailingReadsRecovery, SectorsAreReadAroundWhatCannotBeRead) {
  const auto seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  const auto below = [&](std::uint64_t limit) { return random() % limit; };
  const CapturedDiagnostics quiet;
  const TempDir dir;
  const std::string path = recordedFile(dir);
  const Bytes content = fileBytes(path);
  FailingReads reads(path);
  std::vector<bool> bad(content.size());
  for (int i = 0; i < 20; ++i) {
    const std::uint64_t start = below(content.size() / kSector) * kSector;
    const std::uint64_t length = std::min((1 + below(8)) * kSector, content.size() - start);
    reads.damage(start, length);
    std::fill_n(bad.begin() + static_cast<std::ptrdiff_t>(start), length, true);
  }
  DirectFile file;
  ASSERT_TRUE(file.open(path, OpenMode::Read));
  file.reads().bySectors();
  const auto read = [&](std::uint64_t at, std::uint64_t length) {
    Bytes bytes(inMemory(length));
    const auto from = content.begin() + static_cast<std::ptrdiff_t>(at);
    const auto first = bad.begin() + static_cast<std::ptrdiff_t>(at);
    const auto end = first + static_cast<std::ptrdiff_t>(length);
    const auto sound = static_cast<std::uint64_t>(std::find(first, end, true) - first);
    EXPECT_EQ(file.ReadAt(at, length, bytes.data()), sound == length);
    const WritableBytes piece(bytes);
    EXPECT_EQ(file.readPieces(at, std::span(&piece, 1)), sound);
    EXPECT_TRUE(
        std::equal(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(sound), from));
    EXPECT_EQ(file.reads().nextUnreadable(at, at + length).start, at + sound);
  };
  for (int i = 0; i < 1000; ++i) {
    const std::uint64_t at = below(content.size());
    read(at, std::min(below(i % 2 == 0 ? 100 : 20'000), content.size() - at));
  }
  read(0, content.size());
  const auto sectors = static_cast<std::uint64_t>(std::ranges::count(bad, true)) / kSector;
  EXPECT_LE(reads.failures(), 4 * sectors + 1);
  EXPECT_EQ(file.reads().error().substr(0, 8), "reading ");
}

class FailingReadsOfFiles : public testing::Test {
 protected:
  FailingReadsOfFiles() {
    for (const auto& [name, file] : sampleFiles()) paths_.emplace_back(name, file.write());
    paths_.emplace_back("recorded", recordedFile(dir_));
  }

  // Recovers each file once for each of its reads, with the fault in it.
  template <class Expect>
  void forEveryRead(Fault fault, std::uint64_t more, Expect expect) {
    for (const auto& [name, path] : paths_) {
      const Result whole = recovered(path);
      FailingReads reads(path);
      recovered(path);
      const std::uint64_t step = name == "recorded" ? 3 : 1;
      for (std::uint64_t n = 0, all = reads.reads(); n < all; n += step) {
        SCOPED_TRACE(testing::Message() << name << ": read " << n);
        reads.clear();
        reads.fail(n, fault, more);
        const Result got = recovered(path);
        EXPECT_GT(reads.failures(), 0U);
        expectPart(got, whole);
        expect(got, whole);
      }
    }
  }

 private:
  const CapturedDiagnostics quiet_;
  const TempDir dir_;
  std::vector<std::pair<std::string, std::string>> paths_;
};

TEST_F(FailingReadsOfFiles, LoseNothingWhenTheyFailOnce) {
  for (const Fault fault : {Fault::Error, Fault::Short, Fault::Interrupted}) {
    forEveryRead(fault, 0, [](const Result& got, const Result& whole) {
      EXPECT_EQ(textOf(got.report), textOf(whole.report));
      EXPECT_EQ(count(got.groups), count(whole.groups));
    });
  }
}

TEST_F(FailingReadsOfFiles, GiveNothingTwiceWhenTheDiskIsGone) {
  forEveryRead(Fault::Error, ~std::uint64_t{0}, [](const Result& got, const Result& /*whole*/) {
    EXPECT_FALSE(got.report.lossless());
    EXPECT_TRUE(tells(got.report));
  });
  forEveryRead(Fault::End, ~std::uint64_t{0}, [](const Result&, const Result&) {});
}

// The records that have a byte between the two positions.
std::uint64_t recordsIn(const Bytes& file, std::uint64_t start, std::uint64_t end) {
  std::uint64_t records = 0;
  for (std::uint64_t at = 64; at + 24 <= file.size(); at += 8) {
    if (std::memcmp(file.data() + at, "##DT", 4) != 0) continue;
    std::uint64_t length = 0;
    std::memcpy(&length, file.data() + at + 8, sizeof length);
    const std::uint64_t first = std::max(at + 24, start);
    const std::uint64_t last = std::min(at + length, end);
    if (first >= last) continue;
    const std::uint64_t size = (length - 24) % kRecordSize == 0 ? kRecordSize : length - 24;
    records += (last - at - 24 + size - 1) / size - (first - at - 24) / size;
  }
  return records;
}

bool holds(const Bytes& file, std::uint64_t at, std::uint64_t size, const char* type) {
  const auto start = file.begin() + static_cast<std::ptrdiff_t>(at);
  const auto end = start + static_cast<std::ptrdiff_t>(std::min(size, file.size() - at));
  return std::search(start, end, type, type + 4) != end;
}

// Whichever sector or page cannot be read: what is lost is what was in it.
TEST(FailingReadsRecovery, LosesWhatWasInTheUnreadableSectors) {
  const CapturedDiagnostics quiet;
  const TempDir dir;
  const std::string path = recordedFile(dir);
  const Bytes content = fileBytes(path);
  const Result whole = recovered(path);
  ASSERT_EQ(count(whole.groups), kRecords + 2);  // the start and stop times
  constexpr std::string_view kData = "##DT";
  const std::uint64_t firstData = static_cast<std::uint64_t>(
      std::search(content.begin(), content.end(), kData.begin(), kData.end()) - content.begin());
  for (const std::uint64_t size : {kPage, kSector}) {
    const std::uint64_t step = size == kPage ? size : 5 * size;
    for (std::uint64_t at = firstData / size * size + size; at < content.size(); at += step) {
      SCOPED_TRACE(testing::Message() << size << " bytes at " << at);
      FailingReads reads(path);
      reads.damage(at, size);
      const Result got = recovered(path);
      ASSERT_GT(reads.failures(), 0U);
      EXPECT_FALSE(got.report.lossless());
      EXPECT_TRUE(tells(got.report)) << textOf(got.report);
      EXPECT_TRUE(isPart(got.groups, whole.groups));
      const std::uint64_t unread = recordsIn(content, at, at + size);
      if (!holds(content, at, size, "##DL")) {
        EXPECT_EQ(count(got.groups), count(whole.groups) - unread) << textOf(got.report);
      } else {  // of a block that is named in it and begins in it, nothing is known
        EXPECT_GE(count(got.groups), count(whole.groups) - unread - 512) << textOf(got.report);
      }
    }
  }
}

// Every kind of block, each sector in turn.
TEST(FailingReadsRecovery, UnreadableBlocksOfEveryKindAreTold) {
  const CapturedDiagnostics quiet;
  for (const auto& [name, file] : sampleFiles()) {
    if (name == "shared") continue;  // whose its data are depends on what else is there
    const std::string path = file.write();
    const Result whole = recovered(path);
    const std::uint64_t size = std::filesystem::file_size(path);
    for (std::uint64_t at = 0; at < size; at += kSector) {
      SCOPED_TRACE(testing::Message() << name << ": sector at " << at);
      FailingReads reads(path);
      reads.damage(at, kSector);
      const Result got = recovered(path);
      const bool described = textOf(got.report).find("where no fitting") == std::string::npos &&
                             textOf(got.report).find("no sound") == std::string::npos;
      if (described) expectPart(got, whole);
      EXPECT_LE(got.records(), whole.records()) << textOf(got.report);
      EXPECT_FALSE(got.report.lossless());
      EXPECT_TRUE(tells(got.report)) << textOf(got.report);
      const MdfCheckReport check = checkFile(path);
      ASSERT_FALSE(check.findings.empty());
      EXPECT_TRUE(check.findings[0].error);
      EXPECT_EQ(check.findings[0].position, at);
      EXPECT_EQ(check.findings[0].what, "reading " + std::to_string(std::min(kSector, size - at)) +
                                            " bytes failed: Input/output error");
    }
  }
}

}  // namespace
}  // namespace tolvex::test
