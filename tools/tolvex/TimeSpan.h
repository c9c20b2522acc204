// From the first time of something to the last one.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

namespace tolvex {

// Nanoseconds since 1970.
struct TimeSpan {
  std::int64_t firstNs = std::numeric_limits<std::int64_t>::max();
  std::int64_t lastNs = std::numeric_limits<std::int64_t>::min();

  bool isEmpty() const { return firstNs > lastNs; }
  // Of one that is not empty.
  double seconds() const {
    constexpr double kNsPerSecond = 1e9;
    return static_cast<double>(static_cast<std::uint64_t>(lastNs) -
                               static_cast<std::uint64_t>(firstNs)) /
           kNsPerSecond;
  }
  void add(std::int64_t timeNs) {
    firstNs = std::min(firstNs, timeNs);
    lastNs = std::max(lastNs, timeNs);
  }
  void add(const TimeSpan& other) {
    firstNs = std::min(firstNs, other.firstNs);
    lastNs = std::max(lastNs, other.lastNs);
  }
};

}  // namespace tolvex
