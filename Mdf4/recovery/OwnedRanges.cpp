#include "Mdf4/recovery/OwnedRanges.h"

#include <algorithm>
#include <iterator>

namespace tolvex {
namespace {

constexpr std::uint64_t kAlignment = 8;

std::uint64_t roundedUp(std::uint64_t position) {
  const std::uint64_t rest = position % kAlignment;
  return rest == 0 ? position : position + (kAlignment - rest);
}

}  // namespace

bool OwnedRanges::overlaps(std::uint64_t start, std::uint64_t end) const {
  const auto next = ranges_.lower_bound(start);
  if (next != ranges_.end() && next->first < end) return true;
  return next != ranges_.begin() && std::prev(next)->second > start;
}

bool OwnedRanges::add(std::uint64_t start, std::uint64_t end) {
  if (start >= end) return true;
  if (overlaps(start, end)) return false;
  auto next = ranges_.lower_bound(start);
  if (next != ranges_.begin()) {
    const auto before = std::prev(next);
    if (roundedUp(before->second) >= start) {
      start = before->first;
      ranges_.erase(before);
    }
  }
  if (next != ranges_.end() && roundedUp(end) >= next->first) {
    end = next->second;
    next = ranges_.erase(next);
  }
  ranges_.emplace_hint(next, start, end);
  return true;
}

std::uint64_t OwnedRanges::nextOwned(std::uint64_t from, std::uint64_t fileEnd) const {
  const auto next = ranges_.lower_bound(from);
  if (next != ranges_.begin() && std::prev(next)->second > from) return from;
  return next == ranges_.end() ? fileEnd : std::min(next->first, fileEnd);
}

OwnedRanges::Range OwnedRanges::nextGap(std::uint64_t from, std::uint64_t fileEnd) const {
  auto next = ranges_.upper_bound(from);
  if (next != ranges_.begin() && roundedUp(std::prev(next)->second) > from) {
    from = roundedUp(std::prev(next)->second);  // and what follows lies behind: they would be one
  }
  if (from >= fileEnd) return {fileEnd, fileEnd};
  if (next != ranges_.end() && next->first <= from) return nextGap(next->first, fileEnd);
  return {from, next == ranges_.end() ? fileEnd : std::min(next->first, fileEnd)};
}

}  // namespace tolvex
