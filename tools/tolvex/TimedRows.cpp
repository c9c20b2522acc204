#include "TimedRows.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <deque>

#include "CsvCell.h"
#include "GroupRows.h"
#include "Progress.h"
#include "RowCursor.h"

namespace tolvex {

namespace {

constexpr std::uint64_t kMostRasterRows = 1'000'000'000;
constexpr std::size_t kAllChunks = std::size_t{1} << 21;  // bytes of all groups' chunks, about

// From the earlier time to the later one.
std::uint64_t distance(std::int64_t fromNs, std::int64_t toNs) {
  return static_cast<std::uint64_t>(toNs) - static_cast<std::uint64_t>(fromNs);
}

// The times that are a whole number of steps before or after the start, one after the other.
class Raster {
 public:
  // The first one from `fromNs` on.
  Raster(std::int64_t startNs, std::int64_t stepNs, std::int64_t fromNs)
      : stepNs_(stepNs), timeNs_(startNs) {
    const auto size = static_cast<std::uint64_t>(stepNs);
    if (fromNs > startNs) {
      move((distance(startNs, fromNs) - 1) / size + 1);
    } else {
      const std::uint64_t back = distance(fromNs, startNs) / size * size;
      timeNs_ = static_cast<std::int64_t>(static_cast<std::uint64_t>(startNs) - back);
    }
  }

  bool atEnd() const { return atEnd_; }  // of the times that 64 bits hold
  std::int64_t timeNs() const { return timeNs_; }
  void step() { move(1); }
  // How many of its times there are from this one on that are before `endNs`.
  std::uint64_t countBefore(std::int64_t endNs) const {
    return endNs <= timeNs_
               ? 0
               : (distance(timeNs_, endNs) - 1) / static_cast<std::uint64_t>(stepNs_) + 1;
  }

 private:
  void move(std::uint64_t steps) {
    const std::uint64_t left = distance(timeNs_, std::numeric_limits<std::int64_t>::max());
    atEnd_ = steps > left / static_cast<std::uint64_t>(stepNs_);
    if (!atEnd_) {
      timeNs_ = static_cast<std::int64_t>(static_cast<std::uint64_t>(timeNs_) +
                                          steps * static_cast<std::uint64_t>(stepNs_));
    }
  }

  std::int64_t stepNs_;
  std::int64_t timeNs_;
  bool atEnd_ = false;
};

// One group of the table.
struct TimedGroup {
  TimedGroup(MdfColumnReader& reader, const TablePart& part, const GroupRows::Wanted& wanted)
      : rows(reader, part, wanted), next(rows) {}

  GroupRows rows;
  RowCursor next;
  RowPlace held;  // of a raster: the last record whose time has come
};

class TimedTable {
 public:
  TimedTable(MdfColumnReader& reader, const std::vector<TablePart>& parts,
             const TableOptions& options, Output& out)
      : options_(options), timeText_(TimeText::of(reader.info(), options.time)), out_(out) {
    GroupRows::Wanted wanted = {.raw = options.raw,
                                .seconds = !options.rasterNs && options.time == TimeForm::Relative,
                                .nanoseconds = true,
                                .bytes = kAllChunks / std::max<std::size_t>(2, parts.size())};
    if (!options.rasterNs) {  // whose first row has values from before it
      wanted.firstNs = options.firstNs;
      wanted.endNs = options.endNs;
    }
    std::uint64_t records = 0;
    for (const TablePart& part : parts) {
      groups_.emplace_back(reader, part, wanted);
      records += reader.groups()[static_cast<std::size_t>(part.group)].records;
    }
    progress_.emplace("table", records);
  }

  TableResult write() {
    TableResult result;
    if (options_.rasterNs) {
      result.error = writeRaster(*options_.rasterNs);
    } else {
      writeTimes();
    }
    result.rows = rows_;
    for (const TimedGroup& group : groups_) {
      result.span.add(group.rows.span());
      result.withoutTime += group.next.withoutTime();
      if (result.error.empty()) {
        result.error = group.rows.error();
      }
    }
    return result;
  }

 private:
  bool isWanted(std::int64_t timeNs) const {
    return timeNs >= options_.firstNs && timeNs < options_.endNs;
  }

  // The group whose next record is the earliest; null at the end of all.
  TimedGroup* earliest() {
    TimedGroup* first = nullptr;
    for (TimedGroup& group : groups_) {
      if (group.next.place() &&
          (first == nullptr || group.next.place().timeNs() < first->next.place().timeNs())) {
        first = &group;
      }
    }
    return first;
  }

