#include "Mdf4/base/Transposition.h"

#include <algorithm>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

#if defined(__SSE2__)
// Sixteen rows of sixteen columns. Four rounds of interleaving turn the index bits of row and
// column around.
void moveFullTile(const std::uint8_t* stored, std::uint64_t rows, std::uint8_t* out,
                  std::uint64_t columns) {
  __m128i a[kTile];
  __m128i b[kTile];
  for (std::uint64_t c = 0; c < kTile; ++c) {
    a[c] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(stored + c * rows));
  }
  const auto interleave = [](const __m128i* from, __m128i* to) {
    for (std::uint64_t i = 0; i < kTile / 2; ++i) {
      to[2 * i] = _mm_unpacklo_epi8(from[i], from[i + kTile / 2]);
      to[2 * i + 1] = _mm_unpackhi_epi8(from[i], from[i + kTile / 2]);
    }
  };
  interleave(a, b);
  interleave(b, a);
  interleave(a, b);
  interleave(b, a);
  for (std::uint64_t r = 0; r < kTile; ++r) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + r * columns), a[r]);
  }
}
#else
void moveFullTile(const std::uint8_t* stored, std::uint64_t rows, std::uint8_t* out,
                  std::uint64_t columns) {
  moveTile(stored, rows, out, columns, kTile, kTile);
}
#endif

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
