// The CAN frames of MdfRecorder: into which group they go, and how.
#include <algorithm>
#include <memory>
#include <utility>

#include "Mdf4/MdfRecorder.h"
#include "Mdf4/can/DataFramePacking.h"
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
bool MdfRecorder::saveFrame(BusLog* log, std::uint64_t timestamp, Pack pack) {
  if (log == nullptr) return false;
  if (log->group == nullptr) {
    countLost();
    return false;
  }
  RecordData& record = log->record;
  if (!record.setTime(secondsSince(startTime_, timestamp))) return false;
  if (!pack(record)) return false;
  lastTimestamp_ = std::max(lastTimestamp_, timestamp);
  if (!log->group->insert(record.size(), record.data())) return false;
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
