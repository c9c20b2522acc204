#include "Mdf4/model/TimeScale.h"

#include <cmath>

namespace tolvex {
namespace {

constexpr double kNsPerSecond = 1e9;
constexpr double kEndOfRange = 0x1p63;

bool isWhole(double exact, double rounded) {
  return std::abs(exact - rounded) <= std::abs(rounded) * 1e-12;
}

std::int64_t sum(std::int64_t a, std::int64_t b) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
  return (b > 0 ? a > kMost - b : a < kLeast - b) ? TimeScale::kNone : a + b;
}

}  // namespace

double secondsPer(std::string_view unit) {
  if (unit == "ms") return 1e-3;
  if (unit == "us" || unit == "\u00B5s" || unit == "\u03BCs") return 1e-6;
  if (unit == "ns") return 1e-9;
  return 1;
}

TimeScale::TimeScale(const Base& base, const std::optional<ValueConversion::Line>& line)
    : secondsPerUnit_(secondsPer(base.unit)),
      laterSeconds_(static_cast<double>(base.laterNs) / kNsPerSecond),
      startNs_(base.startNs) {
  if (!line) return;
  const double tick = line->factor * secondsPerUnit_ * kNsPerSecond;
  const double first = line->offset * secondsPerUnit_ * kNsPerSecond;
  const double wholeTick = std::round(tick);
  const double wholeFirst = std::round(first);
  if (!isWhole(tick, wholeTick) || !isWhole(first, wholeFirst) || wholeTick < 1 ||
      wholeTick >= kEndOfRange || std::abs(wholeFirst) >= kEndOfRange) {
    return;
  }
  firstNs_ = sum(startNs_, static_cast<std::int64_t>(wholeFirst));
  if (firstNs_ != kNone) nsPerTick_ = static_cast<std::int64_t>(wholeTick);
}

void TimeScale::ofTicks(NumberType type, std::span<const std::uint64_t> numbers,
                        std::int64_t* times) const {
  toIntegers(type, numbers.data(), numbers.size(), times, kNone);
  const std::int64_t mostTicks = std::numeric_limits<std::int64_t>::max() / nsPerTick_;
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const bool isInRange = times[i] <= mostTicks && times[i] >= -mostTicks;
    times[i] = isInRange ? sum(times[i] * nsPerTick_, firstNs_) : kNone;
  }
}

void TimeScale::ofValues(std::span<const double> values, std::int64_t* times) const {
  const double nsPerUnit = secondsPerUnit_ * kNsPerSecond;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const double ns = std::round(values[i] * nsPerUnit);
    times[i] = std::abs(ns) < kEndOfRange ? sum(static_cast<std::int64_t>(ns), startNs_) : kNone;
  }
}

void TimeScale::toSeconds(std::span<double> values) const {
  if (secondsPerUnit_ == 1 && laterSeconds_ == 0) return;
  for (double& value : values) value = value * secondsPerUnit_ + laterSeconds_;
}

}  // namespace tolvex
