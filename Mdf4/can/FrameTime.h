// The time of a bus-log record in nanoseconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "Mdf4/base/BitField.h"
#include "Mdf4/base/Bytes.h"
#include "Mdf4/model/RawField.h"
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
  std::uint64_t nearest(ByteSpan record) const;
  // The same for many records, the first `count` of the rows, which all have `size` bytes.
  void nearest(const RecordRows& rows, std::size_t count, std::size_t size,
               std::int64_t* timesNs) const;
  // Cut toward zero; nothing when the time cannot be converted and the record has fewer than 8
  // bytes.
  std::optional<std::uint64_t> cutOff(ByteSpan record) const;

 private:
  void planTicks();
  [[nodiscard]] bool nanoseconds(ByteSpan record, double& ns) const;
  [[nodiscard]] bool convert(ByteSpan record, double& ns) const;
  std::optional<std::uint64_t> ofTicks(ByteSpan record) const;

  std::optional<MdfSigCCInfo> channel_;
  // A float64 on whole bytes whose conversion is linear needs no more than this.
  bool direct_ = false;
  std::uint64_t offset_ = 0;
  double factor_ = 1;
  double summand_ = 0;
  // An integer time is ticks_ x nsPerTick_ + firstTickNs_; 0: it is not taken so.
  BitField ticks_;
  std::int64_t nsPerTick_ = 0;
  std::int64_t firstTickNs_ = 0;
};

}  // namespace tolvex
