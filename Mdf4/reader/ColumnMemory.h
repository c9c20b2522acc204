// The memory of columns: not cleared, since all of it is filled.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include "Mdf4/base/Bytes.h"

namespace tolvex {

// Throws when so many values cannot be counted in bytes.
inline void checkSize(std::uint64_t rows, std::size_t elements) {
  constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max() / 16;
  if (rows > kMost / elements) throw std::bad_alloc();
}

// Room for so many items; throws when there is none.
template <class Item>
void allocate(std::unique_ptr<Item[]>& items, std::uint64_t count) {
  items = std::make_unique_for_overwrite<Item[]>(inMemory(count));
}

// Room for so many bytes, of which those that are used stay.
inline void enlarge(std::unique_ptr<std::uint8_t[]>& bytes, std::size_t used, std::size_t size) {
  auto larger = std::make_unique_for_overwrite<std::uint8_t[]>(size);
  if (used != 0) std::memcpy(larger.get(), bytes.get(), used);
  bytes = std::move(larger);
}

inline void clearBit(std::uint8_t* bits, std::size_t index) {
  bits[index / 8] = static_cast<std::uint8_t>(bits[index / 8] & ~(1U << index % 8));
}

}  // namespace tolvex
