#include "Mdf4/MdfAsyncRecorder.h"

#include <algorithm>
#include <exception>
#include <new>
#include <type_traits>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/can/DataFramePacking.h"
#include "Mdf4/model/BusLogLayout.h"
#include "tolvex/Mdf4.h"

namespace tolvex {
namespace {

// Of the process, over all its recordings.
std::atomic<int> insertedRecords = 0;
std::atomic<int> savedMessages = 0;

bool isFull(std::uint64_t pending) {
  return pending >= recorderSettings.maxPendingTasks.load(std::memory_order_relaxed);
}

bool discard(const char* operation, std::uint64_t pending) {
  printDiagnostic("[fatal] %s, %d: MdfAsyncRecorder %s discarded: pending tasks %lld >= max %u\n",
                  __FILE__, __LINE__, operation, static_cast<long long>(pending),
                  recorderSettings.maxPendingTasks.load());
  return false;
}

// What a call gives in a child process.
template <class Result>
Result refusal() {
  if constexpr (std::is_same_v<Result, int>) {
    return -1;
  } else {
    return Result();
  }
}

}  // namespace

std::uint8_t* MdfTasks::push(int groupIndex, std::uint32_t size) {
  const MdfTask task = {groupIndex, size};
  const std::size_t at = bytes_.size();
  bytes_.resize(at + sizeof task + size);
  std::memcpy(bytes_.data() + at, &task, sizeof task);
  return bytes_.data() + at + sizeof task;
}

MdfAsyncRecorder::MdfAsyncRecorder(FileOpener open) : MdfRecorder(std::move(open)) {}

MdfAsyncRecorder::~MdfAsyncRecorder() {
  if (isParents()) {
    abandon();
  } else {
    stop();
  }
}

// ---------------------------------------------------------------------------------------------
// Groups and file

// Runs what touches groups or file, and lets those who queue see the outcome.
template <class Work>
auto MdfAsyncRecorder::onFile(Work work) {
  if (isParents()) return refusal<decltype(work())>();
  const MutexLock lock(fileMutex_);
  struct Publishing {
    MdfAsyncRecorder& recorder;
    ~Publishing() {
      recorder.fileMutex_.assumeHeld();
      recorder.publish();
    }
  };
  const Publishing publishing{*this};
  return work();
}

void MdfAsyncRecorder::publish() {
  const MutexLock lock(mutex_);
  queueing_.groupCount = groupCount();
  queueing_.startTime = startTime();
  queueing_.maxPayload = maxCanDataLength();
  if (!isRecording() && queueing_.accepting) {  // the next file could not be made
    queueing_.accepting = false;
    queueing_.ended = true;
  }
}

int MdfAsyncRecorder::startRecord(const std::string& path, std::uint64_t startTime) {
  printDiagnostic("[info] startRecord\n");
  if (isParents()) return 1;
  if (onFile([&] { return isRecording(); })) {
    stopRecord(onFile([&] {
      fileMutex_.assumeHeld();
      return latestTime();
    }));
  } else {
    finishQueue();  // a split that failed leaves a worker and what it has not written
  }
  return onFile([&] {
    fileMutex_.assumeHeld();
    if (MdfRecorder::startRecord(path, startTime) != 0) return 1;
    splitFailed_ = false;
    allow();
    recording_ = true;
    const MutexLock lock(mutex_);
    queueing_ = {};
    queueing_.accepting = true;
    return 0;
  });
}

void MdfAsyncRecorder::stopRecord(std::uint64_t stopTime) {
  if (isParents()) return;
  finishQueue();
  onFile([&] { MdfRecorder::stopRecord(stopTime); });
  recording_ = false;
  printDiagnostic("[info] stopRecord\n");
}

// Takes no more tasks, writes those that wait and ends the worker.
void MdfAsyncRecorder::finishQueue() {
  {
    const MutexLock lock(mutex_);
    queueing_.accepting = false;
    queueing_.ended = false;
  }
  stop();
  MdfTasks rest;  // of a recording for which the system had no thread
  if (take(rest)) writeAll(rest);
}

int MdfAsyncRecorder::setParameter(int paramId, int dataSize, const void* data) {
  return onFile([&] { return MdfRecorder::setParameter(paramId, dataSize, data); });
}

void MdfAsyncRecorder::setStartTime(std::uint64_t startTime) {
  onFile([&] { MdfRecorder::setStartTime(startTime); });
}

int MdfAsyncRecorder::addDataGroup(const std::string& name) {
  return onFile([&] { return MdfRecorder::addDataGroup(name); });
}

int MdfAsyncRecorder::addChannel(int groupIndex, const ChannelInfo& channel) {
  return onFile([&] {
    DataGroup* const target = group(groupIndex);
    if (target != nullptr) {
      const MutexLock lock(mutex_);
      const auto index = static_cast<std::size_t>(groupIndex);
      const std::vector<bool>& hasRecords = queueing_.hasRecords;
      if (index < hasRecords.size() && hasRecords[index]) target->fixLayout();
    }
    return MdfRecorder::addChannel(groupIndex, channel);
  });
}

int MdfAsyncRecorder::setDataGroupComment(int groupIndex, const std::string& comment) {
  return onFile([&] { return MdfRecorder::setDataGroupComment(groupIndex, comment); });
}

int MdfAsyncRecorder::setAcquisitionName(int groupIndex, const std::string& name) {
  return onFile([&] { return MdfRecorder::setAcquisitionName(groupIndex, name); });
}

std::unique_ptr<RecordData> MdfAsyncRecorder::createRecordData(int groupIndex) {
  return onFile([&] { return MdfRecorder::createRecordData(groupIndex); });
}

void MdfAsyncRecorder::setMaxCanDataLength(int bytes) {
  onFile([&] { MdfRecorder::setMaxCanDataLength(bytes); });
}

void MdfAsyncRecorder::setFlushInterval(std::chrono::milliseconds interval) {
  onFile([&] { MdfRecorder::setFlushInterval(interval); });
}

void MdfAsyncRecorder::setOverwrite(bool overwrite) {
  onFile([&] { MdfRecorder::setOverwrite(overwrite); });
}

std::uint64_t MdfAsyncRecorder::reservedSize() const {
  if (isParents()) return 0;
  const MutexLock lock(fileMutex_);
  return MdfRecorder::reservedSize();
}

std::uint64_t MdfAsyncRecorder::lostRecords() const {
  if (isParents()) return 0;
  const MutexLock fileLock(fileMutex_);
  const MutexLock lock(mutex_);
  return MdfRecorder::lostRecords() + queueing_.refused;
}

std::string MdfAsyncRecorder::firstError() const {
  if (isParents()) return "the recording belongs to the parent process";
  const MutexLock fileLock(fileMutex_);
  std::string error = MdfRecorder::firstError();
  const MutexLock lock(mutex_);
  return error.empty() && queueing_.outOfMemory ? "no memory for the queue" : error;
}

std::uint64_t MdfAsyncRecorder::latestTime() {
  const MutexLock lock(mutex_);
  return std::max(MdfRecorder::latestTime(), queueing_.latestTime);
}

// ---------------------------------------------------------------------------------------------
// Past the queue

bool MdfAsyncRecorder::saveCanError(std::uint64_t timestamp, const MdfCanError& error) {
  return onFile([&] { return MdfRecorder::saveCanError(timestamp, error); });
}

bool MdfAsyncRecorder::saveCanError(std::uint64_t timestamp, const MdfCanMessage& message) {
  return onFile([&] { return MdfRecorder::saveCanError(timestamp, message); });
}

bool MdfAsyncRecorder::insertData(std::uint32_t groupIndex, std::uint32_t size,
                                  const std::uint8_t* data) {
  return onFile([&] { return MdfRecorder::insertData(groupIndex, size, data); });
}

// ---------------------------------------------------------------------------------------------
// Into the queue

bool MdfAsyncRecorder::insertRecord(const RecordData& record, int groupIndex) {
  if (isParents()) return false;
  MutexLock lock(mutex_);
  if (!queueing_.accepting || groupIndex < 0 ||
      static_cast<std::size_t>(groupIndex) >= queueing_.groupCount) {
    return refuse();
  }
  if (const std::uint64_t waiting = pending(); isFull(waiting)) {
    lock.unlock();
    return discard("insertRecord", waiting);
  }
  std::uint8_t* const place = push(groupIndex, record.size());
  if (place == nullptr) return false;
  std::memcpy(place, record.data(), record.size());
  const Counted task = count(timestampOf(record, queueing_.startTime));
  lock.unlock();
  announce(task, insertedRecords);
  return true;
}

bool MdfAsyncRecorder::saveCanMessage(std::uint64_t timestamp, const MdfCanMessage& message) {
  if (isParents()) return false;
  MutexLock lock(mutex_);
  if (queueing_.accepting && queueing_.busGroup < 0) {
    lock.unlock();
    if (!prepareBusLog()) return false;
    lock.lock();
  }
  if (!queueing_.accepting || queueing_.busGroup < 0) return refuse();
  // The group may have been made for another payload size.
  if (queueing_.busRecordSize != kCanDataFrames.recordSize(queueing_.maxPayload)) return false;
  if (const std::uint64_t waiting = pending(); isFull(waiting)) {
    lock.unlock();
    return discard("saveCanMessage", waiting);
  }
  std::uint8_t* const record = push(queueing_.busGroup, queueing_.busRecordSize);
  if (record == nullptr) return false;
  DataFramePacking::pack(record, secondsSince(queueing_.startTime, timestamp), message,
                         queueing_.maxPayload);
  const Counted task = count(timestamp);
  lock.unlock();
  announce(task, savedMessages);
  return true;
}

// What comes after a split that failed is lost.
bool MdfAsyncRecorder::refuse() {
  if (queueing_.ended) ++queueing_.refused;
  return false;
}

// A task at the end of the queue. Returns where its record belongs, or null when
// there is no memory for it and it is lost.
std::uint8_t* MdfAsyncRecorder::push(int groupIndex, std::uint32_t size) {
  const auto index = static_cast<std::size_t>(groupIndex);
  try {
    if (index >= queueing_.hasRecords.size()) queueing_.hasRecords.resize(index + 1);
    std::uint8_t* const place = queued_.push(groupIndex, size);
    queueing_.hasRecords[index] = true;
    return place;
  } catch (const std::bad_alloc&) {
    ++queueing_.refused;
    queueing_.outOfMemory = true;
    return nullptr;
  }
}

// Makes the group of all data frames.
bool MdfAsyncRecorder::prepareBusLog() {
  return onFile([&] {
    const int index = createBusLogConfiguration();
    const DataGroup* const bus = group(index);
    if (bus == nullptr) return false;  // a split may have failed to make it again
    const MutexLock lock(mutex_);
    queueing_.busGroup = index;
    queueing_.busRecordSize = static_cast<std::uint32_t>(bus->recordSize());
    return true;
  });
}

// Counts the task just pushed.
MdfAsyncRecorder::Counted MdfAsyncRecorder::count(std::uint64_t timestamp) {
  queueing_.latestTime = std::max(queueing_.latestTime, timestamp);
  return WorkerThread::count();
}

void MdfAsyncRecorder::announce(const Counted& task, std::atomic<int>& counter) {
  WorkerThread::announce(task);
  const int count = counter.fetch_add(1, std::memory_order_relaxed) + 1;
  printDiagnostic("[info] count: %d, residue: %lld\n", count, static_cast<long long>(task.pending));
}

// ---------------------------------------------------------------------------------------------
// Out of the queue

void MdfAsyncRecorder::doWork() {
  std::uint64_t written = 0;
  MdfTasks batch;
  while (take(batch)) written += writeAll(batch);
  printDiagnostic("[info] async insert stoped, count: %d, residue: %lld\n",
                  static_cast<int>(written), static_cast<long long>(pending()));
}

// Returns the number of tasks that had a group.
std::uint64_t MdfAsyncRecorder::writeAll(const MdfTasks& batch) {
  constexpr std::uint64_t kTasksPerLock = 64;  // between them, others get at the file
  std::uint64_t written = 0;
  std::uint64_t sinceLock = 0;
  MutexLock lock(fileMutex_);
  for (MdfTasks::Cursor task(batch); task.next();) {
    written += write(task.groupIndex(), task.record()) ? 1 : 0;
    if (++sinceLock < kTasksPerLock) continue;
    done(std::exchange(sinceLock, 0));
    lock.unlock();
    lock.lock();
  }
  done(sinceLock);
  return written;
}

// False when the task has no group.
bool MdfAsyncRecorder::write(int groupIndex, ByteSpan record) {
  DataGroup* const target = group(groupIndex);
  if (target == nullptr) {
    countLost();
    return false;
  }
  if (record.size() != target->recordSize()) {
    countLost();  // of another group, or made before the group had all its channels
  } else {
    // The group counts what it loses.
    static_cast<void>(target->insert(static_cast<std::uint32_t>(record.size()), record.data()));
  }
  if (!stopping()) split();
  return true;
}

// Starts the next file when it is time.
void MdfAsyncRecorder::split() {
  if (splitFailed_) return;
  try {
    checkSplit();
  } catch (const std::exception& error) {
    splitFailed_ = true;
    printDiagnostic("[fatal] %s, %d: splitFile failed!, %s\n", __FILE__, __LINE__, error.what());
  }
  if (!isRecording()) publish();
}

}  // namespace tolvex
