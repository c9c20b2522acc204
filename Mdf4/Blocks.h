// Small steps with blocks that the recording side takes again and again.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mdf4/format/m4Block.h"

namespace tolvex {

// Writes a text block at the end of the file. Returns its position, or 0 when the write fails.
inline std::uint64_t writeText(DirectFile& file, std::string_view text) {
  M4TXBlock block;
  block.setText(text);
  return block.save(&file, m4Block::kSaveAll);
}

// Sets the link of a block that has its place and writes the block again. False, with the link as
// it was, when the write fails.
inline bool writeLink(m4Block& block, std::size_t index, std::uint64_t position) {
  const std::uint64_t before = block.link(index);
  block.setLink(index, position);
  if (block.save(nullptr, m4Block::kSaveAll) != 0) return true;
  block.setLink(index, before);
  return false;
}

}  // namespace tolvex
