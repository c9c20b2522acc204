// Recording from several threads through a queue.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Mdf4/MdfAsyncRecorder.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FailingFile.h"
#include "tests/support/FileBuilder.h"
#include "tests/support/RecordedFile.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::test {
namespace {

constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds

using Numbers = std::vector<std::uint32_t>;
using Texts = std::vector<std::string>;

// Where records go, by their group's comment. Each states its producer behind the time, and its
// number further on.
struct Kind {
  const char* comment;
  std::size_t numberOffset;
};
constexpr std::size_t kProducerOffset = 8;
constexpr std::array kKinds = {Kind{"group", 12}, Kind{"CAN_DataFrame", 15},
                               Kind{"CAN_ErrorFrame", 18}, Kind{"extra", 12}};
enum : std::size_t { kRecords, kFrames, kErrors, kExtra };

// A record of the groups that define makes.
struct Sample {
  double seconds;
  std::uint32_t producer;
  std::uint32_t number;
};

// In front of the writes to a disk.
class Door {
 public:
  explicit Door(FailingDisk& disk) {
    disk.beforeWrite([this] {
      knocked_ = true;
      const std::lock_guard passing(mutex_);
    });
  }
  [[nodiscard]] std::unique_lock<std::mutex> close() {
    std::unique_lock closed(mutex_);
    knocked_ = false;
    return closed;
  }
  void waitForWriter() const {
    while (!knocked_) std::this_thread::yield();
  }

 private:
  std::mutex mutex_;
  std::atomic<bool> knocked_ = false;
};

class MdfAsyncRecorderTest : public testing::Test {
 protected:
  struct Group {
    int index = -1;
    std::unique_ptr<RecordData> record;
  };

  void TearDown() override {
    recorderSettings.splitSize = 0;
    recorderSettings.maxPendingTasks = 10000;
  }

  static Group define(MdfAsyncRecorder& recorder, const std::string& name) {
    Group group{recorder.addDataGroup(name), nullptr};
    recorder.addChannel(group.index, timeChannel());
    for (const char* const field : {"producer", "number"}) {
      ChannelInfo channel;
      channel.name = field;
      channel.byteCount = 4;
      recorder.addChannel(group.index, channel);
    }
    group.record = recorder.createRecordData(group.index);
    return group;
  }
  static Group start(MdfAsyncRecorder& recorder, const std::string& path) {
    EXPECT_EQ(recorder.startRecord(path, kStart), 0);
    return define(recorder, "group");
  }

  static bool insert(MdfAsyncRecorder& recorder, const Group& group, std::uint32_t number,
                     std::uint32_t producer = 0) {
    const Sample sample = {number / 1000.0, producer, number};
    std::memcpy(group.record->data(), &sample, sizeof sample);
    return recorder.insertRecord(*group.record, group.index);
  }
  static bool insertSamples(MdfAsyncRecorder& recorder, int group, std::uint64_t count) {
    const Bytes samples(count * sizeof(Sample));
    std::uint64_t taken = 0;
    return recorder.insertRecords(static_cast<std::uint32_t>(group), count, sizeof(Sample),
                                  samples.data(), taken);
  }
  // The numbers below `count`, all of which must be accepted.
  static void insertAll(MdfAsyncRecorder& recorder, const Group& group, std::uint32_t count) {
    for (std::uint32_t number = 0; number < count; ++number) {
      ASSERT_TRUE(insert(recorder, group, number));
    }
  }
  static void waitForWorker(const MdfAsyncRecorder& recorder) {
    while (recorder.pendingTasks() != 0) std::this_thread::yield();
  }
  static bool saveMessage(MdfAsyncRecorder& recorder, std::uint32_t number,
                          std::uint32_t channel = 1) {
    MdfCanMessage message;
    message.BusChannel(static_cast<std::uint8_t>(channel));
    message.DataBytes(packed(number));
    return recorder.saveCanMessage(kStart + number * 1000, message);
  }
  static bool saveError(MdfAsyncRecorder& recorder, std::uint32_t number, std::uint32_t channel) {
    MdfCanError error;
    error.BusChannel(static_cast<std::uint8_t>(channel));
    error.DataBytes(packed(number));
    return recorder.saveCanError(kStart + number * 1000, error);
  }

