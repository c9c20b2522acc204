#include "Mdf4/model/BusLogLayout.h"

#include <algorithm>
#include <iterator>
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
    "SRR",
    "ErrorType",
};
static_assert(std::size(kFieldNames) == static_cast<std::size_t>(CanField::ErrorType) + 1);

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

}  // namespace

std::optional<CanFieldName> classifyFieldName(std::string_view name, bool loggerRules) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return std::nullopt;
  const auto kind = kindOf(name.substr(0, dot));
  const auto field = fieldOf(name.substr(dot + 1));
  if (!kind || !field) return std::nullopt;
  if (!loggerRules && *field > CanField::TREC) return std::nullopt;
  return CanFieldName{*kind, *field};
}

bool isBusLogName(std::string_view name, bool loggerRules) {
  const auto isSame = [name](std::string_view known) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    return std::ranges::equal(name, known, {}, lower, lower);
  };
  return isSame("CAN_DataFrame") || isSame("CAN_ErrorFrame") || isSame("CAN_FdErrorFrame") ||
         (loggerRules && isSame("CAN_RemoteFrame"));
}

std::string BusLogLayout::channelName(const BusLogChannel& channel) const {
  return std::string(group).append(".").append(channel.suffix);
}

void storeAnyPayload(std::uint8_t* bytes, std::size_t size, ByteSpan payload, std::uint8_t fill) {
  const std::size_t copied = std::min(size, payload.size());
  std::copy_n(payload.begin(), copied, bytes);
  std::memset(bytes + copied, fill, size - copied);
}

}  // namespace tolvex
