#include "Mdf4/check/TreeCheck.h"

#include <cinttypes>
#include <unordered_set>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockInflater.h"
#include "Mdf4/format/BlockTraits.h"

namespace tolvex {

using namespace link;

// What is alike for all kinds: reserved bytes, and the links but those that chains, children and
// data are reached by.
void TreeCheck::checkCommon(const FoundBlock& block) {
  walk_.checkReserved(block);
  const BlockTraits& traits = traitsOf(block.type);
  for (std::size_t i = 0; i < block.links; ++i) {
    const LinkTraits& link = traits.link(i);
    if (link.name == nullptr || link.use == LinkUse::Owns || link.use == LinkUse::Data) continue;
    const BlockLink to = walk_.link(block, i);
    const std::uint16_t kind = walk_.kindAt(to);
    const bool fits = mayLinkTo(block.type, i, kind);
    if (link.use == LinkUse::Refers && !(fits && (isShared(kind) || isData(kind)))) {
      walk_.refer(to);
    } else if (kind == block_type::kCC) {
      checkConversion(to);
    } else if (kind == block_type::kSI) {
      checkSource(to);
    } else if (fits && isData(kind)) {
      arrays.push_back(to);
    } else {
      walk_.shareText(to);
    }
  }
}

void TreeCheck::check() {
  const BlockLink root = {kNoBlock, 0, 0, kHeaderBlockPosition};
  const std::optional<FoundBlock> header = walk_.enterBlock(root);
  if (!header) return;
  checkCommon(*header);
  chain(walk_.link(*header, hd_fh_first), fh_fh_next,
        [this](const FoundBlock& block) { checkCommon(block); });
  chain(walk_.link(*header, hd_dg_first), dg_dg_next,
        [this](const FoundBlock& block) { checkDataGroup(block); });
  checkHierarchies(walk_.link(*header, hd_ch_first));
  chain(walk_.link(*header, hd_at_first), at_at_next,
        [this](const FoundBlock& block) { checkAttachment(block); });
  chain(walk_.link(*header, hd_ev_first), ev_ev_next,
        [this](const FoundBlock& block) { checkEvent(block); });
}

void TreeCheck::checkHierarchies(const BlockLink& first) {
  std::vector<BlockLink> pending = {first};
  while (!pending.empty()) {
    const BlockLink link = pending.back();
    pending.pop_back();
    chain(link, ch_ch_next, [&](const FoundBlock& block) {
      walk_.enter(block, faultsOf(walk_.record<m4CHRecord>(block), block.room()));
      pending.push_back(walk_.link(block, ch_ch_first));
      checkCommon(block);
    });
  }
}

void TreeCheck::checkAttachment(const FoundBlock& block) {
  constexpr std::uint16_t kCompressed = kAtFlagEmbedded | kAtFlagCompressed;
  const auto record = walk_.record<m4ATRecord>(block);
  const FieldFaults faults = faultsOf(record, block.room());
  walk_.enter(block, faults);
  checkCommon(block);
  if ((record.at_flags & kCompressed) != kCompressed || !faults.empty()) return;
  BlockInflater inflater(walk_.file(), sizes_.piece);
  const std::string fault = inflater
                                .inflate(block.dataPosition() + sizeof record,
                                         record.at_embedded_size, record.at_original_size)
                                .fault(record.at_original_size);
  if (fault.empty()) return;
  walk_.findings().error(block.dataPosition() + sizeof record,
                         fieldName(block.type, "embedded data"),
                         formatText("%" PRIu64 " bytes, inflated", record.at_original_size), fault);
}

void TreeCheck::checkEvent(const FoundBlock& block) {
  walk_.enter(block, faultsOf(walk_.record<m4EVRecord>(block), block.room()));
  checkCommon(block);
}

void TreeCheck::checkSource(const BlockLink& link) {
  if (const std::optional<FoundBlock> block = walk_.shareBlock(link)) checkCommon(*block);
}

// A conversion may use others, and none of them itself.
void TreeCheck::checkConversion(const BlockLink& link) {
  struct Open {
    FoundBlock block;
    std::size_t next;  // link
  };
  std::vector<Open> open;
  std::unordered_set<std::uint64_t> path;
  const auto begin = [&](const BlockLink& to) {
    const std::optional<FoundBlock> block = walk_.shareBlock(to);
    if (!block) return;
    walk_.enter(*block, faultsOf(walk_.record<m4CCRecord>(*block), block->room()));
    open.push_back({*block, 0});
    path.insert(block->position);
  };
  begin(link);
  while (!open.empty()) {
    Open& top = open.back();
    if (top.next >= top.block.links) {
      path.erase(top.block.position);
      open.pop_back();
      continue;
    }
    const BlockLink next = walk_.link(top.block, top.next++);
    if (next.index >= cc_ref && path.contains(next.target)) {
      walk_.findings().error(next.position, fieldName(next.from, linkName(next.from, next.index)),
                             "a conversion that does not use this one",
                             formatText("%" PRIu64 ", which does", next.target));
    } else if (walk_.kindAt(next) == block_type::kCC) {
      begin(next);
    } else {
      walk_.shareText(next);
    }
  }
}

}  // namespace tolvex
