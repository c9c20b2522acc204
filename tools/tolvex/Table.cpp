#include "Table.h"

#include <fmt/format.h>

#include <cmath>
#include <map>
#include <string_view>

#include "CsvCell.h"
#include "GroupRows.h"
#include "Progress.h"
#include "TimedRows.h"

namespace tolvex {

namespace {

const MdfColumnGroup& groupOf(const MdfColumnReader& reader, const TablePart& part) {
  return reader.groups()[static_cast<std::size_t>(part.group)];
}

std::string nameOf(const MdfColumnGroup& group) {
  return fmt::format("data group {} channel group {}", group.dataGroup, group.channelGroup);
}

// "name [unit]".
void writeTitle(Output& out, std::string_view name, std::string_view unit, bool safe) {
  writeCsvText(out, unit.empty() ? std::string(name) : fmt::format("{} [{}]", name, unit), safe);
}

void writeTimeTitle(Output& out, const MdfColumnChannel& time, const TableOptions& options) {
  writeTitle(out, time.name, options.time == TimeForm::Iso ? std::string_view() : time.unit,
             options.safe);
}

// A row for each record of one group.
class GroupTable {
 public:
  GroupTable(MdfColumnReader& reader, const TablePart& part, const TableOptions& options,
             Output& out)
      : group_(groupOf(reader, part)),
        hasTime_(timeChannelOf(group_).has_value()),
        options_(options),
        timeText_(TimeText::of(reader.info(), options.time)),
        rows_(
            reader, part,
            {.raw = options.raw,
             .seconds = hasTime_ && options.time == TimeForm::Relative,
             .nanoseconds = hasTime_ && (options.time != TimeForm::Relative || options.hasWindow()),
             .firstNs = options.firstNs,
             .endNs = options.endNs}),
        out_(out) {}

  TableResult write() {
    TableResult result;
    Progress progress(nameOf(group_), group_.records);
    while (out_.good()) {
      const std::shared_ptr<const RowChunk> chunk = rows_.next();
      if (chunk == nullptr) {
        break;
      }
      for (std::size_t row = 0; row < chunk->count; ++row) {
        writeRow(*chunk, row);
      }
      progress.update(rows_.passed());
    }
    result.rows = written_;
    result.span = rows_.span();
    result.error = rows_.error();
    return result;
  }

 private:
  bool isWanted(const RowChunk& chunk, std::size_t row) const {
    if (!options_.hasWindow()) {
      return true;
    }
    const std::int64_t timeNs = hasTime_ ? chunk.nanoseconds[row] : kMdfNoTime;
    return timeNs != kMdfNoTime && timeNs >= options_.firstNs && timeNs < options_.endNs;
  }

  void writeRow(const RowChunk& chunk, std::size_t row) {
    if (!isWanted(chunk, row)) {
      return;
    }
    if (!hasTime_) {
      out_.write(fmt::format_int(chunk.first + row).c_str());
    } else if (options_.time != TimeForm::Relative) {
      if (chunk.nanoseconds[row] != kMdfNoTime) {
        timeText_.write(out_, chunk.nanoseconds[row]);
      }
    } else if (!std::isnan(chunk.seconds[row])) {
      writeCsvNumber(out_, chunk.seconds[row]);
    }
    rows_.writeCells(out_, chunk, row, options_.safe);
    out_.write('\n');
    ++written_;
  }

  const MdfColumnGroup& group_;
  const bool hasTime_;
  const TableOptions& options_;
  const TimeText timeText_;
  GroupRows rows_;
  std::uint64_t written_ = 0;
  Output& out_;
};

// A channel's group stands in front of a name that others have, too.
void writeJoinedTitles(const MdfColumnReader& reader, const std::vector<TablePart>& parts,
                       const TableOptions& options, Output& out) {
  std::map<std::string_view, std::size_t> channelsWith;
  for (const TablePart& part : parts) {
    std::int32_t last = -1;
    for (const TableColumn& column : part.columns) {
      if (column.channel != last) {
        last = column.channel;
        ++channelsWith[groupOf(reader, part).channels[static_cast<std::size_t>(last)].name];
      }
    }
  }
  out.write(options.time == TimeForm::Iso ? "time" : "time [s]");
  for (const TablePart& part : parts) {
    const MdfColumnGroup& group = groupOf(reader, part);
    for (const TableColumn& column : part.columns) {
      const MdfColumnChannel& channel = group.channels[static_cast<std::size_t>(column.channel)];
      std::string name = nameOf(channel, column.element);
      if (channelsWith[channel.name] > 1) {
        name.insert(0, fmt::format("dg{}_cg{}.", group.dataGroup, group.channelGroup));
      }
      out.write(',');
      writeTitle(out, name, channel.unit, options.safe);
    }
  }
  out.write('\n');
}

}  // namespace

TableResult writeTable(MdfColumnReader& reader, const TablePart& part, const TableOptions& options,
                       Output& out) {
  const MdfColumnGroup& group = groupOf(reader, part);
  if (const auto time = timeChannelOf(group)) {
    writeTimeTitle(out, group.channels[static_cast<std::size_t>(*time)], options);
  } else {
    out.write("record");
  }
  for (const TableColumn& column : part.columns) {
    const MdfColumnChannel& channel = group.channels[static_cast<std::size_t>(column.channel)];
    out.write(',');
    writeTitle(out, nameOf(channel, column.element), channel.unit, options.safe);
  }
  out.write('\n');
  return options.rasterNs ? writeTimedRows(reader, {part}, options, out)
                          : GroupTable(reader, part, options, out).write();
}

TableResult writeJoinedTable(MdfColumnReader& reader, const std::vector<TablePart>& parts,
                             const TableOptions& options, Output& out) {
  writeJoinedTitles(reader, parts, options, out);
  return writeTimedRows(reader, parts, options, out);
}

}  // namespace tolvex
