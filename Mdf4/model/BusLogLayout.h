// How CAN frames lie in the records of a bus log: the names that fields are known by, the record
// layouts that tolvex writes, and how it writes fields into them.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Mdf4/base/Bytes.h"

namespace tolvex {

class m4Block;

// ---------------------------------------------------------------------------------------------
// Data length codes

// Payload bytes of each data length code; beyond 8 they are those of CAN FD.
inline constexpr std::array<std::uint8_t, 16> kDlcLengths = {0, 1,  2,  3,  4,  5,  6,  7,
                                                             8, 12, 16, 20, 24, 32, 48, 64};
inline constexpr std::uint8_t kMaxDlc = 15;
inline constexpr std::uint32_t kMaxPayload = 64;  // bytes
inline constexpr std::uint32_t kMaxClassicPayload = 8;

// The payload bytes of `dlc`; 0 for a code above 15.
constexpr std::uint32_t dlcToLength(std::uint8_t dlc) {
  return dlc <= kMaxDlc ? kDlcLengths[dlc] : 0;
}

// The smallest code of each length.
inline constexpr auto kLengthDlcs = [] {
  std::array<std::uint8_t, kMaxPayload + 1> dlcs{};
  for (std::uint32_t bytes = 1; bytes <= kMaxPayload; ++bytes) {
    dlcs[bytes] = dlcs[bytes - 1];
    if (kDlcLengths[dlcs[bytes]] < bytes) ++dlcs[bytes];
  }
  return dlcs;
}();

// The smallest code that holds `length` bytes; above 64 the code of 8 bytes.
constexpr std::uint8_t lengthToDlc(std::uint64_t length) {
  return length <= kMaxPayload ? kLengthDlcs[inMemory(length)] : 8;
}

// ---------------------------------------------------------------------------------------------
// Fields, as a reader finds them by their channels' names

enum class CanFrameKind : std::uint32_t { Data = 0, Remote = 1, Error = 2 };

// The enumerators are spelled as the channel names end.
enum class CanField : std::uint32_t {
  BitCount,
  BusChannel,
  DLC,
  DataBytes,
  DataLength,
  Dir,
  Flags,
  FrameDuration,
  ID,
  IDE,
  SingleWire,
  WakeUp,
  BRS,
  EDL,
  ESI,
  RTR,
  ErrorFlags,
  TimeOffsetBRS,
  TimeOffsetCRCDel,
  CRC,
  BtrExtCfg,
  TEC,
  TREC,
  // Known under logger rules only.
  SRR,
  ErrorType,
};

struct CanFieldName {
  CanFrameKind kind;
  CanField field;
  bool operator==(const CanFieldName&) const = default;
};

// What a channel of that name holds; nothing when it is not a field of a CAN frame. The text before
// the last "." contains the name of the frame kind, the text after it is the field's name.
std::optional<CanFieldName> classifyFieldName(std::string_view name, bool loggerRules = false);

// Whether a channel of that name is made of the fields of frames; letters count in either case.
bool isBusLogName(std::string_view name, bool loggerRules);

// One recognised channel of a group, as the file places it in the record. Nothing is checked.
struct CanFieldSlot {
  CanFrameKind kind = CanFrameKind::Data;
  CanField field = CanField::BitCount;
  std::uint32_t byteOffset = 0;  // cn_byte_offset, from the start of the record
  std::uint8_t bitOffset = 0;    // cn_bit_offset; only its low 3 bits count
  std::uint32_t bitCount = 0;    // cn_bit_count
  const m4Block* cn = nullptr;   // the channel's block, borrowed
  bool variableLength = false;   // the bits are the value's offset in the signal data
  std::optional<std::uint32_t> constant = std::nullopt;  // what 0 bits stand for; else 0
  bool bigEndian = false;                                // as ByteOrder::Big
};

// ---------------------------------------------------------------------------------------------
// Layouts, as tolvex writes them

// Where a field lies in a record: a little-endian number, first bit lowest, or bytes.
struct FieldPlace {
  std::uint32_t byteOffset;  // from the start of the record, the time channel included
  std::uint8_t bitOffset;
  std::uint32_t bits;
};

// One field channel of a layout.
struct BusLogChannel {
  // A bit count that stands for the whole payload of the maximum data length.
  static constexpr std::uint32_t kMaxLengthPayload = 0;

