// The data blocks behind a data link, one after the other, as far as they can be made out.
#pragma once

#include <cstdint>
#include <optional>

#include "Mdf4/format/BlockRecords.h"
#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/ListWalk.h"

namespace tolvex {

// The header at the position, when it is that of a known block whose length, links included, fits
// into the file. A stated length that takes in other blocks, or too little, becomes the one that
// the block's record needs.
[[nodiscard]] bool readSoundHeader(DirectFile& file, std::uint64_t position, BlockHeader& header);

// One block on the way.
struct ListedBlock {
  enum Kind : std::uint8_t {
    List,     // DL, LD or HL
    Data,     // holds `bytes` of data
    Missing,  // a link that leads to no data block; `bytes` that its list expects, or 0: unknown
  };
  Kind kind = Missing;
  std::uint16_t type = 0;
  std::uint64_t position = 0;
  std::uint64_t size = 0;   // of the block, header included, as far as the file goes
  std::uint64_t bytes = 0;  // of data; inflated for a DZ
  bool repaired = false;    // the block's header and its list disagree about `bytes`
  bool cut = false;         // the file ends, or another block begins, where it should go on
  bool headless = false;    // its header cannot be read: it has room for `bytes`, by its list
  bool uncounted = false;  // no list counts it: the process that wrote it may have been killed then
  bool elsewhere = false;  // it is missing, and may be at another place: the link is damaged
  bool ends = false;       // if it is missing, so is the rest of the chain
  bool columns = false;    // named by an LD: records without their invalidation bytes
  std::optional<std::uint64_t> expected = {};  // bytes of data that its list states
  std::uint64_t invalidation = 0;  // position of the block of invalidation bytes beside it, or 0
};

// Walks the lists link by link and holds nothing but its place, however long they are. A chain that
// leads in a circle does not end: its user stops at a block that it knows. Borrows the file.
class ListedBlocks {
 public:
  ListedBlocks(DirectFile& file, std::uint64_t dataLink) : file_(file), walk_(file, dataLink) {}

  // False at the end.
  [[nodiscard]] bool next(ListedBlock& block);
  // The data bytes that the lists state for each block but the last; 0 when they state none.
  std::uint64_t equalLength() const { return walk_.list().columns ? 0 : walk_.list().equalLength; }

 private:
  void enter(std::uint64_t position, ListedBlock& block);
  void countEntries();
  bool readEntry(ListedBlock& block);
  std::optional<std::uint64_t> expectedBytes() const;
  void settle(ListedBlock& block, bool mayBeShorter);
  bool inflatesTo(std::uint64_t position, std::uint64_t bytes) const;
  void settleHeadless(ListedBlock& block) const;
  bool isUnwritten(std::uint64_t position) const;
  bool beginsWithZeros(std::uint64_t position) const;
  bool followedByBlock(std::uint64_t end) const;
  bool followedBehindPadding(std::uint64_t end) const;

  DirectFile& file_;
  ListWalk walk_;
  std::uint64_t counted_ = 0;      // entries of the list that it counts
  bool hasOffsets_ = false;        // the list has one for each entry
  bool nextIsUnreadable_ = false;  // the link to the next list
};

}  // namespace tolvex
