// Data groups, channel groups and channels.
#include <algorithm>
#include <cinttypes>
#include <string>
#include <unordered_set>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/check/TreeCheck.h"
#include "Mdf4/format/BlockTraits.h"
#include "Mdf4/model/ChannelPlace.h"

namespace tolvex {

using namespace link;

void TreeCheck::checkDataGroup(const FoundBlock& block) {
  CheckedDataGroup group = {block, walk_.record<m4DGRecord>(block), walk_.link(block, dg_data)};
  const std::uint8_t idSize = group.record.dg_rec_id_size;
  if (idSize != 0 && !isRecordIdSize(idSize)) {
    walk_.enter(block, {{true, 0, "dg_rec_id_size", "0, 1, 2, 4 or 8", std::to_string(idSize)}});
  }
  checkCommon(block);
  chain(walk_.link(block, dg_cg_first), cg_cg_next,
        [&](const FoundBlock& next) { checkGroup(next, group); });
  checkRecordIds(group);
  groups.push_back(std::move(group));
}

// Records of several groups are told apart by the ids in front of them.
void TreeCheck::checkRecordIds(const CheckedDataGroup& group) {
  const std::uint8_t idSize = group.record.dg_rec_id_size;
  if (idSize == 0 && group.groups.size() > 1) {
    walk_.enter(group.block,
                {{true, 0, "dg_rec_id_size",
                  formatText("at least 1, for %zu channel groups", group.groups.size()), "0"}});
    return;
  }
  std::unordered_set<std::uint64_t> ids;
  for (const CheckedGroup& each : group.groups) {
    if (idSize == 0) break;
    const std::uint64_t id = each.record.cg_record_id;
    const auto wrong = [&](std::string expected) {
      walk_.enter(each.block, {{true, offsetof(m4CGRecord, cg_record_id), "cg_record_id",
                                std::move(expected), std::to_string(id)}});
    };
    if (idSize < sizeof id && id >> (8 * idSize) != 0) {
      wrong(formatText("a number of %u bytes", unsigned{idSize}));
    } else if (!ids.insert(id).second) {
      wrong("one that no other channel group of the data group has");
    }
  }
}

void TreeCheck::checkGroup(const FoundBlock& block, CheckedDataGroup& parent) {
  CheckedGroup group = {{walk_.record<m4CGRecord>(block)}, block};
  checkCommon(block);
  const BlockLink channels = walk_.link(block, cg_cn_first);
  checkChannels(channels, group);
  checkMasters(group, channels.target != 0);
  chain(walk_.link(block, cg_sr_first), sr_sr_next,
        [&](const FoundBlock& reduction) { checkReduction(reduction, group); });
  parent.groups.push_back(std::move(group));
}

void TreeCheck::checkMasters(const CheckedGroup& group, bool hasChannels) {
  const bool remote = walk_.link(group.block, cg_cg_master).target != 0;
  if (masters_ != 0 || !hasChannels || remote || group.holdsValues()) return;
  walk_.findings().warning(group.block.position, fieldName(group.block.type, "channels"),
                           "a master channel", "none");
}

void TreeCheck::checkReduction(const FoundBlock& block, const CheckedGroup& group) {
  CheckedReduction reduction = {block, walk_.record<m4SRRecord>(block)};
  checkCommon(block);
  reduction.recordSize = group.recordSize(reduction.record);
  reduction.data = walk_.link(block, sr_data);
  reductions.push_back(reduction);
}

void TreeCheck::checkChannels(const BlockLink& first, CheckedGroup& group) {
  masters_ = 0;
  compositions_ = {first};
  while (!compositions_.empty()) {
    BlockLink link = compositions_.back();
    compositions_.pop_back();
    while (const std::optional<FoundBlock> block = walk_.enterBlock(link)) {
      if (block->type == block_type::kCA) {
        checkArray(*block);
        break;
      }
      checkChannel(*block, group);
      link = walk_.link(*block, cn_cn_next);
    }
  }
}

void TreeCheck::checkChannel(const FoundBlock& block, CheckedGroup& group) {
  const auto channel = walk_.record<m4CNRecord>(block);
  walk_.enter(block, faultsOf(channel, block.room()));
  checkPlace(block, channel, group);
  if (walk_.link(block, cn_tx_name).target == 0) {
    walk_.findings().error(walk_.link(block, cn_tx_name).position,
                           fieldName(block.type, "cn_tx_name"), "a name", "none");
  }
  if ((masters_ & masterBit(channel)) != 0) {
    walk_.findings().error(block.position, fieldName(block.type, "cn_type"),
                           "one master of a kind in a channel group", "another one");
  }
  masters_ |= masterBit(channel);
  if (isTimeMaster(channel) && !group.time) group.time = {block, channel};
  checkCommon(block);
  checkChannelData(block, channel, group);
  compositions_.push_back(walk_.link(block, cn_composition));
}

void TreeCheck::checkPlace(const FoundBlock& block, const m4CNRecord& channel,
                           const CheckedGroup& group) {
  const std::uint32_t size = group.record.cg_data_bytes;
  // The start of a name is all that it takes to know the channels with a place of their own.
  constexpr std::uint64_t kStart = 63;
  if (!liesInside(channel, textStart(walk_.file(), walk_.link(block, cn_tx_name).target, kStart),
                  size)) {
    walk_.enter(block,
                {{true, offsetof(m4CNRecord, cn_byte_offset), "cn_byte_offset",
                  formatText("a place inside the record of %u bytes", unsigned{size}),
                  formatText("%u bits at byte %u, bit %u", unsigned{channel.cn_bit_count},
                             unsigned{channel.cn_byte_offset}, unsigned{channel.cn_bit_offset})}});
  }
  const std::uint32_t invalBytes = group.record.cg_inval_bytes;
  if (!invalidationBitLiesInside(channel, invalBytes)) {
    walk_.enter(block, {{true, offsetof(m4CNRecord, cn_inval_bit_pos), "cn_inval_bit_pos",
                         formatText("a bit of %u invalidation bytes", unsigned{invalBytes}),
                         std::to_string(channel.cn_inval_bit_pos)}});
  }
}

void TreeCheck::checkChannelData(const FoundBlock& block, const m4CNRecord& channel,
                                 CheckedGroup& group) {
  const BlockLink data = walk_.link(block, cn_data);
  if (channel.cn_type != channel_type::kVlsd) {
    walk_.refer(data);
    return;
  }
  const std::uint16_t kind = walk_.kindAt(data);
  if (kind == block_type::kCG) {
    walk_.refer(data);
  } else if (kind != 0 && !isData(kind) && mayLinkTo(data.from, data.index, kind)) {
    walk_.findings().error(data.position, fieldName(block.type, "cn_data"),
                           "signal data or a channel group, of a variable-length channel",
                           formatText("%" PRIu64 ", another kind of block", data.target));
    return;
  }
  group.values.push_back({block, channel, data});
}

void TreeCheck::checkArray(const FoundBlock& block) {
  walk_.enter(block, faultsOf(walk_.record<m4CARecord>(block), block.room()));
  compositions_.push_back(walk_.link(block, ca_composition));
  checkCommon(block);
}

}  // namespace tolvex
