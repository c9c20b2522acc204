// Recording from several threads through a queue.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
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
#include <utility>
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
constexpr std::size_t kTimeGroups = 2;                   // at the beginning of each file

// In the records of frames.
constexpr std::size_t kChannelOffset = 8;
constexpr std::size_t kFrameDataOffset = 15;
constexpr std::size_t kErrorDataOffset = 18;

using Numbers = std::vector<std::uint32_t>;
using Texts = std::vector<std::string>;

// Where writers to a disk can be made to wait.
class Gate {
 public:
  explicit Gate(FailingDisk& disk) {
    disk.beforeWrite([this] { pass(); });
  }
  void waitForWriter() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return waiting_; });
  }

  // Nobody passes while it lives.
  class Closed {
   public:
    explicit Closed(Gate& gate) : gate_(gate) { gate_.close(true); }
    ~Closed() { gate_.close(false); }
    Closed(const Closed&) = delete;
    Closed& operator=(const Closed&) = delete;

   private:
    Gate& gate_;
  };

 private:
  void close(bool closed) {
    const std::lock_guard lock(mutex_);
    closed_ = closed;
    changed_.notify_all();
  }
  void pass() {
    std::unique_lock lock(mutex_);
    waiting_ = closed_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !closed_; });
    waiting_ = false;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool closed_ = false;
  bool waiting_ = false;  // a writer is
};

// A record of the groups that define makes.
struct Sample {
  double seconds;
  std::uint32_t producer;
  std::uint32_t number;
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
                          std::uint8_t channel = 1) {
    MdfCanMessage message;
    message.BusChannel(channel);
    message.DataBytes(packed(number));
    return recorder.saveCanMessage(kStart + number * 1000, message);
  }
  static bool saveError(MdfAsyncRecorder& recorder, std::uint32_t number, std::uint8_t channel) {
    MdfCanError error;
    error.BusChannel(channel);
    error.DataBytes(packed(number));
    return recorder.saveCanError(kStart + number * 1000, error);
  }

  // The records of the groups with that comment in the recording's files, in order.
  static std::vector<Bytes> recordsOf(const std::vector<RecordedFile>& files,
                                      const std::string& comment) {
    std::vector<Bytes> records;
    for (const RecordedFile& file : files) {
      for (const RecordedGroup& group : file.groups) {
        if (group.comment != comment) continue;
        for (Bytes& record : group.records()) records.push_back(std::move(record));
      }
    }
    return records;
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
  static std::uint32_t numberAt(const Bytes& record, std::size_t offset) {
    return loadNumber<std::uint32_t>(record.data() + offset);
  }
  // The numbers of the records of "group".
  static Numbers numbersOf(const std::vector<RecordedFile>& files) {
    Numbers numbers;
    for (const Bytes& record : recordsOf(files, "group")) {
      numbers.push_back(numberAt(record, offsetof(Sample, number)));
    }
    return numbers;
  }
  static Numbers numbersIn(const std::string& path) { return numbersOf(filesOf(path)); }
  // The lines of the library that contain the text.
  Texts linesWith(const std::string& text) const {
    Texts found;
    std::istringstream lines(diagnostics_.text());
    for (std::string line; std::getline(lines, line);) {
      if (line.find(text) != std::string::npos) found.push_back(line);
    }
    return found;
  }
  static Numbers below(std::uint32_t count) {
    Numbers numbers(count);
    std::iota(numbers.begin(), numbers.end(), 0U);
    return numbers;
  }

  CapturedDiagnostics diagnostics_;
  TempDir dir_;
  std::string path_ = dir_.path("log.mf4");
};

TEST_F(MdfAsyncRecorderTest, WritesWhatIsQueuedBeforeAFileIsComplete) {
  MdfAsyncRecorder recorder;
  insertAll(recorder, start(recorder, path_), 5000);
  recorder.stopRecord(0);
  EXPECT_EQ(numbersIn(path_), below(5000));
  EXPECT_EQ(recorder.pendingTasks(), 0U);
  EXPECT_EQ(linesWith("async"), Texts{"[info] async insert stoped, count: 5000, residue: 0"});
}

