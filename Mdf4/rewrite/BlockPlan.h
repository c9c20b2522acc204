// The blocks of a file's description, planned before they are written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Mdf4/format/BlockParts.h"
#include "Mdf4/format/BlockRecords.h"
#include "Mdf4/format/DirectFile.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

// A block has its place in the output as soon as it is planned, and is written at the end, when it
// is known where its links lead: some refer to blocks of the input whose copies are planned later.
// Borrows everything that it is given.
class BlockPlan {
 public:
  static constexpr std::size_t kNone = ~std::size_t{0};

  struct Link {
    std::uint64_t position = 0;  // in the output; of a reference in the input
    bool reference = false;      // to a block that another link brings along
  };
  struct Block {
    std::uint16_t type = 0;
    std::uint64_t position = 0;  // in the output
    std::uint64_t source = 0;    // in the input; 0: a new block
    std::vector<Link> links = {};
    std::uint64_t dataPosition = 0;  // in the input, of what follows the links
    std::uint64_t dataBytes = 0;
    std::vector<std::uint8_t> data = {};  // instead, when not empty
    bool unterminated = false;            // a text that lacks its NUL

    std::uint64_t dataSize() const { return data.empty() ? dataBytes : data.size(); }
  };

  BlockPlan(DirectFile& in, DirectFile& out, MdfRecoveryReport& report)
      : in_(in), out_(out), report_(report) {}

  // Finds a place in the output for the block: its number.
  std::size_t place(Block block);
  std::size_t placeNew(std::uint16_t type, std::size_t links, std::vector<std::uint8_t> data);
  std::size_t placeText(const std::string& text, std::uint16_t type);
  std::size_t count() const { return blocks_.size(); }
  const Block& operator[](std::size_t block) const { return blocks_[block]; }
  Block& operator[](std::size_t block) { return blocks_[block]; }

  // A link to a position in the output, or to a planned block.
  void setLink(std::size_t block, std::size_t index, std::uint64_t position) {
    blocks_[block].links[index] = {position, false};
  }
  void link(std::size_t block, std::size_t index, std::size_t to) {
    setLink(block, index, blocks_[to].position);
  }
  template <class Record, class Change>
  void changeRecord(std::size_t block, Change change) {
    auto record = recordOf<Record>(blocks_[block].data);
    change(record);
    blocks_[block].data = dataOf(record);
  }

  // Whether the input's block is planned, or left out.
  bool knows(std::uint64_t source) const { return bySource_.count(source) != 0; }
  std::size_t knownCount() const { return bySource_.size(); }
  // The planned block of the input's; null for one that is left out or not known.
  const Block* find(std::uint64_t source) const;
  // The input's block has no copy.
  void leaveOut(std::uint64_t source) { bySource_[source] = kNone; }
  // The planned DG block `copy` is that of channel group `group`, one of data group `data` in the
  // input: the one that references to the data group lead to, if it is the first.
  void standFor(std::uint64_t data, std::uint64_t group, std::size_t copy);

  // False when a write fails.
  [[nodiscard]] bool write();

 private:
  std::uint64_t resolved(const Block& block, std::size_t index) const;
  [[nodiscard]] bool write(const Block& block);
  [[nodiscard]] bool writeWithoutData(Block block);

  DirectFile& in_;
  DirectFile& out_;
  MdfRecoveryReport& report_;
  std::vector<Block> blocks_;                                     // the header block first
  std::unordered_map<std::uint64_t, std::size_t> bySource_;       // kNone: left out
  std::unordered_map<std::uint64_t, std::uint64_t> dataOfGroup_;  // by CG: its DG in the output
  std::unordered_map<std::uint64_t, std::uint64_t> dataOfData_;   // by DG: of its first CG
};

}  // namespace tolvex
