// What recovery brings back: unfinalized files of loggers, recordings that end at any moment or
// lose pages, and sound files, which stay what they are.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>

#include "tests/kill/MixedRecording.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/LoggerFile.h"
#include "tests/support/SampleFiles.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

constexpr std::uint64_t kPage = 4096;
constexpr std::uint64_t kRecord = 113;  // the bytes of the largest records here

std::string data(const char* name) {
  return std::string(TOLVEX_TEST_DATA "/") + name;
}

std::string firstError(const std::string& path) {
  const MdfCheckReport report = checkFile(path);
  for (const MdfFinding& finding : report.findings) {
    if (finding.error) return finding.what + " at " + std::to_string(finding.position);
  }
  return report.failure;
}

// The record, without what says where its values lie.
Bytes withoutPlaces(const LoggerGroup& group, Bytes record) {
  for (const LoggerChannel& channel : group.channels) {
    if (!channel.variable) continue;
    const auto start = record.begin() + static_cast<std::ptrdiff_t>(channel.firstBit / 8);
    std::fill(start, start + channel.bitCount / 8, 0);
  }
  return record;
}

std::vector<std::string> frameLinesOf(const std::string& path) {
  MdfReader reader(path);
  reader.open();
  reader.setPayloadByDlc(true);
  reader.setRequireFields(true);
  std::vector<std::string> lines;
  while (const auto frame = reader.getCanMessage()) {
    char line[64];
    std::snprintf(line, sizeof line, "%lld %X%s %u %u %u%u%u%u ",
                  static_cast<long long>(frame->Timestamp()), frame->CanId(),
                  frame->ExtendedId() ? "x" : "", frame->BusChannel(), frame->Dlc(), frame->Dir(),
                  frame->Edl(), frame->Brs(), frame->Esi());
    lines.emplace_back(line);
    for (const std::uint8_t byte : frame->DataBytes()) {
      std::snprintf(line, sizeof line, "%02x", byte);
      lines.back() += line;
    }
  }
  return lines;
}

// Holds what the library reads of a file against what was read of another one by hand.
void expectGroups(const std::vector<LoggerGroup>& want, const std::string& path) {
  EXPECT_EQ(firstError(path), "");
  MdfSigReader reader(path);
  reader.setReadAllGroups(true);
  ASSERT_TRUE(reader.open()) << reader.getLastError();
  ASSERT_EQ(static_cast<std::size_t>(reader.getDGCount()), want.size());
  const std::vector<LoggerGroup> byHand = readLoggerFile(path);
  for (std::size_t i = 0; i < want.size(); ++i) {
    SCOPED_TRACE(testing::Message() << "group " << i << ", " << want[i].name);
    const int dg = static_cast<int>(i);
    const auto count = static_cast<int>(want[i].records.size());
    EXPECT_EQ(reader.getCGName(dg, 0), want[i].name);
    EXPECT_EQ(byHand.at(i).description, want[i].description);
    ASSERT_EQ(reader.getRecordCount(dg, 0), count);
    ASSERT_EQ(reader.getStoredRecordCount(dg, 0), want[i].records.size());
    Bytes all;
    int size = 0;
    if (count == 0) continue;
    ASSERT_TRUE(reader.readSignalDataBlock(dg, 0, 0, count, all, size));
    for (std::size_t r = 0; r < want[i].records.size(); ++r) {
      const auto start = all.begin() + static_cast<std::ptrdiff_t>(r) * size;
      const Bytes record(start, start + size);
      ASSERT_EQ(withoutPlaces(want[i], record), withoutPlaces(want[i], want[i].records[r])) << r;
      for (int cn = 0; cn < reader.getCNCount(dg, 0); ++cn) {
        const LoggerChannel* const channel = want[i].channel(reader.getCNName(dg, 0, cn));
        ASSERT_NE(channel, nullptr) << reader.getCNName(dg, 0, cn);
        if (!channel->variable) continue;
        Bytes value;
        ASSERT_TRUE(reader.readValueBytes(dg, 0, cn, record.data(), record.size(), value)) << r;
        ASSERT_EQ(value, channel->values[r]) << r;
      }
    }
  }
  EXPECT_TRUE(reader.getProblems().empty());
  EXPECT_EQ(frameLinesOf(path), frameLines(want));
}

