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

struct Channel {
  MdfSigAttr attributes;
  MdfSigCCInfo description;
};

struct Group {
  MdfGroupInfo info;
  std::optional<double> duration;  // seconds from the first record to the last; empty if unknown
  std::vector<Channel> channels;
};

std::optional<double> span(std::pair<double, double> times) {
  const double duration = times.second - times.first;
  return std::isfinite(duration) && duration >= 0 ? std::optional(duration) : std::nullopt;
}

// The time that the group's records span; empty when they cannot be read.
std::optional<double> durationOf(MdfSigReader& reader, const MdfGroupInfo& group) {
  MdfSigCCInfo time;
  if (group.unsorted || group.recordCount == 0 ||
      group.recordCount > reader.getStoredRecordCount(group.dgIndex, group.cgIndex) ||
      !reader.getTimeCCInfo(group.dgIndex, group.cgIndex, time)) {
    return {};
  }
  return span(reader.readSignalTimeRange(group.dgIndex, group.cgIndex));
}

constexpr std::size_t kLongestText = 4096;

// The start of a text that is longer than anyone reads, else the text.
std::string shortened(std::string text) {
  if (text.size() > kLongestText) {
    text.resize(kLongestText);
    text += "...";
  }
  return text;
}

std::vector<Channel> listChannels(MdfSigReader& reader, const MdfGroupInfo& group) {
  std::vector<Channel> channels;
  const int count = reader.getCNCount(group.dgIndex, group.cgIndex);
  for (int cn = 0; cn < count; ++cn) {
    Channel channel{reader.getSigAttr(group.dgIndex, group.cgIndex, cn), {}};
    MdfSigCCInfo& description = channel.description;
    if (!reader.getChannelInfo(group.dgIndex, group.cgIndex, cn, description)) {
      continue;
    }
    description.name.clear();  // the plain name is shown
    description.unit = shortened(std::move(description.unit));
    description.comment = shortened(std::move(description.comment));
    channel.attributes.name = shortened(std::move(channel.attributes.name));
    channels.push_back(std::move(channel));
  }
  return channels;
}

std::vector<Group> listGroups(MdfSigReader& reader) {
  std::vector<Group> groups;
  const int dataGroups = reader.getDGCount();
  for (int dg = 0; dg < dataGroups; ++dg) {
    MdfGroupInfo info;
    for (int cg = 0; reader.getGroupInfo(dg, cg, info); ++cg) {
      info.name = shortened(std::move(info.name));
      groups.push_back({info, durationOf(reader, info), listChannels(reader, info)});
    }
  }
  return groups;
}

nlohmann::ordered_json channelJson(const Channel& channel) {
  const MdfSigAttr& attributes = channel.attributes;
  const MdfSigCCInfo& description = channel.description;
  return {{"cn", attributes.cnIndex},
          {"name", attributes.name},
          {"unit", description.unit},
          {"comment", description.comment},
          {"channel_type", description.channelType},
          {"sync_type", description.syncType},
          {"data_type", description.dataType},
          {"byte_offset", attributes.byteOffset},
          {"bit_offset", attributes.bitOffset},
          {"bit_count", attributes.bitCount},
          {"conversion_type", description.conversionType}};
}

nlohmann::ordered_json groupJson(const Group& group) {
  nlohmann::ordered_json json = {{"dg", group.info.dgIndex},
                                 {"cg", group.info.cgIndex},
                                 {"name", group.info.name},
                                 {"records", group.info.recordCount},
                                 {"record_size", group.info.recordSize},
                                 {"channels", nlohmann::ordered_json::array()},
                                 {"unsorted", group.info.unsorted},
                                 {"duration_s", nullptr}};
  for (const Channel& channel : group.channels) {
    json["channels"].push_back(channelJson(channel));
  }
  if (group.duration) {
    json["duration_s"] = *group.duration;
  }
  return json;
}

std::string jsonText(const std::string& file, const MdfFileInfo& info,
                     const std::vector<Group>& groups) {
  nlohmann::ordered_json json = {{"file", file},
                                 {"size", info.size},
                                 {"version", info.versionText},
                                 {"program", info.program},
                                 {"start_time_ns", info.startTimeNs},
                                 {"groups", nlohmann::ordered_json::array()}};
  for (const Group& group : groups) {
    json["groups"].push_back(groupJson(group));
  }
  // Names that are no UTF-8 show replacement characters.
  return printableJson(json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) +
                       '\n');
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

// Rows of cells in aligned columns.
class Table {
 public:
  using Row = std::array<std::string, 5>;

  void add(Row row) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths_[i] = std::max(widths_[i], width(row[i]));
    }
    rows_.push_back(std::move(row));
  }
  std::string text() const {
    std::string text;
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

std::string groupText(const Group& group) {
  std::string text = fmt::format("\ndg {} cg {}", group.info.dgIndex, group.info.cgIndex);
  if (!group.info.name.empty()) {
    text += "  " + printable(group.info.name);
  }
  text += fmt::format("\n  {} records of {} bytes", group.info.recordCount, group.info.recordSize);
  if (group.duration) {
    text += fmt::format(", {:.3f} s", *group.duration);
  }
  text += group.info.unsorted ? ", unsorted\n" : "\n";
  Table table;
  table.add({"NAME", "UNIT", "TYPE", "BITS", "CONVERSION"});
  for (const Channel& channel : group.channels) {
    table.add({printable(channel.attributes.name), printable(channel.description.unit),
               typeText(channel), fmt::format("{}", channel.attributes.bitCount),
               conversionText(channel.description)});
  }
  return text + (group.channels.empty() ? "" : table.text());
}

std::string plainText(const std::string& file, const MdfFileInfo& info,
                      const std::vector<Group>& groups) {
  std::string text = fmt::format(
      "{}\n"
      "  size     {} bytes\n"
      "  version  {}\n"
      "  program  {}\n"
      "  start    {}\n"
      "  groups   {}\n",
      printable(file), info.size, printable(info.versionText), printable(info.program),
      timeText(info.startTimeNs), groups.size());
  for (const Group& group : groups) {
    text += groupText(group);
  }
  return text;
}

int info(const InfoOptions& options) {
  MdfSigReader reader(options.file);
  reader.setReadAllGroups(true);
  reader.setLongestText(kLongestText + 1);
  if (!openOrComplain(reader, options.file)) {
    return kFailed;
  }
  const std::vector<Group> groups = listGroups(reader);
  const MdfFileInfo file = reader.getFileInfo();
  Output out;
  out.write(options.format == "json" ? jsonText(options.file, file, groups)
                                     : plainText(options.file, file, groups));
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
