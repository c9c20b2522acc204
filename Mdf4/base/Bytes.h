// Little-endian numbers at any address.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>
#include <utility>

namespace tolvex {

static_assert(std::endian::native == std::endian::little,
              "block records are copied as they stand in the file, which is little-endian");

using ByteSpan = std::span<const std::uint8_t>;
using WritableBytes = std::span<std::uint8_t>;

// A count of bytes or objects as memory has them. Throws std::bad_alloc where no memory can have so
// many, which a system of 32 bits may be asked for.
constexpr std::size_t inMemory(std::uint64_t count) {
  if constexpr (sizeof(std::size_t) < sizeof count) {
    if (!std::in_range<std::ptrdiff_t>(count)) throw std::bad_alloc();
  }
  return static_cast<std::size_t>(count);
}

template <class Number>
Number loadNumber(const std::uint8_t* bytes) {
  Number value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

// Copies as std::memcpy does; quicker for the sizes that records have, where most of a call's time
// would go into finding out how to copy.
inline void copyRecord(std::uint8_t* to, const std::uint8_t* from, std::size_t size) {
  constexpr std::size_t kStep = 16;
  constexpr std::size_t kLongest = 8 * kStep;
  constexpr std::size_t kHalf = kStep / 2;
  constexpr std::size_t kQuarter = kStep / 4;
  if (size > kLongest) {
    std::memcpy(to, from, size);
  } else if (size >= kStep) {
    for (std::size_t at = 0; at + kStep < size; at += kStep) std::memcpy(to + at, from + at, kStep);
    std::memcpy(to + size - kStep, from + size - kStep, kStep);  // overlaps the step before
  } else if (size >= kHalf) {
    std::memcpy(to, from, kHalf);
    std::memcpy(to + size - kHalf, from + size - kHalf, kHalf);
  } else if (size >= kQuarter) {
    std::memcpy(to, from, kQuarter);
    std::memcpy(to + size - kQuarter, from + size - kQuarter, kQuarter);
  } else if (size != 0) {
    to[0] = from[0];
    to[size / 2] = from[size / 2];
    to[size - 1] = from[size - 1];
  }
}

inline bool areZeros(ByteSpan bytes) {
  return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == 0; });
}

// The bytes of an object that is stored as it stands.
template <class Object>
ByteSpan bytesOf(const Object& object) {
  return {reinterpret_cast<const std::uint8_t*>(&object), sizeof object};
}
template <class Object>
WritableBytes writableBytesOf(Object& object) {
  return {reinterpret_cast<std::uint8_t*>(&object), sizeof object};
}

// Bytes of a file from `start` up to `end`.
struct ByteRange {
  std::uint64_t start = 0;
  std::uint64_t end = 0;

  bool empty() const { return start == end; }
};

}  // namespace tolvex
