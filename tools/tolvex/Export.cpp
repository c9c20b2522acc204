// tolvex export: signals as CSV files of physical values.

#include <fmt/format.h>
#include <tolvex/Mdf4.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <deque>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <set>

#include "Command.h"
#include "CsvColumn.h"
#include "Mdf4/base/Paths.h"
#include "Mdf4/base/System.h"
#include "Progress.h"
#include "StopSignals.h"

namespace tolvex {

namespace {

constexpr std::uint64_t kBlockBytes = 1 << 20;  // read at once

struct ExportOptions {
  std::string file;
  std::optional<int> dg;
  int cg = 0;
  std::vector<std::string> channels;  // all when empty
  CsvOptions csv;
  std::string output;
  bool force = false;
  std::optional<std::uint64_t> maxOutput;  // bytes

  bool wants(const std::string& channel) const {
    return channels.empty() || std::ranges::find(channels, channel) != channels.end();
  }
};

// The columns of one group.
struct Columns {
  std::optional<CsvColumn> time;  // without it, the record's number comes first
  std::vector<CsvColumn> values;
};

Columns columnsOf(MdfSigReader& reader, const MdfGroupInfo& group, const ExportOptions& options) {
  const int dg = group.dgIndex;
  const int cg = group.cgIndex;
  const int count = reader.getCNCount(dg, cg);
  Columns columns;
  for (int cn = 0; cn < count; ++cn) {
    CsvColumn column(reader, dg, cg, cn, options.csv);
    if (!columns.time && column.isMasterTime()) {
      columns.time.emplace(reader, dg, cg, cn, CsvOptions{.safe = options.csv.safe});
    } else if (options.wants(column.name())) {
      columns.values.push_back(std::move(column));
    }
  }
  return columns;
}

bool hasWanted(const Columns& columns, const ExportOptions& options) {
  return !columns.values.empty() || (columns.time && options.wants(columns.time->name()));
}

void writeHeader(Output& out, const Columns& columns, bool safe) {
  writeCsvText(out, columns.time ? columns.time->title() : "record", safe);
  for (const CsvColumn& column : columns.values) {
    out.write(',');
    writeCsvText(out, column.title(), safe);
  }
  out.write('\n');
}

void writeRow(Output& out, Columns& columns, std::span<const std::uint8_t> record,
              std::uint64_t index) {
  if (columns.time) {
    columns.time->writeCell(out, record, index);
  } else {
    out.write(std::to_string(index));
  }
  for (CsvColumn& column : columns.values) {
    out.write(',');
    column.writeCell(out, record, index);
  }
  out.write('\n');
}

std::string nameOf(const MdfGroupInfo& group) {
  return fmt::format("data group {} channel group {}", group.dgIndex, group.cgIndex);
}

// Writes the group's readable records. Gives their number.
std::uint64_t writeRecords(MdfSigReader& reader, const MdfGroupInfo& group, Columns& columns,
                           Output& out) {
  if (group.recordSize == 0) {
    return 0;
  }
  const std::uint64_t total = std::min<std::uint64_t>(
      {group.recordCount, reader.getStoredRecordCount(group.dgIndex, group.cgIndex),
       std::numeric_limits<int>::max()});
  std::uint64_t step = std::max<std::uint64_t>(1, kBlockBytes / group.recordSize);
  std::uint64_t done = 0;
  std::vector<std::uint8_t> block;
  Progress progress(nameOf(group), group.recordCount);
  while (done < total && out.good()) {
    step = std::min(step, total - done);
    int recordSize = 0;
    if (!reader.readSignalDataBlock(group.dgIndex, group.cgIndex, static_cast<int>(done),
                                    static_cast<int>(step), block, recordSize)) {
      if (step == 1) {
        break;
      }
      step /= 2;  // the data end before the last of them
      continue;
    }
    const auto size = static_cast<std::size_t>(recordSize);
    for (std::size_t at = 0; at + size <= block.size(); at += size, ++done) {
      writeRow(out, columns, std::span(block).subspan(at, size), done);
    }
    progress.update(done);
  }
  return done;
}

// Writes the group's header and records. kLost, said why, when records are missing.
ExitCode exportGroup(MdfSigReader& reader, const MdfGroupInfo& group, Columns& columns, Output& out,
                     const ExportOptions& options) {
  writeHeader(out, columns, options.csv.safe);
  const std::uint64_t written = writeRecords(reader, group, columns, out);
  if (!out.good() || written >= group.recordCount) {
    return kDone;
  }
  complain(options.file, fmt::format("{}: {} of {} records could be read", nameOf(group), written,
                                     group.recordCount));
  return kLost;
}

// A group, without its texts: many groups may share one long name.
struct GroupPlace {
  int dg;
  int cg;
};

// Complains about the first wanted channel that none of `groups` has.
bool channelsExist(MdfSigReader& reader, const std::vector<GroupPlace>& groups,
                   const ExportOptions& options) {
  std::set<std::string> missing(options.channels.begin(), options.channels.end());
  for (const GroupPlace& group : groups) {
    const int count = reader.getCNCount(group.dg, group.cg);
    for (int cn = 0; cn < count && !missing.empty(); ++cn) {
      missing.erase(reader.getCNName(group.dg, group.cg, cn));
    }
  }
  if (!missing.empty()) {
    complain(options.file, fmt::format("no channel \"{}\"", *missing.begin()));
  }
  return missing.empty();
}

int exportOne(MdfSigReader& reader, const ExportOptions& options) {
  MdfGroupInfo group;
  if (!reader.getGroupInfo(*options.dg, options.cg, group)) {
    complain(options.file,
             fmt::format("no data group {} with a channel group {}", *options.dg, options.cg));
    return kFailed;
  }
  if (complainIfUnsorted(group, options.file) ||
      !channelsExist(reader, {{*options.dg, options.cg}}, options)) {
    return kFailed;
  }
  OutputBudget budget = budgetFor(options.maxOutput, {options.file});
  Output out;
  out.limitBy(budget);
  if (const ExitCode code = openOutput(out, options.output, {options.file}, options.force);
      code != kDone) {
    return code;
  }
  Columns columns = columnsOf(reader, group, options);
  const ExitCode code = exportGroup(reader, group, columns, out, options);
  return finish(out, reader, options.file, code);
}

// "dg0_cg0_Engine_data.csv".
std::string fileNameOf(const MdfGroupInfo& group) {
  constexpr std::size_t kMaxLength = 80;
  std::string name = fmt::format("dg{}_cg{}", group.dgIndex, group.cgIndex);
  if (!group.name.empty()) {
    name += '_' + group.name.substr(0, kMaxLength);
  }
  const auto isPlain = [](char c) {
    return (std::isalnum(static_cast<unsigned char>(c)) != 0) || c == '-' || c == '.';
  };
  std::ranges::replace_if(
      name, [&](char c) { return !isPlain(c); }, '_');
  return name + ".csv";
}

std::vector<GroupPlace> listGroups(MdfSigReader& reader) {
  std::vector<GroupPlace> groups;
  const int dataGroups = reader.getDGCount();
  for (int dg = 0; dg < dataGroups; ++dg) {
    MdfGroupInfo group;
    for (int cg = 0; reader.getGroupInfo(dg, cg, group); ++cg) {
      groups.push_back({dg, cg});
    }
  }
  return groups;
}

int exportAll(MdfSigReader& reader, const ExportOptions& options) {
  const std::vector<GroupPlace> groups = listGroups(reader);
  if (!channelsExist(reader, groups, options)) {
    return kFailed;
  }
  const std::filesystem::path folder = pathOf(options.output);
  if (const int error = makeFolders(options.output); error != 0) {
    complain(options.output, systemErrorText(error));
    return kFailed;
  }
  ExitCode soFar = kDone;
  OutputBudget budget = budgetFor(options.maxOutput, {options.file});
  std::deque<Output> files;  // get their names together
  for (const GroupPlace& place : groups) {
    MdfGroupInfo group;
    reader.getGroupInfo(place.dg, place.cg, group);
    if (complainIfUnsorted(group, options.file)) {
      soFar = kLost;
      continue;
    }
    Columns columns = columnsOf(reader, group, options);
    if (!options.channels.empty() && !hasWanted(columns, options)) {
      continue;
    }
    Output& out = files.emplace_back();
    out.limitBy(budget);
    const std::string path = pathText(folder / fileNameOf(group));
    if (const ExitCode code = openOutput(out, path, {options.file}, options.force); code != kDone) {
      return code;
    }
    if (exportGroup(reader, group, columns, out, options) == kLost) {
      soFar = kLost;
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
  return reportProblems(reader, options.file, soFar);
}

int exportSignals(const ExportOptions& options) {
  MdfSigReader reader(options.file);
  reader.setReadAllGroups(true);
  if (!openOrComplain(reader, options.file)) {
    return kFailed;
  }
  return options.dg ? exportOne(reader, options) : exportAll(reader, options);
}

int runExport(const ExportOptions& options) {
  if (!options.output.empty()) {
    return runStoppable([&] { return exportSignals(options); });
  }
  if (!options.dg) {
    complain("export", "without --dg, -o must name a folder for the groups' files");
    return kWrongUse;
  }
  return exportSignals(options);
}

}  // namespace

void addExport(CLI::App& app, Command& chosen) {
  const auto options = std::make_shared<ExportOptions>();
  CLI::App* command = app.add_subcommand("export", "Write signals as CSV files");
  command->add_option("FILE", options->file, "The measurement file")->required();
  CLI::Option* dg =
      command
          ->add_option("--dg", options->dg,
                       "The data group, counted from 0; by default every group is exported")
          ->type_name("N")
          ->check(CLI::NonNegativeNumber.description(""));
  command->add_option("--cg", options->cg, "The channel group in it, counted from 0; by default 0")
      ->type_name("M")
      ->check(CLI::NonNegativeNumber.description(""))
      ->needs(dg);
  command
      ->add_option("--channel", options->channels,
                   "Export the channels of this name only; may be given several times")
      ->type_name("NAME")
      ->allow_extra_args(false);
  command->add_flag("--raw", options->csv.raw,
                    "Numbers as recorded, before the conversion to physical values; the time "
                    "column stays physical");
  command->add_flag("--safe-csv", options->csv.safe,
                    "An apostrophe before texts that a spreadsheet would take for formulas");
  command
      ->add_option("-o,--output", options->output,
                   "With --dg, the file to write; by default the standard output. Without --dg, "
                   "the folder that gets a file dgN_cgM_NAME.csv for every group")
      ->type_name("OUT");
  addForce(*command, options->force);
  addMaxOutput(*command, options->maxOutput);
  command->footer(
      "The first column is the group's time, or the record's number (from 0) in a group without "
      "one; then the channels in the file's order. Columns are headed \"name [unit]\". Numbers "
      "read back as the same 64-bit floating point number; texts are quoted where they hold a "
      "comma, a quote or a line end; byte arrays are hexadecimal. A cell is empty where a sample "
      "is invalid or cannot be converted. Lines end in a line feed. With --safe-csv, texts that "
      "begin with = + - @, tab or carriage return and are no numbers get an apostrophe in front. "
      "On a terminal, control characters show as \\n, \\x1B or \\u202E.\n"
      "\n"
      "Examples:\n"
      "  tolvex export drive.mf4 -o drive\n"
      "  tolvex export drive.mf4 --dg 2 --channel Speed --channel Gear -o speed.csv\n"
      "  tolvex export drive.mf4 --dg 2 --raw | head");
  command->callback([options, &chosen] { chosen = [options] { return runExport(*options); }; });
}

}  // namespace tolvex
