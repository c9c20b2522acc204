// Which bytes of a file belong to a block.
#pragma once

#include <cstdint>
#include <map>

namespace tolvex {

// Half-open ranges of file positions that do not overlap. Ranges that leave no room for a block
// between them are kept as one: so a file that is walked front to back costs a few entries, however
// many blocks it has.
class OwnedRanges {
 public:
  struct Range {
    std::uint64_t start;
    std::uint64_t end;
  };

  // Adds a block's bytes. False, with nothing added, when one of them was added before.
  bool add(std::uint64_t start, std::uint64_t end);
  bool overlaps(std::uint64_t start, std::uint64_t end) const;
  // The first owned byte at or after `from`, or `fileEnd`.
  std::uint64_t nextOwned(std::uint64_t from, std::uint64_t fileEnd) const;
  // The first range of bytes at or after `from` that no block owns, up to `fileEnd`; empty (start
  // equals end) when there is none. What has no room for a block counts as owned.
  Range nextGap(std::uint64_t from, std::uint64_t fileEnd) const;

 private:
  std::map<std::uint64_t, std::uint64_t> ranges_;  // start to end
};

}  // namespace tolvex
