// Values of columns as cells of a CSV file.
#pragma once

#include <tolvex/MdfColumnReader.h>

#include <cstdint>
#include <optional>
#include <string_view>

#include "Output.h"

namespace tolvex {

// Writes `text`, in quotes where the format asks for them; to a terminal, printable. `safe`: with
// an apostrophe before what a spreadsheet takes for a formula.
void writeCsvText(Output& out, std::string_view text, bool safe);

// Writes the shortest text that reads back as the same number.
void writeCsvNumber(Output& out, double value);

// Writes a value: integers in all their digits, bytes as 0x and hexadecimal digits, nothing where
// there is no valid value.
void writeCsvCell(Output& out, const MdfColumn& column, std::uint64_t index, bool safe);

// The value of a column of integers or floats; nothing where it has none.
std::optional<double> numberAt(const MdfColumn& column, std::uint64_t index);

}  // namespace tolvex
