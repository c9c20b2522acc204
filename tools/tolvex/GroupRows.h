// The rows of a group's table, many at a time.
#pragma once

#include <tolvex/MdfColumnReader.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "Output.h"
#include "Selection.h"
#include "TimeSpan.h"

namespace tolvex {

// What is read of a group's records at once.
struct RowChunk {
  std::uint64_t first = 0;  // the number of the first record
  std::size_t count = 0;    // of records
  std::vector<MdfColumn> columns;
  std::vector<double> seconds;            // since the recording's start; NaN: none
  std::vector<std::int64_t> nanoseconds;  // since 1970; kMdfNoTime: none
};

// Goes along the records of a group. Borrows the reader. Not synchronised.
class GroupRows {
 public:
  struct Wanted {
    bool raw = false;  // values before their conversion
    bool seconds = false;
    bool nanoseconds = false;
    // Chunks without a record from the first of these times on and before the end may be left out.
    std::int64_t firstNs = std::numeric_limits<std::int64_t>::min();
    std::int64_t endNs = std::numeric_limits<std::int64_t>::max();
    std::size_t bytes = std::size_t{1} << 20;  // of a chunk, about

    bool hasWindow() const {
      return firstNs != std::numeric_limits<std::int64_t>::min() ||
             endNs != std::numeric_limits<std::int64_t>::max();
    }
  };
  GroupRows(MdfColumnReader& reader, const TablePart& part, const Wanted& wanted);

  // The next records; null at the end and when they cannot be read.
  std::shared_ptr<const RowChunk> next();
  // Why they could not be read; "" when they could.
  const std::string& error() const { return error_; }
  std::uint64_t passed() const { return done_; }  // records
  const TimeSpan& span() const { return span_; }  // of those, when their nanoseconds are wanted

  // Writes the values of a row, or as many empty cells, each with a comma in front.
  void writeCells(Output& out, const RowChunk& chunk, std::size_t row, bool safe) const;
  void writeEmptyCells(Output& out) const;
  // Writes values between those of two rows, so far on the way from one to the other; of what is no
  // number, and where one of them is missing, those of the first.
  void writeCellsBetween(Output& out, const RowChunk& from, std::size_t fromRow, const RowChunk& to,
                         std::size_t toRow, double way, bool safe) const;

 private:
  // A column of the table in a chunk.
  struct Cell {
    std::size_t column = 0;
    std::uint64_t elements = 1;
    std::uint64_t element = 0;

    std::uint64_t index(std::size_t row) const { return row * elements + element; }
  };

  bool readTimes(RowChunk& chunk);
  bool holdsWanted(const RowChunk& chunk) const;
  void addToSpan(const RowChunk& chunk);
  bool readColumns(RowChunk& chunk);
  void adapt(const RowChunk& chunk);

  MdfColumnReader& reader_;
  std::int32_t group_;
  Wanted wanted_;
  std::vector<std::int32_t> channels_;
  std::vector<Cell> cells_;
  bool hasSizes_ = false;      // whether values have sizes of their own
  std::uint64_t atOnce_ = 1;   // records
  std::uint64_t done_ = 0;     // likewise
  std::uint64_t records_ = 0;  // that there are
  TimeSpan span_;
  std::string error_;
};

}  // namespace tolvex
