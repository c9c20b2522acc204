// The memory of columns: what malloc gives, so that a large array is not cleared before it is
// filled.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>

namespace tolvex {

// Throws when so many values cannot be counted in bytes.
inline void checkSize(std::uint64_t rows, std::size_t elements) {
  constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max() / 16;
  if (rows > kMost / elements) throw std::bad_alloc();
}

// Room for so many items; throws when there is none.
template <class Pointer>
void allocate(Pointer& pointer, std::uint64_t count) {
  using Item = typename Pointer::element_type;
  if (count > std::numeric_limits<std::ptrdiff_t>::max() / sizeof(Item)) throw std::bad_alloc();
  void* const memory =
      std::malloc(std::max<std::size_t>(static_cast<std::size_t>(count) * sizeof(Item), 1));
  if (memory == nullptr) throw std::bad_alloc();
  pointer.reset(static_cast<Item*>(memory));
}

// The same for bytes, which stay.
template <class Pointer>
void resize(Pointer& pointer, std::uint64_t size) {
  if (size > std::numeric_limits<std::ptrdiff_t>::max()) throw std::bad_alloc();
  void* const memory =
      std::realloc(pointer.get(), std::max<std::size_t>(static_cast<std::size_t>(size), 1));
  if (memory == nullptr) throw std::bad_alloc();
  static_cast<void>(pointer.release());
  pointer.reset(static_cast<std::uint8_t*>(memory));
}

inline void clearBit(std::uint8_t* bits, std::size_t index) {
  bits[index / 8] = static_cast<std::uint8_t>(bits[index / 8] & ~(1U << index % 8));
}

}  // namespace tolvex
