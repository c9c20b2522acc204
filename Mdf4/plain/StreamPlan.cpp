// What a stream of a group consists of.
#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/plain/ColumnStream.h"

namespace tolvex::plain {
namespace {

constexpr std::uint64_t kMostRows = 1 << 16;    // of a batch, unless more are wanted
constexpr std::uint64_t kBatchBytes = 8 << 20;  // for its values, likewise

// Gives columns names that no other has.
class ColumnNames {
 public:
  std::string unique(const std::string& name) {
    std::string tried = name;
    for (unsigned& number = numbers_[name]; !taken_.insert(tried).second;) {
      number = std::max(number, 1U) + 1;
      tried = name + "_" + std::to_string(number);
    }
    return tried;
  }

 private:
  std::unordered_set<std::string> taken_;
  std::unordered_map<std::string, unsigned> numbers_;  // tried last, by name
};

class Planner {
 public:
  Planner(const MdfColumnGroup& group, const tolvex_stream_options& options, StreamPlan& plan)
      : group_(group), options_(options), plan_(plan) {}

  void addTime() {
    const auto& master = group_.channels[static_cast<std::size_t>(group_.master)];
    const auto kind = options_.time == TOLVEX_TIME_SECONDS ? StreamColumn::Kind::Seconds
                                                           : StreamColumn::Kind::Nanoseconds;
    add(kind, master, MdfColumnType::None, "");
    bytes_ += sizeof(double);
  }

  void addAll() {
    std::vector<bool> hasMembers(group_.channels.size());
    for (const MdfColumnChannel& channel : group_.channels) {
      if (channel.parent >= 0) hasMembers[static_cast<std::size_t>(channel.parent)] = true;
    }
    for (std::size_t i = 0; i < group_.channels.size(); ++i) {
      const MdfColumnChannel& channel = group_.channels[i];
      const MdfColumnType type = typeOf(channel);
      if (type == MdfColumnType::Bytes && hasMembers[i]) continue;
      if (type != MdfColumnType::None && fault(channel).empty()) {
        addChannel(static_cast<std::int32_t>(i));
      } else {
        plan_.leftOut.append(channel.name) += ": " + fault(channel) + "\n";
      }
    }
  }

  void addChannel(std::int32_t index) {
    if (options_.time != TOLVEX_TIME_AS_CHANNEL && index == group_.master) return;
    const auto& channel = group_.channels[static_cast<std::size_t>(index)];
    const MdfColumnType type = typeOf(channel);
    if (type == MdfColumnType::None || !fault(channel).empty()) {
      add(StreamColumn::Kind::Nulls, channel, MdfColumnType::None, "");
      return;
    }
    add(StreamColumn::Kind::Values, channel, type, "");
    if (type == MdfColumnType::Dictionary && channel.givesNumbers) {
      add(StreamColumn::Kind::Numbers, channel, MdfColumnType::Float64, ".value");
    }
    plan_.channels.push_back(index);
    std::uint64_t elements = 1;
    for (const std::uint64_t size : channel.shape) elements *= size;
    const std::uint64_t width = widthOf(type);
    bytes_ += elements * (width == 0 ? 3 * sizeof(std::int64_t) : width);
  }

  std::uint64_t batchRows() const {
    if (options_.batch_rows != 0) return options_.batch_rows;
    return std::clamp(kBatchBytes / std::max<std::uint64_t>(bytes_, 1), std::uint64_t{1},
                      kMostRows);
  }

 private:
  MdfColumnType typeOf(const MdfColumnChannel& channel) const {
    return options_.raw != 0 ? channel.rawType : channel.type;
  }

  // Why there is no column of the channel; "" when there is one.
  std::string fault(const MdfColumnChannel& channel) const {
    for (const std::uint64_t size : channel.shape) {
      if (size > std::numeric_limits<std::int32_t>::max()) return "its arrays are too large";
    }
    return typeOf(channel) == MdfColumnType::None ? channel.fault : "";
  }

  void add(StreamColumn::Kind kind, const MdfColumnChannel& channel, MdfColumnType type,
           const char* ending) {
    StreamColumn column;
    column.kind = kind;
    column.name = names_.unique(std::string(channel.name) + ending);
    column.channel = &channel;
    column.type = type;
    column.source = plan_.channels.size();
    plan_.columns.push_back(std::move(column));
  }

  const MdfColumnGroup& group_;
  const tolvex_stream_options& options_;
  StreamPlan& plan_;
  ColumnNames names_;
  std::uint64_t bytes_ = 0;  // of a row's values
};

bool hasMasterOfTime(const MdfColumnGroup& group) {
  constexpr std::uint8_t kTime = 1;
  return group.master >= 0 &&
         group.channels[static_cast<std::size_t>(group.master)].syncType == kTime;
}

}  // namespace

bool planStream(tolvex_reader& reader, std::int32_t group, const tolvex_stream_options& options,
                StreamPlan& plan, tolvex_status& status) {
  status = TOLVEX_ERROR_ARGUMENT;
  const MdfColumnGroup* const found = groupOf(reader, group);
  if (found == nullptr) return false;
  if (options.time > TOLVEX_TIME_NANOSECONDS) {
    reader.error.set(status, formatText("there is no option time %" PRIu32, options.time));
    return false;
  }
  if (options.channels == nullptr && options.channel_count != 0) {
    reader.error.setFixed(status, kNull);
    return false;
  }
  const std::span<const std::int32_t> chosen(options.channels, options.channel_count);
  Planner planner(*found, options, plan);
  if (options.time != TOLVEX_TIME_AS_CHANNEL) {
    if (!hasMasterOfTime(*found)) {
      status = reader.error.set(TOLVEX_ERROR_TYPE,
                                formatText("group %" PRId32 " has no master of time", group));
      return false;
    }
    planner.addTime();
  }
  if (chosen.data() == nullptr) planner.addAll();
  for (const std::int32_t channel : chosen) {
    if (channelOf(reader, group, channel) == nullptr) return false;
    planner.addChannel(channel);
  }
  plan.group = group;
  plan.first = std::min(options.first_row, found->records);
  const std::uint64_t rest = found->records - plan.first;
  plan.end = plan.first + (options.row_count == 0 ? rest : std::min(options.row_count, rest));
  plan.batchRows = planner.batchRows();
  plan.options.raw = options.raw != 0;
  plan.options.threads = std::max(options.threads, 1U);
  status = TOLVEX_OK;
  return true;
}

}  // namespace tolvex::plain