  std::string_view suffix;   // the channel is named after the group, with "." and this behind
  std::uint8_t dataType;     // cn_data_type
  std::uint32_t byteOffset;  // from the start of the record, the time channel included
  std::uint8_t bitOffset;
  std::uint32_t bits;
  bool dlcToLength = false;  // carries a value-to-value conversion made of kDlcLengths
};

// The records of one group: the time in seconds as a float64, then the bytes of one parent channel,
// named like the group, whose children are the fields.
struct BusLogLayout {
  static constexpr std::uint32_t kTimeBytes = 8;
  static constexpr std::uint16_t kGroupFlags = 0x6;      // cg_flags: bus event, plain bus event
  static constexpr std::uint32_t kChannelFlags = 0x400;  // cn_flags of parent and fields: bus event

  std::string_view group;
  std::uint32_t parentBytes;  // without a payload of the maximum data length
  bool maxLengthPayload;      // that payload is part of the parent
  std::span<const BusLogChannel> channels;

  // The payload bytes that a group is laid out for: 8 to 64.
  static constexpr std::uint32_t payloadSize(std::int64_t maxDataLength) {
    return static_cast<std::uint32_t>(std::clamp<std::int64_t>(maxDataLength, 8, kMaxPayload));
  }
  constexpr std::uint32_t parentSize(std::int64_t maxDataLength) const {
    return parentBytes + (maxLengthPayload ? payloadSize(maxDataLength) : 0);
  }
  constexpr std::uint32_t recordSize(std::int64_t maxDataLength) const {
    return kTimeBytes + parentSize(maxDataLength);
  }
  constexpr std::uint32_t bitCount(const BusLogChannel& channel, std::int64_t maxDataLength) const {
    return channel.bits == BusLogChannel::kMaxLengthPayload ? 8 * payloadSize(maxDataLength)
                                                            : channel.bits;
  }
  std::string channelName(const BusLogChannel& channel) const;
  // Where the channel with that suffix lies; an unknown suffix does not compile.
  consteval FieldPlace place(std::string_view suffix) const {
    for (const BusLogChannel& channel : channels) {
      if (channel.suffix == suffix) return {channel.byteOffset, channel.bitOffset, channel.bits};
    }
    throw "no such channel";
  }
};

namespace bus_log {

inline constexpr std::uint8_t kUnsigned = 0;  // little-endian
inline constexpr std::uint8_t kByteArray = 10;
inline constexpr bool kDlcToLength = true;

// FrameDuration and BitCount overlap the payload, and lie beyond a record of 8 payload bytes;
// they are never written. SingleWire and WakeUp name each other's bits of the flags byte. Existing
// files have them so.
inline constexpr BusLogChannel kDataFrameChannels[] = {
    {"Flags", kUnsigned, 10, 0, 8},
    {"BusChannel", kUnsigned, 8, 0, 8},
    {"ID", kUnsigned, 11, 0, 32},
    {"IDE", kUnsigned, 14, 7, 1},
    {"FrameDuration", kUnsigned, 22, 0, 32},
    {"BitCount", kUnsigned, 26, 0, 8},
    {"DLC", kUnsigned, 9, 0, 8},
    {"DataLength", kUnsigned, 9, 0, 8, kDlcToLength},
    {"DataBytes", kByteArray, 15, 0, BusLogChannel::kMaxLengthPayload},
    {"Dir", kUnsigned, 10, 0, 1},
    {"SRR", kUnsigned, 10, 1, 1},
    {"EDL", kUnsigned, 10, 2, 1},
    {"BRS", kUnsigned, 10, 3, 1},
    {"ESI", kUnsigned, 10, 4, 1},
    {"SingleWire", kUnsigned, 10, 5, 1},
    {"WakeUp", kUnsigned, 10, 6, 1},
    {"RTR", kUnsigned, 10, 7, 1},
};

inline constexpr BusLogChannel kErrorFrameChannels[] = {
    {"BusChannel", kUnsigned, 8, 0, 8},
    {"ID", kUnsigned, 9, 0, 32},
    {"IDE", kUnsigned, 12, 7, 1},
    {"ErrorFlags", kUnsigned, 13, 0, 8},
    {"Dir", kUnsigned, 14, 7, 1},
    {"DLC", kUnsigned, 15, 0, 8},
    {"DataLength", kUnsigned, 15, 0, 8, kDlcToLength},
    {"TEC", kUnsigned, 16, 0, 8},
    {"TREC", kUnsigned, 17, 0, 8},
    {"DataBytes", kByteArray, 18, 0, 64},
};

// DataLength has a byte of its own that holds a length, and is still converted like a code.
inline constexpr BusLogChannel kFdErrorFrameChannels[] = {
    {"BusChannel", kUnsigned, 8, 0, 8},
    {"ID", kUnsigned, 9, 0, 32},
    {"IDE", kUnsigned, 12, 0, 1},
    {"DLC", kUnsigned, 13, 0, 8},
    {"DataLength", kUnsigned, 14, 0, 8, kDlcToLength},
    {"TEC", kUnsigned, 16, 0, 8},
    {"TREC", kUnsigned, 17, 0, 8},
    {"TimeOffsetBRS", kUnsigned, 19, 0, 32},
    {"TimeOffsetCRCDel", kUnsigned, 23, 0, 32},
    {"CRC", kUnsigned, 27, 0, 21},
    {"ErrorFlags", kUnsigned, 34, 0, 56},
    {"DataBytes", kByteArray, 41, 0, 512},
    {"BtrExtCfg", kUnsigned, 105, 0, 64},
};

}  // namespace bus_log

inline constexpr BusLogLayout kCanDataFrames{"CAN_DataFrame", 7, true, bus_log::kDataFrameChannels};
inline constexpr BusLogLayout kCanErrorFrames{"CAN_ErrorFrame", 18, false,
                                              bus_log::kErrorFrameChannels};
inline constexpr BusLogLayout kCanFdErrorFrames{"CAN_ErrorFrame", 105, false,
                                                bus_log::kFdErrorFrameChannels};

// Two kinds of records that belong to no group: a data frame without its payload, and a channel
// number with a direction.
inline constexpr std::uint32_t kHeaderOnlySize = kCanDataFrames.place("DataBytes").byteOffset;
inline constexpr FieldPlace kChannelDirDir{8, 0, 1};
inline constexpr FieldPlace kChannelDirChannel{8, 4, 4};
inline constexpr std::uint32_t kChannelDirSize = 9;

// ---------------------------------------------------------------------------------------------
// Fields, as tolvex writes them

// Sets the field to the low bits of `value`; the bits around it stay.
template <FieldPlace place>
void storeField(std::uint8_t* record, std::uint64_t value) {
  constexpr std::uint32_t kBits = place.bitOffset + place.bits;
  static_assert(place.bits > 0 && kBits <= 64);
  constexpr std::uint64_t kMask = ~std::uint64_t{0} >> (64 - place.bits) << place.bitOffset;
  constexpr std::uint32_t kBytes = (kBits + 7) / 8;
  std::uint8_t* const bytes = record + place.byteOffset;
  value = value << place.bitOffset & kMask;
  if constexpr (place.bits % 8 != 0 || place.bitOffset != 0) {
    std::uint64_t before = 0;
    std::memcpy(&before, bytes, kBytes);
    value |= before & ~kMask;
  }
  std::memcpy(bytes, &value, kBytes);
}

// As storeField, but the rest of the field's bytes becomes 0.
template <FieldPlace place>
void storeFieldAlone(std::uint8_t* record, std::uint64_t value) {
  std::memset(record + place.byteOffset, 0, (place.bitOffset + place.bits + 7) / 8);
  storeField<place>(record, value);
}

// Sets the `size` bytes at `bytes` to the payload, those beyond it to `fill`.
void storeAnyPayload(std::uint8_t* bytes, std::size_t size, ByteSpan payload, std::uint8_t fill);
inline void storePayload(std::uint8_t* bytes, std::size_t size, ByteSpan payload,
                         std::uint8_t fill) {
  if (size == kMaxClassicPayload && payload.size() >= size) {  // the usual one, in one step
    std::memcpy(bytes, payload.data(), kMaxClassicPayload);
  } else {
    storeAnyPayload(bytes, size, payload, fill);
  }
}

}  // namespace tolvex
