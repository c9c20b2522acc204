// Tables of the values of groups, as CSV: one group by itself, several by time, on a raster.
#pragma once

#include <tolvex/MdfColumnReader.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "Output.h"
#include "Selection.h"
#include "TimeSpan.h"
#include "TimeText.h"

namespace tolvex {

struct TableOptions {
  bool raw = false;   // values before their conversion
  bool safe = false;  // an apostrophe goes before texts that a spreadsheet takes for formulas
  TimeForm time = TimeForm::Relative;
  std::optional<std::int64_t> rasterNs;  // rows in these steps from the recording's start on
  bool interpolate = false;              // between records; else the value of the one before
  // The rows that are wanted, by their time: nanoseconds since 1970.
  std::int64_t firstNs = std::numeric_limits<std::int64_t>::min();
  std::int64_t endNs = std::numeric_limits<std::int64_t>::max();  // not included

  bool hasWindow() const {
    return firstNs != std::numeric_limits<std::int64_t>::min() ||
           endNs != std::numeric_limits<std::int64_t>::max();
  }
};

struct TableResult {
  std::uint64_t rows = 0;         // that were written
  TimeSpan span;                  // of the records, where rows are chosen by time
  std::uint64_t withoutTime = 0;  // records that a row by time cannot have
  std::string error;              // why they end; "" when all were read
};

// Writes the group's table: a row for each of its records.
TableResult writeTable(MdfColumnReader& reader, const TablePart& part, const TableOptions& options,
                       Output& out);

// Writes one table of groups that have a time: a row for each time at which one of them has a
// record, with empty cells for the others; or for each time of the raster from the first record to
// the last.
TableResult writeJoinedTable(MdfColumnReader& reader, const std::vector<TablePart>& parts,
                             const TableOptions& options, Output& out);

}  // namespace tolvex