// All that the readers show of a file, a line for each thing.
std::vector<std::string> contentsOf(const std::string& path) {
  std::vector<std::string> lines = frameLinesOf(path);
  MdfSigReader reader(path);
  reader.setReadAllGroups(true);
  EXPECT_TRUE(reader.open());
  lines.push_back(std::to_string(reader.getFileInfo().startTimeNs));
  for (int dg = 0; dg < reader.getDGCount(); ++dg) {
    const int count = reader.getRecordCount(dg, 0);
    lines.push_back(reader.getCGName(dg, 0) + " " + std::to_string(count));
    Bytes all;
    int size = 0;
    EXPECT_EQ(reader.readSignalDataBlock(dg, 0, 0, count, all, size), count != 0);
    for (int cn = 0; cn < reader.getCNCount(dg, 0); ++cn) {
      MdfSigCCInfo info;
      lines.push_back(reader.getCNName(dg, 0, cn));
      EXPECT_TRUE(reader.getCCInfo(dg, 0, cn, info));
      for (std::size_t at = 0; at < all.size(); at += static_cast<std::size_t>(size)) {
        const auto width = static_cast<std::size_t>(size);
        Bytes value;
        double number = 0;
        std::string& line = lines.emplace_back();
        reader.readText(dg, 0, cn, all.data() + at, width, line);
        reader.readValueBytes(dg, 0, cn, all.data() + at, width, value);
        line.append(value.begin(), value.end());
        const std::vector<std::uint8_t> record(all.data() + at, all.data() + at + width);
        if (info.convertToPhysical(record, number)) line.append(std::to_string(number));
      }
    }
  }
  EXPECT_TRUE(reader.getProblems().empty());
  return lines;
}

class Recovery : public testing::Test {
 protected:
  // The path of the result, which the next one replaces.
  std::string recovered(const std::string& input) {
    std::string output = dir_.path("recovered.mf4");
    const MdfRecoveryReport report = recoverFile(input, output);
    EXPECT_EQ(report.failure, "");
    EXPECT_TRUE(report.lossless());
    return output;
  }

  TempDir dir_;
  CapturedDiagnostics diagnostics_;
};

TEST_F(Recovery, GivesWhatALoggerWroteBeforeItWasCutOff) {
  const std::pair<const char*, std::size_t> files[] = {{"unfinalized-00000002.MF4", 9600},
                                                       {"unfinalized-00000170.MF4", 2010}};
  for (const auto& [name, frames] : files) {
    SCOPED_TRACE(name);
    const std::vector<LoggerGroup> want = readLoggerFile(data(name));
    EXPECT_EQ(frameLines(want).size(), frames);
    expectGroups(want, recovered(data(name)));
  }
}

TEST_F(Recovery, FinishesUnsortedFilesWhateverWasLeftOpen) {
  const std::uint8_t flags[] = {0, 1 << 0, 1 << 2, 1 << 5, 1 << 6, 0x25, 0x65, 0x7F};
  for (const std::uint8_t idSize :
       {std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{4}, std::uint8_t{8}}) {
    for (const bool listed : {false, true}) {
      const auto want = readLoggerFile(unsortedFile({.idSize = idSize, .listed = listed}).write());
      for (const std::uint8_t open : flags) {
        SCOPED_TRACE(testing::Message() << "ids of " << int{idSize} << ", flags " << int{open}
                                        << (listed ? ", listed" : ""));
        const auto file = unsortedFile({.idSize = idSize, .unfinalized = open, .listed = listed});
        expectGroups(want, recovered(file.write()));
      }
    }
  }
}

TEST_F(Recovery, DropsTheRecordThatAnUnsortedFileEndsIn) {
  const FileBuilder whole = unsortedFile({.unfinalized = 0x25});
  for (std::uint64_t cut = 1; cut < 60; ++cut) {
    SCOPED_TRACE(testing::Message() << cut << " bytes cut");
    const std::string input = whole.write(whole.size() - cut);
    std::vector<LoggerGroup> want = readLoggerFile(input);
    const std::string output = dir_.path("recovered.mf4");
    recoverFile(input, output);
    expectGroups(want, output);
  }
}

TEST_F(Recovery, LeavesSoundFilesWhatTheyAre) {
  for (const char* name : {"raw-00000005.MF4", "decoded-00000005.mf4"}) {
    SCOPED_TRACE(name);
    const std::vector<std::string> want = contentsOf(data(name));
    const std::string once = dir_.path("once.mf4");
    std::filesystem::rename(recovered(data(name)), once);
    EXPECT_TRUE(contentsOf(once) == want);
    EXPECT_EQ(firstError(once), "");
    EXPECT_TRUE(contentsOf(recovered(once)) == want);
  }
}

// A file of a recording as it stands after some of its writes.
class StandingFile {
 public:
  StandingFile() : descriptor_(::memfd_create("recording", MFD_CLOEXEC)) {}
  ~StandingFile() { ::close(descriptor_); }
  StandingFile(const StandingFile&) = delete;
  StandingFile& operator=(const StandingFile&) = delete;

