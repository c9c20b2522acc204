#include "Mdf4/model/RecordingData.h"

#include <algorithm>
#include <cinttypes>
#include <utility>
#include <vector>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockScan.h"
#include "Mdf4/model/RecordCursor.h"
#include "Mdf4/model/UnlistedBlocks.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kAlwaysRecords = 1 << 20;

// Whether the blocks have the records that their group states, no more and no less.
bool holdsWhatIsStated(const SegmentTable& table, const ModelGroup& group) {
  const std::uint64_t size =
      table.columnStorage() ? group.record.cg_data_bytes : group.recordSize();
  const std::uint64_t count = group.record.cg_cycle_count;
  const std::uint64_t bytes = table.totalSize();
  return size == 0 ? bytes == 0 : bytes % size == 0 && bytes / size == count;
}

}  // namespace

std::string RecordingData::reportUnfinished() {
  std::string notice;
  if (file_.isUnfinished()) {
    notice = formatText("an unfinalized recording (flags 0x%04X at 60): taken for what is there",
                        unsigned{file_.id().id_unfin_flags});
  } else {
    const auto groups = std::ranges::count_if(
        tree_.dataGroups, [&](const ModelDataGroup& data) { return hasUncounted(data); });
    if (groups == 0) return notice;
    notice = formatText(
        "a recording that was not finished: %td data group%s records and state%s 0 of them: taken "
        "for what is there",
        static_cast<std::ptrdiff_t>(groups), groups == 1 ? " has" : "s have",
        groups == 1 ? "s" : "");
  }
  file_.report(notice);
  return notice;
}

// Whether there are data of groups that all state 0 records.
bool RecordingData::hasUncounted(const ModelDataGroup& data) {
  if (data.data == 0 || data.groups == 0) return false;
  for (std::size_t i = 0; i < data.groups; ++i) {
    const ModelGroup& group = tree_.groups[data.firstGroup + i];
    if (group.record.cg_cycle_count != 0) return false;
  }
  const ModelGroup& first = tree_.groups[data.firstGroup];
  const std::uint64_t least = data.recordIdSize != 0 ? data.recordIdSize : first.recordSize();
  return least != 0 && recordTable(first)->totalSize() >= least;
}

bool RecordingData::isAlone(const ModelDataGroup& data) {
  return data.recordIdSize == 0 && data.groups == 1;
}

// Of a recording that was killed: the blocks that its lists came not to name.
void RecordingData::findUnlisted() {
  if (std::exchange(unlistedAreFound_, true) || file_.isUnfinished()) return;
  const auto isUncounted = [&](const ModelDataGroup& data) {
    return isAlone(data) && hasUncounted(data);
  };
  if (std::ranges::none_of(tree_.dataGroups, isUncounted)) return;
  UnlistedBlocks blocks(file_);
  for (const ModelDataGroup& data : tree_.dataGroups) {
    if (!isAlone(data)) continue;
    const ModelGroup& group = tree_.groups[data.firstGroup];
    blocks.add(group, *recordTable(group));
  }
  blocks.assign();
}

// The blocks of a group's records.
std::shared_ptr<SegmentTable> RecordingData::recordTable(const ModelGroup& group) {
  findUnlisted();
  const ModelDataGroup& data = tree_.dataGroups[static_cast<std::size_t>(group.dataGroup)];
  if (!isAlone(data)) return valueTable(data.data);
  std::shared_ptr<SegmentTable>& known = tables_[data.data];
  if (known != nullptr) return known;
  if (!file_.isUnfinished()) {
    const std::uint64_t expected = group.record.cg_cycle_count * group.recordSize();
    known =
        std::make_shared<SegmentTable>(file_, data.data, expected, SegmentTable::Empty::IsPassed);
    if (known->valid() && holdsWhatIsStated(*known, group)) return known;
  }
  return known = whatIsThere(data.data);
}

std::shared_ptr<SegmentTable> RecordingData::valueTable(std::uint64_t dataLink) {
  std::shared_ptr<SegmentTable>& known = tables_[dataLink];
  if (known != nullptr) return known;
  if (!file_.isUnfinished()) {
    known = std::make_shared<SegmentTable>(file_, dataLink, 0, SegmentTable::Empty::IsPassed);
    if (known->valid()) return known;
  }
  return known = whatIsThere(dataLink);
}

std::shared_ptr<SegmentTable> RecordingData::whatIsThere(std::uint64_t dataLink) {
  const bool isLastOpen =
      file_.isUnfinished() && has(file_.id().id_unfin_flags, Unfinished::LastDataLength);
  auto table =
      std::make_shared<SegmentTable>(SegmentTable::ofWhatIsThere(file_, dataLink, isLastOpen));
  if (isLastOpen && table->count() != 0) {
    const DataSegment& last = (*table)[table->count() - 1];
    // The logger may have come to write the length.
    const bool isFollowed = scanBlock(file_, alignUp(last.position + last.length)).isBlock();
    if (!isFollowed) table->extendLast(endOfLast(last.position));
  }
  return table;
}

