#include "Mdf4/recovery/BlockSurvey.h"

#include <algorithm>

#include "Mdf4/format/BlockTraits.h"

namespace tolvex {

FoundData& BlockSurvey::find(std::uint64_t dataLink) {
  const auto known = byLink_.find(dataLink);
  if (known != byLink_.end()) return *known->second;
  FoundData& found = found_.emplace_back();
  if (dataLink == 0) return found;
  byLink_.emplace(dataLink, &found);
  addChain(found, dataLink);
  return found;
}

void BlockSurvey::addChain(FoundData& found, std::uint64_t start) {
  found.chains.push_back({start, 0, {}});
  walkers_.push_back({&found, found.chains.size() - 1, ListedBlocks(file_, start)});
}

void BlockSurvey::addLoose(FoundData& found, const ListedBlock& block) {
  if (!owned_.add(block.position, block.position + block.size)) return;
  found.loose.push_back(block);
  found.bytes += block.bytes;
  ++found.blocks;
  if (!found.first) found.first = block;
  if (!found.last || found.last->position < block.position) found.last = block;
}

void BlockSurvey::walk() {
  const auto later = [this](std::size_t a, std::size_t b) {
    return walkers_[a].next.position > walkers_[b].next.position;
  };
  std::vector<std::size_t> heap;  // of walkers, the one with the lowest position on top
  for (std::size_t i = 0; i < walkers_.size(); ++i) {
    if (walkers_[i].blocks.next(walkers_[i].next)) heap.push_back(i);
  }
  std::make_heap(heap.begin(), heap.end(), later);
  while (!heap.empty()) {
    std::pop_heap(heap.begin(), heap.end(), later);
    const std::size_t number = heap.back();
    heap.pop_back();
    Walker& walker = walkers_[number];
    const ListedBlock block = walker.next;
    const bool more = walker.blocks.next(walker.next);
    // Blocks do not overlap: the next one that is listed ends this one.
    std::uint64_t limit = file_.end();
    const auto endAt = [&](const ListedBlock& next) {
      if (next.kind != ListedBlock::Missing && next.position > block.position) {
        limit = std::min(limit, next.position);
      }
    };
    if (more) endAt(walker.next);
    if (!heap.empty()) endAt(walkers_[heap.front()].next);
    if (take(walker, block, limit) && more) {
      heap.push_back(number);
      std::push_heap(heap.begin(), heap.end(), later);
    }
  }
  walkers_.clear();
}

// Enters the block. False when the chain ends in front of it.
bool BlockSurvey::take(const Walker& walker, const ListedBlock& block, std::uint64_t limit) {
  FoundData& found = *walker.found;
  FoundData::Chain& chain = found.chains[walker.chain];
  if (block.kind == ListedBlock::Missing) {
    found.broken = true;
    if (block.elsewhere) found.openFrom = 0;
    if (block.ends) found.openFrom = std::min(found.openFrom, block.position);
    if (!block.elsewhere) {
      found.lastNamed = std::max(found.lastNamed, block.position);
      found.lostBytes += block.bytes;
    }
    ++chain.steps;
    return true;
  }
  if (block.kind == ListedBlock::List) {
    if (!owned_.add(block.position, block.position + block.size)) {
      found.broken = true;
      found.openFrom = 0;
      return false;
    }
    if (walker.blocks.equalLength() != 0) found.equalLength = walker.blocks.equalLength();
    found.lastList = block.position;
    found.lastListEnd = block.position + block.size;
    ++chain.steps;
    return true;
  }
  ListedBlock taken = block;
  const std::uint64_t room =
      std::min(limit, owned_.nextOwned(block.position, file_.end())) - block.position;
  if (room < block.size) {
    taken.size = room;
    taken.bytes =
        room <= kBlockHeaderSize || !isPlainData(block.type) ? 0 : room - kBlockHeaderSize;
    taken.bytes = std::min(taken.bytes, block.expected.value_or(taken.bytes));
    chain.bytes[chain.steps] = taken.bytes;
    found.broken = true;
  }
  ++chain.steps;
  if (room < kBlockHeaderSize || !owned_.add(taken.position, taken.position + taken.size)) {
    chain.bytes[chain.steps - 1] = 0;
    found.openFrom = 0;
    return true;
  }
  if (block.cut) found.broken = true;
  if (block.invalidation != 0) ownInvalidation(block.invalidation);
  if (found.last && found.last->position > taken.position) found.ascending = false;
  if (!found.first) found.first = taken;
  found.last = taken;
  found.lastNamed = std::max(found.lastNamed, taken.position);
  found.lastChain = walker.chain;
  found.lastStep = chain.steps - 1;
  found.bytes += taken.bytes;
  ++found.blocks;
  return true;
}

void BlockSurvey::ownInvalidation(std::uint64_t position) {
  BlockHeader header;
  if (readSoundHeader(file_, position, header)) owned_.add(position, position + header.length);
}

void BlockSurvey::extendLast(FoundData& found) {
  if (!found.last || !isPlainData(found.last->type)) return;
  const std::uint64_t end = found.last->position + found.last->size;
  const std::uint64_t limit = owned_.nextOwned(end, file_.end());
  BlockHeader header;
  const std::uint64_t next = alignUp(end);
  if (limit <= end || readSoundHeader(file_, next, header)) return;
  found.chains[found.lastChain].bytes[found.lastStep] =
      limit - found.last->position - kBlockHeaderSize;
  owned_.add(end, limit);
  found.bytes += limit - end;
  found.last->bytes += limit - end;
  found.last->size += limit - end;
}

}  // namespace tolvex
