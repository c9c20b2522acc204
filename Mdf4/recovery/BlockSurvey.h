// Which data blocks belong to which data link, when links, lists and blocks may be damaged.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/ListedBlocks.h"
#include "Mdf4/format/OwnedRanges.h"
#include "Mdf4/rewrite/FoundData.h"

namespace tolvex {

// Walks the chains of all data links side by side, in the order of the file, so that what is known
// of whole files stays small. Borrows the file.
class BlockSurvey {
 public:
  BlockSurvey(DirectFile& file, OwnedRanges& owned) : file_(file), owned_(owned) {}

  // What is found behind the link: one object for each, however often it is asked for, but a new
  // one each time for 0: what is found for a group without data is that group's alone. It lives as
  // long as the survey.
  FoundData& find(std::uint64_t dataLink);
  // Adds a chain that was found.
  void addChain(FoundData& found, std::uint64_t start);
  void addLoose(FoundData& found, const ListedBlock& block);
  // Walks the chains that were added since.
  void walk();
  // The last block has no true length yet: it has all bytes behind it that belong to no block.
  void extendLast(FoundData& found);

 private:
  struct Walker {
    FoundData* found;
    std::size_t chain;
    ListedBlocks blocks;
    ListedBlock next = {};
  };

  [[nodiscard]] bool take(const Walker& walker, const ListedBlock& block, std::uint64_t limit);
  void ownInvalidation(std::uint64_t position);

  DirectFile& file_;
  OwnedRanges& owned_;
  std::deque<FoundData> found_;
  std::map<std::uint64_t, FoundData*> byLink_;
  std::vector<Walker> walkers_;
};

}  // namespace tolvex