  std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }
  void write(std::uint64_t position, const Bytes& bytes) const {
    const auto size = static_cast<ssize_t>(bytes.size());
    ASSERT_EQ(::pwrite(descriptor_, bytes.data(), bytes.size(), static_cast<off_t>(position)),
              size);
  }
  void take(const LoggedWrite& write, std::uint64_t bytes = ~std::uint64_t{0}) {
    const auto count = std::min<std::uint64_t>(bytes, write.bytes.size());
    this->write(write.position,
                {write.bytes.begin(), write.bytes.begin() + static_cast<std::ptrdiff_t>(count)});
    size_ = std::max(size_, write.position + count);
    if (count < write.bytes.size()) return;
    if (write.isA("DT")) taken_.push_back({write.position, count});
    const bool describes = write.bytes[0] == '#' && !write.isA("DT") && !write.isA("DL");
    if (describes) described_ = std::max(described_, write.position + count);
  }
  void cut(std::uint64_t size) {
    ASSERT_EQ(::ftruncate(descriptor_, static_cast<off_t>(size)), 0);
    size_ = size;
  }

  std::uint64_t size() const { return size_; }
  std::uint64_t described() const { return described_; }  // where all groups are told
  const std::vector<TakenBlock>& taken() const { return taken_; }

 private:
  int descriptor_;
  std::uint64_t size_ = 0;
  std::uint64_t described_ = 0;
  std::vector<TakenBlock> taken_;
};

// A recorder that stands still after every one of its writes, and within them at the end of a page.
// Where only the last record's end is missing, its zeros may be its own.
TEST_F(Recovery, BringsBackWhatReachedTheFileWhicheverWriteWasTheLast) {
  for (const std::uint32_t seed : {2U, 5U, 9U}) {
    const MixedRecording recording(seed);
    const std::vector<LoggedWrite> log = logOf(recording);
    const RecoveryCheck check(log);
    auto file = std::make_unique<StandingFile>();
    for (std::size_t i = 0; i < log.size() && !HasFailure(); ++i) {
      SCOPED_TRACE(testing::Message() << recording.description() << ", write " << i);
      if (i != 0 && log[i].file != log[i - 1].file) file = std::make_unique<StandingFile>();
      const std::uint64_t start = log[i].position;
      const std::uint64_t last = start + log[i].bytes.size();
      for (std::uint64_t end = (start / kPage + 1) * kPage; end + kRecord < last; end += kPage) {
        file->take(log[i], end - start);
        EXPECT_EQ(check.faults(file->path(), file->taken(), false), "") << "up to " << end;
      }
      file->take(log[i]);
      EXPECT_EQ(check.faults(file->path(), file->taken(), false), "");
    }
  }
}

// The file after a part of the log that `random` chooses, without pages of its end or the end.
// Gives the blocks of records that are whole.
std::vector<TakenBlock> loseSome(StandingFile& file, const std::vector<LoggedWrite>& log,
                                 std::mt19937& random) {
  const std::size_t last = log.size() / 2 + random() % (log.size() / 2);
  for (std::size_t i = 0; i <= last; ++i) {
    if (log[i].file == log[last].file) file.take(log[i]);
  }
  const std::uint64_t end =
      random() % 2 == 0 ? file.size() : file.size() - random() % file.size() / 2;
  file.cut(end);
  const auto often = random() % 5;
  std::vector<bool> lost(end / kPage + 1);
  for (std::size_t page = file.described() / kPage + 1; page < lost.size(); ++page) {
    lost[page] = random() % 8 < often;
    if (lost[page]) file.write(page * kPage, Bytes(std::min(kPage, end - page * kPage)));
  }
  std::vector<TakenBlock> whole;
  for (const TakenBlock& block : file.taken()) {
    const std::uint64_t blockEnd = block.position + block.size;
    bool isWhole = blockEnd <= end && file.described() <= end;
    for (std::uint64_t page = block.position / kPage; isWhole && page * kPage < blockEnd; ++page) {
      isWhole = !lost[page];
    }
    if (isWhole) whole.push_back(block);
  }
  return whole;
}

// What a machine leaves that lost its power. In these recordings groups have records of different
// sizes: without a list that is what tells their blocks apart.
TEST_F(Recovery, BringsBackBlocksThatAreWholeWhateverElseIsLost) {
  for (const std::uint32_t seed : {2U, 4U, 7U, 8U, 33U, 37U}) {
    const MixedRecording recording(seed);
    const std::vector<LoggedWrite> log = logOf(recording);
    const RecoveryCheck check(log);
    for (std::uint32_t loss = 0; loss < 15 && !HasFailure(); ++loss) {
      SCOPED_TRACE(testing::Message() << recording.description() << ", loss " << loss);
      std::mt19937 random(loss);
      StandingFile file;
      const std::vector<TakenBlock> whole = loseSome(file, log, random);
      EXPECT_EQ(check.faults(file.path(), whole, true), "");
    }
  }
}

}  // namespace
}  // namespace tolvex::test
