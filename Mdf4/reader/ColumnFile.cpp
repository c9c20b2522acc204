#include "Mdf4/reader/ColumnFile.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <string_view>

#include "Mdf4/format/FieldRules.h"
#include "Mdf4/model/Text.h"
#include "Mdf4/reader/RecordingInfo.h"

namespace tolvex {
namespace {

std::string_view viewOf(const SharedText& text) {
  return text == nullptr ? std::string_view("") : std::string_view(*text);
}

}  // namespace

bool ColumnFile::open(Extent extent) {
  file_.acceptUnfinished(true);
  if (!file_.Open(path_, false)) return false;
  tree_ = ChannelTree(file_, texts_, extent == Extent::All ? TreeDetail::All : TreeDetail::Groups);
  describeRecording(extent);
  recordingStartNs_ = info_.startTimeNs;
  notice_ = data_.reportUnfinished();
  if (isOneOfMany_) file_.rest();
  return true;
}

std::unique_ptr<ColumnFile::Again> ColumnFile::again() const {
  auto other = std::make_unique<Again>(tree_);
  other->file.acceptUnfinished(true);
  const bool isSame = other->file.Open(path_, false) && other->file.end() == file_.end() &&
                      other->file.header()->hd_start_time_ns == file_.header()->hd_start_time_ns;
  if (isOneOfMany_) other->file.rest();
  return isSame ? std::move(other) : nullptr;
}

std::vector<MdfColumnGroup> ColumnFile::describe() {
  std::vector<MdfColumnGroup> groups;
  for (const ModelGroup& group : tree_.groups) groups.push_back(describe(group));
  if (isOneOfMany_) file_.rest();
  return groups;
}

ColumnPlan ColumnFile::plan(const ModelGroup& group, const ModelChannel& channel) {
  ColumnPlan planned = planColumn(group, channel);
  planConversion(planned, channel.conversion, conversions_);
  if (givesTime(channel.record)) {
    const std::int64_t later = info_.startTimeNs - recordingStartNs_;
    planTime(planned, {viewOf(channel.unit), info_.startTimeNs, later});
  }
  return planned;
}

void ColumnFile::describeRecording(Extent extent) {
  constexpr std::uint8_t kLocalTime = 0x01;
  constexpr std::uint8_t kOffsetsValid = 0x02;
  const M4HDBlock& header = *file_.header();
  info_ = {};
  info_.version = file_.version();
  const IdBlock& id = file_.id();
  info_.program.assign(id.id_prog, std::find(std::begin(id.id_prog), std::end(id.id_prog), '\0'));
  info_.program.erase(info_.program.find_last_not_of(' ') + 1);
  makeUtf8(info_.program);
  if (extent == Extent::All)
    info_.comment = viewOf(texts_.content(header.link(link::hd_md_comment)));
  info_.startTimeNs = static_cast<std::int64_t>(header.hd_start_time_ns);
  info_.startIsLocal = (header.hd_time_flags & kLocalTime) != 0;
  if ((header.hd_time_flags & kOffsetsValid) != 0) {
    info_.utcOffsetMinutes = header.hd_tz_offset_min + header.hd_dst_offset_min;
  }
  if (extent == Extent::All) describeSurroundings(file_, texts_, info_);
}

MdfColumnGroup ColumnFile::describe(const ModelGroup& group) {
  const ModelDataGroup& holder = tree_.dataGroups[static_cast<std::size_t>(group.dataGroup)];
  MdfColumnGroup described;
  described.dataGroup = group.dataGroup;
  described.channelGroup = static_cast<std::int32_t>(&group - &tree_.groups[holder.firstGroup]);
  described.statedRecords = group.record.cg_cycle_count;
  described.recordSize = static_cast<std::uint32_t>(
      std::min<std::uint64_t>(group.recordSize(), std::numeric_limits<std::uint32_t>::max()));
  described.unsorted = holder.recordIdSize != 0 || holder.groups > 1;
  described.name = viewOf(group.name);
  described.comment = viewOf(group.comment);
  if (group.source != nullptr) {
    described.sourceName = viewOf(group.source->name);
    described.sourcePath = viewOf(group.source->path);
  }
  if (const auto records = data_.batches(group)) described.records = records->count();
  described.master = group.master;
  for (const ModelChannel& channel : group.channels) {
    described.channels.push_back(describe(group, channel));
  }
  return described;
}

MdfColumnChannel ColumnFile::describe(const ModelGroup& group, const ModelChannel& channel) {
  MdfColumnChannel described;
  described.name = viewOf(channel.name);
  described.unit = viewOf(channel.unit);
  described.comment = viewOf(channel.comment);
  if (channel.source != nullptr) {
    described.sourceName = viewOf(channel.source->name);
    described.sourcePath = viewOf(channel.source->path);
  }
  if (channel.facts != nullptr) {
    described.conversion = channel.facts->type;
    described.conversionName = viewOf(channel.facts->name);
  }
  described.channelType = channel.record.cn_type;
  described.syncType = channel.record.cn_sync_type;
  described.dataType = channel.record.cn_data_type;
  described.bitCount = channel.record.cn_bit_count;
  described.byteOffset = channel.record.cn_byte_offset;
  described.bitOffset = channel.record.cn_bit_offset;
  described.parent = channel.parent;
  for (const ArrayDimension& dimension : channel.dimensions) {
    described.shape.push_back(dimension.size);
  }
  const ColumnPlan planned = plan(group, channel);
  if (planned.elements == 2 * channel.elements()) described.shape.push_back(2);
  described.type = planned.type;
  described.rawType = planned.rawType;
  described.givesNumbers =
      planned.type == MdfColumnType::Dictionary && planned.conversion->givesNumbers();
  described.fault = planned.fault;
  return described;
}

}  // namespace tolvex
