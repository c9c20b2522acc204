// The compressed blocks of a file that are in memory inflated.
#pragma once

#include <algorithm>
#include <cstdint>
#include <list>
#include <memory>
#include <unordered_map>

#include "Mdf4/base/ByteBuffer.h"
#include "Mdf4/base/PositionSet.h"

namespace tolvex {

// The bytes of one compressed block. Shared by the streams that stand in it.
struct InflatedBlock {
  // What a block takes at least, to inflate and to hold.
  static constexpr std::uint64_t kLeastCost = 4096;
  std::uint64_t cost() const { return std::max(bytes.size(), kLeastCost); }

  ByteBuffer bytes;
  std::uint64_t size = 0;      // bytes inflated: fewer than stated when the stream ends early
  std::uint64_t rowBytes = 0;  // not 0: they lie column by column, of rows of so many bytes
};

// Which blocks were inflated, and where their bytes are: with the streams that stand in them, and
// for values, whose offsets may lead to and fro, with the few that values were read from last.
class InflatedBlocks {
 public:
  // The block at `position`, `stated` bytes by what names it: the one that is in memory, or a new
  // one that `inflate(block, again)` fills; null when that says false. `again`: it was inflated
  // before. In a file of `holdFor` bytes it is held for the values to come; 0: it is not. Bytes
  // that lie column by column are given only when those are wanted.
  template <class Inflate>
  std::shared_ptr<InflatedBlock> fetch(std::uint64_t position, std::uint64_t stated,
                                       std::uint64_t holdFor, bool maybeColumns, Inflate inflate) {
    std::shared_ptr<InflatedBlock> block = find(position, stated);
    if (block != nullptr && block->rowBytes != 0 && !maybeColumns) block = nullptr;
    const bool again = block == nullptr && inflated_.contains(position);
    if (block == nullptr) {
      block = std::make_shared<InflatedBlock>();
      if (!inflate(*block, again)) return nullptr;
      add(position, stated, block);
    }
    if (holdFor != 0) hold(position, block, again, holdFor);
    return block;
  }
  void clear();

 private:
  struct Held {
    std::uint64_t position;
    std::shared_ptr<InflatedBlock> block;
  };
  struct Known {
    std::weak_ptr<InflatedBlock> block;
    std::uint64_t stated = 0;
    std::list<Held>::iterator held;
  };
  static constexpr std::uint64_t kFewBytes = std::uint64_t{16} << 20;

  std::shared_ptr<InflatedBlock> find(std::uint64_t position, std::uint64_t stated) const;
  void add(std::uint64_t position, std::uint64_t stated,
           const std::shared_ptr<InflatedBlock>& block);
  void hold(std::uint64_t position, const std::shared_ptr<InflatedBlock>& block, bool again,
            std::uint64_t fileSize);
  void letGo(Known& known);
  void forgetReleased();

  PositionSet inflated_;                            // all that were inflated
  std::unordered_map<std::uint64_t, Known> known_;  // by position: those in memory, and some others
  std::size_t mostKnown_ = 0;
  std::list<Held> held_;  // last used first
  std::uint64_t heldBytes_ = 0;
  std::uint64_t mostHeld_ = kFewBytes;
};

}  // namespace tolvex
