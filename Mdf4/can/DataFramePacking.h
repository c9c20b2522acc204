// Packing data frames into their records.
#pragma once

#include <cstdint>
#include <cstring>

#include "Mdf4/model/BusLogLayout.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

// Writes every byte of a record of the group CAN_DataFrame. Inline, since a recorder does nothing
// else as often.
class DataFramePacking {
 public:
  // A record with room for `payloadSize` bytes of payload; payload that is longer is cut, one that
  // is shorter followed by the message's fill byte.
  static void pack(std::uint8_t* record, double seconds, const MdfCanMessage& message,
                   std::size_t payloadSize) {
    static_assert(BusLogLayout::kTimeBytes == sizeof seconds);
    std::memcpy(record, &seconds, sizeof seconds);
    packHeader(record, message);
    packPayload(record, message, payloadSize);
  }

  static void packHeader(std::uint8_t* record, const MdfCanMessage& message) {
    constexpr const BusLogLayout& layout = kCanDataFrames;
    storeField<layout.place("BusChannel")>(record, message.busChannel_);
    storeField<layout.place("DLC")>(record, message.dlc_);
    storeField<layout.place("Flags")>(record, message.flags_);
    storeField<layout.place("ID")>(record, message.messageId_);
  }

  static void packPayload(std::uint8_t* record, const MdfCanMessage& message,
                          std::size_t payloadSize) {
    storePayload(record + kHeaderOnlySize, payloadSize, message.dataBytes_, message.fillByte_);
  }
};

}  // namespace tolvex
