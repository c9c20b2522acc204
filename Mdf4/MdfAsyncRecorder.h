// The recorder whose callers do not wait for the disk.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Mdf4/MdfRecorder.h"
#include "Mdf4/WorkerThread.h"
#include "Mdf4/base/Mutex.h"

namespace tolvex {

// Records on their way to their group.
struct MdfTask {
  std::int32_t groupIndex;
  std::uint32_t recordSize;  // bytes
  std::uint32_t count;       // of the records that follow

  std::uint64_t bytes() const { return std::uint64_t{recordSize} * count; }
};

// Tasks in order, each with its records behind it, in pieces of memory that are used again.
class MdfTasks {
 public:
  bool empty() const { return used_ == 0; }
  void clear();
  // Puts it at the end. Returns where its records belong.
  [[nodiscard]] std::uint8_t* push(const MdfTask& task);

  // Goes along the tasks: until next() is false, the current one and its records.
  class Cursor {
   public:
    explicit Cursor(const MdfTasks& tasks) : tasks_(tasks) {}
    [[nodiscard]] bool next();
    const MdfTask& task() const { return task_; }
    const std::uint8_t* records() const { return records_; }

   private:
    const MdfTasks& tasks_;
    std::size_t piece_ = 0;
    std::size_t at_ = 0;  // in the piece
    MdfTask task_ = {};
    const std::uint8_t* records_ = nullptr;
  };

 private:
  struct Piece {
    std::unique_ptr<std::uint8_t[]> bytes;
    std::size_t size = 0;
    std::size_t capacity = 0;
  };
  static constexpr std::size_t kPieceBytes = 256 * 1024;  // a task that is larger has one alone
  static constexpr std::size_t kMostKept = 16;            // pieces

  std::uint8_t* placeFor(std::size_t size);

  std::vector<Piece> pieces_;
  std::size_t used_ = 0;  // of the pieces
};

// Copies records and frames into a queue, from which a thread of its own writes them in the order
// in which they came. While maxPendingTasks are queued, new ones are discarded with a message;
// records and data frames that come many at a time are one task for up to 512 of them and 64 KiB.
// All data frames go into one group.
//
// Any number of threads may insert records and save frames, while others define groups, save errors
// (which are written at once) or ask for counts; one thread at a time starts, stops and destroys.
// A file that cannot be split continues, with one diagnostic. Diagnostics of the worker come from
// its thread; their handler must not call the recorder.
//
// In a child process (fork) a recording that the parent began has no worker: every call fails, and
// only destroying has an effect, which leaves the parent's file alone.
class MdfAsyncRecorder final : public MdfRecorder, private WorkerThread<MdfTasks> {
 public:
  explicit MdfAsyncRecorder(FileOpener open = openSystemFile);
  // Writes what is queued into the groups; only stopRecord completes the file.
  ~MdfAsyncRecorder() override;

  [[nodiscard]] int startRecord(const std::string& path, std::uint64_t startTime) override;
  void stopRecord(std::uint64_t stopTime) override;
  void setStartTime(std::uint64_t startTime) override;
  // True when the record is queued. False, silently, outside a recording and for a bad index.
  bool insertRecord(const RecordData& record, int groupIndex) override;
  bool saveCanMessage(std::uint64_t timestamp, const MdfCanMessage& message) override;
  void saveFrames(const FramesToSave& frames, SavedFrames& saved) override;
  bool saveCanError(std::uint64_t timestamp, const MdfCanError& error) override;
  bool saveCanError(std::uint64_t timestamp, const MdfCanMessage& message) override;
  [[nodiscard]] int addDataGroup(const std::string& name) override;
  int addChannel(int groupIndex, const ChannelInfo& channel) override;
  int setDataGroupComment(int groupIndex, const std::string& comment) override;
  int setAcquisitionName(int groupIndex, const std::string& name) override;
  bool insertData(std::uint32_t groupIndex, std::uint32_t size, const std::uint8_t* data) override;
  // Queues them. Whether the group has records of that size shows when they are written.
  [[nodiscard]] bool insertRecords(std::uint32_t groupIndex, std::uint64_t count,
                                   std::uint32_t size, const std::uint8_t* data,
                                   std::uint64_t& taken) override;
  [[nodiscard]] std::unique_ptr<RecordData> createRecordData(int groupIndex) override;
  int setParameter(int paramId, int dataSize, const void* data) override;
  void setMaxCanDataLength(int bytes) override;
  void setFlushInterval(std::chrono::milliseconds interval) override;
  void setOverwrite(bool overwrite) override;

