// Recordings that are flushed to the disk, by a thread for which nobody waits.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Mdf4/MdfAsyncRecorder.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tests/support/MemoryFile.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::test {
namespace {

constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds
constexpr std::chrono::milliseconds kOften(1);
constexpr std::chrono::hours kNever(1);

// Files in memory that count what is flushed of them.
struct FlushedDisk {
  struct Counts {
    std::atomic<std::uint64_t> writes = 0;
    std::atomic<std::uint64_t> flushed = 0;  // writes that a flush followed
    std::atomic<std::uint64_t> flushes = 0;
    std::atomic<bool> closed = false;
  };
  class File final : public SystemFile {
   public:
    File(FlushedDisk& disk, Counts& counts) : disk_(disk), counts_(counts) {}

    bool size(std::uint64_t& bytes) override { return memory_.size(bytes); }
    ReadResult read(std::uint64_t position, std::span<const WritableBytes> pieces) override {
      return memory_.read(position, pieces);
    }
    bool write(std::uint64_t position, std::span<const ByteSpan> pieces) override {
      EXPECT_FALSE(counts_.closed);
      ++counts_.writes;
      return memory_.write(position, pieces);
    }
    std::string flush() override {
      const std::uint64_t before = counts_.writes;
      ++counts_.flushes;
      const std::lock_guard passing(disk_.door);
      counts_.flushed = before;
      return disk_.breaks ? "the disk is gone" : "";
    }
    bool close() override {
      EXPECT_FALSE(counts_.closed.exchange(true));
      return true;
    }
    std::string error() const override { return ""; }

   private:
    FlushedDisk& disk_;
    Counts& counts_;
    MemoryFile memory_;
  };

  FileOpener opener() {
    return [this](const std::string& /*path*/, OpenMode /*mode*/, std::string& /*error*/) {
      files.push_back(std::make_unique<Counts>());
      return std::make_unique<File>(*this, *files.back());
    };
  }
  std::mutex door;  // that flushes pass
  bool breaks = false;
  std::vector<std::unique_ptr<Counts>> files;
};

class FlushedRecording : public testing::TestWithParam<bool> {
 protected:
  FlushedRecording() {
    if (GetParam()) {
      recorder_ = std::make_unique<MdfAsyncRecorder>(disk_.opener());
    } else {
      recorder_ = std::make_unique<MdfRecorder>(disk_.opener());
    }
  }
  void TearDown() override { recorderSettings.splitSize = 0; }

  void start(std::chrono::milliseconds interval) {
    recorder_->setFlushInterval(interval);
    ASSERT_EQ(recorder_->startRecord("log.mf4", kStart), 0);
    ASSERT_EQ(recorder_->addDataGroup("group"), 0);
    ASSERT_EQ(recorder_->addChannel(0, timeChannel()), 0);
  }
  // Whole blocks of records, which are in the file when it returns.
  void record(int blocks) {
    const auto record = recorder_->createRecordData(0);
    for (int i = 0; i < blocks * 512; ++i) ASSERT_TRUE(recorder_->insertRecord(*record, 0));
    while (recorder_->pendingTasks() != 0) std::this_thread::yield();
  }
  static void waitUntilFlushed(const FlushedDisk::Counts& file) {
    while (file.flushed != file.writes) std::this_thread::yield();
  }

  const CapturedDiagnostics diagnostics_;
  FlushedDisk disk_;
  std::unique_ptr<MdfRecorder> recorder_;
};

TEST_P(FlushedRecording, FlushesTimeAndAgainWhatWasWritten) {
  start(kOften);
  for (int i = 0; i < 20; ++i) {
    record(1);
    waitUntilFlushed(*disk_.files[0]);
  }
  EXPECT_GE(disk_.files[0]->flushes, 20U);
  EXPECT_LE(disk_.files[0]->flushes, disk_.files[0]->writes);  // none without a write
  recorder_->stopRecord(0);
}

TEST_P(FlushedRecording, FlushesEachFileToItsEnd) {
  start(kNever);
  for (const std::uint64_t splitSize : {0U, 1U, 0U}) {
    recorderSettings.splitSize = splitSize;
    record(1);
  }
  ASSERT_GT(disk_.files.size(), 1U);
  recorder_->stopRecord(0);
  for (const auto& file : disk_.files) {
    EXPECT_TRUE(file->closed);
    EXPECT_EQ(file->flushed, file->writes);
  }
  const std::size_t files = disk_.files.size();
  start(std::chrono::milliseconds(0));
  record(2);
  recorder_->stopRecord(0);
  EXPECT_EQ(disk_.files[files]->flushes, 0U);
}

TEST_P(FlushedRecording, NobodyWaitsForAFlush) {
  std::unique_lock closed(disk_.door);
  start(kOften);
  record(3);
  while (disk_.files[0]->flushes == 0) std::this_thread::yield();
  record(3);
  recorderSettings.splitSize = 1;
  record(1);
  recorderSettings.splitSize = 0;
  EXPECT_GE(recorder_->addDataGroup("another"), 0);
  EXPECT_EQ(recorder_->firstError(), "");
  EXPECT_EQ(disk_.files[0]->flushed, 0U);
  closed.unlock();
  recorder_->stopRecord(0);
  EXPECT_EQ(recorder_->lostRecords(), 0U);
}

TEST_P(FlushedRecording, ReportsAFlushThatFailsAsAFailedWrite) {
  for (const std::chrono::milliseconds interval : {kOften, std::chrono::milliseconds(kNever)}) {
    disk_.breaks = true;
    start(interval);
    record(1);
    if (interval == kOften) {
      while (recorder_->firstError().empty()) std::this_thread::yield();
    }
    recorder_->stopRecord(0);
    EXPECT_EQ(recorder_->firstError(), "log.mf4: flushing to the disk failed: the disk is gone");
    disk_.breaks = false;
    start(interval);
    recorder_->stopRecord(0);
    EXPECT_EQ(recorder_->firstError(), "");
  }
}

TEST_P(FlushedRecording, EndsWithARecorderThatIsNotStopped) {
  start(kNever);
  record(1);
  recorder_ = nullptr;
  EXPECT_TRUE(disk_.files[0]->closed);
  EXPECT_EQ(disk_.files[0]->flushed, disk_.files[0]->writes);
}

INSTANTIATE_TEST_SUITE_P(Recorder, FlushedRecording, testing::Bool(), [](const auto& kind) {
  return kind.param ? "Asynchronous" : "Synchronous";
});

TEST(FlushedFile, AFileOfTheSystemIsFlushed) {
  const TempDir dir;
  void* const recorder = createRecorder(true);
  EXPECT_EQ(setFlushInterval(recorder, 1), 0);
  const CapturedDiagnostics diagnostics;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(startRecord(recorder, dir.path("log.mf4").c_str(), kStart), 0);
    stopRecord(recorder, kStart);
    char error[100];
    EXPECT_EQ(getRecorderError(recorder, error, sizeof error), 0) << error;
  }
  deleteRecorder(recorder);
}

}  // namespace
}  // namespace tolvex::test
