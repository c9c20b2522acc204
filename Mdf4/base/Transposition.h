// Undoing the transposition of compressed records.
#pragma once

#include <cstdint>

#include "Mdf4/base/Bytes.h"

namespace tolvex {

// `stored` holds rows of `columns` bytes column by column: byte c * rows + r is byte c of row r.
// Writes them row by row. Bytes beyond the last whole row stay in their place; with no whole row,
// or no columns, everything does. Both spans have the same size and do not overlap.
void undoTransposition(ByteSpan stored, std::uint64_t columns, WritableBytes rowByRow);

}  // namespace tolvex
