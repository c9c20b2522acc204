#include "Mdf4/rewrite/TreeCopy.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <optional>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockParts.h"
#include "Mdf4/format/BlockTraits.h"
#include "Mdf4/format/FieldRules.h"
#include "Mdf4/format/ListedBlocks.h"
#include "Mdf4/model/BusLogLayout.h"
#include "Mdf4/model/ChannelPlace.h"
#include "Mdf4/rewrite/Notes.h"

namespace tolvex {
namespace {

using namespace block_type;

constexpr int kDeepest = 16;  // conversions that refer to conversions

// Where the data of a text end: with its first NUL, or where the block does; nothing when it cannot
// be read.
std::optional<std::uint64_t> textLength(DirectFile& file, std::uint64_t position,
                                        std::uint64_t bytes, bool& terminated) {
  std::array<std::uint8_t, 1024> piece;
  for (std::uint64_t done = 0; done < bytes; done += piece.size()) {
    const std::uint64_t count = std::min<std::uint64_t>(piece.size(), bytes - done);
    if (!file.ReadAt(position + done, count, piece.data())) return std::nullopt;
    const auto end = piece.begin() + static_cast<std::ptrdiff_t>(count);
    const auto nul = std::find(piece.begin(), end, 0);
    if (nul != end) return done + static_cast<std::uint64_t>(nul - piece.begin()) + 1;
  }
  terminated = false;
  return bytes;
}

// Whether the codes and counts in the block's record can be relied on.
bool hasSoundFields(DirectFile& file, std::uint16_t type, std::uint64_t position, BlockRoom room) {
  const auto sound = [&](auto record) {
    return file.ReadAt(position, sizeof record, &record) && isSound(record, room);
  };
  switch (type) {
    case kCN:
      return sound(m4CNRecord{});
    case kCC:
      return sound(m4CCRecord{});
    case kCA:
      return sound(m4CARecord{});
    case kCH:
      return sound(m4CHRecord{});
    case kEV:
      return sound(m4EVRecord{});
    case kAT:
      return sound(m4ATRecord{});
    default:
      return true;
  }
}

}  // namespace

const SourceGroup* SourceData::valuesAt(std::uint64_t at) const {
  const auto holder = std::ranges::find_if(groups, [at](const SourceGroup* group) {
    return group->holdsValues() && group->position == at;
  });
  return holder == groups.end() ? nullptr : *holder;
}

TreeCopy::TreeCopy(DirectFile& in, DirectFile& out, OwnedRanges& owned, MdfRecoveryReport& report,
                   bool counted)
    : in_(in), out_(out), owned_(owned), report_(report), counted_(counted) {}

void TreeCopy::lose(std::size_t group, std::string text) {
  if (group == kNone) {
    noteLoss(report_, std::move(text));
  } else {
    noteLoss(groups_[group].report, std::move(text));
  }
}

// Loads what can be copied of the block that the link leads to, which then belongs to the tree.
// False, with the block unknown to the tree, when the link leads to nothing fitting.
bool TreeCopy::load(std::uint64_t position, std::uint16_t from, std::size_t index,
                    PlannedBlock& block) {
  BlockHeader header;
  std::uint64_t dataBytes = 0;
  if (!readSoundHeader(in_, position, header) || !header.dataLength(dataBytes) ||
      !mayLinkTo(from, index, header.type) || bySource_.count(position) != 0 ||
      unfit_.count(position) != 0) {
    return false;
  }
  block.type = header.type;
  block.source = position;
  std::vector<std::uint64_t> links(header.linkCount);
  if (!in_.ReadAt(position + kBlockHeaderSize, links.size() * kLinkSize, links.data()))
    return false;
  block.dataPosition = position + kBlockHeaderSize + links.size() * kLinkSize;
  if (!loadData(block, {links.size(), dataBytes}) ||
      !owned_.add(position, block.dataPosition + block.dataBytes)) {
    unfit_.insert(position);
    return false;
  }
  BlockHeader stated;
  if (in_.ReadAt(position, kBlockHeaderSize, &stated) && stated.length != header.length) {
    noteRepair(report_,
               formatText("%s block at %" PRIu64 ": length: found %" PRIu64 ", it needs %" PRIu64,
                          letters(block.type).c_str(), position, stated.length, header.length));
  }
  for (const std::uint64_t target : links) block.links.push_back({target, true});
  return true;
}

// Loads the data of a block that has so much room for them, or finds out how many there are. What
// is long stays in the input until it is written.
bool TreeCopy::loadData(PlannedBlock& block, BlockRoom room) {
  constexpr std::uint64_t kLongest = 1 << 20;  // bytes; no conversion has as many
  block.dataBytes = room.dataBytes;
  if (isText(block.type)) {
    bool terminated = true;
    const auto length = textLength(in_, block.dataPosition, room.dataBytes, terminated);
    if (!length) return false;
    block.dataBytes = *length;
    block.unterminated = !terminated;
  } else if (block.type == kAT) {
    m4ATRecord record = {};
    if (!in_.ReadAt(block.dataPosition, sizeof record, &record) ||
        record.at_embedded_size > room.dataBytes - sizeof record) {
      return false;
    }
    block.dataBytes = sizeof record + record.at_embedded_size;
  } else if (room.dataBytes <= kLongest) {
    block.data.resize(room.dataBytes);
    if (!in_.ReadAt(block.dataPosition, room.dataBytes, block.data.data())) return false;
  }
  return hasSoundFields(in_, block.type, block.dataPosition, room);
}

// Finds a place in the output for the block.
std::size_t TreeCopy::place(PlannedBlock block) {
  const std::uint64_t data =
      (block.data.empty() ? block.dataBytes : block.data.size()) + (block.unterminated ? 1 : 0);
  block.position = out_.Allocate(kBlockHeaderSize + block.links.size() * kLinkSize + data, false);
  if (block.source != 0) bySource_[block.source] = blocks_.size();
  blocks_.push_back(std::move(block));
  return blocks_.size() - 1;
}

// The place in the output of a block that may be shared: of the one planned before, or of a new
// one with all that it leads to. 0 when the link leads to nothing fitting.
std::uint64_t TreeCopy::takeOver(std::uint64_t position, std::uint16_t from, std::size_t index,
                                 int depth) {
  const auto known = bySource_.find(position);
  if (known != bySource_.end()) {
    if (known->second == kNone) return 0;
    const PlannedBlock& block = blocks_[known->second];
    // Conversions that refer to conversions: not in a circle.
    const bool circle = block.type == kCC && from == kCC && block.data.empty();
    return mayLinkTo(from, index, block.type) && !circle ? block.position : 0;
  }
  PlannedBlock loaded;
  if (depth > kDeepest || !load(position, from, index, loaded)) return 0;
  // While its links are followed the block has no data: that tells that it is on the way.
  std::vector<std::uint8_t> data = std::move(loaded.data);
  const bool hasData = !data.empty();
  if (hasData) loaded.dataBytes = data.size();
  loaded.data.clear();
  const std::size_t block = place(std::move(loaded));
  for (std::size_t i = 0; i < blocks_[block].links.size(); ++i) {
    const std::uint64_t target = blocks_[block].links[i].position;
    const std::uint64_t link =
        target == 0 ? 0 : takeOver(target, blocks_[block].type, i, depth + 1);
    if (target != 0 && link == 0) {
      noteLoss(report_, formatText("%s block at %" PRIu64 ": link %zu leads to %" PRIu64
                                   ", where no fitting block is",
                                   letters(blocks_[block].type).c_str(), position, i, target));
    }
    blocks_[block].links[i] = {link, false};
  }
  blocks_[block].data = std::move(data);
  return blocks_[block].position;
}

// Follows all links of the planned block: to shared blocks at once, to blocks of the tree step by
// step, and leaves references to be resolved at the end.
void TreeCopy::followLinks(std::size_t block, std::size_t group) {
  for (std::size_t i = blocks_[block].links.size(); i-- > 0;) {
    const std::uint64_t target = blocks_[block].links[i].position;
    const std::uint16_t type = blocks_[block].type;
    if (target == 0 || !blocks_[block].links[i].reference) continue;
    if (traitsOf(type).link(i).use == LinkUse::Owns) {
      blocks_[block].links[i] = {};
      steps_.push_back({block, i, target, group});
      continue;
    }
    BlockHeader header;
    if (!readSoundHeader(in_, target, header) || !isShared(header.type)) continue;
    const std::uint64_t link = takeOver(target, type, i, 0);
    blocks_[block].links[i] = {link, false};
    if (link == 0) {
      lose(group, formatText("%s block at %" PRIu64 ": link %zu leads to %" PRIu64
                             ", where no fitting block is",
                             letters(type).c_str(), blocks_[block].source, i, target));
    }
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
    const std::uint16_t from = blocks_[step.parent].type;
    PlannedBlock loaded;
    if (!load(step.target, from, step.index, loaded)) {
      lose(step.group,
           formatText("%s block at %" PRIu64 ": link %zu leads to %" PRIu64
                      ", where no fitting block is; it is lost with what follows it",
                      letters(from).c_str(), blocks_[step.parent].source, step.index, step.target));
      if (from == kCN || (from == kCG && step.index == link::cg_cn_first)) {
        brokenChannels_.push_back(step);
        groups_[step.group].lostChannels = true;
        firstLost_ = std::min(firstLost_, step.target);
      }
      continue;
    }
    if (loaded.type == kCN) {
      followChannel(step, std::move(loaded));
      continue;
    }
    const std::uint64_t data = loaded.links.size() > 1 ? loaded.links[link::sr_data].position : 0;
    const bool isReduction = loaded.type == kSR;
    if (isReduction) loaded.links[link::sr_data] = {};
    if (loaded.type == kFH) lastHistory_ = blocks_.size();
    const std::size_t block = place(std::move(loaded));
    blocks_[step.parent].links[step.index] = {blocks_[block].position, false};
    if (isReduction) {
      SourceGroup& group = groups_[step.group];
      const bool marked = (recordOf<m4SRRecord>(blocks_[block].data).sr_flags & 1) != 0;
      const std::uint64_t size = std::uint64_t{3} * group.record.cg_data_bytes +
                                 (marked ? group.record.cg_inval_bytes : 0);
      group.reductions.push_back({block, data, size});
    }
    followLinks(block, step.group);
  }
}

// A channel. One that does not lie in the record is left out, with its components.
void TreeCopy::followChannel(const Step& step, PlannedBlock loaded) {
  const auto channel = recordOf<m4CNRecord>(loaded.data);
  const std::uint64_t nameLink = loaded.links[link::cn_tx_name].position;
  std::string name = text(nameLink);
  // A name that is lost excuses no place beyond the record.
  if (!liesInside(channel, "", groups_[step.group].record.cg_data_bytes) &&
      takeOver(nameLink, kCN, link::cn_tx_name, 0) == 0) {
    name.clear();
  }
  const char* expected = misplaced(groups_[step.group], channel, name);
  if (channel.cn_bit_count == 0 && !isVirtual(channel) &&
      isOnLostPage(loaded.dataPosition + offsetof(m4CNRecord, cn_bit_count))) {
    expected = "a channel with bits";
  }
  if (expected != nullptr) {
    MdfRecoveredGroup& report = groups_[step.group].report;
    std::string text =
        formatText("channel \"%s\" at %" PRIu64
                   ": expected %s, found byte %u, bit %u, %u bits in a record of %u bytes",
                   name.c_str(), loaded.source, expected, channel.cn_byte_offset,
                   unsigned{channel.cn_bit_offset}, channel.cn_bit_count,
                   groups_[step.group].record.cg_data_bytes);
    const SourceData& data = data_[static_cast<std::size_t>(report.dgIndex)];
    if (data.dataLink == 0 && groups_[step.group].record.cg_cycle_count == 0) {
      noteRepair(report, std::move(text));  // nothing was recorded: a group that was being made
    } else {
      noteLoss(report, std::move(text));
    }
    const std::uint64_t next = loaded.links[link::cn_cn_next].position;
    if (next != 0) steps_.push_back({step.parent, step.index, next, step.group});
    return;
  }
  const std::uint64_t dataLink = loaded.links[link::cn_data].position;
  const bool hasConversion = loaded.links[link::cn_cc_conversion].position != 0;
  if (channel.cn_type == channel_type::kVlsd) loaded.links[link::cn_data] = {};
  const std::size_t block = place(std::move(loaded));
  blocks_[step.parent].links[step.index] = {blocks_[block].position, false};
  followLinks(block, step.group);
  for (const std::size_t index : {link::cn_tx_name, link::cn_cc_conversion}) {
    if (blocks_[block].links[index].reference)
      blocks_[block].links[index] = {};  // to anything else
  }
  if (blocks_[block].links[link::cn_tx_name].position == 0) {
    noteLoss(groups_[step.group].report,
             formatText("CN block at %" PRIu64 ": the channel's name", blocks_[block].source));
    const std::uint64_t made =
        newText(formatText("channel at byte %u", channel.cn_byte_offset), kTX);
    blocks_[block].links[link::cn_tx_name] = {made, false};
  }
  if (hasConversion && blocks_[block].links[link::cn_cc_conversion].position == 0) {
    blocks_[block].links[link::cn_md_unit] = {};  // it is that of the converted values
    noteLoss(groups_[step.group].report,
             formatText("channel \"%s\" at %" PRIu64 ": its conversion, and the unit with it",
                        name.c_str(), blocks_[block].source));
  }
  describeChannel(groups_[step.group], block, channel, name, dataLink);
}

// Whether nothing of the page that holds the position is there.
bool TreeCopy::isOnLostPage(std::uint64_t position) {
  constexpr std::uint64_t kPage = 4096;
  std::array<std::uint8_t, kPage> page;
  const std::uint64_t start = position / kPage * kPage;
  const std::uint64_t bytes = std::min(kPage, in_.end() - start);
  return in_.ReadAt(start, bytes, page.data()) &&
         std::all_of(page.begin(), page.begin() + static_cast<std::ptrdiff_t>(bytes),
                     [](std::uint8_t byte) { return byte == 0; });
}

// What the channel should be and is not; null for a channel that fits into its group.
const char* TreeCopy::misplaced(const SourceGroup& group, const m4CNRecord& channel,
                                std::string_view name) {
  if (isMaster(channel) && (group.masters >> channel.cn_sync_type & 1) != 0)
    return "no second master";
  if (!isVirtual(channel) && !liesInside(channel, name, group.record.cg_data_bytes)) {
    return "it inside its record";
  }
  if (!invalidationBitLiesInside(channel, group.record.cg_inval_bytes)) {
    return "its invalidation bit inside its record";
  }
  if (channel.cn_type == channel_type::kVlsd &&
      (channel.cn_bit_offset != 0 || channel.cn_bit_count % 8 != 0 || channel.cn_bit_count > 64)) {
    return "an offset of whole bytes";
  }
  // Values are given offsets of their own.
  const auto shares = [&](const ValueChannel& other) {
    return channel.cn_byte_offset < other.byteOffset + other.bytes &&
           other.byteOffset < channel.cn_byte_offset + channel.cn_bit_count / 8;
  };
  if (channel.cn_type == channel_type::kVlsd && std::ranges::any_of(group.values, shares)) {
    return "no offset that another channel uses";
  }
  return nullptr;
}

void TreeCopy::describeChannel(SourceGroup& group, std::size_t block, const m4CNRecord& channel,
                               std::string_view name, std::uint64_t dataLink) {
  if (isMaster(channel)) group.masters |= 1U << channel.cn_sync_type;
  if (channel.cn_type == channel_type::kMaster && channel.cn_sync_type == kSyncTime) {
    group.master = blocks_[block].source;
    group.time = {channel.cn_byte_offset, channel.cn_bit_offset, channel.cn_bit_count};
  }
  if (channel.cn_type == channel_type::kVlsd) {
    group.values.push_back({block, dataLink, channel.cn_byte_offset, channel.cn_bit_count / 8,
                            channel.cn_flags, channel.cn_inval_bit_pos});
  }
  const std::optional<CanFieldName> field = classifyFieldName(name);
  if (!field) return;
  const RecordField place = {channel.cn_byte_offset, channel.cn_bit_offset, channel.cn_bit_count};
  if (field->field == CanField::BusChannel) group.busChannel = place;
  if (field->field == CanField::Dir) group.direction = place;
}

// The text at the position, as far as it is one of use in a message.
std::string TreeCopy::text(std::uint64_t position) const {
  constexpr std::uint64_t kLongest = 1000;
  BlockHeader header;
  std::uint64_t bytes = 0;
  if (!readSoundHeader(in_, position, header) || !isText(header.type) ||
      !header.dataLength(bytes)) {
    return {};
  }
  std::string text(std::min(bytes, kLongest), '\0');
  if (!in_.ReadAt(position + header.length - bytes, text.size(), text.data())) return {};
  return text.substr(0, text.find('\0'));
}

std::uint64_t TreeCopy::newText(const std::string& text, std::uint16_t type) {
  PlannedBlock block;
  block.type = type;
  block.data.assign(text.c_str(), text.c_str() + text.size() + 1);
  return blocks_[place(std::move(block))].position;
}

void TreeCopy::readHeader() {
  PlannedBlock header;
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
  place(std::move(header));
  lastData_ = 0;
  readGroups(firstGroup, kHD);
  followLinks(0, kNone);
  followSteps();
}

void TreeCopy::readGroups(std::uint64_t first, std::uint16_t from) {
  for (std::uint64_t position = first; position != 0;) {
    PlannedBlock loaded;
    static_assert(std::size_t{link::hd_dg_first} == std::size_t{link::dg_dg_next});
    if (!load(position, from, link::dg_dg_next, loaded)) {
      noteLoss(report_,
               formatText("data group at %" PRIu64 ": no sound DG block; the groups behind "
                          "it are lost unless they are found otherwise",
                          position));
      loseGroups(position);
      return;
    }
    from = kDG;
    bySource_[position] = kNone;
    SourceData data;
    data.position = position;
    data.dataLink = loaded.links[link::dg_data].position;
    data.recordIdSize = recordOf<m4DGRecord>(loaded.data).dg_rec_id_size;
    data.comment = loaded.links[link::dg_md_comment].position;
    data_.push_back(data);
    readChannelGroups(data_.size() - 1, loaded.links[link::dg_cg_first].position);
    position = loaded.links[link::dg_dg_next].position;
    if (bySource_.count(position) != 0) return;
  }
}

void TreeCopy::readChannelGroups(std::size_t data, std::uint64_t first) {
  for (std::uint64_t position = first; position != 0;) {
    PlannedBlock loaded;
    if (!load(position, kDG, link::dg_cg_first, loaded)) {
      noteLoss(report_, formatText("channel group at %" PRIu64
                                   ": no sound CG block; it is lost, and those behind it",
                                   position));
      brokenGroups_.push_back(data);
      loseGroups(position);
      return;
    }
    position = loaded.links[link::cg_cg_next].position;
    readChannelGroup(data, std::move(loaded));
    if (bySource_.count(position) != 0) return;
  }
}

void TreeCopy::readChannelGroup(std::size_t data, PlannedBlock loaded) {
  const std::size_t number = groups_.size();
  SourceGroup& group = groups_.emplace_back();
  group.position = loaded.source;
  group.record = recordOf<m4CGRecord>(loaded.data);
  if (!counted_) group.record.cg_cycle_count = 0;
  group.report.dgIndex = static_cast<std::int32_t>(data);
  group.report.cgIndex = static_cast<std::int32_t>(data_[data].groups.size());
  group.report.name = text(loaded.links[link::cg_tx_acq_name].position);
  if (group.report.name.empty()) {
    group.report.name = text(loaded.links[link::cg_md_comment].position);
  }
  data_[data].groups.push_back(&group);
  if (group.holdsValues()) {
    bySource_[group.position] = kNone;
    return;
  }
  PlannedBlock dataBlock;
  dataBlock.type = kDG;
  dataBlock.links.resize(link::dg_md_comment + 1);
  dataBlock.data = dataOf(m4DGRecord{});
  group.dataBlock = place(std::move(dataBlock));
  const std::size_t next =
      lastData_ == 0 ? std::size_t{link::hd_dg_first} : std::size_t{link::dg_dg_next};
  blocks_[lastData_].links[next] = {blocks_[group.dataBlock].position, false};
  lastData_ = group.dataBlock;

  const std::uint64_t firstChannel = loaded.links[link::cg_cn_first].position;
  const std::uint64_t firstReduction = loaded.links[link::cg_sr_first].position;
  for (const std::size_t index : {link::cg_cg_next, link::cg_cn_first, link::cg_sr_first}) {
    loaded.links[index] = {};
  }
  group.groupBlock = place(std::move(loaded));
  const std::size_t groupBlock = group.groupBlock;
  blocks_[group.dataBlock].links[link::dg_cg_first] = {blocks_[groupBlock].position, false};
  dataOfGroup_[group.position] = blocks_[group.dataBlock].position;
  dataOfData_.try_emplace(data_[data].position, blocks_[group.dataBlock].position);
  if (data_[data].comment != 0) {
    const std::uint64_t comment = takeOver(data_[data].comment, kDG, link::dg_md_comment, 0);
    blocks_[groups_[number].dataBlock].links[link::dg_md_comment] = {comment, false};
  }
  followLinks(groupBlock, number);
  if (firstChannel != 0) follow({groupBlock, link::cg_cn_first, firstChannel, number});
  if (firstReduction != 0) follow({groupBlock, link::cg_sr_first, firstReduction, number});
}

// No DG or CG block is at the position.
void TreeCopy::loseGroups(std::uint64_t position) {
  firstLost_ = std::min(firstLost_, position);
  groupsAreLost_ = true;
}

bool TreeCopy::adopt(std::uint64_t position) {
  BlockHeader header;
  if (!readSoundHeader(in_, position, header) || bySource_.count(position) != 0) return false;
  firstLost_ = std::min(firstLost_, position);
  groupsAreLost_ |= header.type != kCN;
  const std::size_t known = bySource_.size();
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
  return bySource_.size() != known;
}

}  // namespace tolvex
