#include "Mdf4/can/FrameTime.h"

#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "Mdf4/format/BlockRecords.h"
#include "Mdf4/model/TimeScale.h"

namespace tolvex {
namespace {

constexpr std::uint32_t kFloatLittleEndian = 4;
constexpr std::uint32_t kInvalidBitFlag = 0x02;
constexpr std::uint32_t kSignedKind = 1;  // 0 is unsigned, from 2 on there are no integers
constexpr std::uint32_t kBigEndian = 2;   // of MdfSigCCInfo
// Ticks and the time of the first one stay in range together.
constexpr std::int64_t kMostTicksNs = std::numeric_limits<std::int64_t>::max() / 2;

std::uint64_t firstBytes(ByteSpan record) {
  return record.size() < sizeof(std::uint64_t) ? 0 : loadNumber<std::uint64_t>(record.data());
}

}  // namespace

FrameTime::FrameTime(MdfSigCCInfo channel, bool loggerRules) : channel_(std::move(channel)) {
  if (loggerRules) {
    channel_->flags &= ~kInvalidBitFlag;
    if (channel_->conversionType == conversion_type::kIdentity) {
      channel_->conversionType = conversion_type::kLinear;
      channel_->valueCount = 2;
      channel_->values = {0, secondsPer(channel_->unit)};
    }
  }
  line_.offset = channel_->byteOffset;
  directEnd_ = line_.offset + sizeof(double);
  const bool plain = channel_->dataType == kFloatLittleEndian && channel_->bitCount == 64 &&
                     channel_->bitOffset == 0 && (channel_->flags & kInvalidBitFlag) == 0;
  if (channel_->conversionType == conversion_type::kIdentity) {
    direct_ = plain;
  } else if (channel_->conversionType == conversion_type::kLinear && channel_->valueCount >= 2 &&
             channel_->values.size() >= 2) {
    direct_ = plain;
    line_.summand = channel_->values[0];
    line_.factor = channel_->values[1];
    if (loggerRules && channel_->valueKind <= kSignedKind) planTicks();
  }
}

void FrameTime::planTicks() {
  if (channel_->bitCount == 0 || channel_->bitCount > BitField::kMostBits) return;
  const double perTick = std::round(line_.factor * kNsPerSecond);
  const double first = std::round(line_.summand * kNsPerSecond);
  const auto isWhole = [](double seconds, double ns) {
    return std::abs(seconds * kNsPerSecond - ns) <= std::abs(ns) * 1e-12;
  };
  if (isWhole(line_.factor, perTick) && isWhole(line_.summand, first) && perTick >= 1 &&
      perTick < kEndOfRange && std::abs(first) < kEndOfRange / 2) {
    ticks_ = BitField(channel_->byteOffset, channel_->bitOffset, channel_->bitCount,
                      channel_->byteOrder == kBigEndian ? ByteOrder::Big : ByteOrder::Little);
    nsPerTick_ = static_cast<std::int64_t>(perTick);
    firstTickNs_ = static_cast<std::int64_t>(first);
  }
}

std::uint64_t FrameTime::nearestOfAny(ByteSpan record) const {
  if (nsPerTick_ != 0) {
    if (const auto ticks = ofTicks(record)) return *ticks;
  }
  double ns = 0;
  return nanoseconds(record, ns) ? static_cast<std::uint64_t>(roundToNearest(ns))
                                 : firstBytes(record);
}

std::optional<std::uint64_t> FrameTime::cutOff(ByteSpan record) const {
  if (const auto ticks = ofTicks(record)) return ticks;
  double ns = 0;
  if (nanoseconds(record, ns)) return static_cast<std::uint64_t>(static_cast<std::int64_t>(ns));
  if (record.size() < sizeof(std::uint64_t)) return std::nullopt;
  return firstBytes(record);
}

bool FrameTime::nanoseconds(ByteSpan record, double& ns) const {
  if (direct_) {
    if (record.size() < directEnd_) return false;
    ns = line_.ns(record.data());
  } else if (!convert(record, ns)) {
    return false;
  }
  return std::abs(ns) < kEndOfRange;  // false for NaN
}

// An integer time of whole nanoseconds, exact where a double would round large ones.
std::optional<std::uint64_t> FrameTime::ofTicks(ByteSpan record) const {
  if (nsPerTick_ == 0 || !ticks_.isInside(record.size())) return std::nullopt;
  const bool isSigned = channel_->valueKind == kSignedKind;
  const std::int64_t ticks =
      isSigned ? ticks_.readSigned(record) : static_cast<std::int64_t>(ticks_.read(record));
  if (!isSigned && ticks < 0) return std::nullopt;
  const std::int64_t most = kMostTicksNs / nsPerTick_;
  if (ticks > most || ticks < -most) return std::nullopt;
  return static_cast<std::uint64_t>(ticks * nsPerTick_ + firstTickNs_);
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