  static std::string splitPath(const std::string& path, std::size_t number) {
    const std::string extension = ".mf4";
    return path.substr(0, path.size() - extension.size()) + "_" + std::to_string(number) +
           extension;
  }
  // The file and those that it was split into.
  static std::vector<RecordedFile> filesOf(const std::string& path) {
    std::vector<RecordedFile> files;
    files.emplace_back(path);
    while (std::filesystem::exists(splitPath(path, files.size()))) {
      files.emplace_back(splitPath(path, files.size()));
    }
    return files;
  }
  // The numbers of that kind in the files, in order, by producer.
  using ByProducer = std::array<Numbers, 5>;
  static ByProducer read(const std::vector<RecordedFile>& files, const Kind& kind) {
    ByProducer numbers;
    for (const RecordedFile& file : files) {
      for (const RecordedGroup& group : file.groups) {
        if (group.comment != kind.comment) continue;
        for (const Bytes& record : group.records()) {
          numbers.at(record[kProducerOffset])
              .push_back(loadNumber<std::uint32_t>(record.data() + kind.numberOffset));
        }
      }
    }
    return numbers;
  }
  static Numbers numbersIn(const std::string& path) {
    return read(filesOf(path), kKinds[kRecords])[0];
  }
  static Numbers below(std::uint32_t count) {
    Numbers numbers(count);
    std::iota(numbers.begin(), numbers.end(), 0U);
    return numbers;
  }
  // The lines of the library that contain the text.
  Texts linesWith(const std::string& text) const {
    Texts found;
    std::istringstream lines(diagnostics_.text());
    for (std::string line; std::getline(lines, line);) {
      if (line.find(text) != std::string::npos) found.push_back(line);
    }
    return found;
  }

