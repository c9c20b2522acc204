#include "Exporter.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <deque>
#include <filesystem>
#include <limits>
#include <set>
#include <string>
#include <utility>

#include "Mdf4/base/Paths.h"
#include "Mdf4/base/System.h"

namespace tolvex {

namespace {

// "dg0_cg0_Engine_data".
std::string fileNameOf(const MdfColumnGroup& group) {
  constexpr std::size_t kMaxLength = 80;
  const std::string_view title = group.name.empty() ? group.comment : group.name;
  std::string name = fmt::format("dg{}_cg{}", group.dataGroup, group.channelGroup);
  if (!title.empty()) {
    name.append("_").append(title.substr(0, kMaxLength));
  }
  const auto isPlain = [](char c) {
    return (std::isalnum(static_cast<unsigned char>(c)) != 0) || c == '-' || c == '.';
  };
  std::ranges::replace_if(
      name, [&](char c) { return !isPlain(c); }, '_');
  return name;
}

}  // namespace

Exporter::Exporter(MdfColumnReader& reader, const ExportOptions& options)
    : reader_(reader),
      options_(options),
      table_(options.table),
      label_(labelOf(options.files)),
      selection_(options.channels),
      budget_(budgetFor(options.maxOutput, options.files)) {
  if (options.start) {
    table_.firstNs = fileTimeOf(*options.start);
  }
  if (options.end) {
    table_.endNs = fileTimeOf(*options.end);
  }
}

// The time as the file counts it.
std::int64_t Exporter::fileTimeOf(const TimeArgument& time) const {
  constexpr std::int64_t kSecondNs = 1'000'000'000;
  const MdfRecordingInfo& info = reader_.info();
  std::int64_t base = 0;
  if (time.from == TimeArgument::From::Start) {
    base = info.startTimeNs;
  } else if (time.from == TimeArgument::From::Utc && info.startIsLocal) {
    base = -std::int64_t{timeZoneSeconds()} * kSecondNs;
  }
  std::int64_t timeNs = 0;
  if (__builtin_add_overflow(base, time.ns, &timeNs)) {
    timeNs = base < 0 ? std::numeric_limits<std::int64_t>::min()
                      : std::numeric_limits<std::int64_t>::max();
  }
  return timeNs;
}

int Exporter::run() {
  if (!choose()) {
    return kFailed;
  }
  const bool isOne = options_.join || options_.dg || options_.toStandardOutput();
  if (isOne && !options_.join && parts_.size() > 1) {
    complain("export",
             "several groups are several tables: -o names a folder for them, --join "
             "makes them one, --dg chooses one");
    return kWrongUse;
  }
  complainOfFaults();
  return isOne ? exportOne() : exportAll();
}

const MdfColumnGroup& Exporter::groupOf(const TablePart& part) const {
  return reader_.groups()[static_cast<std::size_t>(part.group)];
}

// Finds what is wanted of which groups. False, said why, when there is no such thing.
bool Exporter::choose() {
  bool isThere = !options_.dg.has_value();
  for (std::int32_t index = 0; const MdfColumnGroup& group : reader_.groups()) {
    const std::int32_t number = index++;
    if (options_.dg && (group.dataGroup != *options_.dg || group.channelGroup != options_.cg)) {
      continue;
    }
    isThere = true;
    // One that holds the values of others' channels has none of its own.
    if (group.unsorted && group.channels.empty()) {
      continue;
    }
    if (std::optional<TablePart> part = selection_.of(reader_, number)) {
      parts_.push_back(std::move(*part));
    }
  }
  if (!isThere) {
    complain(label_,
             fmt::format("no data group {} with a channel group {}", *options_.dg, options_.cg));
    return false;
  }
  if (const std::string unused = selection_.unused(); !unused.empty()) {
    complain(label_, fmt::format("no channel \"{}\"", unused));
    return false;
  }
  if (needsTime()) {
    leaveOutGroupsWithoutTime();
  }
  return true;
}

bool Exporter::needsTime() const {
  return options_.join || table_.rasterNs || table_.hasWindow();
}

void Exporter::leaveOutGroupsWithoutTime() {
  std::erase_if(parts_, [&](const TablePart& part) {
    const MdfColumnGroup& group = groupOf(part);
    const bool hasTime = timeChannelOf(group).has_value();
    if (!hasTime && group.records != 0) {
      lose(group, "is left out, as its records have no time");
    }
    return !hasTime;
  });
}

void Exporter::complainOf(const MdfColumnGroup& group, std::string_view what) const {
  complain(label_, fmt::format("data group {} channel group {}: {}", group.dataGroup,
                               group.channelGroup, what));
}

// Says what does not reach the result.
void Exporter::lose(const MdfColumnGroup& group, std::string_view what) {
  complainOf(group, what);
  code_ = kLost;
}

void Exporter::complainOfFaults() {
  for (const TablePart& part : parts_) {
    const MdfColumnGroup& group = groupOf(part);
    std::int32_t last = -1;
    for (const TableColumn& column : part.columns) {
      const auto& channel = group.channels[static_cast<std::size_t>(column.channel)];
      const MdfColumnType type = table_.raw ? channel.rawType : channel.type;
      if (column.channel != last && type == MdfColumnType::None) {
        complainOf(group, fmt::format("{:.200} has no values: {}", channel.name, channel.fault));
      }
      last = column.channel;
    }
    for (const std::int32_t index : part.tooLarge) {
      lose(group, fmt::format("{:.200} has too many elements for columns of a table",
                              group.channels[static_cast<std::size_t>(index)].name));
    }
  }
}

int Exporter::exportOne() {
  Output out;
  out.limitBy(budget_);
  if (const ExitCode code = openOutput(out, options_.output, options_.files, options_.force);
      code != kDone) {
    return code;
  }
  if (!parts_.empty()) {
    const TableResult result = options_.join ? writeJoinedTable(reader_, parts_, table_, out)
                                             : writeTable(reader_, parts_.front(), table_, out);
    if (out.good() && !isWhole(result, parts_)) {
      return kFailed;
    }
  }
  if (out.good()) {
    complainOfEmptyWindow();
  }
  return finish(out, reader_, label_, code_);
}

int Exporter::exportAll() {
  if (const int error = makeFolders(options_.output); error != 0) {
    complain(options_.output, systemErrorText(error));
    return kFailed;
  }
  const std::filesystem::path folder = pathOf(options_.output);
  std::deque<Output> files;  // get their names together
  std::set<std::string> names;
  for (const TablePart& part : parts_) {
    // Groups of several files may be in the same place and have the same name.
    std::string name = fileNameOf(groupOf(part));
    for (int number = 2; !names.insert(name).second; ++number) {
      name = fmt::format("{}_{}", fileNameOf(groupOf(part)), number);
    }
    Output& out = files.emplace_back();
    out.limitBy(budget_);
    const std::string path = pathText(folder / (name + ".csv"));
    if (const ExitCode code = openOutput(out, path, options_.files, options_.force);
        code != kDone) {
      return code;
    }
    const TableResult result = writeTable(reader_, part, table_, out);
    if (out.good() && !isWhole(result, {part})) {
      return kFailed;
    }
    if (!out.complete()) {
      complain(out.name(), out.error());
      return kFailed;
    }
  }
  for (Output& out : files) {
    if (!out.close()) {
      complain(out.name(), out.error());
      return kFailed;
    }
  }
  complainOfEmptyWindow();
  return reportProblems(reader_, label_, code_);
}

void Exporter::complainOfEmptyWindow() const {
  if (!table_.hasWindow() || rows_ != 0 || span_.isEmpty()) {
    return;
  }
  const auto seconds = [&](std::int64_t timeNs) {
    return 1e-9 * (static_cast<double>(timeNs) - static_cast<double>(reader_.info().startTimeNs));
  };
  complain(label_, fmt::format("no records in that time; the recording has them from {:.6f} to "
                               "{:.6f} s",
                               seconds(span_.firstNs), seconds(span_.lastNs)));
}

// Says what the table of these groups lacks. False when it is not all of the table.
bool Exporter::isWhole(const TableResult& result, const std::vector<TablePart>& parts) {
  if (!result.error.empty()) {
    complain(label_, result.error);
    return false;
  }
  rows_ += result.rows;
  span_.add(result.span);
  if (result.withoutTime != 0 && !table_.hasWindow()) {
    lose(groupOf(parts.front()),
         fmt::format("{} records have no time and no rows", result.withoutTime));
  }
  for (const TablePart& part : parts) {
    const MdfColumnGroup& group = groupOf(part);
    if (group.records < group.statedRecords) {
      lose(group,
           fmt::format("{} of {} records could be read", group.records, group.statedRecords));
    }
  }
  return true;
}

}  // namespace tolvex
