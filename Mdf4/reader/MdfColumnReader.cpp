#include "tolvex/MdfColumnReader.h"

#include <algorithm>
#include <cinttypes>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/FieldRules.h"
#include "Mdf4/reader/ColumnFile.h"
#include "Mdf4/reader/ColumnRead.h"
#include "Mdf4/reader/RecordingGroups.h"

namespace tolvex {
namespace {

constexpr const char* kOutOfMemory = "out of memory";
constexpr std::size_t kMostOpen = 64;  // files that stay open

std::string noTime(std::int32_t group) {
  return formatText("group %" PRId32 " has no master of time", group);
}

}  // namespace

struct MdfColumnReaderState {
  [[nodiscard]] bool open();
  const RecordingGroup* find(std::int32_t group, const std::vector<std::int32_t>& channels);
  std::vector<ColumnPart> parts(const RecordingGroup& group, std::uint64_t first,
                                std::uint64_t count);
  std::optional<WantedColumn> wanted(const MdfColumnGroup& group, const MdfColumnTarget& target,
                                     bool raw);
  std::vector<MdfColumn> read(const RecordingGroup& group, std::vector<WantedColumn> wanted,
                              std::uint64_t first, std::uint64_t count,
                              const MdfReadOptions& options, std::uint64_t& rows);
  bool addTimes(std::int32_t group, const MdfReadOptions& options,
                std::vector<WantedColumn>& wanted);
  bool takeTimes(std::int32_t group, std::size_t wanted, std::vector<MdfColumn>& columns);
  std::int64_t readTimes(std::int32_t group, std::uint64_t first, std::uint64_t count,
                         ColumnForm form, void* times, const MdfReadOptions& options);