  CapturedDiagnostics diagnostics_;
  TempDir dir_;
  std::string path_ = dir_.path("log.mf4");
};

// Four producers of records, frames and errors, one of frames alone that does not care whether a
// recording is under way, and others that define groups, over several recordings.
TEST_F(MdfAsyncRecorderTest, WritesWhatItAcceptsOnceFromAnyNumberOfThreads) {
  constexpr std::uint32_t kProducers = 4;
  constexpr std::uint32_t kEach = 6000;
  constexpr std::uint32_t kMostFrames = 20000;
  setDiagnosticHandler(nullptr, nullptr);  // its lock would keep the threads in step
  recorderSettings.splitSize = 120'000;
  MdfAsyncRecorder recorder;
  std::array<ByProducer, kKinds.size()> accepted;
  std::array<ByProducer, kKinds.size()> found;
  const auto note = [&](std::size_t kind, std::uint32_t producer, std::uint32_t number,
                        bool taken) {
    if (taken) accepted[kind][producer].push_back(number);
  };
  std::atomic<bool> over = false;
  std::thread sender([&] {
    for (std::uint32_t number = 0; number < kMostFrames && !over; ++number) {
      note(kFrames, kProducers, number, saveMessage(recorder, number, kProducers));
      std::this_thread::yield();
    }
  });
  for (std::uint32_t recording = 0; recording < 3; ++recording) {
    const std::string path = dir_.path("log" + std::to_string(recording) + ".mf4");
    const Group group = start(recorder, path);
    const auto produce = [&](std::uint32_t producer, const Group mine) {
      for (std::uint32_t i = 0; i < kEach; ++i) {
        const std::uint32_t number = recording * kEach + i;
        note(kRecords, producer, number, insert(recorder, mine, number, producer));
        if (i % 4 == 0) note(kFrames, producer, number, saveMessage(recorder, number, producer));
        if (i % 16 == 0) note(kErrors, producer, number, saveError(recorder, number, producer));
      }
    };
    const auto defineMore = [&] {
      for (std::uint32_t number = recording * 10; number < recording * 10 + 10; ++number) {
        const Group extra = define(recorder, "extra");
        note(kExtra, 0, number, extra.record != nullptr && insert(recorder, extra, number));
      }
    };
    std::vector<std::thread> threads;
    for (std::uint32_t producer = 0; producer < kProducers; ++producer) {
      threads.emplace_back(produce, producer,
                           Group{group.index, recorder.createRecordData(group.index)});
    }
    threads.emplace_back(defineMore);
    while (!std::filesystem::exists(splitPath(path, 1))) std::this_thread::yield();
    recorder.stopRecord(0);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(recorder.lostRecords(), 0U);
    const std::vector<RecordedFile> files = filesOf(path);
    for (std::size_t kind = 0; kind < kKinds.size(); ++kind) {
      const ByProducer more = read(files, kKinds[kind]);
      for (std::size_t producer = 0; producer < more.size(); ++producer) {
        Numbers& all = found[kind][producer];
        all.insert(all.end(), more[producer].begin(), more[producer].end());
      }
    }
  }
  over = true;
  sender.join();
  std::ranges::sort(found[kExtra][0]);  // a file has them group by group
  EXPECT_EQ(found, accepted);
}

TEST_F(MdfAsyncRecorderTest, DoesNotMakeCallersWaitForTheDisk) {
  FailingDisk disk;
  Door door(disk);
  MdfAsyncRecorder recorder(disk.opener());
  const Group group = start(recorder, path_);
  ASSERT_TRUE(saveMessage(recorder, 0));  // makes the group of the frames, which needs the disk
  {
    const auto closed = door.close();
    ASSERT_TRUE(insert(recorder, group, 0));
    door.waitForWriter();
    for (std::uint32_t number = 1; number < 1500; ++number) {
      ASSERT_TRUE(insert(recorder, group, number));
      ASSERT_TRUE(saveMessage(recorder, number));
    }
    EXPECT_GE(recorder.pendingTasks(), 2998U);
  }
  recorder.stopRecord(0);
  EXPECT_EQ(numbersIn(path_), below(1500));
  EXPECT_EQ(read(filesOf(path_), kKinds[kFrames])[1], below(1500));
}

TEST_F(MdfAsyncRecorderTest, DiscardsWhatComesWhenTheQueueIsFull) {
  recorderSettings.maxPendingTasks = 50;
  FailingDisk disk;
  Door door(disk);
  MdfAsyncRecorder recorder(disk.opener());
  const Group group = start(recorder, path_);
  ASSERT_TRUE(saveMessage(recorder, 0));
  waitForWorker(recorder);
  {
    const auto closed = door.close();
    insertAll(recorder, group, 50);
    EXPECT_FALSE(insert(recorder, group, 50));
    EXPECT_FALSE(saveMessage(recorder, 1));
  }
  const Texts discarded = linesWith("discarded");
  ASSERT_EQ(discarded.size(), 2U);
  EXPECT_TRUE(discarded[0].starts_with("[fatal] Mdf4/MdfAsyncRecorder.cpp, "));
  EXPECT_TRUE(discarded[0].ends_with(
      ": MdfAsyncRecorder insertRecord discarded: pending tasks 50 >= max 50"));
  EXPECT_TRUE(discarded[1].ends_with(
      ": MdfAsyncRecorder saveCanMessage discarded: pending tasks 50 >= max 50"));
  waitForWorker(recorder);
  EXPECT_TRUE(insert(recorder, group, 50));
  recorder.stopRecord(0);
  EXPECT_EQ(numbersIn(path_), below(51));
  EXPECT_EQ(read(filesOf(path_), kKinds[kFrames])[1], below(1));
}

TEST_F(MdfAsyncRecorderTest, ManyRecordsAtOnceAreTasksOfABlockEach) {
  recorderSettings.maxPendingTasks = 6;
  FailingDisk disk;
  Door door(disk);
  MdfAsyncRecorder recorder(disk.opener());
  const Group group = start(recorder, path_);
  std::vector<Sample> samples;
  for (const std::uint32_t number : below(3000)) samples.push_back({0, 0, number});
  const auto insertFrom = [&](std::uint64_t first, std::uint32_t size = sizeof(Sample)) {
    std::uint64_t taken = 0;
    EXPECT_TRUE(recorder.insertRecords(static_cast<std::uint32_t>(group.index), 3000 - first, size,
                                       reinterpret_cast<const std::uint8_t*>(&samples[first]),
                                       taken));
    return taken;
  };
  {
    const auto closed = door.close();
    EXPECT_TRUE(insert(recorder, group, 0));
    EXPECT_EQ(insertFrom(2900), 100U);
    EXPECT_TRUE(insert(recorder, group, 1));
    EXPECT_EQ(insertFrom(0), 3 * 512U);
    EXPECT_EQ(recorder.pendingTasks(), 6U);
    EXPECT_EQ(linesWith("insertRecords discarded: pending tasks 6 >= max 6").size(), 1U);
    EXPECT_EQ(insertFrom(0), 0U);
  }
  waitForWorker(recorder);
  EXPECT_EQ(insertFrom(1536), 3000U - 1536);
  EXPECT_EQ(insertFrom(2000, sizeof(Sample) / 2), 1000U) << "found when they are written";
  recorder.stopRecord(0);
  EXPECT_EQ(recorder.lostRecords(), 1000U);
  Numbers expected = {0};
  for (std::uint32_t number = 2900; number < 3000; ++number) expected.push_back(number);
  expected.push_back(1);
  for (const std::uint32_t number : below(3000)) expected.push_back(number);
  EXPECT_EQ(numbersIn(path_), expected);
}

TEST_F(MdfAsyncRecorderTest, RefusesSilentlyWhatNoRecordingCanTake) {
  MdfAsyncRecorder recorder;
  const Group group = start(recorder, path_);
  const auto expectRefused = [&](MdfAsyncRecorder& idle) {
    const std::string lines = diagnostics_.text();
    EXPECT_FALSE(insert(idle, group, 0));
    EXPECT_FALSE(saveMessage(idle, 0));
    EXPECT_FALSE(saveError(idle, 0, 1));
    EXPECT_FALSE(insertSamples(idle, 0, 2));
    EXPECT_EQ(diagnostics_.text(), lines);
    EXPECT_EQ(idle.pendingTasks(), 0U);
  };
  MdfAsyncRecorder neverStarted;
  expectRefused(neverStarted);
  neverStarted.stopRecord(0);
  for (const int index : {-1, group.index + 1}) {
    EXPECT_FALSE(recorder.insertRecord(*group.record, index));
    EXPECT_FALSE(insertSamples(recorder, index, 2));
  }
  recorder.stopRecord(0);
  expectRefused(recorder);
  EXPECT_EQ(recorder.startRecord(dir_.path("no such folder/log.mf4"), kStart), 1);
  expectRefused(recorder);
}

// Written or not: a channel more, and the records that wait would not fit.
TEST_F(MdfAsyncRecorderTest, AGroupTakesNoChannelOnceARecordIsQueued) {
  MdfAsyncRecorder recorder;
  ASSERT_EQ(recorder.startRecord(path_, kStart), 0);
  for (std::uint32_t i = 0; i < 20; ++i) {
    const Group group = define(recorder, "group");
    EXPECT_TRUE(insert(recorder, group, i));
    EXPECT_EQ(recorder.addChannel(group.index, float64Channel("more")), -1);
  }
  recorder.stopRecord(0);
  EXPECT_EQ(recorder.lostRecords(), 0U);
  EXPECT_EQ(numbersIn(path_), below(20));
}

TEST_F(MdfAsyncRecorderTest, WritesErrorFramesAtOnce) {
  MdfAsyncRecorder recorder;
  start(recorder, path_);
  for (std::uint32_t number = 0; number < 600; ++number) {
    ASSERT_TRUE(saveError(recorder, number, 1));
  }
  EXPECT_EQ(recorder.pendingTasks(), 0U);
  recorder.stopRecord(0);
  EXPECT_EQ(linesWith("async"), Texts());  // there was no worker
  EXPECT_EQ(read(filesOf(path_), kKinds[kErrors])[1], below(600));
}

TEST_F(MdfAsyncRecorderTest, WritesWhatIsQueuedBeforeAFileIsComplete) {
  MdfAsyncRecorder recorder;
  insertAll(recorder, start(recorder, path_), 5000);
  const std::string second = dir_.path("second.mf4");
  insertAll(recorder, start(recorder, second), 700);  // completes the file before
  recorder.stopRecord(0);
  EXPECT_EQ(numbersIn(path_), below(5000));
  EXPECT_EQ(numbersIn(second), below(700));
  EXPECT_EQ(recorder.pendingTasks(), 0U);
  EXPECT_EQ(linesWith("async"), (Texts{"[info] async insert stoped, count: 5000, residue: 0",
                                       "[info] async insert stoped, count: 700, residue: 0"}));
  const Bytes stopTime = RecordedFile(path_).groups[1].records().at(0);
  EXPECT_EQ(loadNumber<double>(stopTime.data() + sizeof(double)), kStart + 4'999'000.0);
}

TEST_F(MdfAsyncRecorderTest, GoesOnInOneFileWhenItsPathCannotBeNumbered) {
  recorderSettings.splitSize = 1;
  MdfAsyncRecorder recorder;
  const std::string path = dir_.path("log");
  insertAll(recorder, start(recorder, path), 2000);
  waitForWorker(recorder);  // at the end it would not split
  recorder.stopRecord(0);
  EXPECT_EQ(read({RecordedFile(path)}, kKinds[kRecords])[0], below(2000));
  const Texts fatal = linesWith("[fatal]");
  ASSERT_EQ(fatal.size(), 1U);
  EXPECT_NE(fatal[0].find("splitFile failed!"), std::string::npos) << fatal[0];
}

TEST_F(MdfAsyncRecorderTest, EndsWhenTheNextFileCannotBeCreated) {
  recorderSettings.splitSize = 1;
  recorderSettings.maxPendingTasks = 1'000'000'000;
  const std::string next = dir_.path("log_1.mf4");
  std::filesystem::create_directory(next);
  MdfAsyncRecorder recorder;
  const auto insertUntilRefused = [&] {
    const Group group = start(recorder, path_);
    std::uint32_t accepted = 0;
    while (insert(recorder, group, accepted)) ++accepted;
    return accepted;
  };
  const std::uint32_t accepted = insertUntilRefused();
  EXPECT_FALSE(saveMessage(recorder, 0));
  EXPECT_EQ(recorder.addDataGroup("more"), -1);
  waitForWorker(recorder);
  const Numbers kept = read({RecordedFile(path_)}, kKinds[kRecords])[0];
  EXPECT_EQ(kept, below(static_cast<std::uint32_t>(kept.size())));
  EXPECT_FALSE(insertSamples(recorder, 0, 3));
  EXPECT_EQ(kept.size() + recorder.lostRecords(), accepted + 5);  // with the five that were refused
  EXPECT_TRUE(recorder.firstError().starts_with(next + ": ")) << recorder.firstError();
  EXPECT_EQ(linesWith("[fatal]").size(), 2U);  // of the split and of addDataGroup
  EXPECT_EQ(linesWith("splitFile failed!, path: " + next).size(), 1U);
  recorder.stopRecord(0);

  // What is still queued then does not get into the recording that follows.
  insertUntilRefused();
  recorderSettings.splitSize = 0;
  const std::string after = dir_.path("after.mf4");
  insertAll(recorder, start(recorder, after), 10);
  recorder.stopRecord(0);
  EXPECT_EQ(numbersIn(after), below(10));
  EXPECT_EQ(recorder.firstError(), "");
  EXPECT_EQ(recorder.lostRecords(), 0U);
}

TEST_F(MdfAsyncRecorderTest, WritesTheQueueWhenItIsDestroyed) {
  FailingDisk disk;
  Door door(disk);
  auto recorder = std::make_unique<MdfAsyncRecorder>(disk.opener());
  const Group group = start(*recorder, path_);
  std::thread destroyer;
  {
    const auto closed = door.close();
    insertAll(*recorder, group, 3000);
    destroyer = std::thread([&] { recorder.reset(); });
  }
  destroyer.join();
  // Nothing completes the file, so the last blocks may be in no list.
  const Numbers kept = numbersIn(path_);
  EXPECT_GE(kept.size(), 2560U);
  EXPECT_EQ(kept, below(static_cast<std::uint32_t>(kept.size())));
}

}  // namespace
}  // namespace tolvex::test
