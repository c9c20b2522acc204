#include "Mdf4/format/OwnedRanges.h"

#include <algorithm>
#include <iterator>

#include "Mdf4/format/BlockRecords.h"

namespace tolvex {
namespace {

// Whether a block fits between two ranges.
bool hasRoom(std::uint64_t end, std::uint64_t start) {
  return start > end && start - end >= kBlockHeaderSize;
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
    if (!hasRoom(before->second, start)) {
      start = before->first;
      ranges_.erase(before);
    }
  }
  if (next != ranges_.end() && !hasRoom(end, next->first)) {
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
  if (next != ranges_.begin()) from = std::max(from, std::prev(next)->second);
  const std::uint64_t end = next == ranges_.end() ? fileEnd : std::min(next->first, fileEnd);
  constexpr std::uint64_t kPadding = 8;  // that a file may end with
  if (from < end && (end < fileEnd || end - from >= kPadding)) return {from, end};
  if (next == ranges_.end() || next->first >= fileEnd) return {fileEnd, fileEnd};
  return nextGap(next->first, fileEnd);
}

}  // namespace tolvex
