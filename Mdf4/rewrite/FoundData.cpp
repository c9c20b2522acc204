#include "Mdf4/rewrite/FoundData.h"

#include <utility>

namespace tolvex {

bool FoundBlocks::nextListed(ListedBlock& block) {
  while (true) {
    if (!blocks_) {
      if (chain_ == data_.chains.size()) return false;
      blocks_.emplace(file_, data_.chains[chain_].start);
      step_ = 0;
    }
    const FoundData::Chain& chain = data_.chains[chain_];
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
      loose_ < data_.loose.size() &&
      (ended || (data_.ascending && data_.loose[loose_].position < listed_->position));
  if (looseFirst) {
    block = data_.loose[loose_++];
    return true;
  }
  if (ended) return false;
  block = *std::exchange(listed_, std::nullopt);
  return true;
}

}  // namespace tolvex
