// Little-endian numbers at any address.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <span>

namespace tolvex {

static_assert(std::endian::native == std::endian::little,
              "block records are copied as they stand in the file, which is little-endian");

using ByteSpan = std::span<const std::uint8_t>;
using WritableBytes = std::span<std::uint8_t>;

template <class Number>
Number loadNumber(const std::uint8_t* bytes) {
  Number value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
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

}  // namespace tolvex
