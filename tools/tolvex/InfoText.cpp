// What info shows, to be read by people.

#include <fmt/format.h>
#include <tolvex/MdfSignals.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>

#include "Info.h"
#include "PrintableText.h"

namespace tolvex {

namespace {

constexpr std::size_t kLongestInTable = 256;  // columns stay readable
constexpr std::size_t kMostShown = 1000;      // of entries of a list; JSON has all

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
std::string cell(std::string_view text) {
  return printable(shortened(text, kLongestInTable));
}

// Likewise one that writers often put on lines of their own.
std::string commentCell(std::string_view text) {
  constexpr std::string_view kSpaces = " \t\r\n";
  const std::size_t begin = std::min(text.find_first_not_of(kSpaces), text.size());
  text.remove_prefix(begin);
  return cell(text.substr(0, text.find_last_not_of(kSpaces) + 1));
}

std::string moreText(std::size_t count) {
  return count > kMostShown ? fmt::format("  and {} more\n", count - kMostShown) : "";
}

// "uint 16", "float 64 BE, master time", "string, variable length", "int 8, 2 x 3".
std::string typeText(const MdfColumnChannel& channel) {
  static constexpr std::array<const char*, 16> kDataTypes = {
      "uint",        "uint",         "int",          "int",    "float", "float",
      "string",      "string",       "string",       "string", "bytes", "MIME sample",
      "MIME stream", "CANopen date", "CANopen time", "complex"};
  static constexpr std::array<const char*, 5> kSyncTypes = {"", " time", " angle", " distance",
                                                            " index"};
  const std::uint8_t type = channel.dataType;
  std::string text = type < kDataTypes.size() ? kDataTypes[type] : fmt::format("type {}", type);
  if (type <= 5) {
    text += fmt::format(" {}", channel.bitCount);
  }
  if (type == 1 || type == 3 || type == 5 || type == 9) {
    text += " BE";
  }
  for (std::size_t i = 0; i < channel.shape.size(); ++i) {
    text += fmt::format("{}{}", i == 0 ? ", " : " x ", channel.shape[i]);
  }
  const char* sync = channel.syncType < kSyncTypes.size() ? kSyncTypes[channel.syncType] : "";
  switch (channel.channelType) {
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
std::string conversionText(const MdfColumnChannel& channel) {
  if (channel.conversion == 0) {
    return "";
  }
  MdfSigCCInfo description;
  description.conversionType = channel.conversion;
  const std::string name = description.getConversionTypeString();
  const std::size_t begin = name.find('(');
  return begin == std::string::npos ? name : name.substr(begin + 1, name.size() - begin - 2);
}

class InfoText {
 public:
  InfoText(Output& out, const InfoSubject& subject) : out_(out), subject_(subject) {}

  void write() {
    subject_.forEachFile([&](const InfoFile& file) { writeFile(file); });
    if (subject_.files().size() > 1) {
      out_.write(fmt::format("\n{} files as one recording\n", subject_.files().size()));
      writeSpan();
      writeGroupCount();
    }
    for (std::size_t i = 0; i < subject_.groups().size(); ++i) {
      out_.write(groupText(subject_.groups()[i], subject_.timesOf(i)));
    }
    for (const auto& [number, bus] : subject_.buses()) {
      out_.write(busText(number, bus));
    }
  }

 private:
  void writeLine(const char* name, std::string_view text) {
    if (!text.empty()) {
      out_.write(fmt::format("  {:<8} {}\n", name, text));
    }
  }

  void writeFile(const InfoFile& file) {
    const MdfRecordingInfo& info = file.info;
    const bool isFirst = &file.path == &subject_.files().front();
    out_.write(fmt::format("{}{}\n", isFirst ? "" : "\n", printable(file.path)));
    writeLine("size", fmt::format("{} bytes", file.size));
    writeLine("version", fmt::format("{}.{:02}", info.version / 100, info.version % 100));
    out_.write(fmt::format("  program  {}\n", printable(info.program)));
    writeLine("start", isoText(info.startTimeNs, info.startIsLocal));
    if (subject_.files().size() == 1) {
      writeSpan();
      writeGroupCount();
    }
    writeLine("comment", commentCell(info.comment));
    for (const std::string& notice : file.notices) {
      writeLine("note", cell(notice));
    }
    writeProperties(info);
    writeHistory(info);
    writeAttachments(info);
    writeEvents(info);
  }

  void writeGroupCount() { writeLine("groups", std::to_string(subject_.groups().size())); }

  // The first time and the last one.
  void writeSpan() {
    const TimeSpan& span = subject_.span();
    if (span.isEmpty()) {
      return;
    }
    const bool isLocal = subject_.recording().startIsLocal;
    writeLine("first", fmt::format("{}, {:.6f} s", isoText(span.firstNs, isLocal),
                                   subject_.secondsOf(span.firstNs)));
    writeLine("last", fmt::format("{}, {:.6f} s", isoText(span.lastNs, isLocal),
                                  subject_.secondsOf(span.lastNs)));
  }

  // Those that have a value.
  void writeProperties(const MdfRecordingInfo& info) {
    std::string text;
    std::size_t count = 0;
    for (const MdfProperty& property : info.properties) {
      if (!property.value.empty() && ++count <= kMostShown) {
        text += fmt::format("  {}: {}{}{}\n", cell(property.name), cell(property.value),
                            property.unit.empty() ? "" : " ", cell(property.unit));
      }
    }
    if (count != 0) {
      out_.write("\nproperties\n" + text + moreText(count));
    }
  }

  void writeHistory(const MdfRecordingInfo& info) {
    Table table({"TIME", "TOOL", "VENDOR", "USER", "COMMENT"});
    for (const MdfHistoryEntry& entry : firstOf(info.history)) {
      const char* const gap = entry.tool.empty() || entry.toolVersion.empty() ? "" : " ";
      table.add({isoText(entry.timeNs, entry.isLocal),
                 cell(entry.tool) + gap + cell(entry.toolVersion), cell(entry.vendor),
                 cell(entry.user), commentCell(entry.comment)});
    }
    writeList("history", table, info.history.size());
  }

  void writeAttachments(const MdfRecordingInfo& info) {
    Table table({"NAME", "TYPE", "BYTES", "EMBEDDED", "COMMENT"});
    for (const MdfAttachment& attachment : firstOf(info.attachments)) {
      const std::string stored = !attachment.isEmbedded
                                     ? "no"
                                     : fmt::format("{} bytes{}", attachment.storedSize,
                                                   attachment.isCompressed ? ", compressed" : "");
      table.add({cell(attachment.name), cell(attachment.mimeType), std::to_string(attachment.size),
                 stored, commentCell(attachment.comment)});
    }
    writeList("attachments", table, info.attachments.size());
  }

  void writeEvents(const MdfRecordingInfo& info) {
    constexpr std::uint8_t kTime = 1;  // a synchronisation type
    static constexpr std::array<const char*, 3> kRanges = {"", ", begin", ", end"};
    Table table({"AT", "EVENT", "CAUSE", "NAME", "COMMENT"});
    for (const MdfEvent& event : firstOf(info.events)) {
      const char* const range = event.rangeType < kRanges.size() ? kRanges[event.rangeType] : "";
      table.add({fmt::format("{:.6f}{}", event.position, event.syncType == kTime ? " s" : ""),
                 std::string(eventTypeText(event)) + range, eventCauseText(event), cell(event.name),
                 commentCell(event.comment)});
    }
    writeList("events", table, info.events.size());
  }

  template <class Entry>
  static std::vector<Entry> firstOf(const std::vector<Entry>& entries) {
    const auto count = static_cast<std::ptrdiff_t>(std::min(entries.size(), kMostShown));
    return {entries.begin(), entries.begin() + count};
  }

  void writeList(const char* name, const Table& table, std::size_t count) {
    if (count != 0) {
      out_.write(fmt::format("\n{}\n{}{}", name, table.text(), moreText(count)));
    }
  }

  std::string groupText(const MdfColumnGroup& group, const std::optional<GroupTimes>& times) const {
    std::string text = fmt::format("\ndg {} cg {}", group.dataGroup, group.channelGroup);
    if (!titleOf(group).empty()) {
      text += "  " + cell(titleOf(group));
    }
    if (group.unsorted && group.channels.empty()) {
      return text + "\n  values of variable length of the other groups\n";
    }
    text += fmt::format("\n  {} records of {} bytes", group.records, group.recordSize);
    if (times) {
      text += fmt::format(", {:.3f} s", times->duration());
    }
    text += group.unsorted ? ", unsorted" : "";
    if (group.records != group.statedRecords) {
      text += fmt::format("; the file states {}", group.statedRecords);
    }
    text += '\n';
    Table table({"NAME", "UNIT", "TYPE", "BITS", "CONVERSION"});
    std::string faults;
    for (const MdfColumnChannel& channel : group.channels) {
      table.add({cell(channel.name), cell(channel.unit), typeText(channel),
                 fmt::format("{}", channel.bitCount), conversionText(channel)});
      if (!channel.fault.empty()) {
        faults += fmt::format("  {} has no values: {}\n", cell(channel.name), cell(channel.fault));
      }
    }
    return text + table.text() + faults;
  }

  static std::string kindText(const IdStatistics& id) {
    std::string text;
    const auto add = [&](std::uint64_t frames, const char* kind) {
      if (frames != 0) {
        text += fmt::format("{}{}", text.empty() ? "" : ", ", kind);
        text += frames == id.frames ? "" : fmt::format(" {}", frames);
      }
    };
    add(id.fdFrames, "FD");
    add(id.remoteFrames, "remote");
    return text;
  }

  static std::string busText(std::uint16_t number, const BusStatistics& bus) {
    std::string text = fmt::format("\nbus {}\n  {} frames", number, bus.frames);
    if (bus.errorFrames != 0) {
      text += fmt::format(" and {} error frames", bus.errorFrames);
    }
    if (const auto rate = bus.rate()) {
      text += fmt::format(", {:.1f} per second", *rate);
    }
    if (const auto load = bus.load()) {
      text += fmt::format(", load {:.1f} %", 100 * *load);
    }
    text += '\n';
    Table table({"ID", "FRAMES", "PER SECOND", "BYTES", "KIND"});
    for (const IdStatistics& id : bus.ids) {
      const auto rate = id.rate();
      table.add({id.isExtended ? fmt::format("{:08X}", id.id) : fmt::format("{:03X}", id.id),
                 std::to_string(id.frames), rate ? fmt::format("{:.3f}", *rate) : "",
                 id.fewestBytes == id.mostBytes
                     ? std::to_string(id.mostBytes)
                     : fmt::format("{} to {}", id.fewestBytes, id.mostBytes),
                 kindText(id)});
    }
    text += table.text();
    if (bus.otherFrames != 0) {
      text += fmt::format("  {} frames of other identifiers\n", bus.otherFrames);
    }
    return text;
  }

  Output& out_;
  const InfoSubject& subject_;
};

}  // namespace

void writeInfoText(Output& out, const InfoSubject& subject) {
  InfoText(out, subject).write();
}

const char* eventTypeText(const MdfEvent& event) {
  static constexpr std::array<const char*, 7> kTypes = {
      "recording",     "recording interrupted", "acquisition interrupted",
      "start trigger", "stop trigger",          "trigger",
      "marker"};
  return event.type < kTypes.size() ? kTypes[event.type] : "";
}

const char* eventCauseText(const MdfEvent& event) {
  static constexpr std::array<const char*, 5> kCauses = {"other", "error", "tool", "script",
                                                         "user"};
  return event.cause < kCauses.size() ? kCauses[event.cause] : "";
}

}  // namespace tolvex
