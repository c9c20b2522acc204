// tolvex info: what a measurement file holds.

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <tolvex/Mdf4.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "Command.h"

namespace tolvex {

namespace {

struct InfoOptions {
  std::string file;
  std::string format = "text";
};

constexpr std::size_t kLongestText = 4096;    // of a file, bytes
constexpr std::size_t kLongestInTable = 256;  // columns stay readable

struct Channel {
  MdfSigAttr attributes;
  MdfSigCCInfo description;
};

// The start of a text that is longer than anyone reads, else the text.
std::string shortened(std::string text, std::size_t longest = kLongestText) {
  if (text.size() > longest) {
    text.resize(longest);
    text += "...";
  }
  return text;
}

// Calls visit(info) for every group of the file.
template <class Visit>
void forEachGroup(MdfSigReader& reader, Visit visit) {
  const int dataGroups = reader.getDGCount();
  for (int dg = 0; dg < dataGroups; ++dg) {
    MdfGroupInfo info;
    for (int cg = 0; reader.getGroupInfo(dg, cg, info); ++cg) {
      info.name = shortened(std::move(info.name));
      visit(info);
    }
  }
}

// Calls visit(channel) for every channel of the group.
template <class Visit>
void forEachChannel(MdfSigReader& reader, const MdfGroupInfo& group, Visit visit) {
  const int count = reader.getCNCount(group.dgIndex, group.cgIndex);
  for (int cn = 0; cn < count; ++cn) {
    Channel channel{reader.getSigAttr(group.dgIndex, group.cgIndex, cn), {}};
    if (!reader.getChannelInfo(group.dgIndex, group.cgIndex, cn, channel.description)) {
      continue;
    }
    channel.attributes.name = shortened(std::move(channel.attributes.name));
    visit(channel);
  }
}

std::optional<double> span(std::pair<double, double> times) {
  const double duration = times.second - times.first;
  return std::isfinite(duration) && duration >= 0 ? std::optional(duration) : std::nullopt;
}

// The time that the group's records span, seconds; empty when they cannot be read.
std::optional<double> durationOf(MdfSigReader& reader, const MdfGroupInfo& group) {
  MdfSigCCInfo time;
  if (group.unsorted || group.recordCount == 0 ||
      group.recordCount > reader.getStoredRecordCount(group.dgIndex, group.cgIndex) ||
      !reader.getTimeCCInfo(group.dgIndex, group.cgIndex, time)) {
    return {};
  }
  return span(reader.readSignalTimeRange(group.dgIndex, group.cgIndex));
}

// Writes JSON piece by piece: of a file that lists as many channels as it has room for, the whole
// would take many times its size.
class JsonWriter {
 public:
  using Json = nlohmann::ordered_json;

  explicit JsonWriter(Output& out) : out_(out) {}

  // Writes `json`, whose member `array` is an empty array, with the elements that `addElements`
  // writes in it.
  template <class AddElements>
  void write(const Json& json, const std::string& array, AddElements addElements) {
    const std::string text = textOf(json);
    const std::string empty = '"' + array + "\": []";  // within a string the quotes are escaped
    const std::size_t place = text.find(empty) + empty.size() - 1;
    startElement();
    out_.write(std::string_view(text).substr(0, place));
    depth_ += 2;
    isFirst_ = true;
    addElements();
    depth_ -= 2;
    if (!isFirst_) {
      endLine(depth_ + 1);
    }
    isFirst_ = false;
    out_.write(std::string_view(text).substr(place));
  }
  void write(const Json& json) {
    startElement();
    out_.write(textOf(json));
  }

 private:
  static constexpr std::size_t kIndent = 2;

  std::string textOf(const Json& json) const {
    // Names that are no UTF-8 show replacement characters.
    const std::string text =
        printableJson(json.dump(int{kIndent}, ' ', false, Json::error_handler_t::replace));
    std::string indented;
    for (const char character : text) {
      indented += character;
      if (character == '\n') {
        indented.append(kIndent * depth_, ' ');
      }
    }
    return indented;
  }
  void startElement() {
    if (depth_ == 0) {
      return;
    }
    if (!isFirst_) {
      out_.write(',');
    }
    isFirst_ = false;
    endLine(depth_);
  }
  void endLine(std::size_t depth) {
    out_.write('\n');
    out_.write(std::string(kIndent * depth, ' '));
  }