  std::uint64_t pendingTasks() const override { return pending(); }
  std::uint64_t lostRecords() const override;
  std::string firstError() const override;
  std::uint64_t reservedSize() const override;

 private:
  // What callers who queue need to know of the recording.
  struct Queueing {
    bool accepting = false;
    bool ended = false;         // by a split that failed
    std::uint64_t refused = 0;  // records that came after that, or for which there was no memory
    bool outOfMemory = false;
    std::size_t groupCount = 0;
    std::vector<bool> hasRecords;  // by group: something was queued for it
    std::uint64_t startTime = 0;
    std::uint64_t latestTime = 0;     // of anything queued, microseconds since 1970
    int busGroup = -1;                // the one group of data frames
    std::uint32_t busRecordSize = 0;  // its, bytes
    std::uint32_t maxPayload = 0;     // of a frame, as it is set now
  };

  bool isParents() const { return recording_ && inherited(); }
  template <class Work>
  auto onFile(Work work) TOLVEX_EXCLUDES(fileMutex_);
  void finishQueue() TOLVEX_EXCLUDES(fileMutex_);
  std::uint64_t latestTime() override TOLVEX_REQUIRES(fileMutex_);
  void doWork() override;
  std::uint64_t writeAll(const MdfTasks& batch) TOLVEX_EXCLUDES(fileMutex_);
  bool write(const MdfTask& task, const std::uint8_t* records) TOLVEX_REQUIRES(fileMutex_);
  void split() TOLVEX_REQUIRES(fileMutex_);
  void publish() TOLVEX_REQUIRES(fileMutex_);
  bool accepts(std::int64_t groupIndex) const TOLVEX_REQUIRES(mutex_) {
    return queueing_.accepting && groupIndex >= 0 &&
           static_cast<std::uint64_t>(groupIndex) < queueing_.groupCount;
  }
  bool refuse(std::uint64_t records = 1) TOLVEX_REQUIRES(mutex_);
  [[nodiscard]] std::uint8_t* push(const MdfTask& task) TOLVEX_REQUIRES(mutex_);
  [[nodiscard]] bool prepareBusLog() TOLVEX_EXCLUDES(fileMutex_);
  bool queueFrames(const FramesToSave& frames, std::size_t count, SavedFrames& saved)
      TOLVEX_EXCLUDES(mutex_);
  bool saveErrorOf(const FramesToSave& frames, SavedFrames& saved) TOLVEX_EXCLUDES(fileMutex_);
  [[nodiscard]] Counted count(std::uint64_t timestamp) TOLVEX_REQUIRES(mutex_);
  void announce(const Counted& task, std::atomic<int>& counter, int records = 1)
      TOLVEX_EXCLUDES(mutex_);

  // Guards the recorder that this one derives from: groups and file. Taken before mutex_, never
  // inside it, and never by a caller who only queues.
  mutable Mutex fileMutex_ TOLVEX_THREAD_SAFETY(acquired_before(mutex_));
  bool splitFailed_ TOLVEX_GUARDED_BY(fileMutex_) = false;  // it is not tried again
  std::atomic<bool> recording_ = false;                     // from startRecord to stopRecord

  Queueing queueing_ TOLVEX_GUARDED_BY(mutex_);
};

}  // namespace tolvex
