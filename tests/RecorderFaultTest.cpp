// What is left of a recording when writes fail, on disks that break, run full, or fail once, and
// when its process ends.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/MdfRecorder.h"
#include "Mdf4/format/BlockRecords.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FailingFile.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds
constexpr std::size_t kBlock = 512;                      // records
constexpr std::size_t kList = 5 * kBlock;
constexpr unsigned kSteps = 4000;
constexpr unsigned kSplitStep = kList + kBlock / 2;  // a file that holds so much is left
// Bytes from one fault to the next; prime, so that they fall anywhere in writes and fields.
constexpr std::uint64_t kStride = 197;

// Where records come from. Each has a number that all else in it derives from.
enum Source : std::size_t { kCounter, kFrames1, kFrames2, kErrors, kSources };
using Contents = std::array<std::vector<unsigned>, kSources>;  // numbers

MdfCanMessage frameOf(unsigned number, std::uint8_t channel) {
  MdfCanMessage frame;
  frame.MessageId(number % 0x800);
  frame.BusChannel(channel);
  frame.DataBytes(packed(std::uint64_t{number} * 0x10001));
  return frame;
}

MdfCanError errorOf(unsigned number) {
  MdfCanError error;
  error.MessageId(number);
  error.BusChannel(1);
  return error;
}

ChannelInfo unsignedChannel(const char* name, std::uint32_t bytes) {
  ChannelInfo info;
  info.name = name;
  info.byteCount = bytes;
  return info;
}

// The record with that number, as the file should have it.
Bytes recordOf(Source source, unsigned number) {
  const double time = number / 1000.0;
  const auto channel = static_cast<std::uint8_t>(source == kFrames2 ? 2 : 1);
  switch (source) {
    case kCounter:
      return packed(static_cast<std::uint16_t>(number));
    case kErrors:
      return joined({packed(time, channel, number), Bytes(13)});
    default:
      return packed(time, channel, std::uint8_t{8}, std::uint8_t{0}, number % 0x800,
                    std::uint64_t{number} * 0x10001);
  }
}

// What the files of a recording hold, in the order in which it is stored; each record is held
// against what belongs to its number.
struct Readback {
  explicit Readback(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
      read(path);
      if (std::filesystem::exists(path)) fileBytes += std::filesystem::file_size(path);
    }
    for (const auto& numbers : contents) records += numbers.size();
  }

  Contents contents;
  std::uint64_t records = 0;
  std::uint64_t fileBytes = 0;
  std::vector<std::string> damage;  // that the files themselves show

 private:
  void read(const std::string& path) {
    MdfSigReader reader(path);
    reader.setReadAllGroups(true);
    if (!reader.open()) return;
    for (const int dg : reader.getDataGroupSigsIndex()) {
      const auto count = static_cast<int>(reader.getStoredRecordCount(dg, 0));
      Bytes bytes;
      int size = 0;
      if (reader.getRecordCount(dg, 0) != count) damage.push_back(reader.getCGName(dg, 0));
      if (count == 0) continue;
      ASSERT_TRUE(reader.readSignalDataBlock(dg, 0, count, bytes, size)) << dg;
      for (auto at = bytes.begin(); at != bytes.end(); at += size) take({at, at + size});
    }
    for (const std::string& problem : reader.getProblems()) damage.push_back(problem);
  }

  void take(const Bytes& record) {
    constexpr std::size_t kStartOrStop = 16;  // bytes of a record
    if (record.size() == kStartOrStop) return;
    const Source source = record.size() == 2    ? kCounter
                          : record.size() == 26 ? kErrors
                          : record[8] == 2      ? kFrames2
                                                : kFrames1;
    const auto number =
        source == kCounter
            ? loadNumber<std::uint16_t>(record.data())
            : static_cast<unsigned>(std::lround(loadNumber<double>(record.data()) * 1000));
    EXPECT_EQ(record, recordOf(source, number));
    contents[source].push_back(number);
  }
};

