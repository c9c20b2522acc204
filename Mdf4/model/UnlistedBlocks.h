// Data blocks of a recording that was killed before its lists named them.
#pragma once

#include <cstdint>
#include <vector>

#include "Mdf4/format/SegmentTable.h"
#include "Mdf4/model/ChannelTree.h"

namespace tolvex {

// A recorder appends full blocks, one size for each group, and names them in a list now and then:
// in a burst, some blocks later. Until then a block shows itself whose it is: by its size, and
// among bus logs of the same size by the bus and the direction in its records. What fits several
// groups, or none, is left out. Borrows everything.
class UnlistedBlocks {
 public:
  explicit UnlistedBlocks(MDF4File& file) : file_(file) {}

  // A group without others in its data group, and the blocks that its lists name. Groups that
  // count their records are complete: their blocks are only passed over.
  void add(const ModelGroup& group, SegmentTable& table);
  // Appends to the tables what else there is of their groups, in the order of the file.
  void assign();

 private:
  struct Owner {
    const ModelGroup* group;
    SegmentTable* table;
    std::uint64_t blockBytes;  // of records
    std::uint64_t last;        // where its last listed block is
  };

  [[nodiscard]] bool findBlock(std::uint64_t& at, BlockHeader& header);
  Owner* ownerOf(std::uint64_t position, std::uint64_t bytes);
  bool hasSameBus(const Owner& owner, std::uint64_t position);

  MDF4File& file_;
  std::vector<Owner> owners_;
  std::vector<std::uint64_t> listed_;  // blocks, ascending once they are all there
  std::vector<std::uint8_t> piece_;    // of the file
};

}  // namespace tolvex
