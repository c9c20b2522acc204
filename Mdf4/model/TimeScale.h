// What the values of a master of time are on the clock.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string_view>

#include "Mdf4/model/RawField.h"
#include "Mdf4/model/ValueConversion.h"

namespace tolvex {

// Seconds in one of the unit: the format measures time in seconds, and some writers in a part of
// them, which their unit names.
double secondsPer(std::string_view unit);

// From the values of a master channel to nanoseconds since 1970. Integers that count a whole number
// of nanoseconds, as loggers write them, become exact times; any others the nearest ones.
class TimeScale {
 public:
  // No time: there is no value, or it is out of range.
  static constexpr std::int64_t kNone = std::numeric_limits<std::int64_t>::min();

  struct Base {
    std::string_view unit;     // of the physical values
    std::int64_t startNs = 0;  // of their file, since 1970
    std::int64_t laterNs = 0;  // by which that is behind the start of the recording
  };

  // `line`: how a raw value becomes a physical one, when it is that simple.
  TimeScale(const Base& base, const std::optional<ValueConversion::Line>& line);

  bool isExact(NumberType type) const { return nsPerTick_ != 0 && type < NumberType::Float32; }
  // Of raw values of a type that is exact.
  void ofTicks(NumberType type, std::span<const std::uint64_t> numbers, std::int64_t* times) const;
  // Of physical values.
  void ofValues(std::span<const double> values, std::int64_t* times) const;
  // Makes physical values seconds since the start of the recording.
  void toSeconds(std::span<double> values) const;

 private:
  double secondsPerUnit_;
  double laterSeconds_;
  std::int64_t startNs_;
  std::int64_t nsPerTick_ = 0;  // 0: a tick is not a whole number
  std::int64_t firstNs_ = 0;    // of tick 0 since 1970
};

}  // namespace tolvex