// Records on a disk, as a host would that goes on whatever fails, and notes what it was told.
class Recording {
 public:
  Recording(MdfRecorder& recorder, const FailingDisk& disk) : recorder_(recorder), disk_(disk) {}

  void start(const std::string& path) {
    // Without its groups of the start and stop time a recording goes on; only firstError tells.
    started_ = recorder_.startRecord(path, kStart) == 0;
    EXPECT_TRUE(started_ || disk_.refusals() != 0);
    seen_ = disk_.refusals();
    counter_ = recorder_.addDataGroup("counter");
    const bool defined =
        counter_ >= 0 && recorder_.addChannel(counter_, unsignedChannel("n", 2)) == 0;
    expectTold(defined);
    if (!defined) counter_ = -1;
  }

  // The records with the numbers from `first` on, before `last`.
  void record(unsigned first, unsigned last) {
    for (unsigned number = first; number < last; ++number) {
      const std::uint64_t time = kStart + std::uint64_t{number} * 1000;
      if (counter_ >= 0) {
        note(kCounter, number, [&] {
          return recorder_.insertData(static_cast<std::uint32_t>(counter_), 2,
                                      recordOf(kCounter, number).data());
        });
      }
      if (number % 20 == 1) {
        const std::uint8_t channel = number % 40 == 1 ? 1 : 2;
        note(channel == 1 ? kFrames1 : kFrames2, number,
             [&] { return recorder_.saveCanMessage(time, frameOf(number, channel)); });
      }
      if (number % 60 == 2) {
        note(kErrors, number, [&] { return recorder_.saveCanError(time, errorOf(number)); });
      }
    }
  }

  const Contents& handedOver() const { return handedOver_; }
  const Contents& accepted() const { return accepted_; }
  // How many of the accepted were, when the first write failed, in a file that was left or in
  // blocks that a list was bound to name by then, however quickly they came: the first of a file
  // and those of lists that the next one followed.
  const std::array<std::size_t, kSources>& safe() const { return safe_; }
  // Records that were handed over since a recording was started.
  std::uint64_t counted() const { return counted_; }
  // Whether a write was refused while a file was completed, which no call can tell.
  bool untold() const { return untold_ || seen_ != disk_.refusals(); }

 private:
  template <class HandOver>
  void note(Source source, unsigned number, HandOver handOver) {
    counted_ += started_ ? 1U : 0U;
    const bool accepted = handOver();
    expectTold(accepted);
    handedOver_[source].push_back(number);
    if (accepted) accepted_[source].push_back(number);
    const bool split = std::exchange(files_, disk_.paths().size()) != disk_.paths().size();
    if (disk_.refusals() != 0) return;
    for (std::size_t s = 0; s < kSources; ++s) {
      if (split) before_[s] = accepted_[s].size();
      const std::size_t inFile = accepted_[s].size() - before_[s];
      const std::size_t listed =
          inFile < kBlock ? 0 : std::max(kBlock, (inFile - 1) / kList * kList);
      safe_[s] = before_[s] + listed;
    }
  }

  // The call that meets a refused write says so, unless it was the split behind a record.
  void expectTold(bool good) {
    const bool met = std::exchange(seen_, disk_.refusals()) != disk_.refusals();
    untold_ = untold_ || (met && good);
    EXPECT_TRUE(good ? !met || disk_.paths().size() != files_ : disk_.refusals() != 0);
    EXPECT_EQ(recorder_.firstError().empty(), disk_.refusals() == 0);
  }

  MdfRecorder& recorder_;
  const FailingDisk& disk_;
  std::uint64_t seen_ = 0;  // of the disk's refusals
  bool started_ = false;
  bool untold_ = false;
  std::size_t files_ = 1;
  int counter_ = -1;  // the group, when it could be defined
  Contents handedOver_;
  Contents accepted_;
  std::array<std::size_t, kSources> before_ = {};  // of the accepted, in earlier files
  std::array<std::size_t, kSources> safe_ = {};
  std::uint64_t counted_ = 0;
};

