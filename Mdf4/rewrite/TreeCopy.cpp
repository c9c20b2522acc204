#include "Mdf4/rewrite/TreeCopy.h"

#include <algorithm>
#include <cinttypes>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/base/System.h"
#include "Mdf4/format/BlockTraits.h"
#include "Mdf4/format/ListedBlocks.h"
#include "Mdf4/model/ChannelPlace.h"
#include "Mdf4/rewrite/Notes.h"

namespace tolvex {
namespace {

using namespace block_type;

constexpr std::uint64_t kLongestName = 1000;  // bytes that are of use in a message

}  // namespace

TreeCopy::TreeCopy(DirectFile& in, DirectFile& out, OwnedRanges& owned, MdfRecoveryReport& report,
                   bool counted)
    : in_(in),
      owned_(owned),
      report_(report),
      counted_(counted),
      plan_(in, out, report),
      source_(in, owned, plan_, report) {}

void TreeCopy::lose(std::size_t group, std::string text) {
  if (group == BlockPlan::kNone) {
    noteLoss(report_, std::move(text));
  } else {
    noteLoss(groups_[group].report, std::move(text));
  }
}

// Follows all links of the planned block: to shared blocks at once, to blocks of the tree step by
// step, and leaves references to be resolved at the end.
void TreeCopy::followLinks(std::size_t block, std::size_t group) {
  const std::uint16_t type = plan_[block].type;
  for (std::size_t i = plan_[block].links.size(); i-- > 0;) {
    const std::uint64_t target = plan_[block].links[i].position;
    if (target == 0 || !plan_[block].links[i].reference) continue;
    if (traitsOf(type).link(i).use == LinkUse::Owns) {
      plan_.setLink(block, i, 0);
      steps_.push_back({block, i, target, group});
      continue;
    }
    BlockHeader header;
    if (!readSoundHeader(in_, target, header) || !isShared(header.type)) continue;
    plan_.setLink(block, i, source_.takeOver(target, type, i));
    if (plan_[block].links[i].position != 0) continue;
    lose(group, deadLink(type, plan_[block].source, i, target));
  }
}

void TreeCopy::follow(const Step& first) {
  steps_.push_back(first);
  followSteps();
}

// Follows the links that wait, and all that are met on the way.
void TreeCopy::followSteps() {
  while (!steps_.empty()) {
    const Step step = steps_.back();
    steps_.pop_back();
    BlockPlan::Block loaded;
    if (!source_.load(step.target, plan_[step.parent].type, step.index, loaded)) {
      loseStep(step);
    } else if (loaded.type == kCN) {
      followChannel(step, std::move(loaded));
    } else if (loaded.type == kSR) {
      followReduction(step, std::move(loaded));
    } else {
      if (loaded.type == kFH) lastHistory_ = plan_.count();
      followLinks(placeAt(step, std::move(loaded)), step.group);
    }
  }
}

// Plans the block that the step leads to.
std::size_t TreeCopy::placeAt(const Step& step, BlockPlan::Block loaded) {
  const std::size_t block = plan_.place(std::move(loaded));
  plan_.link(step.parent, step.index, block);
  return block;
}

void TreeCopy::loseStep(const Step& step) {
  const std::uint16_t from = plan_[step.parent].type;
  lose(step.group, deadLink(from, plan_[step.parent].source, step.index, step.target) +
                       "; it is lost with what follows it");
  if (from != kCN && (from != kCG || step.index != link::cg_cn_first)) return;
  brokenChannels_.push_back(step);
  groups_[step.group].lostChannels = true;
  firstLost_ = std::min(firstLost_, step.target);
}

void TreeCopy::followReduction(const Step& step, BlockPlan::Block loaded) {
  const std::uint64_t data = std::exchange(loaded.links[link::sr_data], {}).position;
  SourceGroup& group = groups_[step.group];
  const std::uint64_t size = group.recordSize(recordOf<m4SRRecord>(loaded.data));
  const std::size_t block = placeAt(step, std::move(loaded));
  group.reductions.push_back({block, data, size});
  followLinks(block, step.group);
}

// A channel. One that does not lie in the record is left out, with its components.
void TreeCopy::followChannel(const Step& step, BlockPlan::Block loaded) {
  SourceGroup& group = groups_[step.group];
  const auto channel = recordOf<m4CNRecord>(loaded.data);
  const std::uint64_t nameLink = loaded.links[link::cn_tx_name].position;
  std::string name = textStart(in_, nameLink, kLongestName);
  // A name that is lost excuses no place beyond the record.
  if (!liesInside(channel, "", group.record.cg_data_bytes) &&
      source_.takeOver(nameLink, kCN, link::cn_tx_name) == 0) {
    name.clear();
  }
  const char* misfit = group.misfit(channel, name);
  if (channel.cn_bit_count == 0 && !isVirtual(channel) &&
      isOnLostPage(loaded.dataPosition + offsetof(m4CNRecord, cn_bit_count))) {
    misfit = "a channel with bits";
  }
  if (misfit != nullptr) {
    noteMisfit(group,
               formatText("channel \"%s\" at %" PRIu64 ": expected %s", name.c_str(), loaded.source,
                          misfit),
               channel);
    const std::uint64_t next = loaded.links[link::cn_cn_next].position;
    if (next != 0) steps_.push_back({step.parent, step.index, next, step.group});
    return;
  }
  const std::uint64_t dataLink = loaded.links[link::cn_data].position;
  const bool hasConversion = loaded.links[link::cn_cc_conversion].position != 0;
  if (channel.cn_type == channel_type::kVlsd) loaded.links[link::cn_data] = {};
  const std::size_t block = placeAt(step, std::move(loaded));
  followLinks(block, step.group);
  completeChannel(group, block, hasConversion, name);
  group.add(channel, name, block, plan_[block].source, dataLink);
}

void TreeCopy::noteMisfit(SourceGroup& group, std::string text, const m4CNRecord& channel) {
  text +=
      formatText(", found byte %u, bit %u, %u bits in a record of %u bytes", channel.cn_byte_offset,
                 unsigned{channel.cn_bit_offset}, channel.cn_bit_count, group.record.cg_data_bytes);
  const SourceData& data = data_[static_cast<std::size_t>(group.report.dgIndex)];
  if (data.dataLink == 0 && group.record.cg_cycle_count == 0) {
    noteRepair(group.report, std::move(text));  // nothing was recorded: a group that was being made
  } else {
    noteLoss(group.report, std::move(text));
  }
}

// Makes up for a name or a conversion that is lost.
void TreeCopy::completeChannel(SourceGroup& group, std::size_t block, bool hadConversion,
                               const std::string& name) {
  for (const std::size_t index : {link::cn_tx_name, link::cn_cc_conversion}) {
    if (plan_[block].links[index].reference) plan_.setLink(block, index, 0);  // to anything else
  }
  if (plan_[block].links[link::cn_tx_name].position == 0) {
    noteLoss(group.report,
             formatText("CN block at %" PRIu64 ": the channel's name", plan_[block].source));
    const auto channel = recordOf<m4CNRecord>(plan_[block].data);
    const std::string made = formatText("channel at byte %u", channel.cn_byte_offset);
    plan_.link(block, link::cn_tx_name, plan_.placeText(made, kTX));
  }
  if (hadConversion && plan_[block].links[link::cn_cc_conversion].position == 0) {
    plan_.setLink(block, link::cn_md_unit, 0);  // it is that of the converted values
    noteLoss(group.report,
             formatText("channel \"%s\" at %" PRIu64 ": its conversion, and the unit with it",
                        name.c_str(), plan_[block].source));
  }
}

// Whether nothing of the page that holds the position is there.
bool TreeCopy::isOnLostPage(std::uint64_t position) const {
  constexpr std::uint64_t kPage = 4096;
  const std::uint64_t start = position / kPage * kPage;
  return in_.areZeros(start, start + kPage);
}

void TreeCopy::readHeader() {
  BlockPlan::Block header;
  BlockHeader head;
  header.type = kHD;
  header.data.resize(sizeof(m4HDRecord));
  header.links.resize(link::hd_md_comment + 1);
  std::vector<std::uint64_t> links(header.links.size());
  constexpr std::uint64_t kLinks = kHeaderBlockPosition + kBlockHeaderSize;
  if (readSoundHeader(in_, kHeaderBlockPosition, head) && head.type == kHD &&
      in_.ReadAt(kLinks, links.size() * kLinkSize, links.data()) &&
      in_.ReadAt(kLinks + head.linkCount * kLinkSize, header.data.size(), header.data.data())) {
    header.source = kHeaderBlockPosition;
    for (std::size_t i = 0; i < links.size(); ++i) header.links[i] = {links[i], true};
    owned_.add(0, kHeaderBlockPosition + head.length);
  } else {
    noteLoss(report_, "HD block at 64: start time, comment and what else it says of the recording");
    owned_.add(0, kIdBlockSize);
  }
  const std::uint64_t firstGroup = header.links[link::hd_dg_first].position;
  header.links[link::hd_dg_first] = {};
  plan_.place(std::move(header));
  lastData_ = 0;
  readGroups(firstGroup, kHD);
  followLinks(0, BlockPlan::kNone);
  followSteps();
}

void TreeCopy::readGroups(std::uint64_t first, std::uint16_t from) {
  for (std::uint64_t position = first; position != 0;) {
    BlockPlan::Block loaded;
    static_assert(std::size_t{link::hd_dg_first} == std::size_t{link::dg_dg_next});
    if (!source_.load(position, from, link::dg_dg_next, loaded)) {
      noteLoss(report_,
               formatText("data group at %" PRIu64 ": no sound DG block; the groups behind "
                          "it are lost unless they are found otherwise",
                          position));
      loseGroups(position);
      return;
    }
    from = kDG;
    plan_.leaveOut(position);
    SourceData data;
    data.position = position;
    data.dataLink = loaded.links[link::dg_data].position;
    data.recordIdSize = recordOf<m4DGRecord>(loaded.data).dg_rec_id_size;
    data.comment = loaded.links[link::dg_md_comment].position;
    data_.push_back(data);
    readChannelGroups(data_.size() - 1, loaded.links[link::dg_cg_first].position);
    position = loaded.links[link::dg_dg_next].position;
    if (plan_.knows(position)) return;
  }
}

void TreeCopy::readChannelGroups(std::size_t data, std::uint64_t first) {
  for (std::uint64_t position = first; position != 0;) {
    BlockPlan::Block loaded;
    if (!source_.load(position, kDG, link::dg_cg_first, loaded)) {
      noteLoss(report_, formatText("channel group at %" PRIu64
                                   ": no sound CG block; it is lost, and those behind it",
                                   position));
      brokenGroups_.push_back(data);
      loseGroups(position);
      return;
    }
    position = loaded.links[link::cg_cg_next].position;
    readChannelGroup(data, std::move(loaded));
    if (plan_.knows(position)) return;
  }
}

void TreeCopy::readChannelGroup(std::size_t data, BlockPlan::Block loaded) {
  const std::size_t number = groups_.size();
  SourceGroup& group = groups_.emplace_back();
  group.position = loaded.source;
  group.record = recordOf<m4CGRecord>(loaded.data);
  if (!counted_) group.record.cg_cycle_count = 0;
  group.report.dgIndex = static_cast<std::int32_t>(data);
  group.report.cgIndex = static_cast<std::int32_t>(data_[data].groups.size());
  for (const std::size_t index : {link::cg_tx_acq_name, link::cg_md_comment}) {
    if (!group.report.name.empty()) break;
    group.report.name = textStart(in_, loaded.links[index].position, kLongestName);
  }
  data_[data].groups.push_back(&group);
  if (group.holdsValues()) {
    plan_.leaveOut(group.position);
    return;
  }
  const std::uint64_t firstChannel = loaded.links[link::cg_cn_first].position;
  const std::uint64_t firstReduction = loaded.links[link::cg_sr_first].position;
  for (const std::size_t index : {link::cg_cg_next, link::cg_cn_first, link::cg_sr_first}) {
    loaded.links[index] = {};
  }
  placeDataGroup(group);
  group.groupBlock = plan_.place(std::move(loaded));
  plan_.link(group.dataBlock, link::dg_cg_first, group.groupBlock);
  plan_.standFor(data_[data].position, group.position, group.dataBlock);
  if (data_[data].comment != 0) {
    plan_.setLink(group.dataBlock, link::dg_md_comment,
                  source_.takeOver(data_[data].comment, kDG, link::dg_md_comment));
  }
  followLinks(group.groupBlock, number);
  if (firstChannel != 0) follow({group.groupBlock, link::cg_cn_first, firstChannel, number});
  if (firstReduction != 0) follow({group.groupBlock, link::cg_sr_first, firstReduction, number});
}

// Plans a data group of its own for the group, behind the one before.
void TreeCopy::placeDataGroup(SourceGroup& group) {
  group.dataBlock = plan_.placeNew(kDG, link::dg_md_comment + 1, dataOf(m4DGRecord{}));
  plan_.link(lastData_,
             lastData_ == 0 ? std::size_t{link::hd_dg_first} : std::size_t{link::dg_dg_next},
             group.dataBlock);
  lastData_ = group.dataBlock;
}

// No DG or CG block is at the position.
void TreeCopy::loseGroups(std::uint64_t position) {
  firstLost_ = std::min(firstLost_, position);
  groupsAreLost_ = true;
}

bool TreeCopy::adopt(std::uint64_t position) {
  BlockHeader header;
  if (!readSoundHeader(in_, position, header) || plan_.knows(position)) return false;
  firstLost_ = std::min(firstLost_, position);
  groupsAreLost_ |= header.type != kCN;
  const std::size_t known = plan_.knownCount();
  if (header.type == kDG) {
    readGroups(position, kDG);
  } else if (header.type == kCG) {
    std::size_t data = data_.size();
    if (brokenGroups_.size() != 1) {
      data_.emplace_back().isLost = true;
    } else {
      data = brokenGroups_.back();
      brokenGroups_.pop_back();
    }
    readChannelGroups(data, position);
    if (data_.back().isLost && data_.back().groups.empty()) data_.pop_back();
  } else if (header.type == kCN && brokenChannels_.size() == 1 && !groupsAreLost_) {
    Step step = brokenChannels_.back();
    brokenChannels_.pop_back();
    step.target = position;
    follow(step);
  }
  return plan_.knownCount() != known;
}

void TreeCopy::addHistory(const std::string& comment) {
  constexpr std::uint64_t kNsPerTick = 100;
  m4FHRecord record = {};
  record.fh_time_ns = systemTicks() * kNsPerTick;
  const std::size_t text = plan_.placeText(comment, kMD);
  const std::size_t entry = plan_.placeNew(kFH, link::fh_md_comment + 1, dataOf(record));
  plan_.link(entry, link::fh_md_comment, text);
  plan_.link(lastHistory_,
             lastHistory_ == 0 ? std::size_t{link::hd_fh_first} : std::size_t{link::fh_fh_next},
             entry);
}

void TreeCopy::setCycleCount(const SourceGroup& group, std::uint64_t records) {
  plan_.changeRecord<m4CGRecord>(group.groupBlock,
                                 [&](m4CGRecord& record) { record.cg_cycle_count = records; });
}

void TreeCopy::setReduction(std::size_t block, std::uint64_t cycles, std::uint64_t dataLink) {
  plan_.changeRecord<m4SRRecord>(block,
                                 [&](m4SRRecord& record) { record.sr_cycle_count = cycles; });
  plan_.setLink(block, link::sr_data, dataLink);
}

}  // namespace tolvex
