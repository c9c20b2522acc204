#include "Mdf4/can/FrameFile.h"

#include <algorithm>
#include <cinttypes>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/can/FrameMerge.h"
#include "Mdf4/can/MixedFrames.h"
#include "Mdf4/can/SortedFrames.h"

namespace tolvex {
namespace {

// What all lanes of a file share: the room for reading ahead, and for frames that are kept back.
constexpr std::uint64_t kReadAhead = 4 << 20;  // bytes
constexpr std::uint64_t kMostReadAhead = 256 * 1024;
constexpr std::uint64_t kLeastReadAhead = 4096;
constexpr std::size_t kHeld = 16 * 1024;  // frames
constexpr std::size_t kMostHeld = 512;
constexpr std::size_t kLeastHeld = 16;

}  // namespace

FrameFile::~FrameFile() {
  lanes_.clear();
  file_.Close();
}

bool FrameFile::open(const std::string& path) {
  file_.acceptUnfinished(true);
  if (!file_.Open(path, false)) return false;
  tree_ = ChannelTree(file_, texts_);
  notice_ = data_.reportUnfinished();
  std::vector<Found> all;
  std::size_t lanes = 0;
  for (const ModelDataGroup& data : tree_.dataGroups) {
    Found found{&data, {}};
    std::size_t sources = 0;
    for (std::size_t i = 0; i < data.groups; ++i) {
      const ModelGroup& group = tree_.groups[data.firstGroup + i];
      found.sources.push_back(frameSources(file_, texts_, group));
      sources += found.sources.back().size();
      describe(group, !found.sources.back().empty());
    }
    if (sources == 0) continue;
    lanes += data.recordIdSize == 0 ? sources : 1;
    all.push_back(std::move(found));
  }
  LaneSettings settings;
  settings.startNs = header().hd_start_time_ns;
  lanes = std::max<std::size_t>(lanes, 1);
  settings.held = std::clamp(kHeld / lanes, kLeastHeld, kMostHeld);
  settings.readAhead = std::clamp(kReadAhead / lanes, kLeastReadAhead, kMostReadAhead);
  for (const Found& found : all) addLanes(found, settings);
  return true;
}

void FrameFile::describe(const ModelGroup& group, bool isRead) {
  constexpr std::uint16_t kPlainBusEvent = 0x4;
  if (!isRead && (group.record.cg_flags & kPlainBusEvent) == 0) return;
  const auto first = tree_.dataGroups[static_cast<std::size_t>(group.dataGroup)].firstGroup;
  MdfFrameGroup described;
  const SharedText& name = group.name != nullptr ? group.name : group.comment;
  if (name != nullptr) described.name = *name;
  described.dataGroup = group.dataGroup;
  described.channelGroup = static_cast<std::int32_t>(&group - &tree_.groups[first]);
  described.statedRecords = group.record.cg_cycle_count;
  described.isRead = isRead;
  groups_.push_back(std::move(described));
}

void FrameFile::addLanes(const Found& found, LaneSettings settings) {
  settings.dataGroup = static_cast<std::int32_t>(found.data - tree_.dataGroups.data());
  if (found.data->recordIdSize != 0) {
    addMixed(found, settings);
  } else {
    addSorted(tree_.groups[found.data->firstGroup], found.sources.front(), settings);
  }
}

void FrameFile::addSorted(const ModelGroup& group, const std::vector<FrameSource>& sources,
                          const LaneSettings& settings) {
  const auto size = static_cast<std::size_t>(group.recordSize());
  for (const FrameSource& source : sources) {
    std::shared_ptr<RecordBatches> records = data_.batches(group);
    if (records == nullptr) return;
    std::unique_ptr<PayloadSource> payloads;
    if (source.payloads != nullptr) {
      payloads = std::make_unique<SignalData>(
          m4DataStream(file_, data_.valueTable(source.payloads->data)));
    }
    lanes_.push_back(std::make_unique<SortedFrames>(file_, settings, source, std::move(records),
                                                    size, std::move(payloads)));
  }
}

void FrameFile::addMixed(const Found& found, const LaneSettings& settings) {
  const ModelDataGroup& data = *found.data;
  const bool byOrder =
      file_.isUnfinished() && has(file_.id().id_unfin_flags, Unfinished::ValueOffsets);
  std::vector<MixedFrames::Group> groups;
  for (std::size_t i = 0; i < data.groups; ++i) {
    const ModelGroup& group = tree_.groups[data.firstGroup + i];
    MixedFrames::Group& mixed = groups.emplace_back();
    mixed.recordId = group.record.cg_record_id;
    mixed.recordSize = group.recordSize();
    mixed.holdsValues = group.holdsValues();
    if (mixed.holdsValues) continue;
    if (!found.sources[i].empty() && mixed.recordSize > kLargestRecord) {
      file_.report(formatText("data group %d: records of %" PRIu64 " bytes are not read",
                              int{settings.dataGroup}, mixed.recordSize));
      continue;
    }
    for (const FrameSource& source : found.sources[i]) {
      MixedFrames::Frames& frames = mixed.frames.emplace_back();
      frames.source = source;
      if (source.payloads == nullptr) continue;
      for (std::size_t k = 0; k < data.groups; ++k) {
        const ModelGroup& holder = tree_.groups[data.firstGroup + k];
        if (holder.position == source.payloads->data && holder.holdsValues()) frames.values = k;
      }
      if (frames.values == MixedFrames::kNone || !byOrder) {
        frames.late = data_.values(group, *source.payloads);
      }
    }
  }
  const std::shared_ptr<SegmentTable> table = data_.valueTable(data.data);
  if (!table->valid() || !isRecordIdSize(data.recordIdSize)) {
    file_.report(formatText("data group %d: its records, with ids of %u bytes, cannot be read",
                            int{settings.dataGroup}, unsigned{data.recordIdSize}));
    return;
  }
  lanes_.push_back(std::make_unique<MixedFrames>(file_, settings, table, data.recordIdSize,
                                                 std::move(groups), byOrder));
}

}  // namespace tolvex