// All numbers ascend, and are among the others.
void expectAmong(const Contents& read, const Contents& others) {
  for (std::size_t s = 0; s < kSources; ++s) {
    EXPECT_TRUE(std::ranges::adjacent_find(read[s], std::greater_equal()) == read[s].end());
    EXPECT_TRUE(std::ranges::includes(others[s], read[s])) << "source " << s;
  }
}

void expectSafe(const Contents& read, const Recording& recording) {
  for (std::size_t s = 0; s < kSources; ++s) {
    const std::size_t safe = recording.safe()[s];
    ASSERT_GE(read[s].size(), safe) << "source " << s;
    EXPECT_TRUE(std::equal(read[s].begin(), read[s].begin() + static_cast<std::ptrdiff_t>(safe),
                           recording.accepted()[s].begin()));
  }
}

class RecorderFault : public testing::Test {
 protected:
  using Fault = void (FailingDisk::*)(std::uint64_t bytes);

  RecorderFault() {
    const CapturedDiagnostics diagnostics;
    FailingDisk disk;
    MdfRecorder recorder(disk.opener());
    Recording recording(recorder, disk);
    recording.start(path_);
    recording.record(0, kSplitStep);
    recorder.stopRecord(0);
    splitSize_ = Readback({path_}).fileBytes;
    recorderSettings.splitSize = splitSize_;
  }
  void TearDown() override { recorderSettings.splitSize = 0; }

  // Records on disks that fail after more and more bytes and are sound again before the number
  // `recovery`, until one has not failed, and hands over what came of each: the notes, what the
  // files hold and how many records the recorder counts as lost.
  template <class Check>
  void forEveryFault(Fault fault, unsigned recovery, bool stop, Check check) {
    for (std::uint64_t bytes = 0, refusals = 1; refusals != 0 && !HasFailure(); bytes += kStride) {
      SCOPED_TRACE("fails after " + std::to_string(bytes) + " bytes");
      const CapturedDiagnostics diagnostics;
      FailingDisk disk;
      auto recorder = std::make_unique<MdfRecorder>(disk.opener());
      Recording recording(*recorder, disk);
      (disk.*fault)(bytes);
      recording.start(path_);
      recording.record(0, recovery);
      if (recovery < kSteps) disk.recover();
      recording.record(recovery, kSteps);
      if (stop) recorder->stopRecord(0);
      const std::uint64_t lost = recorder->lostRecords();
      const std::string error = recorder->firstError();
      recorder.reset();
      refusals = disk.refusals();
      EXPECT_TRUE(!stop || error.empty() == (refusals == 0));
      EXPECT_TRUE(error.empty() || (error.starts_with(dir_.path("log")) &&
                                    error.ends_with(" failed: refused by the disk")))
          << error;
      const Readback read(disk.paths());
      check(recording, read, lost);
      if (refusals != 0 || !stop) continue;
      EXPECT_EQ(disk.paths().size(), recorderSettings.splitSize == 0 ? 1U : 2U);
      EXPECT_EQ(read.contents, recording.handedOver());
      EXPECT_EQ(read.damage, std::vector<std::string>());
    }
  }

  std::uint64_t splitSize_ = 0;  // bytes; splits a recording once
  TempDir dir_;
  std::string path_ = dir_.path("log.mf4");
};

// Nothing reaches the file after the write that failed, so counts and last blocks are not promised;
// the full blocks from before are there, whether the recording is stopped or dropped.
TEST_F(RecorderFault, ABrokenDiskKeepsTheBlocksThatItTook) {
  for (const bool stop : {true, false}) {
    forEveryFault(&FailingDisk::breakAfter, kSteps, stop,
                  [&](const Recording& recording, const Readback& read, std::uint64_t lost) {
                    expectSafe(read.contents, recording);
                    expectAmong(read.contents, recording.handedOver());
                    EXPECT_TRUE(!stop || read.records + lost >= recording.counted());
                  });
  }
}