  void endRow() {
    out_.write('\n');
    if (++rows_ % 4096 == 0) {
      std::uint64_t done = 0;
      for (const TimedGroup& group : groups_) {
        done += group.rows.passed();
      }
      progress_->update(done);
    }
  }

  // A row for each time of a record.
  void writeTimes() {
    for (TimedGroup* first = earliest(); first != nullptr && out_.good(); first = earliest()) {
      const std::int64_t timeNs = first->next.place().timeNs();
      const bool isRow = isWanted(timeNs);
      if (isRow) {
        writeTimeOf(first->next.place());
      }
      for (TimedGroup& group : groups_) {
        const RowPlace& place = group.next.place();
        const bool isIn = place && place.timeNs() == timeNs;
        if (isRow && isIn) {
          group.rows.writeCells(out_, *place.chunk, place.row, options_.safe);
        } else if (isRow) {
          group.rows.writeEmptyCells(out_);
        }
        if (isIn) {
          group.next.advance();
        }
      }
      if (isRow) {
        endRow();
      }
    }
  }

  void writeTimeOf(const RowPlace& place) {
    if (options_.time == TimeForm::Relative) {
      writeCsvNumber(out_, place.chunk->seconds[place.row]);
    } else {
      timeText_.write(out_, place.timeNs());
    }
  }

  // A row for each multiple of the step behind the recording's start, from the first record to the
  // last. Gives what is wrong, or nothing.
  std::string writeRaster(std::int64_t stepNs) {
    const TimedGroup* const first = earliest();
    if (first == nullptr) {
      return {};
    }
    Raster raster(timeText_.startNs, stepNs,
                  std::max(first->next.place().timeNs(), options_.firstNs));
    for (std::uint64_t rows = 0; !raster.atEnd() && out_.good(); ++rows, raster.step()) {
      const std::int64_t timeNs = raster.timeNs();
      if (timeNs >= options_.endNs || !holdUntil(timeNs)) {
        return {};
      }
      const TimedGroup* const following = earliest();
      if (following != nullptr &&
          raster.countBefore(std::min(following->next.place().timeNs(), options_.endNs)) >
              kMostRasterRows - rows) {
        return fmt::format("a raster of {} s has more than {} rows here; records follow at {} s",
                           1e-9 * static_cast<double>(stepNs), kMostRasterRows,
                           1e-9 * (static_cast<double>(following->next.place().timeNs()) -
                                   static_cast<double>(timeText_.startNs)));
      }
      writeRasterRow(timeNs);
    }
    return {};
  }

  // Holds of each group the last record up to that time. False when the last one of all is behind.
  bool holdUntil(std::int64_t timeNs) {
    bool isBefore = false;
    for (TimedGroup& group : groups_) {
      while (group.next.place() && group.next.place().timeNs() <= timeNs) {
        group.held = group.next.place();
        group.next.advance();
      }
      isBefore = isBefore || group.next.place() || (group.held && group.held.timeNs() == timeNs);
    }
    return isBefore;
  }

  void writeRasterRow(std::int64_t timeNs) {
    timeText_.write(out_, timeNs);
    for (const TimedGroup& group : groups_) {
      const RowPlace& held = group.held;
      const RowPlace& next = group.next.place();
      if (!held) {
        group.rows.writeEmptyCells(out_);
      } else if (options_.interpolate && next && held.timeNs() < timeNs) {
        const double way = static_cast<double>(distance(held.timeNs(), timeNs)) /
                           static_cast<double>(distance(held.timeNs(), next.timeNs()));
        group.rows.writeCellsBetween(out_, *held.chunk, held.row, *next.chunk, next.row, way,
                                     options_.safe);
      } else {
        group.rows.writeCells(out_, *held.chunk, held.row, options_.safe);
      }
    }
    endRow();
  }

  const TableOptions& options_;
  const TimeText timeText_;
  std::deque<TimedGroup> groups_;
  std::optional<Progress> progress_;
  std::uint64_t rows_ = 0;
  Output& out_;
};

}  // namespace

TableResult writeTimedRows(MdfColumnReader& reader, const std::vector<TablePart>& parts,
                           const TableOptions& options, Output& out) {
  return TimedTable(reader, parts, options, out).write();
}

}  // namespace tolvex
