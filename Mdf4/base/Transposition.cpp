#include "Mdf4/base/Transposition.h"

#include <algorithm>
#include <cstring>

namespace tolvex {
namespace {

// One tile of the matrix: `stored` and `out` point at its first byte, rows are `rows` bytes apart
// in `stored` (one column each) and `columns` bytes apart in `out`.
void moveTile(const std::uint8_t* stored, std::uint64_t rows, std::uint8_t* out,
              std::uint64_t columns, std::uint64_t tileRows, std::uint64_t tileColumns) {
  for (std::uint64_t r = 0; r < tileRows; ++r) {
    for (std::uint64_t c = 0; c < tileColumns; ++c) out[r * columns + c] = stored[c * rows + r];
  }
}

constexpr std::uint64_t kTile = 16;

// A row of a full tile, in a register where there are such.
using Row [[gnu::vector_size(kTile)]] = std::uint8_t;

// Sixteen rows of sixteen columns. Four rounds of interleaving turn the index bits of row and
// column around.
void moveFullTile(const std::uint8_t* stored, std::uint64_t rows, std::uint8_t* out,
                  std::uint64_t columns) {
  Row a[kTile];
  Row b[kTile];
  for (std::uint64_t c = 0; c < kTile; ++c) std::memcpy(&a[c], stored + c * rows, kTile);
  const auto interleave = [](const Row* from, Row* to) {
    for (std::uint64_t i = 0; i < kTile / 2; ++i) {
      const Row& even = from[i];
      const Row& odd = from[i + kTile / 2];
      to[2 * i] = __builtin_shufflevector(even, odd, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6,
                                          22, 7, 23);
      to[2 * i + 1] = __builtin_shufflevector(even, odd, 8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13,
                                              29, 14, 30, 15, 31);
    }
  };
  interleave(a, b);
  interleave(b, a);
  interleave(a, b);
  interleave(b, a);
  for (std::uint64_t r = 0; r < kTile; ++r) std::memcpy(out + r * columns, &a[r], kTile);
}

}  // namespace

void undoTransposition(ByteSpan stored, std::uint64_t columns, WritableBytes rowByRow) {
  const std::uint64_t rows = columns == 0 ? 0 : stored.size() / columns;
  const std::uint64_t whole = rows * columns;
  const std::uint8_t* const in = stored.data();
  std::uint8_t* const out = rowByRow.data();
  std::copy(in + whole, in + stored.size(), out + whole);
  // Down a strip of rows at a time, so that the rows being written stay in the cache. Where a tile
  // would reach beyond the matrix, it overlaps the one before it.
  if (rows < kTile || columns < kTile) {
    const std::uint64_t tiled = rows / kTile * kTile;
    for (std::uint64_t r = 0; r < tiled; r += kTile) {
      moveTile(in + r, rows, out + r * columns, columns, kTile, columns);
    }
    moveTile(in + tiled, rows, out + tiled * columns, columns, rows - tiled, columns);
    return;
  }
  for (std::uint64_t r = 0; r < rows; r += kTile) {
    const std::uint64_t row = std::min(r, rows - kTile);
    for (std::uint64_t c = 0; c < columns; c += kTile) {
      const std::uint64_t column = std::min(c, columns - kTile);
      moveFullTile(in + column * rows + row, rows, out + row * columns + column, columns);
    }
  }
}

}  // namespace tolvex
