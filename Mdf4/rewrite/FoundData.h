// The data of one group, as a survey of the file found them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/ListedBlocks.h"

namespace tolvex {

// All data behind one data link: the chain that the link leads to, and what was found beside it.
struct FoundData {
  struct Chain {
    std::uint64_t start = 0;
    std::uint64_t steps = 0;  // blocks and lists in it; what follows is known from elsewhere
    std::map<std::uint64_t, std::uint64_t> bytes;  // by step, where the block's own claim is wrong;
                                                   // 0: the block belongs to another chain
  };
  static constexpr std::uint64_t kNowhere = ~std::uint64_t{0};

  std::vector<Chain> chains;          // those behind the first were found, in the order of the file
  std::vector<ListedBlock> loose;     // blocks that no list names, in the order of the file
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
  std::optional<ListedBlock> first;
  std::optional<ListedBlock> last;
  std::size_t lastChain = 0;  // where it is listed
  std::uint64_t lastStep = 0;
  bool taken = false;  // by the group whose records or values they are
};

// The blocks of found data in their order: those with data, and the missing ones.
class FoundBlocks {
 public:
  FoundBlocks(DirectFile& file, const FoundData& data) : file_(file), data_(data) {}
  [[nodiscard]] bool next(ListedBlock& block);

 private:
  bool nextListed(ListedBlock& block);

  DirectFile& file_;
  const FoundData& data_;
  std::size_t chain_ = 0;
  std::optional<ListedBlocks> blocks_;
  std::uint64_t step_ = 0;
  std::optional<ListedBlock> listed_;
  std::size_t loose_ = 0;
};

}  // namespace tolvex