  std::vector<std::string> paths;
  std::vector<std::unique_ptr<ColumnFile>> files;
  RecordingGroups groups;
  std::string error;
};

// The files in the order of their start times.
bool MdfColumnReaderState::open() {
  const bool areMany = paths.size() > kMostOpen;
  for (const std::string& path : paths) {
    ColumnFile& file = *files.emplace_back(std::make_unique<ColumnFile>(path, areMany));
    if (file.open()) continue;
    error = paths.size() > 1 ? path + ": " + file.error() : file.error();
    files.clear();
    return false;
  }
  if (files.empty()) error = "there is no file to open";
  std::ranges::stable_sort(files, {}, [](const auto& file) { return file->info().startTimeNs; });
  for (const auto& file : files) file->isPartOf(files.front()->info().startTimeNs);
  groups = RecordingGroups(files);
  return !files.empty();
}

// The group, when it has these channels; else null, and the error says what there is not.
const RecordingGroup* MdfColumnReaderState::find(std::int32_t group,
                                                 const std::vector<std::int32_t>& channels) {
  if (group < 0 || group >= std::ssize(groups.groups)) {
    error = formatText("there is no group %" PRId32, group);
    return nullptr;
  }
  const RecordingGroup& found = groups.groups[static_cast<std::size_t>(group)];
  const auto& described = groups.described[static_cast<std::size_t>(group)];
  for (const std::int32_t channel : channels) {
    if (channel >= 0 && channel < std::ssize(described.channels)) continue;
    error = formatText("there is no channel %" PRId32 " in group %" PRId32, channel, group);
    return nullptr;
  }
  return &found;
}

// Where records `first` .. `first + count` are, as far as they are there.
std::vector<ColumnPart> MdfColumnReaderState::parts(const RecordingGroup& group,
                                                    std::uint64_t first, std::uint64_t count) {
  std::vector<ColumnPart> parts;
  for (const RecordingGroup::Member& member : group.members) {
    const std::uint64_t skipped = std::min(first, member.records);
    const std::uint64_t taken = std::min(count, member.records - skipped);
    first -= skipped;
    count -= taken;
    ColumnFile* const file = files[member.file].get();
    if (taken != 0) parts.push_back({file, &file->tree().groups[member.group], skipped, taken});
  }
  if (parts.empty()) {
    const RecordingGroup::Member& member = group.members.front();
    ColumnFile* const file = files[member.file].get();
    parts.push_back({file, &file->tree().groups[member.group], 0, 0});
  }
  return parts;
}

std::vector<MdfColumn> MdfColumnReaderState::read(const RecordingGroup& group,
                                                  std::vector<WantedColumn> wanted,
                                                  std::uint64_t first, std::uint64_t count,
                                                  const MdfReadOptions& options,
                                                  std::uint64_t& rows) {
  const std::vector<ColumnPart> there = parts(group, first, count);
  for (WantedColumn& column : wanted) {
    const bool isShifted = column.channel == group.inSeconds && !options.raw;
    if (isShifted && column.form <= ColumnForm::Doubles) column.form = ColumnForm::Seconds;
  }
  std::vector<MdfColumn> columns = readColumns(there, wanted, options.threads);
  rows = 0;
  for (const ColumnPart& part : there) rows += part.count;
  return columns;
}

// Adds the times that are to be read along; false when there are none.
bool MdfColumnReaderState::addTimes(std::int32_t group, const MdfReadOptions& options,
                                    std::vector<WantedColumn>& wanted) {
  if (options.seconds == nullptr && options.nanoseconds == nullptr) return true;
  const std::int32_t master = groups.described[static_cast<std::size_t>(group)].master;
  if (master < 0) {
    error = noTime(group);
    return false;
  }
  if (options.seconds != nullptr) {
    wanted.push_back({master, ColumnForm::Seconds, {options.seconds}});
  }
  if (options.nanoseconds != nullptr) {
    wanted.push_back({master, ColumnForm::Nanoseconds, {options.nanoseconds}});
  }
  return true;
}

// Takes them away again behind the columns that were wanted; false when there are none.
bool MdfColumnReaderState::takeTimes(std::int32_t group, std::size_t wanted,
                                     std::vector<MdfColumn>& columns) {
  const bool areThere = columns.size() == wanted || columns.back().type() != MdfColumnType::None;
  if (!areThere) error = noTime(group);
  columns.resize(areThere ? wanted : 0);
  return areThere;
}

std::int64_t MdfColumnReaderState::readTimes(std::int32_t group, std::uint64_t first,
                                             std::uint64_t count, ColumnForm form, void* times,
                                             const MdfReadOptions& options) {
  try {
    const RecordingGroup* const found = find(group, {});
    if (found == nullptr) return -1;
    const std::int32_t master = groups.described[static_cast<std::size_t>(group)].master;
    std::uint64_t rows = 0;
    if (master >= 0) {
      const auto columns = read(*found, {{master, form, {times}}}, first, count, options, rows);
      if (columns[0].type() != MdfColumnType::None) return static_cast<std::int64_t>(rows);
    }
    error = noTime(group);
  } catch (const std::bad_alloc&) {
    error = kOutOfMemory;
  }
  return -1;
}

// What is wanted for the target; nothing, and the error says why, when it cannot be read so.
std::optional<WantedColumn> MdfColumnReaderState::wanted(const MdfColumnGroup& group,
                                                         const MdfColumnTarget& target, bool raw) {
  const auto& channel = group.channels[static_cast<std::size_t>(target.channel)];
  const MdfColumnType type = raw ? channel.rawType : channel.type;
  const bool isNumber = type != MdfColumnType::None && type < MdfColumnType::Text;
  if (!isNumber && !(target.doubles && type == MdfColumnType::Dictionary)) {
    error = formatText("channel %" PRId32 ": ", target.channel) +
            (channel.fault.empty() ? "its values are no numbers" : channel.fault);
    return std::nullopt;
  }
  const ColumnForm exact = raw ? ColumnForm::Raw : ColumnForm::Physical;
  const ColumnForm doubles = raw ? ColumnForm::RawDoubles : ColumnForm::Doubles;
  return WantedColumn{
      target.channel, target.doubles ? doubles : exact, {target.values, target.validity}};
}

MdfColumnReader::MdfColumnReader(std::string path)
    : MdfColumnReader(std::vector<std::string>{std::move(path)}) {}

MdfColumnReader::MdfColumnReader(std::vector<std::string> paths)
    : state_(std::make_unique<MdfColumnReaderState>()) {
  state_->paths = std::move(paths);
}

MdfColumnReader::~MdfColumnReader() = default;
MdfColumnReader::MdfColumnReader(MdfColumnReader&&) noexcept = default;
MdfColumnReader& MdfColumnReader::operator=(MdfColumnReader&&) noexcept = default;

bool MdfColumnReader::open() {
  close();
  try {
    return state_->open();
  } catch (const std::bad_alloc&) {
    close();
    state_->error = kOutOfMemory;
    return false;
  }
}

void MdfColumnReader::close() {
  MdfColumnReaderState& state = *state_;
  state.groups = {};
  state.files.clear();
  state.error.clear();
}

const std::string& MdfColumnReader::error() const {
  return state_->error;
}

std::vector<std::string> MdfColumnReader::problems() const {
  std::vector<std::string> all;
  for (const auto& file : state_->files) {
    for (const std::string& problem : file->problems().texts()) {
      all.push_back(state_->files.size() > 1 ? file->path() + ": " + problem : problem);
    }
  }
  return all;
}

std::vector<std::string> MdfColumnReader::notices() const {
  std::vector<std::string> all;
  for (const auto& file : state_->files) {
    const std::string& notice = file->notice();
    if (notice.empty()) continue;
    all.push_back(state_->files.size() > 1 ? file->path() + ": " + notice : notice);
  }
  return all;
}

const MdfRecordingInfo& MdfColumnReader::info() const {
  static const MdfRecordingInfo kNone;
  return state_->files.empty() ? kNone : state_->files.front()->info();
}

const std::vector<MdfColumnGroup>& MdfColumnReader::groups() const {
  return state_->groups.described;
}

std::vector<MdfChannelRef> MdfColumnReader::find(std::string_view name) const {
  std::vector<MdfChannelRef> found;
  for (std::int32_t group = 0; const MdfColumnGroup& one : groups()) {
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
  columns.clear();
  try {
    const RecordingGroup* const found = state_->find(group, channels);
    if (found == nullptr) return false;
    std::vector<WantedColumn> wanted;
    for (const std::int32_t channel : channels) {
      wanted.push_back({channel, options.raw ? ColumnForm::Raw : ColumnForm::Physical});
    }
    if (!state_->addTimes(group, options, wanted)) return false;
    std::uint64_t rows = 0;
    columns = state_->read(*found, std::move(wanted), first, count, options, rows);
    return state_->takeTimes(group, channels.size(), columns);
  } catch (const std::bad_alloc&) {
    state_->error = kOutOfMemory;
    return false;
  }
}

std::int64_t MdfColumnReader::read(std::int32_t group, const std::vector<MdfColumnTarget>& targets,
                                   std::uint64_t first, std::uint64_t count,
                                   const MdfReadOptions& options) {
  MdfColumnReaderState& state = *state_;
  try {
    std::vector<std::int32_t> channels;
    for (const MdfColumnTarget& target : targets) channels.push_back(target.channel);
    const RecordingGroup* const found = state.find(group, channels);
    if (found == nullptr) return -1;
    std::vector<WantedColumn> wanted;
    for (const MdfColumnTarget& target : targets) {
      const auto column =
          state.wanted(groups()[static_cast<std::size_t>(group)], target, options.raw);
      if (!column) return -1;
      wanted.push_back(*column);
    }
    if (!state.addTimes(group, options, wanted)) return -1;
    std::uint64_t rows = 0;
    auto columns = state.read(*found, std::move(wanted), first, count, options, rows);
    return state.takeTimes(group, targets.size(), columns) ? static_cast<std::int64_t>(rows) : -1;
  } catch (const std::bad_alloc&) {
    state.error = kOutOfMemory;
    return -1;
  }
}

std::int64_t MdfColumnReader::readSeconds(std::int32_t group, std::uint64_t first,
                                          std::uint64_t count, double* seconds,
                                          const MdfReadOptions& options) {
  return state_->readTimes(group, first, count, ColumnForm::Seconds, seconds, options);
}

std::int64_t MdfColumnReader::readNanoseconds(std::int32_t group, std::uint64_t first,
                                              std::uint64_t count, std::int64_t* nanoseconds,
                                              const MdfReadOptions& options) {
  return state_->readTimes(group, first, count, ColumnForm::Nanoseconds, nanoseconds, options);
}

}  // namespace tolvex
