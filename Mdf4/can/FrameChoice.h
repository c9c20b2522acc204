// Which frames are wanted, made ready for asking of every one.
#pragma once

#include <algorithm>
#include <bitset>
#include <cstdint>
#include <limits>
#include <vector>

#include "tolvex/MdfFrameReader.h"

namespace tolvex {

class FrameChoice {
 public:
  FrameChoice() = default;  // all
  explicit FrameChoice(const MdfFrameFilter& filter)
      : startNs_(filter.startNs),
        endNs_(filter.endNs),
        anyId_(filter.ids.empty()),
        anyBus_(filter.buses.empty()),
        otherIds_(filter.ids),
        buses_(filter.buses) {
    std::ranges::sort(otherIds_);
    std::ranges::sort(buses_);
    for (const std::uint32_t id : otherIds_) {
      if (id < shortIds_.size()) shortIds_.set(id);
    }
  }

  std::int64_t startNs() const { return startNs_; }
  // Whether times are of the range, and whether they are behind it.
  bool hasTime(std::int64_t timeNs) const { return timeNs >= startNs_ && !isBehind(timeNs); }
  bool isBehind(std::int64_t timeNs) const { return timeNs >= endNs_ && endNs_ != kNoEnd; }
  bool anyTime() const { return startNs_ == kNoStart && endNs_ == kNoEnd; }
  bool anyField() const { return anyId_ && anyBus_; }
  bool hasId(std::uint32_t id) const {
    if (anyId_) return true;
    return id < shortIds_.size() ? shortIds_.test(id) : std::ranges::binary_search(otherIds_, id);
  }
  bool hasBus(std::uint16_t bus) const {
    return anyBus_ || std::ranges::binary_search(buses_, bus);
  }

 private:
  static constexpr std::int64_t kNoStart = std::numeric_limits<std::int64_t>::min();
  static constexpr std::int64_t kNoEnd = std::numeric_limits<std::int64_t>::max();

  std::int64_t startNs_ = kNoStart;
  std::int64_t endNs_ = kNoEnd;
  bool anyId_ = true;
  bool anyBus_ = true;
  std::bitset<0x800> shortIds_;  // standard identifiers
  std::vector<std::uint32_t> otherIds_;
  std::vector<std::uint16_t> buses_;
};

}  // namespace tolvex
