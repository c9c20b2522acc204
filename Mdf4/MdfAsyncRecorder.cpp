#include "Mdf4/MdfAsyncRecorder.h"

#include <algorithm>
#include <exception>
#include <new>
#include <type_traits>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/can/DataFramePacking.h"
#include "Mdf4/can/FramesToSave.h"
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

// Of how many records of that size a task may be.
std::uint32_t mostOfATask(std::uint32_t size) {
  constexpr std::uint32_t kMostBytes = 64 * 1024;  // unless a single one has more
  return std::clamp(kMostBytes / size, 1U, DataGroup::kRecordsPerBlock);
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

void MdfTasks::clear() {
  std::erase_if(pieces_, [](const Piece& piece) { return piece.capacity != kPieceBytes; });
  if (pieces_.size() > kMostKept) pieces_.resize(kMostKept);
  for (Piece& piece : pieces_) piece.size = 0;
  used_ = 0;
}

std::uint8_t* MdfTasks::push(const MdfTask& task) {
  std::uint8_t* const place = placeFor(inMemory(sizeof task + task.bytes()));
  std::memcpy(place, &task, sizeof task);
  return place + sizeof task;
}

std::uint8_t* MdfTasks::placeFor(std::size_t size) {
  if (used_ == 0 || pieces_[used_ - 1].capacity - pieces_[used_ - 1].size < size) {
    if (used_ == pieces_.size()) pieces_.emplace_back();
    Piece& next = pieces_[used_];
    const std::size_t capacity = std::max(size, kPieceBytes);
    if (next.capacity < capacity) {
      next = {};
      next.bytes.reset(new std::uint8_t[capacity]);
      next.capacity = capacity;
    }
    ++used_;
  }
  Piece& piece = pieces_[used_ - 1];
  piece.size += size;
  return piece.bytes.get() + (piece.size - size);
}

bool MdfTasks::Cursor::next() {
  if (piece_ < tasks_.used_ && at_ == tasks_.pieces_[piece_].size) {
    ++piece_;
    at_ = 0;
  }
  if (piece_ == tasks_.used_) return false;
  const std::uint8_t* const place = tasks_.pieces_[piece_].bytes.get() + at_;
  std::memcpy(&task_, place, sizeof task_);
  records_ = place + sizeof task_;
  at_ += inMemory(sizeof task_ + task_.bytes());
  return true;
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
  if (!accepts(groupIndex)) return refuse();
  if (const std::uint64_t waiting = pending(); isFull(waiting)) {
    lock.unlock();
    return discard("insertRecord", waiting);
  }
  std::uint8_t* const place = push({groupIndex, record.size(), 1});
  if (place == nullptr) return false;
  std::memcpy(place, record.data(), record.size());
  const Counted task = count(timestampOf(record, queueing_.startTime));
  lock.unlock();
  announce(task, insertedRecords);
  return true;
}

bool MdfAsyncRecorder::insertRecords(std::uint32_t groupIndex, std::uint64_t count,
                                     std::uint32_t size, const std::uint8_t* data,
                                     std::uint64_t& taken) {
  if (isParents() || size == 0) return false;
  const std::uint64_t most = mostOfATask(size);
  do {
    const std::uint64_t rest = count - taken;
    const auto records = static_cast<std::uint32_t>(std::min(rest, most));
    MutexLock lock(mutex_);
    if (!accepts(groupIndex)) return refuse(rest) || taken != 0;
    if (records == 0) break;
    if (const std::uint64_t waiting = pending(); isFull(waiting)) {
      lock.unlock();
      discard("insertRecords", waiting);
      break;
    }
    const MdfTask task = {static_cast<std::int32_t>(groupIndex), size, records};
    std::uint8_t* const place = push(task);
    if (place == nullptr) {
      queueing_.refused += rest - records;  // the others are counted
      break;
    }
    std::memcpy(place, data + taken * size, tolvex::inMemory(task.bytes()));
    taken += records;
    const Counted counted = this->count(0);
    lock.unlock();
    announce(counted, insertedRecords, static_cast<int>(records));
  } while (taken < count);
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
  std::uint8_t* const record = push({queueing_.busGroup, queueing_.busRecordSize, 1});
  if (record == nullptr) return false;
  DataFramePacking::pack(record, secondsSince(queueing_.startTime, timestamp), message,
                         queueing_.maxPayload);
  const Counted task = count(timestamp);
  lock.unlock();
  announce(task, savedMessages);
  return true;
}

void MdfAsyncRecorder::saveFrames(const FramesToSave& frames, SavedFrames& saved) {
  if (isParents()) {
    saved.failure = "the recording belongs to the parent process";
    return;
  }
  MutexLock lock(mutex_);
  if (!queueing_.accepting) {
    refuse(frames.count());
    saved.failure = SavedFrames::kNotRecording;
    return;
  }
  const FramesToSave::Limits limits = {queueing_.startTime, queueing_.maxPayload};
  lock.unlock();
  saved.refusal = frames.fault(limits);
  if (!saved.refusal.empty()) return;
  const auto isData = [&](std::size_t i) { return i < frames.count() && !frames.isError(i); };
  bool isDone = true;
  while (isDone && saved.count < frames.count()) {
    const auto first = static_cast<std::size_t>(saved.count);
    if (!isData(first)) {
      isDone = saveErrorOf(frames, saved);
      continue;
    }
    const std::uint32_t most = mostOfATask(kCanDataFrames.recordSize(limits.maxPayload));
    std::size_t count = 1;
    while (count < most && isData(first + count)) ++count;
    isDone = queueFrames(frames, count, saved);
  }
}

// The next frames as one task. False when they are not accepted.
bool MdfAsyncRecorder::queueFrames(const FramesToSave& frames, std::size_t count,
                                   SavedFrames& saved) {
  const auto first = static_cast<std::size_t>(saved.count);
  const std::uint64_t rest = frames.count() - first;
  const auto fail = [&](const char* why) {
    saved.failure = why;
    return false;
  };
  MutexLock lock(mutex_);
  if (queueing_.accepting && queueing_.busGroup < 0) {
    lock.unlock();
    const bool isPrepared = prepareBusLog();
    lock.lock();
    if (!isPrepared) {
      queueing_.refused += rest - 1;  // one is counted
      return fail("the group of the frames could not be made");
    }
  }
  if (!queueing_.accepting || queueing_.busGroup < 0) {
    refuse(rest);
    return fail(SavedFrames::kNotRecording);
  }
  const std::uint32_t size = queueing_.busRecordSize;
  if (size != kCanDataFrames.recordSize(queueing_.maxPayload))
    return fail(SavedFrames::kOtherPayload);
  if (const std::uint64_t waiting = pending(); isFull(waiting)) {
    lock.unlock();
    discard("saveFrames", waiting);
    return fail("the queue is full");
  }
  std::uint8_t* record = push({queueing_.busGroup, size, static_cast<std::uint32_t>(count)});
  if (record == nullptr) {
    queueing_.refused += rest - count;  // the others are counted
    return fail("no memory for the queue");
  }
  std::uint64_t latest = 0;
  for (std::size_t i = first; i < first + count; ++i, record += size) {
    frames.pack(record, frames.secondsSince(queueing_.startTime, i), i, queueing_.maxPayload);
    latest = std::max(latest, frames.timestampUs(i));
  }
  saved.count += count;
  const Counted counted = this->count(latest);
  lock.unlock();
  announce(counted, savedMessages, static_cast<int>(count));
  return true;
}

// The next frame, which is an error, past the queue.
bool MdfAsyncRecorder::saveErrorOf(const FramesToSave& frames, SavedFrames& saved) {
  return onFile([&] {
    fileMutex_.assumeHeld();
    if (!appendError(frames, static_cast<std::size_t>(saved.count))) {
      if (isRecording()) countLost(frames.count() - saved.count - 1);
      saved.failure = MdfRecorder::firstError();
      return false;
    }
    ++saved.count;
    checkSplit();
    return true;
  });
}

// What comes after a split that failed is lost.
bool MdfAsyncRecorder::refuse(std::uint64_t records) {
  if (queueing_.ended) queueing_.refused += records;
  return false;
}

// Puts the task at the end of the queue. Returns where its records belong, or null when there is no
// memory for them and they are lost.
std::uint8_t* MdfAsyncRecorder::push(const MdfTask& task) {
  const auto index = static_cast<std::size_t>(task.groupIndex);
  try {
    if (index >= queueing_.hasRecords.size()) queueing_.hasRecords.resize(index + 1);
    std::uint8_t* const place = queued_.push(task);
    queueing_.hasRecords[index] = true;
    return place;
  } catch (const std::bad_alloc&) {
    queueing_.refused += task.count;
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

void MdfAsyncRecorder::announce(const Counted& task, std::atomic<int>& counter, int records) {
  WorkerThread::announce(task);
  const int count = counter.fetch_add(records, std::memory_order_relaxed) + records;
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

// Returns the number of records that had a group.
std::uint64_t MdfAsyncRecorder::writeAll(const MdfTasks& batch) {
  constexpr std::uint64_t kRecordsPerLock = 64;  // or a task; between them, others get at the file
  std::uint64_t written = 0;
  std::uint64_t tasks = 0;  // since the lock was taken, likewise the records
  std::uint64_t records = 0;
  MutexLock lock(fileMutex_);
  for (MdfTasks::Cursor at(batch); at.next();) {
    written += write(at.task(), at.records()) ? at.task().count : 0;
    ++tasks;
    records += at.task().count;
    if (records < kRecordsPerLock) continue;
    done(std::exchange(tasks, 0));
    records = 0;
    lock.unlock();
    lock.lock();
  }
  done(tasks);
  return written;
}

// False when the task has no group.
bool MdfAsyncRecorder::write(const MdfTask& task, const std::uint8_t* records) {
  const std::uint32_t size = task.recordSize;
  std::uint64_t rest = task.count;
  DataGroup* target = group(task.groupIndex);
  const bool known = target != nullptr;
  while (rest != 0 && target != nullptr && size == target->recordSize()) {
    // The group counts what it loses.
    const std::uint64_t run = std::max(insertRun(*target, rest, size, records), std::uint64_t{1});
    rest -= run;
    records += run * size;
    if (!stopping()) split();
    target = group(task.groupIndex);
  }
  countLost(rest);  // of another group, made before the group had all its channels, or without one
  return known;
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
