// Which data blocks belong to which data link, when links, lists and blocks may be damaged.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/ListedBlocks.h"
#include "Mdf4/format/OwnedRanges.h"
#include "Mdf4/rewrite/FoundData.h"

namespace tolvex {

// Walks the chains of all runs side by side, in the order of the file, so that what is known of
// whole files stays small.
class BlockSurvey {
 public:
  BlockSurvey(DirectFile& file, OwnedRanges& owned) : file_(file), owned_(owned) {}

  // The number of the run; one for each data link, however often it is asked for, but a new one
  // each time for 0: what is found for a group without data is that group's alone.
  std::size_t run(std::uint64_t dataLink);
  // Adds a chain that was found to the run.
  void addChain(std::size_t run, std::uint64_t start);
  void addLoose(std::size_t run, const ListedBlock& block);
  // Walks the chains that were added since.
  void walk();
  // The last block of the run has no true length yet: it has all bytes behind it that belong to no
  // block.
  void extendLast(std::size_t run);

  std::vector<FoundData>& runs() { return runs_; }

 private:
  struct Walker {
    std::size_t run;
    std::size_t chain;
    ListedBlocks blocks;
    ListedBlock next = {};
  };

  bool take(const Walker& walker, const ListedBlock& block, std::uint64_t limit);
  void ownInvalidation(std::uint64_t position);

  DirectFile& file_;
  OwnedRanges& owned_;
  std::vector<FoundData> runs_;
  std::map<std::uint64_t, std::size_t> byLink_;
  std::vector<Walker> walkers_;
};

}  // namespace tolvex
