#include "tolvex/MdfColumnReader.h"

#include <algorithm>
#include <cinttypes>
#include <deque>
#include <iterator>
#include <limits>
#include <new>
#include <optional>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/model/ChannelTree.h"
#include "Mdf4/model/RecordingData.h"
#include "Mdf4/reader/ColumnBuilder.h"
#include "Mdf4/reader/ColumnPlan.h"

namespace tolvex {
namespace {

constexpr const char* kOutOfMemory = "out of memory";

std::string_view viewOf(const SharedText& text) {
  return text == nullptr ? std::string_view("") : std::string_view(*text);
}

}  // namespace

struct MdfColumnReader::State {
  explicit State(std::string filePath) : path(std::move(filePath)) {}
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State() { file.Close(); }

  void open();
  void describeRecording();
  MdfColumnGroup describe(const ModelGroup& group);
  MdfColumnChannel describe(const ModelGroup& group, const ModelChannel& channel);

  std::unique_ptr<ValueSource> values(const ModelGroup& group, const ModelChannel& channel,
                                      const ColumnPlan& planned);
  ColumnPlan plan(const ModelGroup& group, const ModelChannel& channel);
  const ModelGroup* find(std::int32_t group, const std::vector<std::int32_t>& channels);
  static void fill(RecordBatches* records, std::uint64_t first, std::uint64_t count,
                   const std::vector<std::unique_ptr<ColumnBuilder>>& builders);
  std::vector<MdfColumn> read(const ModelGroup& group, const std::vector<std::int32_t>& channels,
                              std::uint64_t first, std::uint64_t count,
                              const MdfReadOptions& options);
  std::int64_t read(const ModelGroup& group, const ModelChannel& channel, std::uint64_t first,
                    std::uint64_t count, double* doubles, const MdfReadOptions& options);

