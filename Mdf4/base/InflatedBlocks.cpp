#include "Mdf4/base/InflatedBlocks.h"

#include <algorithm>

namespace tolvex {
namespace {

// However often blocks are inflated again, no more than this is held: four times the file's size,
// within these limits.
constexpr std::uint64_t kLeastLimit = std::uint64_t{64} << 20;
constexpr std::uint64_t kMostLimit = std::uint64_t{512} << 20;

}  // namespace

std::shared_ptr<InflatedBlock> InflatedBlocks::find(std::uint64_t position,
                                                    std::uint64_t stated) const {
  const auto found = known_.find(position);
  if (found == known_.end() || found->second.stated != stated) return nullptr;
  return found->second.block.lock();
}

void InflatedBlocks::add(std::uint64_t position, std::uint64_t stated,
                         const std::shared_ptr<InflatedBlock>& block) {
  if (!inflated_.contains(position)) inflated_.add(position);
  if (known_.size() > mostKnown_) forgetReleased();
  const auto [entry, isNew] = known_.try_emplace(position);
  Known& known = entry->second;
  if (isNew) {
    known.held = held_.end();
  } else {
    letGo(known);
  }
  known.block = block;
  known.stated = stated;
}

void InflatedBlocks::hold(std::uint64_t position, const std::shared_ptr<InflatedBlock>& block,
                          bool again, std::uint64_t fileSize) {
  if (again) {  // more should have been held so far
    const std::uint64_t limit =
        std::clamp(std::min(fileSize, kMostLimit) * 4, kLeastLimit, kMostLimit);
    mostHeld_ = std::min(mostHeld_ * 2, limit);
  }
  Known& known = known_.at(position);
  if (known.held != held_.end()) {
    held_.splice(held_.begin(), held_, known.held);
    return;
  }
  held_.push_front({position, block});
  known.held = held_.begin();
  heldBytes_ += block->cost();
  while (heldBytes_ > mostHeld_ && held_.size() > 1) letGo(known_.at(held_.back().position));
}

void InflatedBlocks::letGo(Known& known) {
  if (known.held == held_.end()) return;
  heldBytes_ -= known.held->block->cost();
  held_.erase(known.held);
  known.held = held_.end();
}

// Those that no stream stands in any more, once there are twice as many as were needed last.
void InflatedBlocks::forgetReleased() {
  std::erase_if(known_, [](const auto& entry) { return entry.second.block.expired(); });
  mostKnown_ = 2 * known_.size();
}

void InflatedBlocks::clear() {
  inflated_.clear();
  known_.clear();
  mostKnown_ = 0;
  held_.clear();
  heldBytes_ = 0;
  mostHeld_ = kFewBytes;
}

}  // namespace tolvex
