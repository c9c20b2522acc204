// The time of a bus-log record in nanoseconds.
#pragma once

#include <cmath>
#include <cstdint>
#include <optional>

#include "Mdf4/base/BitField.h"
#include "Mdf4/base/Bytes.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

// Reads the master time channel of one group's records. Times are seconds in the file; negative
// ones become two's complement nanoseconds.
//
// Under logger rules a time without a conversion counts in the channel's unit, an integer time of
// whole nanoseconds is exact, and the channel's invalidation bit means nothing.
class FrameTime {
 public:
  FrameTime() = default;  // a group without a master time channel
  explicit FrameTime(MdfSigCCInfo channel, bool loggerRules = false);

  // Rounded to the nearest nanosecond. A time that cannot be converted is taken from the record's
  // first 8 bytes as they stand, as 0 when it has fewer.
  std::uint64_t nearest(ByteSpan record) const {
    if (direct_ && record.size() >= directEnd_) {
      const double ns = line_.ns(record.data());
      if (std::abs(ns) < kEndOfRange) return static_cast<std::uint64_t>(roundToNearest(ns));
    }
    return nearestOfAny(record);
  }
  // Of many records of `size` bytes, with `startNs` added. `recordOf` gives the place of each.
  template <class RecordOf>
  void nearest(std::size_t count, RecordOf recordOf, std::size_t size, std::uint64_t startNs,
               std::int64_t* times) const {
    const bool isDirect = direct_ && size >= directEnd_;
    const Line line = line_;  // no store to an array changes it
    for (std::size_t i = 0; i < count; ++i) {
      const std::uint8_t* const record = recordOf(i);
      const double ns = isDirect ? line.ns(record) : kEndOfRange;
      const std::uint64_t time = std::abs(ns) < kEndOfRange
                                     ? static_cast<std::uint64_t>(roundToNearest(ns))
                                     : nearestOfAny({record, size});
      times[i] = static_cast<std::int64_t>(startNs + time);
    }
  }
  // Cut toward zero; nothing when the time cannot be converted and the record has fewer than 8
  // bytes.
  std::optional<std::uint64_t> cutOff(ByteSpan record) const;

 private:
  static constexpr double kNsPerSecond = 1e9;
  // Doubles below this convert to a signed 64-bit integer.
  static constexpr double kEndOfRange = 0x1p63;

  struct Line {
    std::uint64_t offset = 0;
    double factor = 1;
    double summand = 0;

    double ns(const std::uint8_t* record) const {
      return (loadNumber<double>(record + offset) * factor + summand) * kNsPerSecond;
    }
  };

  // Halves away from zero. Without branches: which way a time rounds cannot be predicted.
  static std::int64_t roundToNearest(double value) {
    constexpr double kBelowHalf = 0x1.fffffffffffffp-2;  // a half would bring the number below to 1
    return static_cast<std::int64_t>(value + std::copysign(kBelowHalf, value));
  }
  std::uint64_t nearestOfAny(ByteSpan record) const;
  void planTicks();
  [[nodiscard]] bool nanoseconds(ByteSpan record, double& ns) const;
  [[nodiscard]] bool convert(ByteSpan record, double& ns) const;
  std::optional<std::uint64_t> ofTicks(ByteSpan record) const;

  std::optional<MdfSigCCInfo> channel_;
  // A float64 on whole bytes whose conversion is linear needs no more than this.
  bool direct_ = false;
  Line line_;
  std::uint64_t directEnd_ = 0;  // in the record
  // An integer time is ticks_ x nsPerTick_ + firstTickNs_; 0: it is not taken so.
  BitField ticks_;
  std::int64_t nsPerTick_ = 0;
  std::int64_t firstTickNs_ = 0;
};

}  // namespace tolvex
