#include "GroupRows.h"

#include <algorithm>
#include <new>
#include <utility>

#include "CsvCell.h"

namespace tolvex {

namespace {

constexpr std::uint64_t kMostAtOnce = std::uint64_t{1} << 16;  // records
// Of values with sizes of their own: one to see how large they are, and never so many that larger
// ones behind them take all of the memory.
constexpr std::uint64_t kFirstWithSizes = 1;
constexpr std::uint64_t kMostWithSizes = 2048;

MdfColumnType typeOf(const MdfColumnChannel& channel, bool raw) {
  return raw ? channel.rawType : channel.type;
}

bool hasSizes(MdfColumnType type) {
  return type == MdfColumnType::Text || type == MdfColumnType::Bytes;
}

// The memory that the values of a record take.
std::uint64_t bytesOf(const MdfColumnChannel& channel, MdfColumnType type) {
  const std::uint64_t value = hasSizes(type) ? 8 + channel.bitCount / 8 : 8;
  return value * elementsOf(channel);
}

std::uint64_t bytesOf(const MdfColumn& column) {
  if (hasSizes(column.type())) {
    const std::uint64_t text =
        column.offsets() == nullptr || column.size() == 0
            ? 0
            : static_cast<std::uint64_t>(column.offsets()[column.size()] - column.offsets()[0]);
    return text + 8 * column.size();
  }
  return 8 * column.size();
}

}  // namespace

GroupRows::GroupRows(MdfColumnReader& reader, const TablePart& part, const Wanted& wanted)
    : reader_(reader), group_(part.group), wanted_(wanted) {
  const MdfColumnGroup& group = reader.groups()[static_cast<std::size_t>(group_)];
  records_ = group.records;
  std::uint64_t bytes = 16;
  for (const TableColumn& column : part.columns) {
    const MdfColumnChannel& channel = group.channels[static_cast<std::size_t>(column.channel)];
    if (channels_.empty() || channels_.back() != column.channel) {
      const MdfColumnType type = typeOf(channel, wanted.raw);
      channels_.push_back(column.channel);
      hasSizes_ = hasSizes_ || hasSizes(type);
      bytes += bytesOf(channel, type);
    }
    cells_.push_back({channels_.size() - 1, elementsOf(channel), column.element});
  }
  atOnce_ =
      std::clamp<std::uint64_t>(wanted.bytes / bytes, 1, hasSizes_ ? kFirstWithSizes : kMostAtOnce);
}

std::shared_ptr<const RowChunk> GroupRows::next() {
  while (error_.empty() && done_ < records_) {
    const auto chunk = std::make_shared<RowChunk>();
    chunk->first = done_;
    chunk->count = static_cast<std::size_t>(std::min(atOnce_, records_ - done_));
    // Of those that may not be wanted, the times tell.
    if (wanted_.hasWindow() && !readTimes(*chunk)) {
      return nullptr;
    }
    const bool isWanted = !wanted_.hasWindow() || holdsWanted(*chunk);
    if (isWanted && !readColumns(*chunk)) {
      return nullptr;
    }
    addToSpan(*chunk);
    done_ += chunk->count;
    if (isWanted) {
      return chunk;
    }
  }
  return nullptr;
}

bool GroupRows::readTimes(RowChunk& chunk) {
  chunk.nanoseconds.resize(chunk.count);
  const std::int64_t count =
      reader_.readNanoseconds(group_, done_, chunk.count, chunk.nanoseconds.data());
  if (count < 0) {
    error_ = reader_.error();
    return false;
  }
  chunk.count = static_cast<std::size_t>(count);
  return chunk.count != 0;
}

bool GroupRows::holdsWanted(const RowChunk& chunk) const {
  const auto end = chunk.nanoseconds.begin() + static_cast<std::ptrdiff_t>(chunk.count);
  return std::any_of(chunk.nanoseconds.begin(), end, [&](std::int64_t timeNs) {
    return timeNs != kMdfNoTime && timeNs >= wanted_.firstNs && timeNs < wanted_.endNs;
  });
}

void GroupRows::addToSpan(const RowChunk& chunk) {
  for (std::size_t row = 0; wanted_.nanoseconds && row < chunk.count; ++row) {
    if (chunk.nanoseconds[row] != kMdfNoTime) {
      span_.add(chunk.nanoseconds[row]);
    }
  }
}

// Fewer records than were asked for when their values are larger than those before them.
bool GroupRows::readColumns(RowChunk& chunk) {
  MdfReadOptions options;
  options.raw = wanted_.raw;
  if (wanted_.seconds) {
    chunk.seconds.resize(chunk.count);
    options.seconds = chunk.seconds.data();
  }
  if (wanted_.nanoseconds) {
    chunk.nanoseconds.resize(chunk.count);
    options.nanoseconds = chunk.nanoseconds.data();
  }
  while (!reader_.read(group_, channels_, done_, chunk.count, chunk.columns, options)) {
    if (chunk.count == 1) {
      error_ = reader_.error();
      return false;
    }
    chunk.count /= 2;
  }
  if (!channels_.empty()) {
    chunk.count = std::min(chunk.count, static_cast<std::size_t>(chunk.columns.front().rows()));
  }
  adapt(chunk);
  return chunk.count != 0;
}

// Reads as many at once next time as are likely to take the memory that a chunk may have.
void GroupRows::adapt(const RowChunk& chunk) {
  if (!hasSizes_ || chunk.count == 0) {
    return;
  }
  constexpr std::uint64_t kAtMostTimes = 4;  // as many as before
  std::uint64_t bytes = 0;
  for (const MdfColumn& column : chunk.columns) {
    bytes += bytesOf(column);
  }
  const std::uint64_t perRecord = bytes / chunk.count + 16;
  atOnce_ = std::clamp<std::uint64_t>(wanted_.bytes / perRecord, 1,
                                      std::min(kMostWithSizes, kAtMostTimes * atOnce_));
}

void GroupRows::writeCells(Output& out, const RowChunk& chunk, std::size_t row, bool safe) const {
  for (const Cell& cell : cells_) {
    out.write(',');
    writeCsvCell(out, chunk.columns[cell.column], cell.index(row), safe);
  }
}

void GroupRows::writeEmptyCells(Output& out) const {
  for (std::size_t i = 0; i < cells_.size(); ++i) {
    out.write(',');
  }
}

void GroupRows::writeCellsBetween(Output& out, const RowChunk& from, std::size_t fromRow,
                                  const RowChunk& to, std::size_t toRow, double way,
                                  bool safe) const {
  for (const Cell& cell : cells_) {
    const MdfColumn& column = from.columns[cell.column];
    const auto first = numberAt(column, cell.index(fromRow));
    const auto last = first ? numberAt(to.columns[cell.column], cell.index(toRow)) : std::nullopt;
    out.write(',');
    if (first && last) {
      writeCsvNumber(out, *first + (*last - *first) * way);
    } else {
      writeCsvCell(out, column, cell.index(fromRow), safe);
    }
  }
}

}  // namespace tolvex
