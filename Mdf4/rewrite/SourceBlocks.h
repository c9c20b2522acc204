// The blocks of a possibly damaged input, on their way into a plan.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_set>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/FieldRules.h"
#include "Mdf4/format/OwnedRanges.h"
#include "Mdf4/rewrite/BlockPlan.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

// Loads blocks that can be relied on, each once. Borrows everything that it is given.
class SourceBlocks {
 public:
  SourceBlocks(DirectFile& in, OwnedRanges& owned, BlockPlan& plan, MdfRecoveryReport& report)
      : in_(in), owned_(owned), plan_(plan), report_(report) {}

  // Loads what can be copied of the block that link `index` of a block of kind `from` leads to,
  // which then belongs to the tree. False, with the block unknown to the tree, when the link leads
  // to nothing fitting.
  [[nodiscard]] bool load(std::uint64_t position, std::uint16_t from, std::size_t index,
                          BlockPlan::Block& block);
  // Likewise for a block that may be shared, with all that it leads to. Its place in the output, or
  // 0.
  std::uint64_t takeOver(std::uint64_t position, std::uint16_t from, std::size_t index) {
    return takeOver(position, from, index, 0);
  }

 private:
  [[nodiscard]] bool loadData(BlockPlan::Block& block, BlockRoom room);
  std::uint64_t takeOver(std::uint64_t position, std::uint16_t from, std::size_t index, int depth);

  DirectFile& in_;
  OwnedRanges& owned_;
  BlockPlan& plan_;
  MdfRecoveryReport& report_;
  std::unordered_set<std::uint64_t> unfit_;  // positions of blocks that cannot be taken over
};

// "CN block at 1000: link 4 leads to 2000, where no fitting block is".
std::string deadLink(std::uint16_t type, std::uint64_t position, std::size_t index,
                     std::uint64_t target);

}  // namespace tolvex
