#include "Mdf4/can/FrameTime.h"

#include <cmath>
#include <string>
#include <utility>

#include "Mdf4/format/BlockRecords.h"

namespace tolvex {
namespace {

constexpr double kNsPerSecond = 1e9;
// Doubles below this convert to a signed 64-bit integer.
constexpr double kEndOfRange = 0x1p63;
constexpr std::uint32_t kFloatLittleEndian = 4;
constexpr std::uint32_t kInvalidBitFlag = 0x02;

std::uint64_t firstBytes(ByteSpan record) {
  return record.size() < sizeof(std::uint64_t) ? 0 : loadNumber<std::uint64_t>(record.data());
}

// Halves away from zero. Without branches: which way a time rounds cannot be predicted.
std::int64_t roundToNearest(double value) {
  const auto whole = static_cast<std::int64_t>(value);
  const double rest = value - static_cast<double>(whole);
  return whole + std::int64_t{rest >= 0.5} - std::int64_t{rest <= -0.5};
}

}  // namespace

FrameTime::FrameTime(MdfSigCCInfo channel) : channel_(std::move(channel)) {
  offset_ = channel_->byteOffset;
  const bool plain = channel_->dataType == kFloatLittleEndian && channel_->bitCount == 64 &&
                     channel_->bitOffset == 0 && (channel_->flags & kInvalidBitFlag) == 0;
  if (channel_->conversionType == conversion_type::kIdentity) {
    direct_ = plain;
  } else if (channel_->conversionType == conversion_type::kLinear && channel_->valueCount >= 2 &&
             channel_->values.size() >= 2) {
    direct_ = plain;
    summand_ = channel_->values[0];
    factor_ = channel_->values[1];
  }
}

std::uint64_t FrameTime::nearest(ByteSpan record) const {
  double ns = 0;
  return nanoseconds(record, ns) ? static_cast<std::uint64_t>(roundToNearest(ns))
                                 : firstBytes(record);
}

std::optional<std::uint64_t> FrameTime::cutOff(ByteSpan record) const {
  double ns = 0;
  if (nanoseconds(record, ns)) return static_cast<std::uint64_t>(static_cast<std::int64_t>(ns));
  if (record.size() < sizeof(std::uint64_t)) return std::nullopt;
  return firstBytes(record);
}

bool FrameTime::nanoseconds(ByteSpan record, double& ns) const {
  if (direct_) {
    if (record.size() < offset_ || record.size() - offset_ < sizeof(double)) return false;
    ns = (loadNumber<double>(record.data() + offset_) * factor_ + summand_) * kNsPerSecond;
  } else if (!convert(record, ns)) {
    return false;
  }
  return std::abs(ns) < kEndOfRange;  // false for NaN
}

// Any other channel.
bool FrameTime::convert(ByteSpan record, double& ns) const {
  double seconds = 0;
  std::string text;
  if (!channel_ || !channel_->convertToPhysical(record.data(), record.size(), seconds, text)) {
    return false;
  }
  ns = seconds * kNsPerSecond;
  return true;
}

}  // namespace tolvex
