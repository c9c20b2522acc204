// What can be told of one block alone: its codes and counts, against each other and against the
// room that the block has for what they count.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Mdf4/format/BlockRecords.h"

namespace tolvex {

struct FieldFault {
  bool error = true;       // false: odd, but read as it was meant
  std::size_t offset = 0;  // of the field in the block's record
  const char* field = "";  // e.g. "cn_data_type"
  std::string expected = {};
  std::string found = {};
};
using FieldFaults = std::vector<FieldFault>;

// What a block has room for: its links, and the bytes behind them, record included.
struct BlockRoom {
  std::uint64_t links = 0;
  std::uint64_t dataBytes = 0;
};

FieldFaults faultsOf(const m4CNRecord& channel, BlockRoom room);
FieldFaults faultsOf(const m4CCRecord& conversion, BlockRoom room);
FieldFaults faultsOf(const m4CARecord& array, BlockRoom room);
FieldFaults faultsOf(const m4CHRecord& hierarchy, BlockRoom room);
FieldFaults faultsOf(const m4EVRecord& event, BlockRoom room);
FieldFaults faultsOf(const m4ATRecord& attachment, BlockRoom room);
FieldFaults faultsOf(const m4DZRecord& compressed, BlockRoom room);

// Whether a reader can rely on the block: none of its faults is an error.
template <class Record>
bool isSound(const Record& record, BlockRoom room) {
  for (const FieldFault& fault : faultsOf(record, room)) {
    if (fault.error) return false;
  }
  return true;
}

// Virtual channels have no bits in the record.
constexpr bool isVirtual(const m4CNRecord& channel) {
  return channel.cn_type == channel_type::kVirtualMaster ||
         channel.cn_type == channel_type::kVirtualData;
}
// A channel group's record, and what follows from it for the group's records.
struct GroupLayout {
  m4CGRecord record = {};

  bool holdsValues() const { return (record.cg_flags & kCgFlagVlsd) != 0; }
  std::uint64_t recordSize() const {
    return std::uint64_t{record.cg_data_bytes} + record.cg_inval_bytes;
  }
  // Of a sample reduction: mean, minimum and maximum of each channel.
  std::uint64_t recordSize(const m4SRRecord& reduction) const {
    const bool marked = (reduction.sr_flags & kSrFlagInvalidation) != 0;
    return std::uint64_t{3} * record.cg_data_bytes + (marked ? record.cg_inval_bytes : 0);
  }
};

// Masters, virtual ones included.
constexpr bool isMaster(const m4CNRecord& channel) {
  return channel.cn_type == channel_type::kMaster ||
         channel.cn_type == channel_type::kVirtualMaster;
}
// A bit for each kind of master; of other channels 0.
constexpr std::uint32_t masterBit(const m4CNRecord& channel) {
  return isMaster(channel) ? std::uint32_t{1} << (channel.cn_sync_type & 31U) : 0;
}
// Of time, in the records or counted with them.
constexpr bool givesTime(const m4CNRecord& channel) {
  return isMaster(channel) && channel.cn_sync_type == kSyncTime;
}
// The time in the records.
constexpr bool isTimeMaster(const m4CNRecord& channel) {
  return channel.cn_type == channel_type::kMaster && channel.cn_sync_type == kSyncTime;
}

}  // namespace tolvex