TEST_F(RecorderFault, AFullDiskLosesWhatItHasNoRoomForAndSaysHowMuch) {
  forEveryFault(&FailingDisk::fillAfter, kSteps, true,
                [](const Recording& recording, const Readback& read, std::uint64_t lost) {
                  expectSafe(read.contents, recording);
                  expectAmong(read.contents, recording.accepted());
                  EXPECT_EQ(read.records + lost, recording.counted());
                  EXPECT_EQ(read.damage, std::vector<std::string>());
                });
}

TEST_F(RecorderFault, OnlyRefusedRecordsAreMissingWhenTheDiskHasRoomAgain) {
  recorderSettings.splitSize = 0;
  forEveryFault(&FailingDisk::fillAfter, 2000, true,
                [&](const Recording& recording, const Readback& read, std::uint64_t lost) {
                  EXPECT_LT(read.fileBytes,
                            splitSize_ + 8000);  // no room went with what was refused
                  EXPECT_EQ(read.contents, recording.accepted());
                  EXPECT_EQ(read.records + lost, recording.counted());
                  EXPECT_EQ(read.damage, std::vector<std::string>());
                });
}

TEST_F(RecorderFault, OnlyRefusedRecordsAreMissingWhenOneWriteFails) {
  forEveryFault(&FailingDisk::failOnceAfter, kSteps, true,
                [](const Recording& recording, const Readback& read, std::uint64_t lost) {
                  EXPECT_TRUE(recording.untold() || read.contents == recording.accepted());
                  expectAmong(read.contents, recording.accepted());
                  EXPECT_EQ(read.records + lost, recording.counted());
                });
}

// ---------------------------------------------------------------------------------------------
// What a process leaves that ends between two writes

class WatchedFile final : public SystemFile {
 public:
  explicit WatchedFile(std::function<void(const Bytes& file)> afterWrite)
      : afterWrite_(std::move(afterWrite)) {}

  bool size(std::uint64_t& bytes) override { return memory_.size(bytes); }
  ReadResult read(std::uint64_t position, std::span<const WritableBytes> pieces) override {
    return memory_.read(position, pieces);
  }
  bool write(std::uint64_t position, std::span<const ByteSpan> pieces) override {
    memory_.write(position, pieces);
    afterWrite_(memory_.bytes());
    return true;
  }
  bool close() override { return true; }
  std::string error() const override { return ""; }

 private:
  MemoryFile memory_;
  const std::function<void(const Bytes& file)> afterWrite_;
};

// Data blocks that no list names, but for those of the start and stop time. What a list counts must
// be there.
std::size_t unnamedBlocks(const Bytes& file) {
  std::vector<Link> blocks;
  std::vector<Link> named;
  std::vector<Link> counted;
  for (Link at = kIdBlockSize; at + kBlockHeaderSize <= file.size(); at += 8) {
    BlockHeader header;
    std::memcpy(&header, file.data() + at, sizeof header);
    if (header.marker != kBlockMarker) continue;
    if (header.type == block_type::kDT) blocks.push_back(at);
    if (header.type != block_type::kDL) continue;
    const std::uint8_t* const links = file.data() + at + kBlockHeaderSize;
    const std::uint8_t* const record = links + header.linkCount * kLinkSize;
    const auto count = loadNumber<std::uint32_t>(record + offsetof(m4DLRecord, dl_count));
    for (std::size_t i = link::dl_data; i < header.linkCount; ++i) {
      named.push_back(loadNumber<Link>(links + i * kLinkSize));
      if (i <= count) counted.push_back(named.back());
    }
  }
  const auto isIn = [](const std::vector<Link>& links) {
    return [&links](Link at) { return std::ranges::find(links, at) != links.end(); };
  };
  EXPECT_TRUE(std::ranges::all_of(counted, isIn(blocks)));
  std::erase_if(blocks, isIn(named));
  std::erase_if(blocks, [&](Link at) { return loadNumber<Link>(file.data() + at + 8) == 24 + 16; });
  return blocks.size();
}