  std::string path;
  MDF4File file;
  FileTexts texts{file};
  ConversionLoader conversions{file, texts};
  ChannelTree tree;
  MdfRecordingInfo info;
  std::vector<MdfColumnGroup> groups;
  RecordingData data{file, tree};
  std::string error;
};

void MdfColumnReader::State::open() {
  tree = ChannelTree(file, texts);
  describeRecording();
  data.reportUnfinished();
  for (const ModelGroup& group : tree.groups) groups.push_back(describe(group));
}

void MdfColumnReader::State::describeRecording() {
  constexpr std::uint8_t kLocalTime = 0x01;
  constexpr std::uint8_t kOffsetsValid = 0x02;
  const M4HDBlock& header = *file.header();
  info = {};
  info.version = file.version();
  const IdBlock& id = file.id();
  info.program.assign(id.id_prog, std::find(std::begin(id.id_prog), std::end(id.id_prog), '\0'));
  info.program.erase(info.program.find_last_not_of(' ') + 1);
  info.comment = viewOf(texts.content(header.link(link::hd_md_comment)));
  info.startTimeNs = static_cast<std::int64_t>(header.hd_start_time_ns);
  info.startIsLocal = (header.hd_time_flags & kLocalTime) != 0;
  if ((header.hd_time_flags & kOffsetsValid) != 0) {
    info.utcOffsetMinutes = header.hd_tz_offset_min + header.hd_dst_offset_min;
  }
}

MdfColumnGroup MdfColumnReader::State::describe(const ModelGroup& group) {
  const ModelDataGroup& holder = tree.dataGroups[static_cast<std::size_t>(group.dataGroup)];
  MdfColumnGroup described;
  described.dataGroup = group.dataGroup;
  described.channelGroup = static_cast<std::int32_t>(&group - &tree.groups[holder.firstGroup]);
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
  if (const auto records = data.batches(group)) described.records = records->count();
  described.master = group.master;
  for (const ModelChannel& channel : group.channels) {
    described.channels.push_back(describe(group, channel));
  }
  return described;
}

MdfColumnChannel MdfColumnReader::State::describe(const ModelGroup& group,
                                                  const ModelChannel& channel) {
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
  described.fault = planned.fault;
  return described;
}

// Where the values of a channel are, when its records have their offsets.
std::unique_ptr<ValueSource> MdfColumnReader::State::values(const ModelGroup& group,
                                                            const ModelChannel& channel,
                                                            const ColumnPlan& planned) {
  return planned.kind == ColumnPlan::Kind::Value ? data.values(group, channel) : nullptr;
}

ColumnPlan MdfColumnReader::State::plan(const ModelGroup& group, const ModelChannel& channel) {
  ColumnPlan planned = planColumn(group, channel);
  planConversion(planned, channel.conversion, conversions);
  return planned;
}

// The group, when it has these channels; else null, and the error says what there is not.
const ModelGroup* MdfColumnReader::State::find(std::int32_t group,
                                               const std::vector<std::int32_t>& channels) {
  if (group < 0 || group >= std::ssize(tree.groups)) {
    error = formatText("there is no group %" PRId32, group);
    return nullptr;
  }
  const ModelGroup& found = tree.groups[static_cast<std::size_t>(group)];
  for (const std::int32_t channel : channels) {
    if (channel >= 0 && channel < std::ssize(found.channels)) continue;
    error = formatText("there is no channel %" PRId32 " in group %" PRId32, channel, group);
    return nullptr;
  }
  return &found;
}

void MdfColumnReader::State::fill(RecordBatches* records, std::uint64_t first, std::uint64_t count,
                                  const std::vector<std::unique_ptr<ColumnBuilder>>& builders) {
  if (count != 0) records->seek(first);
  for (std::uint64_t done = 0; done < count;) {
    const RecordBatch batch = records->next(count - done);
    if (batch.count() == 0) break;
    for (const auto& builder : builders) {
      builder->append(batch.rows, first + done);
      builder->appendLost(batch.lost);
    }
    done += batch.count();
  }
}

std::vector<MdfColumn> MdfColumnReader::State::read(const ModelGroup& group,
                                                    const std::vector<std::int32_t>& channels,
                                                    std::uint64_t first, std::uint64_t count,
                                                    const MdfReadOptions& options) {
  const std::unique_ptr<RecordBatches> records = data.batches(group);
  const std::uint64_t there = records == nullptr ? 0 : records->count();
  first = std::min(first, there);
  count = std::min(count, there - first);
  std::deque<ColumnPlan> plans;
  std::vector<std::unique_ptr<ValueSource>> sources;
  std::vector<std::unique_ptr<ColumnBuilder>> builders;
  for (const std::int32_t index : channels) {
    const ModelChannel& channel = group.channels[static_cast<std::size_t>(index)];
    const ColumnPlan& planned = plans.emplace_back(plan(group, channel));
    sources.push_back(values(group, channel, planned));
    builders.push_back(std::make_unique<ColumnBuilder>(
        planned, options.raw ? ColumnForm::Raw : ColumnForm::Physical, count,
        sources.back().get()));
  }
  fill(records.get(), first, count, builders);
  std::vector<MdfColumn> columns;
  for (const auto& builder : builders) columns.push_back(builder->finish());
  return columns;
}

std::int64_t MdfColumnReader::State::read(const ModelGroup& group, const ModelChannel& channel,
                                          std::uint64_t first, std::uint64_t count, double* doubles,
                                          const MdfReadOptions& options) {
  ColumnPlan planned = plan(group, channel);
  if (options.raw) planned.type = planned.rawType;
  if (planned.type == MdfColumnType::None || planned.rawType == MdfColumnType::Bytes ||
      planned.type == MdfColumnType::Text) {
    error = planned.fault.empty() ? "its values are no numbers" : planned.fault;
    return -1;
  }
  const std::unique_ptr<RecordBatches> records = data.batches(group);
  const std::uint64_t there = records == nullptr ? 0 : records->count();
  first = std::min(first, there);
  count = std::min(count, there - first);
  const std::unique_ptr<ValueSource> source = values(group, channel, planned);
  std::vector<std::unique_ptr<ColumnBuilder>> builders;
  builders.push_back(std::make_unique<ColumnBuilder>(planned, count, source.get(), doubles));
  fill(records.get(), first, count, builders);
  return static_cast<std::int64_t>(builders[0]->rows());
}

MdfColumnReader::MdfColumnReader(std::string path)
    : state_(std::make_unique<State>(std::move(path))) {}
MdfColumnReader::~MdfColumnReader() = default;
MdfColumnReader::MdfColumnReader(MdfColumnReader&&) noexcept = default;
MdfColumnReader& MdfColumnReader::operator=(MdfColumnReader&&) noexcept = default;

bool MdfColumnReader::open() {
  close();
  State& state = *state_;
  try {
    state.file.acceptUnfinished(true);
    if (!state.file.Open(state.path, false)) {
      state.error = state.file.error();
      return false;
    }
    state.open();
    return true;
  } catch (const std::bad_alloc&) {
    close();
    state.error = kOutOfMemory;
    return false;
  }
}

void MdfColumnReader::close() {
  State& state = *state_;
  state.groups.clear();
  state.tree = {};
  state.data.clear();
  state.conversions.clear();
  state.texts.clear();
  state.error.clear();
  state.file.Close();
}

const std::string& MdfColumnReader::error() const {
  return state_->error;
}

std::vector<std::string> MdfColumnReader::problems() const {
  return state_->file.problems().texts();
}

const MdfRecordingInfo& MdfColumnReader::info() const {
  return state_->info;
}

const std::vector<MdfColumnGroup>& MdfColumnReader::groups() const {
  return state_->groups;
}

std::vector<MdfChannelRef> MdfColumnReader::find(std::string_view name) const {
  std::vector<MdfChannelRef> found;
  for (std::int32_t group = 0; const MdfColumnGroup& one : state_->groups) {
    for (std::int32_t channel = 0; const MdfColumnChannel& other : one.channels) {
      if (other.name == name) found.push_back({group, channel});
      ++channel;
    }
    ++group;
  }
  return found;
}

bool MdfColumnReader::read(std::int32_t group, const std::vector<std::int32_t>& channels,
                           std::uint64_t first, std::uint64_t count,
                           std::vector<MdfColumn>& columns, const MdfReadOptions& options) {
  State& state = *state_;
  columns.clear();
  try {
    const ModelGroup* const found = state.find(group, channels);
    if (found == nullptr) return false;
    columns = state.read(*found, channels, first, count, options);
    return true;
  } catch (const std::bad_alloc&) {
    state.error = kOutOfMemory;
    return false;
  }
}

std::int64_t MdfColumnReader::read(std::int32_t group, std::int32_t channel, std::uint64_t first,
                                   std::uint64_t count, double* doubles,
                                   const MdfReadOptions& options) {
  State& state = *state_;
  try {
    const ModelGroup* const found = state.find(group, {channel});
    if (found == nullptr) return -1;
    return state.read(*found, found->channels[static_cast<std::size_t>(channel)], first, count,
                      doubles, options);
  } catch (const std::bad_alloc&) {
    state.error = kOutOfMemory;
    return -1;
  }
}

}  // namespace tolvex
