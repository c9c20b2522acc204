#include "Mdf4/recovery/BlockSurvey.h"

#include <algorithm>
#include <utility>

#include "Mdf4/format/BlockTraits.h"

namespace tolvex {

std::size_t BlockSurvey::run(std::uint64_t dataLink) {
  const auto known = byLink_.find(dataLink);
  if (known != byLink_.end()) return known->second;
  const std::size_t run = runs_.size();
  runs_.emplace_back();
  if (dataLink == 0) return run;
  byLink_.emplace(dataLink, run);
  addChain(run, dataLink);
  return run;
}

void BlockSurvey::addChain(std::size_t run, std::uint64_t start) {
  runs_[run].chains.push_back({start, 0, {}});
  walkers_.push_back({run, runs_[run].chains.size() - 1, ListedBlocks(file_, start)});
}

void BlockSurvey::addLoose(std::size_t run, const ListedBlock& block) {
  if (!owned_.add(block.position, block.position + block.size)) return;
  FoundData& found = runs_[run];
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

// Enters the block into its run. False when the chain ends in front of it.
bool BlockSurvey::take(const Walker& walker, const ListedBlock& block, std::uint64_t limit) {
  FoundData& run = runs_[walker.run];
  FoundData::Chain& chain = run.chains[walker.chain];
  if (block.kind == ListedBlock::Missing) {
    run.broken = true;
    if (block.elsewhere) run.openFrom = 0;
    if (block.ends) run.openFrom = std::min(run.openFrom, block.position);
    if (!block.elsewhere) {
      run.lastNamed = std::max(run.lastNamed, block.position);
      run.lostBytes += block.bytes;
    }
    ++chain.steps;
    return true;
  }
  if (block.kind == ListedBlock::List) {
    if (!owned_.add(block.position, block.position + block.size)) {
      run.broken = true;
      run.openFrom = 0;
      return false;
    }
    if (walker.blocks.equalLength() != 0) run.equalLength = walker.blocks.equalLength();
    run.lastList = block.position;
    run.lastListEnd = block.position + block.size;
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
    run.broken = true;
  }
  ++chain.steps;
  if (room < kBlockHeaderSize || !owned_.add(taken.position, taken.position + taken.size)) {
    chain.bytes[chain.steps - 1] = 0;
    run.openFrom = 0;
    return true;
  }
  if (block.cut) run.broken = true;
  if (block.invalidation != 0) ownInvalidation(block.invalidation);
  if (run.last && run.last->position > taken.position) run.ascending = false;
  if (!run.first) run.first = taken;
  run.last = taken;
  run.lastNamed = std::max(run.lastNamed, taken.position);
  run.lastChain = walker.chain;
  run.lastStep = chain.steps - 1;
  run.bytes += taken.bytes;
  ++run.blocks;
  return true;
}

void BlockSurvey::ownInvalidation(std::uint64_t position) {
  BlockHeader header;
  if (readSoundHeader(file_, position, header)) owned_.add(position, position + header.length);
}

void BlockSurvey::extendLast(std::size_t number) {
  FoundData& run = runs_[number];
  if (!run.last || !isPlainData(run.last->type)) return;
  const std::uint64_t end = run.last->position + run.last->size;
  const std::uint64_t limit = owned_.nextOwned(end, file_.end());
  BlockHeader header;
  const std::uint64_t next = alignUp(end);
  if (limit <= end || readSoundHeader(file_, next, header)) return;
  run.chains[run.lastChain].bytes[run.lastStep] = limit - run.last->position - kBlockHeaderSize;
  owned_.add(end, limit);
  run.bytes += limit - end;
  run.last->bytes += limit - end;
  run.last->size += limit - end;
}

}  // namespace tolvex