// Opens files that note the most blocks without a name after any write.
FileOpener noting(std::size_t& most) {
  return [&](const std::string& /*path*/, OpenMode /*mode*/, std::string& /*error*/) {
    return std::make_unique<WatchedFile>(
        [&](const Bytes& file) { most = std::max(most, unnamedBlocks(file)); });
  };
}

using Insert = std::function<bool(MdfRecorder& recorder)>;  // of a record, into its own group

Insert signals(std::uint32_t group, std::uint32_t bytes) {
  return
      [=](MdfRecorder& recorder) { return recorder.insertData(group, bytes, Bytes(bytes).data()); };
}
Insert frames(std::uint8_t channel) {
  return
      [=](MdfRecorder& recorder) { return recorder.saveCanMessage(kStart, frameOf(1, channel)); };
}
Insert errors(bool direction, bool canFd) {
  MdfCanError error = errorOf(1);
  error.Dir(direction);
  if (canFd) error.Crc(1);
  return [=](MdfRecorder& recorder) { return recorder.saveCanError(kStart, error); };
}

// Starts a recording of three groups of signals.
void startSignals(MdfRecorder& recorder) {
  static_cast<void>(recorder.startRecord("log.mf4", kStart));
  for (const std::uint32_t bytes : {23U, 23U, 24U}) {
    recorder.addChannel(recorder.addDataGroup(""), unsignedChannel("n", bytes));
  }
}

TEST(RecorderKilled, ListsNameEveryBlockThatMightBeTakenForAnotherGroups) {
  const struct {
    const char* name;
    Insert first, second;
    bool alike;  // else lists are written now and then
  } rows[] = {
      {"signals of one size", signals(0, 23), signals(1, 23), true},
      {"signals as long as frames", signals(0, 23), frames(1), true},
      {"CAN FD errors, which state no direction", errors(false, true), errors(true, true), true},
      {"errors of two directions", errors(false, false), errors(true, false), false},
      {"frames of two channels", frames(1), frames(2), false},
      {"signals of two sizes", signals(0, 23), signals(2, 24), false},
  };
  for (const auto& [name, first, second, alike] : rows) {
    SCOPED_TRACE(name);
    const CapturedDiagnostics diagnostics;
    std::size_t most = 0;  // blocks without a name at one time
    MdfRecorder recorder(noting(most));
    startSignals(recorder);
    for (const std::size_t split : {0U, 1U}) {
      recorderSettings.splitSize = split;  // bytes: before the next record
      EXPECT_TRUE(first(recorder));
      recorderSettings.splitSize = 0;
      for (std::size_t i = 0; i < 4 * kBlock; ++i) EXPECT_TRUE(first(recorder));
      EXPECT_TRUE(second(recorder));
      most = 0;
      for (std::size_t i = 0; i < 12 * kBlock; ++i) {
        EXPECT_TRUE(i < 2 * kBlock || first(recorder));
        EXPECT_TRUE(second(recorder));
      }
      EXPECT_EQ(most == 0, alike) << "split " << split;
    }
    recorder.stopRecord(0);
    EXPECT_EQ(most == 0, alike);
  }
}

TEST(RecorderKilled, ALastBlockIsNamedBeforeItIsWritten) {
  const CapturedDiagnostics diagnostics;
  std::size_t most = 0;
  MdfRecorder recorder(noting(most));
  startSignals(recorder);
  for (std::size_t i = 0; i < kBlock + 1; ++i) EXPECT_TRUE(signals(0, 23)(recorder));
  most = 0;  // the list of the first block follows it at once
  recorder.stopRecord(0);
  EXPECT_EQ(most, 0U);
}

}  // namespace
}  // namespace tolvex::test