// Four producers of records, frames and errors, one of frames alone that does not care whether a
// recording is under way, and others that define groups, over several recordings.
TEST_F(MdfAsyncRecorderTest, WritesWhatItAcceptsOnceFromAnyNumberOfThreads) {
  constexpr std::uint32_t kProducers = 4;
  constexpr std::uint32_t kEach = 6000;
  constexpr std::uint32_t kMostFrames = 20000;
  struct Accepted {
    std::array<Numbers, kProducers + 1> records, frames, errors;
    Numbers extra;
  };
  setDiagnosticHandler(nullptr, nullptr);  // its lock would keep the threads in step
  recorderSettings.splitSize = 120'000;
  MdfAsyncRecorder recorder;
  Accepted accepted;
  std::atomic<bool> over = false;
  std::thread sender([&] {
    for (std::uint32_t number = 0; number < kMostFrames && !over; ++number) {
      if (saveMessage(recorder, number, kProducers)) accepted.frames[kProducers].push_back(number);
      std::this_thread::yield();
    }
  });
  Accepted read;
  for (std::uint32_t recording = 0; recording < 3; ++recording) {
    const std::string path = dir_.path("log" + std::to_string(recording) + ".mf4");
    const Group group = start(recorder, path);
    const auto produce = [&](std::uint32_t producer, const Group mine) {
      for (std::uint32_t i = 0; i < kEach; ++i) {
        const std::uint32_t number = recording * kEach + i;
        if (insert(recorder, mine, number, producer)) accepted.records[producer].push_back(number);
        if (i % 4 == 0 && saveMessage(recorder, number, static_cast<std::uint8_t>(producer))) {
          accepted.frames[producer].push_back(number);
        }
        if (i % 16 == 0 && saveError(recorder, number, static_cast<std::uint8_t>(producer))) {
          accepted.errors[producer].push_back(number);
        }
      }
    };
    const auto defineMore = [&] {
      for (std::uint32_t i = 0; i < 10; ++i) {
        const Group extra = define(recorder, "extra");
        const std::uint32_t number = recording * 10 + i;
        if (extra.record != nullptr && insert(recorder, extra, number)) {
          accepted.extra.push_back(number);
        }
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
    for (const Bytes& record : recordsOf(files, "group")) {
      read.records.at(numberAt(record, offsetof(Sample, producer)))
          .push_back(numberAt(record, offsetof(Sample, number)));
    }
    for (const Bytes& record : recordsOf(files, "CAN_DataFrame")) {
      read.frames.at(record[kChannelOffset]).push_back(numberAt(record, kFrameDataOffset));
    }
    for (const Bytes& record : recordsOf(files, "CAN_ErrorFrame")) {
      read.errors.at(record[kChannelOffset]).push_back(numberAt(record, kErrorDataOffset));
    }
    for (const Bytes& record : recordsOf(files, "extra")) {
      read.extra.push_back(numberAt(record, offsetof(Sample, number)));
    }
  }
  over = true;
  sender.join();
  std::ranges::sort(read.extra);  // a file has them group by group
  EXPECT_EQ(read.records, accepted.records);
  EXPECT_EQ(read.frames, accepted.frames);
  EXPECT_EQ(read.errors, accepted.errors);
  EXPECT_EQ(read.extra, accepted.extra);
}

TEST_F(MdfAsyncRecorderTest, DoesNotMakeCallersWaitForTheDisk) {
  FailingDisk disk;
  Gate gate(disk);
  MdfAsyncRecorder recorder(disk.opener());
  const Group group = start(recorder, path_);
  ASSERT_TRUE(saveMessage(recorder, 0));  // makes the group of the frames, which needs the disk
  {
    const Gate::Closed closed(gate);
    ASSERT_TRUE(insert(recorder, group, 0));
    gate.waitForWriter();
    for (std::uint32_t number = 1; number < 1500; ++number) {
      ASSERT_TRUE(insert(recorder, group, number));
      ASSERT_TRUE(saveMessage(recorder, number));
    }
    EXPECT_GE(recorder.pendingTasks(), 2998U);
  }
  recorder.stopRecord(0);
  EXPECT_EQ(numbersIn(path_), below(1500));
  EXPECT_EQ(recordsOf(filesOf(path_), "CAN_DataFrame").size(), 1500U);
}

TEST_F(MdfAsyncRecorderTest, DiscardsWhatComesWhenTheQueueIsFull) {
  recorderSettings.maxPendingTasks = 50;
  FailingDisk disk;
  Gate gate(disk);
  MdfAsyncRecorder recorder(disk.opener());
  const Group group = start(recorder, path_);
  ASSERT_TRUE(saveMessage(recorder, 0));
  waitForWorker(recorder);
  {
    const Gate::Closed closed(gate);
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
  EXPECT_EQ(recordsOf(filesOf(path_), "CAN_DataFrame").size(), 1U);
}

TEST_F(MdfAsyncRecorderTest, RefusesSilentlyWhatNoRecordingCanTake) {
  MdfAsyncRecorder recorder;
  const Group group = start(recorder, path_);
  const auto expectRefused = [&](MdfAsyncRecorder& idle) {
    const std::string lines = diagnostics_.text();
    EXPECT_FALSE(insert(idle, group, 0));
    EXPECT_FALSE(saveMessage(idle, 0));
    EXPECT_FALSE(saveError(idle, 0, 1));
    EXPECT_EQ(diagnostics_.text(), lines);
    EXPECT_EQ(idle.pendingTasks(), 0U);
  };
  MdfAsyncRecorder neverStarted;
  expectRefused(neverStarted);
  neverStarted.stopRecord(0);
  const std::string lines = diagnostics_.text();
  for (const int index : {-1, group.index + 1}) {
    EXPECT_FALSE(recorder.insertRecord(*group.record, index));
  }
  EXPECT_EQ(diagnostics_.text(), lines);
  recorder.stopRecord(0);
  expectRefused(recorder);
  EXPECT_EQ(recorder.startRecord(dir_.path("no such folder/log.mf4"), kStart), 1);
  expectRefused(recorder);
}

TEST_F(MdfAsyncRecorderTest, WritesErrorFramesAtOnce) {
  MdfAsyncRecorder recorder;
  start(recorder, path_);
  for (std::uint32_t number = 0; number < 600; ++number) {
    ASSERT_TRUE(saveError(recorder, number, static_cast<std::uint8_t>(number % 2)));
  }
  EXPECT_EQ(recorder.pendingTasks(), 0U);
  recorder.stopRecord(0);
  EXPECT_EQ(linesWith("async"), Texts());  // there was no worker
  const RecordedFile file(path_);
  ASSERT_EQ(file.groups.size(), kTimeGroups + 3);
  for (std::size_t channel = 0; channel < 2; ++channel) {
    const std::vector<Bytes> records = file.groups[kTimeGroups + 1 + channel].records();
    ASSERT_EQ(records.size(), 300U);
    for (std::size_t i = 0; i < records.size(); ++i) {
      EXPECT_EQ(records[i][kChannelOffset], channel);
      EXPECT_EQ(numberAt(records[i], kErrorDataOffset), 2 * i + channel);
    }
  }
}

TEST_F(MdfAsyncRecorderTest, StartingAnewCompletesTheFileBefore) {
  MdfAsyncRecorder recorder;
  insertAll(recorder, start(recorder, path_), 2000);
  const std::string second = dir_.path("second.mf4");
  insertAll(recorder, start(recorder, second), 700);
  recorder.stopRecord(0);
  EXPECT_EQ(numbersIn(path_), below(2000));
  EXPECT_EQ(numbersIn(second), below(700));
  const Bytes stopTime = RecordedFile(path_).groups[1].records().at(0);
  EXPECT_EQ(loadNumber<double>(stopTime.data() + sizeof(double)), kStart + 1'999'000.0);
}

TEST_F(MdfAsyncRecorderTest, GoesOnInOneFileWhenItsPathCannotBeNumbered) {
  recorderSettings.splitSize = 1;
  MdfAsyncRecorder recorder;
  const std::string path = dir_.path("log");
  insertAll(recorder, start(recorder, path), 2000);
  waitForWorker(recorder);  // at the end it would not split
  recorder.stopRecord(0);
  EXPECT_EQ(numbersOf({RecordedFile(path)}), below(2000));
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
  const Numbers read = numbersOf({RecordedFile(path_)});
  EXPECT_EQ(read, below(static_cast<std::uint32_t>(read.size())));
  EXPECT_EQ(read.size() + recorder.lostRecords(), accepted + 2);  // with the two that were refused
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
  Gate gate(disk);
  auto recorder = std::make_unique<MdfAsyncRecorder>(disk.opener());
  const Group group = start(*recorder, path_);
  std::thread destroyer;
  {
    const Gate::Closed closed(gate);
    insertAll(*recorder, group, 3000);
    destroyer = std::thread([&] { recorder.reset(); });
  }
  destroyer.join();
  // Nothing completes the file, so the last blocks may be in no list.
  const Numbers read = numbersIn(path_);
  EXPECT_GE(read.size(), 2560U);
  EXPECT_EQ(read, below(static_cast<std::uint32_t>(read.size())));
}

}  // namespace
}  // namespace tolvex::test
