// Helpers of the recording side for text blocks and links.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

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

// Lets the next push_back succeed.
template <class Element>
void makeRoom(std::vector<Element>& elements) {
  constexpr std::size_t kLeast = 8;
  if (elements.size() < elements.capacity()) return;
  elements.reserve(std::max(kLeast, 2 * elements.size()));
}

// Gives back what is appended to a file while it lives, unless that is kept.
class Appending {
 public:
  explicit Appending(DirectFile& file) : file_(file), end_(file.end()) {}
  Appending(const Appending&) = delete;
  Appending& operator=(const Appending&) = delete;
  ~Appending() {
    if (!kept_) file_.giveBack(end_);
  }
  void keep() { kept_ = true; }

 private:
  DirectFile& file_;
  const std::uint64_t end_;
  bool kept_ = false;
};

}  // namespace tolvex
