// Makes block objects of what stands in a file.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>

#include "Mdf4/format/BlockScan.h"
#include "Mdf4/format/m4Block.h"

namespace tolvex {

// The block at the position, or null: for position 0, a position outside the file, a marker other
// than "##", a kind that is not known (an HD is read by MDF4File alone) and a block that is
// damaged. All but the first are noted in the file's problems.
[[nodiscard]] std::unique_ptr<m4Block> loadBlock(DirectFile& file, std::uint64_t position);

// The header of the block at the position; nothing for position 0 and, noted as by loadBlock, where
// no known block begins.
[[nodiscard]] std::optional<BlockScan> scanBlockAt(DirectFile& file, std::uint64_t position);

// The kind of the block at the position, from its header; 0, noted as by loadBlock, for none.
std::uint16_t blockTypeAt(DirectFile& file, std::uint64_t position);

// The block at the position when it is of kind `Block`, else null.
template <class Block>
std::unique_ptr<Block> loadBlockAs(DirectFile& file, std::uint64_t position) {
  std::unique_ptr<m4Block> block = loadBlock(file, position);
  if (block == nullptr || block->typeCode() != Block::kType) return nullptr;
  return std::unique_ptr<Block>(static_cast<Block*>(block.release()));
}

// The text of the TX or MD block at the position, up to its first NUL; "" for anything else.
std::string loadText(DirectFile& file, std::uint64_t position);

// Reads only the header, for data blocks, which may be large. False for position 0, and, with a
// diagnostic, for a marker other than "##".
[[nodiscard]] bool readBlockHeader(DirectFile& file, std::uint64_t position, BlockHeader& header);
// The check of readBlockHeader, for a header that was read with other bytes.
[[nodiscard]] bool isBlockHeader(const BlockHeader& header, std::uint64_t position);

// The blocks that chains have led to so far. A block belongs to one place in one chain: a chain
// ends at a block that was visited before.
class VisitedBlocks {
 public:
  explicit VisitedBlocks(DirectFile& file) : file_(file) {}
  // True the first time. Later the damage is noted.
  [[nodiscard]] bool enter(std::uint64_t position);

 private:
  DirectFile& file_;
  std::unordered_set<std::uint64_t> positions_;
};

}  // namespace tolvex
