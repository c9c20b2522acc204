// A set of positions in a file, as small as a list of them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <unordered_set>
#include <vector>

namespace tolvex {

// Fastest for positions that come in rising order, as blocks do that are read from front to back.
class PositionSet {
 public:
  bool contains(std::uint64_t position) const {
    return std::ranges::binary_search(sorted_, position) || others_.count(position) != 0;
  }
  // A position that is not in the set.
  void add(std::uint64_t position) {
    if (sorted_.empty() || position > sorted_.back()) {
      sorted_.push_back(position);
      return;
    }
    others_.insert(position);
    if (others_.size() > kFew + sorted_.size() / 8) sortOthers();
  }
  void clear() {
    sorted_.clear();
    others_.clear();
  }

 private:
  static constexpr std::size_t kFew = 64;

  void sortOthers() {
    const auto known = static_cast<std::ptrdiff_t>(sorted_.size());
    sorted_.insert(sorted_.end(), others_.begin(), others_.end());
    std::sort(sorted_.begin() + known, sorted_.end());
    std::inplace_merge(sorted_.begin(), sorted_.begin() + known, sorted_.end());
    others_.clear();
  }

  std::vector<std::uint64_t> sorted_;
  std::unordered_set<std::uint64_t> others_;  // fewer than an eighth
};

}  // namespace tolvex
