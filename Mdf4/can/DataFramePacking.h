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

  // What stands in front of the payload, as it stands there.
  struct Fields {
    std::uint32_t id;
    std::uint8_t busChannel;
    std::uint8_t dlc;
    std::uint8_t flags;
  };
  // The same of a frame that is no object.
  static void pack(std::uint8_t* record, double seconds, const Fields& fields, ByteSpan payload,
                   std::size_t payloadSize) {
    std::memcpy(record, &seconds, sizeof seconds);
    packHeader(record, fields);
    storePayload(record + kHeaderOnlySize, payloadSize, payload, 0);
  }

  static void packHeader(std::uint8_t* record, const MdfCanMessage& message) {
    packHeader(record, {message.messageId_, message.busChannel_, message.dlc_, message.flags_});
  }
  static void packHeader(std::uint8_t* record, const Fields& fields) {
    constexpr const BusLogLayout& layout = kCanDataFrames;
    storeField<layout.place("BusChannel")>(record, fields.busChannel);
    storeField<layout.place("DLC")>(record, fields.dlc);
    storeField<layout.place("Flags")>(record, fields.flags);
    storeField<layout.place("ID")>(record, fields.id);
  }

  static void packPayload(std::uint8_t* record, const MdfCanMessage& message,
                          std::size_t payloadSize) {
    storePayload(record + kHeaderOnlySize, payloadSize, message.dataBytes_, message.fillByte_);
  }
};

}  // namespace tolvex