  Output& out_;
  std::size_t depth_ = 0;
  bool isFirst_ = true;  // of the elements of an array
};

nlohmann::ordered_json channelJson(const Channel& channel) {
  const MdfSigAttr& attributes = channel.attributes;
  const MdfSigCCInfo& description = channel.description;
  return {{"cn", attributes.cnIndex},
          {"name", attributes.name},
          {"unit", shortened(description.unit)},
          {"comment", shortened(description.comment)},
          {"channel_type", description.channelType},
          {"sync_type", description.syncType},
          {"data_type", description.dataType},
          {"byte_offset", attributes.byteOffset},
          {"bit_offset", attributes.bitOffset},
          {"bit_count", attributes.bitCount},
          {"conversion_type", description.conversionType}};
}

void writeJson(Output& out, const std::string& file, MdfSigReader& reader) {
  const MdfFileInfo info = reader.getFileInfo();
  JsonWriter writer(out);
  const auto writeGroup = [&](const MdfGroupInfo& group) {
    const std::optional<double> duration = durationOf(reader, group);
    const nlohmann::ordered_json json = {
        {"dg", group.dgIndex},
        {"cg", group.cgIndex},
        {"name", group.name},
        {"records", group.recordCount},
        {"record_size", group.recordSize},
        {"channels", nlohmann::ordered_json::array()},
        {"unsorted", group.unsorted},
        {"duration_s", duration ? nlohmann::ordered_json(*duration) : nlohmann::ordered_json()}};
    writer.write(json, "channels", [&] {
      forEachChannel(reader, group,
                     [&](const Channel& channel) { writer.write(channelJson(channel)); });
    });
  };
  writer.write({{"file", file},
                {"size", info.size},
                {"version", info.versionText},
                {"program", info.program},
                {"start_time_ns", info.startTimeNs},
                {"groups", nlohmann::ordered_json::array()}},
               "groups", [&] { forEachGroup(reader, writeGroup); });
  out.write('\n');
}

// "2021-07-26T04:34:14.5Z": a fraction only as far as there is one.
std::string timeText(std::uint64_t timeNs) {
  constexpr std::uint64_t kSecond = 1'000'000'000;
  std::string text =
      fmt::format("{:%FT%T}", fmt::gmtime(static_cast<std::time_t>(timeNs / kSecond)));
  if (timeNs % kSecond != 0) {
    text += fmt::format(".{:09}", timeNs % kSecond);
    text.erase(text.find_last_not_of('0') + 1);
  }
  return text + 'Z';
}

// "uint 16", "float 64 BE, master time", "string, variable length".
std::string typeText(const Channel& channel) {
  static constexpr std::array<const char*, 16> kDataTypes = {
      "uint",        "uint",         "int",          "int",    "float", "float",
      "string",      "string",       "string",       "string", "bytes", "MIME sample",
      "MIME stream", "CANopen date", "CANopen time", "complex"};
  static constexpr std::array<const char*, 5> kSyncTypes = {"", " time", " angle", " distance",
                                                            " index"};
  const MdfSigCCInfo& description = channel.description;
  std::string text = description.dataType < kDataTypes.size()
                         ? kDataTypes[description.dataType]
                         : fmt::format("type {}", description.dataType);
  if (description.dataType <= 5) {
    text += fmt::format(" {}", channel.attributes.bitCount);
  }
  if (description.byteOrder == 2) {
    text += " BE";
  }
  const char* sync =
      description.syncType < kSyncTypes.size() ? kSyncTypes[description.syncType] : "";
  switch (description.channelType) {
    case 1:
      return text + ", variable length";
    case 2:
      return text + ", master" + sync;
    case 3:
      return text + ", virtual master" + sync;
    case 4:
      return text + ", synchronisation";
    case 5:
      return text + ", maximum length";
    case 6:
      return text + ", virtual";
    default:
      return text;
  }
}

// What stands in brackets in the conversion's name, e.g. "value to text".
std::string conversionText(const MdfSigCCInfo& description) {
  if (description.conversionType == 0) {
    return "";
  }
  const std::string name = description.getConversionTypeString();
  const std::size_t begin = name.find('(');
  return begin == std::string::npos ? name : name.substr(begin + 1, name.size() - begin - 2);
}

// Characters, as far as each takes one column.
std::size_t width(const std::string& text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, [](char c) { return (c & '\xC0') != '\x80'; }));
}

