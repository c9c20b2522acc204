// The CAN frames of MdfRecorder: into which group they go, and how.
#include <algorithm>
#include <memory>
#include <utility>

#include "Mdf4/MdfRecorder.h"
#include "Mdf4/can/DataFramePacking.h"
#include "Mdf4/can/FramesToSave.h"
#include "Mdf4/model/BusLogLayout.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

// Adds a group of frames, to which `complete` may add before it is in the file: its index, or -1.
int MdfRecorder::addBusLogGroup(BusLogKind kind, const DataGroup::Define& complete) {
  const auto payload = static_cast<int>(maxCanDataLength_);
  return addGroup([&](DataGroup& group) {
    return (kind == kDataFrames    ? group.initCanBugLog(payload)
            : kind == kErrorFrames ? group.initCanErrorLog(payload)
                                   : group.initCanFdErrorLog(payload)) &&
           complete(group);
  });
}

// A frame whose group cannot be made is lost.
template <class Work>
void MdfRecorder::forFrame(Work makeGroup) {
  if (!inMemory(makeGroup) && (file_ != nullptr || brokenOff_)) countLost();
}

int MdfRecorder::createBusLogConfiguration() {
  if (busLogIndex_ >= 0) return busLogIndex_;
  forFrame([&] {
    busLogIndex_ = addBusLogGroup(kDataFrames, [](DataGroup& /*group*/) { return true; });
    return busLogIndex_ >= 0;
  });
  return busLogIndex_;
}

MdfRecorder::BusLog* MdfRecorder::busLog(BusLogKind kind, std::uint8_t busChannel, bool direction) {
  std::unique_ptr<BusLog>& entry = busLogs_[kind][busLogKey(busChannel, direction)];
  if (entry == nullptr) addBusLog(kind, busLogKey(busChannel, direction), entry);
  return entry.get();
}

void MdfRecorder::addBusLog(BusLogKind kind, std::size_t key, std::unique_ptr<BusLog>& entry) {
  forFrame([&] {
    std::unique_ptr<BusLog> log;
    const int index = addBusLogGroup(kind, [&](DataGroup& group) {
      const bool statesDirection = kind != kFdErrorFrames;
      group.setSource(static_cast<int>(statesDirection ? key : key & ~std::size_t{1}));
      log = std::make_unique<BusLog>(
          BusLog{&group, RecordData(group.layout()), static_cast<int>(groups_.size())});
      return true;
    });
    if (index >= 0) entry = std::move(log);
    return index >= 0;
  });
}

// `pack` fills the record of the group. Records of a group that was made for another payload size
// do not take it.
template <class Pack>
bool MdfRecorder::appendFrame(BusLog* log, std::uint64_t timestamp, Pack pack) {
  if (log == nullptr) return false;
  if (log->group == nullptr) {
    countLost();
    return false;
  }
  RecordData& record = log->record;
  if (!record.setTime(secondsSince(startTime_, timestamp))) return false;
  if (!pack(record)) return false;
  lastTimestamp_ = std::max(lastTimestamp_, timestamp);
  return log->group->insert(record.size(), record.data());
}

template <class Pack>
bool MdfRecorder::saveFrame(BusLog* log, std::uint64_t timestamp, Pack pack) {
  if (!appendFrame(log, timestamp, std::move(pack))) return false;
  checkSplit();
  return true;
}

// Packs the frame where it belongs when that needs no write, as for all but one frame of a block.
bool MdfRecorder::saveCanMessage(std::uint64_t timestamp, const MdfCanMessage& message) {
  BusLog* const log = busLogs_[kDataFrames][busLogKey(message.BusChannel(), message.Dir())].get();
  DataGroup* const target = log != nullptr ? log->group : nullptr;
  const std::uint32_t size = kCanDataFrames.recordSize(maxCanDataLength_);
  std::uint8_t* const place = target != nullptr ? target->placeFor(size) : nullptr;
  if (place == nullptr) return saveFirstOrLastOfBlock(timestamp, message);
  DataFramePacking::pack(place, secondsSince(startTime_, timestamp), message, maxCanDataLength_);
  lastTimestamp_ = std::max(lastTimestamp_, timestamp);
  target->insertInPlace();
  checkSplit();
  return true;
}

bool MdfRecorder::saveFirstOrLastOfBlock(std::uint64_t timestamp, const MdfCanMessage& message) {
  return saveFrame(busLog(kDataFrames, message.BusChannel(), message.Dir()), timestamp,
                   [&](RecordData& record) {
                     return message.ToRaw(MessageType::DataFrame, record, maxCanDataLength_, false);
                   });
}

