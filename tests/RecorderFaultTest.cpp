// What is left of a recording when writes fail: on disks that break, run full, or fail once.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/MdfRecorder.h"
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
enum Source : std::size_t { kCounter, kWide, kFrames1, kFrames2, kErrors, kSources };
using Contents = std::array<std::vector<unsigned>, kSources>;  // numbers

double secondsOf(unsigned number) {
  return number / 1000.0;
}

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

// What the files of a recording hold, in the order in which it is stored; each record is held
// against what belongs to its number.
struct Readback {
  explicit Readback(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
      readSignals(path);
      readFrames(path);
      if (std::filesystem::exists(path)) fileBytes += std::filesystem::file_size(path);
    }
    for (const auto& numbers : contents) records += numbers.size();
  }

  Contents contents;
  std::uint64_t records = 0;
  std::uint64_t fileBytes = 0;
  std::vector<std::string> damage;  // that the files themselves show

 private:
  void readSignals(const std::string& path) {
    MdfSigReader reader(path);
    if (!reader.open()) return;
    for (const int dg : reader.getDataGroupSigsIndex()) {
      const std::string name = reader.getCGName(dg, 0);
      const auto count = static_cast<int>(reader.getStoredRecordCount(dg, 0));
      if (reader.getRecordCount(dg, 0) != count) damage.push_back("count of " + name);
      if (count == 0 || (name != "counter" && name != "wide")) continue;
      Bytes bytes;
      int size = 0;
      ASSERT_TRUE(reader.readSignalDataBlock(dg, 0, count, bytes, size)) << name;
      for (std::size_t at = 0; at < bytes.size(); at += static_cast<std::size_t>(size)) {
        const std::uint8_t* const record = bytes.data() + at;
        if (name == "counter") {
          contents[kCounter].push_back(loadNumber<std::uint16_t>(record));
          continue;
        }
        const auto number = loadNumber<std::uint32_t>(record + sizeof(double));
        contents[kWide].push_back(number);
        EXPECT_EQ(loadNumber<double>(record), secondsOf(number));
      }
    }
    for (const std::string& problem : reader.getProblems()) damage.push_back(problem);
  }

  void readFrames(const std::string& path) {
    MdfReader reader(path);
    if (!reader.open()) return;
    for (unsigned i = 0; i < kSteps; ++i) {
      const MdfFrame next = reader.getNext();
      const auto number = static_cast<unsigned>(
          (MdfReader::getSignedTimestampNsFromVariant(next) + 500'000) / 1'000'000);
      if (const auto* const error = std::get_if<std::shared_ptr<MdfCanError>>(&next)) {
        contents[kErrors].push_back(number);
        EXPECT_EQ((*error)->MessageId(), number);
        continue;
      }
      const auto& frame = std::get<std::shared_ptr<MdfCanMessage>>(next);
      if (frame == nullptr) return;
      ASSERT_LT(frame->BusChannel(), 2);  // readers count from 0, recorders from 1
      contents[kFrames1 + frame->BusChannel()].push_back(number);
      EXPECT_EQ(frame->MessageId(), number % 0x800);
      EXPECT_EQ(frame->DataBytes(), frameOf(number, 1).DataBytes());
    }
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
    define(counter_, "counter", {unsignedChannel("n", 2)});
    define(wide_, "wide", {timeChannel(), unsignedChannel("n", 4)});
  }

  // The records with the numbers from `first` on, before `last`.
  void record(unsigned first, unsigned last) {
    for (unsigned number = first; number < last; ++number) {
      const std::uint64_t time = kStart + std::uint64_t{number} * 1000;
      insert(kCounter, counter_, number);
      if (number % 5 == 0) insert(kWide, wide_, number);
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
  struct Group {
    int index = -1;
    std::unique_ptr<RecordData> record;  // null: it could not be defined
  };

  void define(Group& group, const char* name, const std::vector<ChannelInfo>& channels) {
    group.index = recorder_.addDataGroup(name);
    bool complete = group.index >= 0;
    for (const ChannelInfo& channel : channels) {
      complete = complete && recorder_.addChannel(group.index, channel) == 0;
    }
    expectTold(complete);
    if (complete) group.record = recorder_.createRecordData(group.index);
  }

  void insert(Source source, const Group& group, unsigned number) {
    if (group.record == nullptr) return;
    group.record->setTime(secondsOf(number));
    group.record->setData("n", source == kCounter ? 2 : 4, packed(number).data());
    note(source, number, [&] { return recorder_.insertRecord(*group.record, group.index); });
  }

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
  Group counter_;
  Group wide_;
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

}  // namespace
}  // namespace tolvex::test