// Where a block ends at the latest that begins in front of the position: where another one begins.
std::uint64_t RecordingData::endOfLast(std::uint64_t position) const {
  std::uint64_t end = file_.end();
  const auto take = [&](std::uint64_t other) {
    if (other >= position) end = std::min(end, other);
  };
  for (const ModelDataGroup& data : tree_.dataGroups) {
    take(data.position);
    take(data.data);
  }
  for (const ModelGroup& group : tree_.groups) {
    take(group.position);
    for (const ModelChannel& channel : group.channels) {
      take(channel.position);
      if (channel.record.cn_type == channel_type::kVlsd) take(channel.data);
    }
  }
  return end;
}

std::shared_ptr<MixedRecords> RecordingData::mixed(const ModelGroup& group) {
  const auto index = static_cast<std::size_t>(group.dataGroup);
  const ModelDataGroup& data = tree_.dataGroups[index];
  const auto [known, isNew] = mixed_.try_emplace(index);
  if (!isNew) return known->second;
  std::vector<MixedGroup> members;
  for (std::size_t i = 0; i < data.groups; ++i) {
    const ModelGroup& member = tree_.groups[data.firstGroup + i];
    members.push_back({member.record.cg_record_id, member.recordSize(), member.holdsValues()});
  }
  const std::shared_ptr<SegmentTable> segments = valueTable(data.data);
  if (!isRecordIdSize(data.recordIdSize)) {
    reportUnreadable(data, formatText("their ids have %u bytes; expected 1, 2, 4 or 8",
                                      unsigned{data.recordIdSize}));
    return nullptr;
  }
  if (!segments->valid()) return nullptr;
  return known->second =
             std::make_shared<MixedRecords>(file_, segments, data.recordIdSize, std::move(members));
}

void RecordingData::reportUnreadable(const ModelDataGroup& data, const std::string& why) {
  if (data.data == 0) return;
  file_.report(formatText("data group %d: its records cannot be read: %s",
                          static_cast<int>(&data - tree_.dataGroups.data()), why.c_str()));
}

std::shared_ptr<RecordBatches> RecordingData::batches(const ModelGroup& group) {
  if (lastGroup_ != &group || lastBatches_.use_count() != 1) {
    lastBatches_.reset();
    lastBatches_ = newBatches(group);
    lastGroup_ = &group;
  }
  return lastBatches_;
}

std::shared_ptr<RecordBatches> RecordingData::newBatches(const ModelGroup& group) {
  const ModelDataGroup& data = tree_.dataGroups[static_cast<std::size_t>(group.dataGroup)];
  if (group.holdsValues()) return nullptr;
  if (data.recordIdSize != 0) {
    const std::shared_ptr<MixedRecords> records = mixed(group);
    if (records == nullptr) return nullptr;
    const auto number = static_cast<std::size_t>(&group - &tree_.groups[data.firstGroup]);
    return std::make_shared<MixedBatches>(records, number);
  }
  const std::uint64_t size = group.recordSize();
  if (size == 0) {
    // A number that nothing in the file stands for.
    const std::uint64_t most = kAlwaysRecords + 16 * file_.end();
    return std::make_shared<CountedBatches>(std::min(group.record.cg_cycle_count, most));
  }
  if (data.groups != 1) {
    reportUnreadable(data,
                     formatText("%zu channel groups share them without record ids, so nothing "
                                "tells whose they are",
                                data.groups));
    return nullptr;
  }
  if (size > kLargestRecord) {
    reportUnreadable(data, formatText("each has %" PRIu64 " bytes; expected at most %u", size,
                                      unsigned{kLargestRecord}));
    return nullptr;
  }
  const std::shared_ptr<SegmentTable> segments = recordTable(group);
  if (!segments->valid()) return nullptr;
  return std::make_shared<SortedBatches>(file_, segments, group.record.cg_data_bytes,
                                         group.record.cg_inval_bytes);
}

std::unique_ptr<ValueSource> RecordingData::values(const ModelGroup& group,
                                                   const ModelChannel& channel) {
  const ModelDataGroup& data = tree_.dataGroups[static_cast<std::size_t>(group.dataGroup)];
  for (std::size_t i = 0; i < data.groups; ++i) {
    const ModelGroup& holder = tree_.groups[data.firstGroup + i];
    if (holder.position != channel.data || !holder.holdsValues()) continue;
    const std::shared_ptr<MixedRecords> records = mixed(group);
    if (records == nullptr) return nullptr;
    const bool byOrder =
        file_.isUnfinished() && has(file_.id().id_unfin_flags, Unfinished::ValueOffsets);
    return std::make_unique<MixedValues>(records, i, byOrder);
  }
  const std::shared_ptr<SegmentTable> segments = valueTable(channel.data);
  if (!segments->valid()) return nullptr;
  return std::make_unique<SignalValues>(file_, segments);
}

}  // namespace tolvex