void MdfRecorder::saveFrames(const FramesToSave& frames, SavedFrames& saved) {
  if (file_ == nullptr && !brokenOff_) {
    saved.failure = SavedFrames::kNotRecording;
    return;
  }
  saved.refusal = frames.fault({startTime_, maxCanDataLength_});
  if (!saved.refusal.empty()) return;
  for (std::size_t i = 0; i < frames.count();) {
    if (const std::size_t run = appendRun(frames, i); run != 0) {
      i += run;
      saved.count += run;
      continue;
    }
    if (!frames.isError(i) && !takesData(frames, i)) {
      saved.failure = SavedFrames::kOtherPayload;
      return;
    }
    if (!(frames.isError(i) ? appendError(frames, i) : appendData(frames, i))) {
      countLost(frames.count() - i - 1);  // this one is counted
      saved.failure = firstError();
      return;
    }
    ++i;
    ++saved.count;
    checkSplit();
  }
}

// Appends frames from that one on, as far as they go into the same group, need no write and are
// followed by no split. Returns how many.
std::size_t MdfRecorder::appendRun(const FramesToSave& frames, std::size_t first) {
  const std::uint8_t bus = frames.bus(first);
  const bool direction = frames.isTransmitted(first);
  const BusLog* const log = busLogs_[kDataFrames][busLogKey(bus, direction)].get();
  DataGroup* const target = log != nullptr ? log->group : nullptr;
  if (target == nullptr || splitIsDue()) return 0;
  const std::uint32_t size = kCanDataFrames.recordSize(maxCanDataLength_);
  std::uint64_t latest = lastTimestamp_;
  std::size_t i = first;
  for (; i < frames.count(); ++i) {
    if (frames.isError(i) || frames.bus(i) != bus || frames.isTransmitted(i) != direction) break;
    std::uint8_t* const place = target->placeFor(size);
    if (place == nullptr) break;
    frames.pack(place, frames.secondsSince(startTime_, i), i, maxCanDataLength_);
    latest = std::max(latest, frames.timestampUs(i));
    target->insertInPlace();
  }
  lastTimestamp_ = latest;
  return i - first;
}

// Whether the group that the frame goes into, if it exists, has records of the size that is set.
bool MdfRecorder::takesData(const FramesToSave& frames, std::size_t index) const {
  const std::size_t key = busLogKey(frames.bus(index), frames.isTransmitted(index));
  const BusLog* const log = busLogs_[kDataFrames][key].get();
  return log == nullptr || log->record.size() == kCanDataFrames.recordSize(maxCanDataLength_);
}

// As saveFirstOrLastOfBlock, without a split.
bool MdfRecorder::appendData(const FramesToSave& frames, std::size_t index) {
  BusLog* const log = busLog(kDataFrames, frames.bus(index), frames.isTransmitted(index));
  return appendFrame(log, frames.timestampUs(index), [&](RecordData& record) {
    frames.pack(record.data(), frames.secondsSince(startTime_, index), index, maxCanDataLength_);
    return true;
  });
}

bool MdfRecorder::appendError(const FramesToSave& frames, std::size_t index) {
  BusLog* const log = busLog(frames.isFdError(index) ? kFdErrorFrames : kErrorFrames,
                             frames.bus(index), frames.isTransmitted(index));
  return appendFrame(log, frames.timestampUs(index), [&](RecordData& record) {
    return frames.packError(record, frames.secondsSince(startTime_, index), index);
  });
}

bool MdfRecorder::saveCanError(std::uint64_t timestamp, const MdfCanError& error) {
  const bool canFd = error.IsCanFdError();
  const BusLogKind kind = canFd ? kFdErrorFrames : kErrorFrames;
  return saveFrame(
      busLog(kind, error.BusChannel(), error.Dir()), timestamp,
      [&](RecordData& record) { return error.ToRaw(record, maxCanDataLength_, canFd); });
}

bool MdfRecorder::saveCanError(std::uint64_t timestamp, const MdfCanMessage& message) {
  const MessageType type = message.Edl() ? MessageType::FdErrorFrame : MessageType::ErrorFrame;
  const BusLogKind kind = message.Edl() ? kFdErrorFrames : kErrorFrames;
  return saveFrame(
      busLog(kind, message.BusChannel(), message.Dir()), timestamp,
      [&](RecordData& record) { return message.ToRaw(type, record, maxCanDataLength_, false); });
}

}  // namespace tolvex
