// Numbers taken out of many records at once.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Mdf4/base/BitField.h"
#include "Mdf4/base/Bytes.h"
#include "Mdf4/format/BlockRecords.h"

namespace tolvex {

// What a number is kept as: the narrowest type that has all values of its field.
enum class NumberType : std::uint8_t {
  Int8,
  Int16,
  Int32,
  Int64,
  UInt8,
  UInt16,
  UInt32,
  UInt64,
  Float32,
  Float64,
};
std::size_t sizeOf(NumberType type);

// Records at equal distances from each other.
struct RecordRows {
  const std::uint8_t* first = nullptr;
  std::size_t stride = 0;  // bytes from one record to the next
  std::size_t count = 0;
  const std::uint8_t* end = nullptr;  // of the bytes that may be looked at

  // Each so many bytes further on.
  RecordRows shifted(std::ptrdiff_t bytes) const { return {first + bytes, stride, count, end}; }
  // Those behind the first `skipped`.
  RecordRows from(std::size_t skipped) const {
    return {first + skipped * stride, stride, count - skipped, end};
  }
};

// A number at one place of every record: an integer of 1 to 64 bits, or a float of 16, 32 or 64.
// Nothing changes once it is made.
class RawField {
 public:
  // Whether that is what a channel with this cn_data_type and cn_bit_count has.
  static bool isNumber(std::uint8_t dataType, std::uint32_t bits);
  RawField(std::uint8_t dataType, std::uint32_t bits, std::uint32_t byteOffset,
           std::uint32_t bitOffset);

  NumberType type() const { return type_; }
  // The bytes of a record that it is in: where they begin, and how many.
  std::uint64_t byte() const { return place_.byte(); }
  std::uint64_t touched() const { return place_.touched(); }
  // Whether a record of that size holds all of it.
  bool isInside(std::uint64_t recordSize) const { return place_.isInside(recordSize); }
  // The bits of one record's number.
  std::uint64_t read(const std::uint8_t* record) const {
    return place_.read({record, inMemory(place_.byte() + place_.touched())});
  }
  // Puts the number of each record, which holds it, into an array of its type.
  void gather(const RecordRows& rows, void* numbers) const {
    if (rows.count != 0) gather_(*this, rows, numbers);
  }

 private:
  using Gather = void (*)(const RawField&, const RecordRows&, void*);
  struct Loops;
  template <class Number>
  static Gather choose(const BitField& place, ByteOrder order);

  BitField place_;
  std::uint64_t sign_ = 0;  // the top bit of a signed integer
  NumberType type_ = NumberType::UInt8;
  Gather gather_ = nullptr;
};

// Each number as a float64, the nearest one where it has more than 53 bits.
void toDoubles(NumberType type, const void* numbers, std::size_t count, double* doubles);
// Each integer as an int64; those that have no place in it become `tooLarge`.
void toIntegers(NumberType type, const void* numbers, std::size_t count, std::int64_t* integers,
                std::int64_t tooLarge);

}  // namespace tolvex
