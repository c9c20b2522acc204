// The data blocks behind a data link, one after the other, as far as they can be made out.
#pragma once

#include <cstdint>
#include <optional>

#include "Mdf4/format/BlockRecords.h"
#include "Mdf4/format/DirectFile.h"

namespace tolvex {

// The header at the position, when it is that of a known block whose length, links included, fits
// into the file. A stated length that takes in other blocks, or too little, becomes the one that
// the block's record needs.
bool readSoundHeader(DirectFile& file, std::uint64_t position, BlockHeader& header);

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
  ListedBlocks(DirectFile& file, std::uint64_t dataLink) : file_(file), next_(dataLink) {}

  // False at the end.
  bool next(ListedBlock& block);
  // The data bytes that the lists state for each block but the last; 0 when they state none.
  std::uint64_t equalLength() const { return equalLength_; }

 private:
  bool enter(std::uint64_t position, ListedBlock& block);
  bool nextEntry(ListedBlock& block);
  std::optional<std::uint64_t> expectedBytes(std::uint64_t index) const;
  std::uint64_t link(std::uint64_t index) const;
  bool readNumber(std::uint64_t index, std::uint64_t& value) const;
  void settle(ListedBlock& block);
  bool inflatesTo(std::uint64_t position, std::uint64_t bytes) const;
  void settleHeadless(ListedBlock& block) const;
  bool isUnwritten(std::uint64_t position) const;
  bool beginsWithZeros(std::uint64_t position) const;
  bool followedByBlock(std::uint64_t end) const;

  DirectFile& file_;
  std::uint64_t next_;             // the block or list that comes next; 0: none
  std::uint64_t list_ = 0;         // the list that is read; 0: none
  bool columns_ = false;           // it is an LD
  std::uint64_t links_ = 0;        // of the list
  std::uint64_t count_ = 0;        // of its data links
  std::uint64_t counted_ = 0;      // as the list states it
  std::uint64_t index_ = 0;        // of the next one
  std::uint64_t numbers_ = 0;      // position of the numbers behind the list's record
  std::uint64_t numberCount_ = 0;  // of them
  std::uint64_t equalLength_ = 0;
};

}  // namespace tolvex
