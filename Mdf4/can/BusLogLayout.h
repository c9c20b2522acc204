// How CAN frames lie in the records of a bus log: the names that fields are known by, and the three
// record layouts that tolvex writes.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

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

// The smallest code that holds `length` bytes; above 64 the code of 8 bytes.
constexpr std::uint8_t lengthToDlc(std::uint64_t length) {
  constexpr auto kDlcs = [] {
    std::array<std::uint8_t, kMaxPayload + 1> dlcs{};
    for (std::uint32_t bytes = 1; bytes <= kMaxPayload; ++bytes) {
      dlcs[bytes] = dlcs[bytes - 1];
      if (kDlcLengths[dlcs[bytes]] < bytes) ++dlcs[bytes];
    }
    return dlcs;
  }();
  return length <= kMaxPayload ? kDlcs[length] : 8;
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
};

struct CanFieldName {
  CanFrameKind kind;
  CanField field;
  bool operator==(const CanFieldName&) const = default;
};

// What a channel of that name holds; nothing when it is not a field of a CAN frame. The text before
// the last "." tells the frame kind by what it contains, the text after it is the field's name.
std::optional<CanFieldName> classifyFieldName(std::string_view name);

// One recognised channel of a group, as the file places it in the record. Nothing is checked.
struct CanFieldSlot {
  CanFrameKind kind = CanFrameKind::Data;
  CanField field = CanField::BitCount;
  std::uint32_t byteOffset = 0;  // cn_byte_offset, from the start of the record
  std::uint8_t bitOffset = 0;    // cn_bit_offset; only its low 3 bits count
  std::uint32_t bitCount = 0;    // cn_bit_count
  const m4Block* cn = nullptr;   // the channel's block, borrowed
  bool variableLength = false;   // the bits are the value's offset in the signal data
  std::optional<std::uint8_t> constant = std::nullopt;  // what a BusChannel of 0 bits stands for
};

// ---------------------------------------------------------------------------------------------
// Layouts, as tolvex writes them

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
};

extern const BusLogLayout kCanDataFrames;
extern const BusLogLayout kCanErrorFrames;
extern const BusLogLayout kCanFdErrorFrames;

}  // namespace tolvex
