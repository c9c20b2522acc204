// Numbers that begin and end at any bit of a record.
#pragma once

#include <algorithm>
#include <cstdint>

#include "Mdf4/base/Bytes.h"

namespace tolvex {

enum class ByteOrder : std::uint8_t { Little, Big };

// The eight bytes of a number in the opposite order.
inline std::uint64_t swapBytes(std::uint64_t value) {
  value = (value & 0x00FF00FF00FF00FF) << 8 | (value >> 8 & 0x00FF00FF00FF00FF);
  value = (value & 0x0000FFFF0000FFFF) << 16 | (value >> 16 & 0x0000FFFF0000FFFF);
  return value << 32 | value >> 32;
}

// Where a number of up to 64 bits lies in a record.
//
// Its bytes start at the byte offset and are as many as the bits and those below them touch. In
// little-endian order the first byte is the lowest, in big-endian order (Motorola) the last one;
// the bit offset counts from the lowest bit of the number that the bytes make.
class BitField {
 public:
  static constexpr std::uint32_t kMostBits = 64;  // of a wider field, those in its first bytes

  BitField() = default;  // no bits: the number is 0
  BitField(std::uint32_t byteOffset, std::uint32_t bitOffset, std::uint32_t bits,
           ByteOrder order = ByteOrder::Little) {
    bits_ = static_cast<std::uint8_t>(std::min(bits, kMostBits));
    if (bits_ == 0) return;
    // Whole bytes below the number: the first ones, or the last ones, which are not needed.
    byte_ = byteOffset + std::uint64_t{order == ByteOrder::Little ? bitOffset / 8 : 0};
    shift_ = static_cast<std::uint8_t>(bitOffset % 8);
    touched_ = static_cast<std::uint8_t>((shift_ + bits_ + 7U) / 8);
    mask_ = ~std::uint64_t{0} >> (kMostBits - bits_);
    order_ = order;
    const bool inOneLoad = order == ByteOrder::Little && touched_ <= sizeof(std::uint64_t);
    sizeForOneLoad_ = inOneLoad ? byte_ + sizeof(std::uint64_t) : ~std::uint64_t{0};
  }

  // Its first byte in the record, the bytes from there on that it has a part in, and how far its
  // lowest bit lies above that of the number that these make.
  std::uint64_t byte() const { return byte_; }
  unsigned touched() const { return touched_; }
  unsigned shift() const { return shift_; }
  std::uint64_t mask() const { return mask_; }
  // Whether a load of eight bytes at byte(), where a record has as many, shifted and masked, gives
  // the number.
  bool isInOneLoad() const {
    return order_ == ByteOrder::Little && touched_ <= sizeof(std::uint64_t);
  }

  // Whether a record of that size holds the whole field.
  bool isInside(std::uint64_t size) const { return byte_ <= size && touched_ <= size - byte_; }

  // The number; bits beyond the end of the record count as 0.
  std::uint64_t read(ByteSpan record) const {
    if (record.size() < sizeForOneLoad_) return readInSteps(record);
    return loadNumber<std::uint64_t>(record.data() + byte_) >> shift_ & mask_;
  }
  // The number in two's complement.
  std::int64_t readSigned(ByteSpan record) const {
    const std::uint64_t value = read(record);
    if (bits_ == 0) return 0;
    const unsigned above = kMostBits - bits_;
    return static_cast<std::int64_t>(value << above) >> above;
  }

 private:
  std::uint64_t readInSteps(ByteSpan record) const;

  std::uint64_t byte_ = 0;
  std::uint64_t sizeForOneLoad_ = sizeof(std::uint64_t);
  std::uint64_t mask_ = 0;
  std::uint8_t bits_ = 0;
  std::uint8_t shift_ = 0;
  std::uint8_t touched_ = 0;  // bytes
  ByteOrder order_ = ByteOrder::Little;
};

}  // namespace tolvex
