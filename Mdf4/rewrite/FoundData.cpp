#include "Mdf4/rewrite/FoundData.h"

#include <utility>

namespace tolvex {

bool FoundBlocks::nextListed(ListedBlock& block) {
  while (true) {
    if (!blocks_) {
      if (chain_ == run_.chains.size()) return false;
      blocks_.emplace(file_, run_.chains[chain_].start);
      step_ = 0;
    }
    const FoundData::Chain& chain = run_.chains[chain_];
    if (step_ == chain.steps || !blocks_->next(block)) {
      blocks_.reset();
      ++chain_;
      continue;
    }
    const auto claim = chain.bytes.find(step_++);
    if (claim != chain.bytes.end() && claim->second == 0) {
      block.kind = ListedBlock::Missing;
    } else if (claim != chain.bytes.end()) {
      block.cut = claim->second < block.bytes && claim->second != block.expected;
      block.bytes = claim->second;
    }
    if (block.kind != ListedBlock::List) return true;
  }
}

bool FoundBlocks::next(ListedBlock& block) {
  if (!listed_) {
    listed_.emplace();
    if (!nextListed(*listed_)) listed_->kind = ListedBlock::List;  // the end
  }
  const bool ended = listed_->kind == ListedBlock::List;
  const bool looseFirst =
      loose_ < run_.loose.size() &&
      (ended || (run_.ascending && run_.loose[loose_].position < listed_->position));
  if (looseFirst) {
    block = run_.loose[loose_++];
    return true;
  }
  if (ended) return false;
  block = *std::exchange(listed_, std::nullopt);
  return true;
}

}  // namespace tolvex
