#include "Mdf4/format/Transposition.h"

#include <algorithm>
#include <cstring>

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
  const std::uint64_t tiledRows = rows / kTile * kTile;
  const std::uint64_t tiledColumns = columns / kTile * kTile;
  const std::uint8_t* const in = stored.data();
  std::uint8_t* const out = rowByRow.data();
  // Down a strip of rows at a time, so that the rows being written stay in the cache.
  for (std::uint64_t r = 0; r < tiledRows; r += kTile) {
    for (std::uint64_t c = 0; c < tiledColumns; c += kTile) {
      moveFullTile(in + c * rows + r, rows, out + r * columns + c, columns);
    }
    moveTile(in + tiledColumns * rows + r, rows, out + r * columns + tiledColumns, columns, kTile,
             columns - tiledColumns);
  }
  moveTile(in + tiledRows, rows, out + tiledRows * columns, columns, rows - tiledRows, columns);
  std::copy(in + whole, in + stored.size(), out + whole);
}

}  // namespace tolvex
