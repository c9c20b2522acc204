// Which data blocks belong to which data link, when links, lists and blocks may be damaged.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/recovery/DataChain.h"
#include "Mdf4/recovery/OwnedRanges.h"

namespace tolvex {

// All data behind one data link: the chain that the link leads to, and what was found beside it.
struct DataRun {
  struct Chain {
    std::uint64_t start = 0;
    std::uint64_t steps = 0;  // blocks and lists in it; what follows is known from elsewhere
    std::map<std::uint64_t, std::uint64_t> bytes;  // by step, where the block's own claim is wrong;
                                                   // 0: the block belongs to another chain
  };
  static constexpr std::uint64_t kNowhere = ~std::uint64_t{0};

  std::vector<Chain> chains;          // those behind the first were found, in the order of the file
  std::vector<ChainBlock> loose;      // blocks that no list names, in the order of the file
  bool ascending = true;              // the chains lead from front to back
  bool broken = false;                // a list or a block is missing
  std::uint64_t openFrom = kNowhere;  // from where on parts may stand that no list names
  std::uint64_t bytes = 0;            // of data, loose ones included
  std::uint64_t lostBytes = 0;        // of data blocks that are missing where they are named
  std::uint64_t blocks = 0;
  std::uint64_t equalLength = 0;
  std::uint64_t lastList = 0;  // its position; 0: no list
  std::uint64_t lastListEnd = 0;
  std::uint64_t lastNamed = 0;  // the last place of a block that is named
  std::optional<ChainBlock> first;
  std::optional<ChainBlock> last;
  std::size_t lastChain = 0;  // where it is listed
  std::uint64_t lastStep = 0;
};

// Walks the chains of all runs side by side, in the order of the file, so that what is known of
// whole files stays small.
class DataSurvey {
 public:
  DataSurvey(DirectFile& file, OwnedRanges& owned) : file_(file), owned_(owned) {}

  // The number of the run; one for each data link, however often it is asked for, but a new one
  // each time for 0: what is found for a group without data is that group's alone.
  std::size_t run(std::uint64_t dataLink);
  // Adds a chain that was found to the run.
  void addChain(std::size_t run, std::uint64_t start);
  void addLoose(std::size_t run, const ChainBlock& block);
  // Walks the chains that were added since.
  void walk();
  // The last block of the run has no true length yet: it has all bytes behind it that belong to no
  // block.
  void extendLast(std::size_t run);

  std::vector<DataRun>& runs() { return runs_; }

 private:
  struct Walker {
    std::size_t run;
    std::size_t chain;
    DataChain blocks;
    ChainBlock next = {};
  };

  bool take(const Walker& walker, const ChainBlock& block, std::uint64_t limit);
  void ownMarks(std::uint64_t position);

  DirectFile& file_;
  OwnedRanges& owned_;
  std::vector<DataRun> runs_;
  std::map<std::uint64_t, std::size_t> byLink_;
  std::vector<Walker> walkers_;
};

// The blocks of a surveyed run in their order: those with data, and the missing ones.
class DataSequence {
 public:
  DataSequence(DirectFile& file, const DataRun& run) : file_(file), run_(run) {}
  bool next(ChainBlock& block);

 private:
  bool nextListed(ChainBlock& block);

  DirectFile& file_;
  const DataRun& run_;
  std::size_t chain_ = 0;
  std::optional<DataChain> blocks_;
  std::uint64_t step_ = 0;
  std::optional<ChainBlock> listed_;
  std::size_t loose_ = 0;
};

}  // namespace tolvex
