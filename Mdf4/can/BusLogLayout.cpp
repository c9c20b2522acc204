#include "Mdf4/can/BusLogLayout.h"

#include <utility>

namespace tolvex {

namespace {

// In the order of CanField.
constexpr std::string_view kFieldNames[] = {
    "BitCount",
    "BusChannel",
    "DLC",
    "DataBytes",
    "DataLength",
    "Dir",
    "Flags",
    "FrameDuration",
    "ID",
    "IDE",
    "SingleWire",
    "WakeUp",
    "BRS",
    "EDL",
    "ESI",
    "RTR",
    "ErrorFlags",
    "TimeOffsetBRS",
    "TimeOffsetCRCDel",
    "CRC",
    "BtrExtCfg",
    "TEC",
    "TREC",
};
static_assert(std::size(kFieldNames) == static_cast<std::size_t>(CanField::TREC) + 1);

// The first that is found decides.
constexpr std::pair<std::string_view, CanFrameKind> kGroupNames[] = {
    {"CAN_RemoteFrame", CanFrameKind::Remote},
    {"CAN_ErrorFrame", CanFrameKind::Error},
    {"CAN_FdErrorFrame", CanFrameKind::Error},
    {"CAN_DataFrame", CanFrameKind::Data},
};

std::optional<CanFrameKind> kindOf(std::string_view prefix) {
  for (const auto& [name, kind] : kGroupNames) {
    if (prefix.find(name) != std::string_view::npos) return kind;
  }
  return std::nullopt;
}

std::optional<CanField> fieldOf(std::string_view suffix) {
  if (suffix == "REC") return CanField::TREC;
  const auto found = std::find(std::begin(kFieldNames), std::end(kFieldNames), suffix);
  if (found == std::end(kFieldNames)) return std::nullopt;
  return static_cast<CanField>(found - std::begin(kFieldNames));
}

constexpr std::uint8_t kUnsigned = 0;  // little-endian
constexpr std::uint8_t kByteArray = 10;
constexpr bool kDlcToLength = true;

// FrameDuration and BitCount overlap the payload, and lie beyond a record of 8 payload bytes;
// nobody writes them. SingleWire and WakeUp name each other's bits of the flags byte. Files in use
// have them so.
constexpr BusLogChannel kDataFrameChannels[] = {
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

constexpr BusLogChannel kErrorFrameChannels[] = {
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
constexpr BusLogChannel kFdErrorFrameChannels[] = {
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

}  // namespace

std::optional<CanFieldName> classifyFieldName(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return std::nullopt;
  const auto kind = kindOf(name.substr(0, dot));
  const auto field = fieldOf(name.substr(dot + 1));
  if (!kind || !field) return std::nullopt;
  return CanFieldName{*kind, *field};
}

std::string BusLogLayout::channelName(const BusLogChannel& channel) const {
  return std::string(group).append(".").append(channel.suffix);
}

constinit const BusLogLayout kCanDataFrames{"CAN_DataFrame", 7, true, kDataFrameChannels};
constinit const BusLogLayout kCanErrorFrames{"CAN_ErrorFrame", 18, false, kErrorFrameChannels};
constinit const BusLogLayout kCanFdErrorFrames{"CAN_ErrorFrame", 105, false, kFdErrorFrameChannels};

}  // namespace tolvex