// Rows of cells in aligned columns below a head; nothing without rows.
class Table {
 public:
  using Row = std::array<std::string, 5>;

  explicit Table(Row head) { add(std::move(head)); }

  void add(Row row) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths_[i] = std::max(widths_[i], width(row[i]));
    }
    rows_.push_back(std::move(row));
  }
  std::string text() const {
    std::string text;
    if (rows_.size() == 1) {
      return text;
    }
    for (const Row& row : rows_) {
      text += "  ";
      for (std::size_t i = 0; i < row.size(); ++i) {
        text += row[i];
        text.append(widths_[i] - width(row[i]) + 2, ' ');
      }
      text.erase(text.find_last_not_of(' ') + 1);
      text += '\n';
    }
    return text;
  }

 private:
  std::vector<Row> rows_;
  std::array<std::size_t, std::tuple_size_v<Row>> widths_{};
};

// A text of a file as a table or a line shows it.
std::string cell(const std::string& text) {
  return printable(shortened(text, kLongestInTable));
}

std::string groupText(MdfSigReader& reader, const MdfGroupInfo& group) {
  std::string text = fmt::format("\ndg {} cg {}", group.dgIndex, group.cgIndex);
  if (!group.name.empty()) {
    text += "  " + cell(group.name);
  }
  text += fmt::format("\n  {} records of {} bytes", group.recordCount, group.recordSize);
  if (const std::optional<double> duration = durationOf(reader, group)) {
    text += fmt::format(", {:.3f} s", *duration);
  }
  text += group.unsorted ? ", unsorted\n" : "\n";
  Table table({"NAME", "UNIT", "TYPE", "BITS", "CONVERSION"});
  forEachChannel(reader, group, [&](const Channel& channel) {
    table.add({cell(channel.attributes.name), cell(channel.description.unit), typeText(channel),
               fmt::format("{}", channel.attributes.bitCount),
               conversionText(channel.description)});
  });
  return text + table.text();
}

void writeText(Output& out, const std::string& file, MdfSigReader& reader) {
  const MdfFileInfo info = reader.getFileInfo();
  std::size_t groups = 0;
  forEachGroup(reader, [&](const MdfGroupInfo&) { ++groups; });
  out.write(
      fmt::format("{}\n"
                  "  size     {} bytes\n"
                  "  version  {}\n"
                  "  program  {}\n"
                  "  start    {}\n"
                  "  groups   {}\n",
                  printable(file), info.size, printable(info.versionText), printable(info.program),
                  timeText(info.startTimeNs), groups));
  forEachGroup(reader, [&](const MdfGroupInfo& group) { out.write(groupText(reader, group)); });
}

int info(const InfoOptions& options) {
  MdfSigReader reader(options.file);
  reader.setReadAllGroups(true);
  reader.setLongestText(kLongestText + 1);
  if (!openOrComplain(reader, options.file)) {
    return kFailed;
  }
  Output out;
  if (options.format == "json") {
    writeJson(out, options.file, reader);
  } else {
    writeText(out, options.file, reader);
  }
  return finish(out, reader, options.file, kDone);
}

}  // namespace

void addInfo(CLI::App& app, Command& chosen) {
  const auto options = std::make_shared<InfoOptions>();
  CLI::App* command = app.add_subcommand("info", "Show what a measurement file holds");
  command->add_option("FILE", options->file, "The measurement file")->required();
  command->add_option("--format", options->format, "The form of the description; text by default")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"text", "json"}));
  command->footer(
      "Shows version, program, start time (UTC), size in bytes, and for each group its name, the "
      "number of records, bytes per record, duration in seconds (unless it is unknown) and "
      "channels. \"unsorted\" marks groups whose records cat and export cannot read. In json, "
      "start_time_ns is nanoseconds since 1970 (UTC), offsets are bytes and bits in a record, the "
      "types are the format's numbers, and duration_s may be null.\n"
      "\n"
      "Examples:\n"
      "  tolvex info drive.mf4\n"
      "  tolvex info drive.mf4 --format json | jq '.groups[].channels[].name'");
  command->callback([options, &chosen] { chosen = [options] { return info(*options); }; });
}

}  // namespace tolvex
