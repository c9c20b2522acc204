// The rows of a table by time, of one group or several.
#pragma once

#include <vector>

#include "Table.h"

namespace tolvex {

// Writes the rows without their titles: one for each time of a record, or for each of the raster.
TableResult writeTimedRows(MdfColumnReader& reader, const std::vector<TablePart>& parts,
                           const TableOptions& options, Output& out);

}  // namespace tolvex
