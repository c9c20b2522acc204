#include "Mdf4/model/RawField.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>

#include "Mdf4/base/BitField.h"

namespace tolvex {
namespace {

constexpr unsigned kLoad = 8;  // bytes that are loaded at once

enum class Kind : std::uint8_t { Unsigned, Signed, Float, None };

Kind kindOf(std::uint8_t dataType) {
  switch (dataType) {
    case data_type::kUnsigned:
    case data_type::kUnsignedBigEndian:
      return Kind::Unsigned;
    case data_type::kSigned:
    case data_type::kSignedBigEndian:
      return Kind::Signed;
    case data_type::kFloat:
    case data_type::kFloatBigEndian:
      return Kind::Float;
    default:
      return Kind::None;
  }
}

struct Half {};  // 16 bits that a float32 stands for

float halfToFloat(std::uint32_t half) {
  constexpr int kFractionBits = 10;
  const auto fraction = static_cast<float>(half & 0x3FF);
  const int exponent = static_cast<int>(half >> kFractionBits & 0x1F);
  float value = 0;
  if (exponent == 0x1F) {
    value = fraction == 0 ? std::numeric_limits<float>::infinity()
                          : std::numeric_limits<float>::quiet_NaN();
  } else if (exponent == 0) {
    value = std::ldexp(fraction, -14 - kFractionBits);
  } else {
    value = std::ldexp(fraction + (1 << kFractionBits), exponent - 15 - kFractionBits);
  }
  return (half & 0x8000) != 0 ? -value : value;
}

template <class Number>
using Stored = std::conditional_t<std::is_same_v<Number, Half>, float, Number>;

template <class Number>
Stored<Number> fromBits(std::uint64_t bits) {
  if constexpr (std::is_same_v<Number, Half>) {
    return halfToFloat(static_cast<std::uint32_t>(bits));
  } else if constexpr (std::is_same_v<Number, float>) {
    return std::bit_cast<float>(static_cast<std::uint32_t>(bits));
  } else if constexpr (std::is_same_v<Number, double>) {
    return std::bit_cast<double>(bits);
  } else {
    return static_cast<Number>(bits);
  }
}

}  // namespace

struct RawField::Loops {
  // A number that fills its bytes, in the order of this machine.
  template <class Number>
  static void plain(const RawField& field, const RecordRows& rows, void* numbers) {
    const std::uint8_t* bytes = rows.first + field.place_.byte();
    auto* const out = static_cast<Number*>(numbers);
    for (std::size_t i = 0; i < rows.count; ++i, bytes += rows.stride) {
      out[i] = loadNumber<Number>(bytes);
    }
  }

  // One in up to 8 bytes.
  template <class Number, ByteOrder order>
  static void inOneLoad(const RawField& field, const RecordRows& rows, void* numbers) {
    const BitField& place = field.place_;
    const bool isBig = order == ByteOrder::Big;
    const std::uint8_t* bytes = rows.first + place.byte();
    const std::size_t stride = rows.stride;
    const std::uint64_t mask = place.mask();
    const std::uint64_t sign = field.sign_;
    const unsigned shift = place.shift() + (isBig ? 8 * (kLoad - place.touched()) : 0);
    auto* const out = static_cast<Stored<Number>*>(numbers);
    const std::size_t count = loads(place.byte(), rows);
    for (std::size_t i = 0; i < count; ++i, bytes += stride) {
      std::uint64_t loaded = loadNumber<std::uint64_t>(bytes);
      if (isBig) loaded = swapBytes(loaded);
      out[i] = fromBits<Number>((((loaded >> shift) & mask) ^ sign) - sign);
    }
    inSteps<Number>(field, rows.from(count), out + count);
  }

  // Records that have 8 bytes from there on.
  static std::size_t loads(std::uint64_t byte, const RecordRows& rows) {
    const auto room = static_cast<std::uint64_t>(rows.end - rows.first);
    if (room < byte + kLoad) return 0;
    if (rows.stride == 0) return rows.count;
    return std::min(rows.count, inMemory((room - byte - kLoad) / rows.stride + 1));
  }

  // Any.
  template <class Number>
  static void inSteps(const RawField& field, const RecordRows& rows, void* numbers) {
    auto* const out = static_cast<Stored<Number>*>(numbers);
    for (std::size_t i = 0; i < rows.count; ++i) {
      const std::uint64_t bits = field.read(rows.first + i * rows.stride);
      out[i] = fromBits<Number>((bits ^ field.sign_) - field.sign_);
    }
  }
};

template <class Number>
RawField::Gather RawField::choose(const BitField& place, ByteOrder order) {
  if (place.touched() > kLoad) return Loops::inSteps<Number>;
  if constexpr (!std::is_same_v<Number, Half>) {
    const bool fillsBytes = place.shift() == 0 && place.touched() == sizeof(Number) &&
                            place.mask() == ~std::uint64_t{0} >> (64 - 8 * sizeof(Number));
    if (fillsBytes && (order == ByteOrder::Little || sizeof(Number) == 1)) {
      return Loops::plain<Number>;
    }
  }
  return order == ByteOrder::Big ? Loops::inOneLoad<Number, ByteOrder::Big>
                                 : Loops::inOneLoad<Number, ByteOrder::Little>;
}

std::size_t sizeOf(NumberType type) {
  constexpr std::array<std::uint8_t, 10> kSizes = {1, 2, 4, 8, 1, 2, 4, 8, 4, 8};
  return kSizes[static_cast<std::size_t>(type)];
}

bool RawField::isNumber(std::uint8_t dataType, std::uint32_t bits) {
  const Kind kind = kindOf(dataType);
  if (kind == Kind::Float) return bits == 16 || bits == 32 || bits == 64;
  return kind != Kind::None && bits >= 1 && bits <= 64;
}

RawField::RawField(std::uint8_t dataType, std::uint32_t bits, std::uint32_t byteOffset,
                   std::uint32_t bitOffset) {
  const ByteOrder order = dataType % 2 == 1 ? ByteOrder::Big : ByteOrder::Little;
  place_ = BitField(byteOffset, bitOffset, bits, order);
  const Kind kind = kindOf(dataType);
  if (kind == Kind::Float) {
    type_ = bits == 64 ? NumberType::Float64 : NumberType::Float32;
    gather_ = bits == 64   ? choose<double>(place_, order)
              : bits == 32 ? choose<float>(place_, order)
                           : choose<Half>(place_, order);
    return;
  }
  const bool isSigned = kind == Kind::Signed;
  if (isSigned && bits != 0) sign_ = std::uint64_t{1} << (bits - 1);
  const auto take = [&](auto ofSigned, NumberType signedType, auto ofOther, NumberType type) {
    type_ = isSigned ? signedType : type;
    gather_ = isSigned ? choose<decltype(ofSigned)>(place_, order)
                       : choose<decltype(ofOther)>(place_, order);
  };
  if (bits <= 8) {
    take(std::int8_t{}, NumberType::Int8, std::uint8_t{}, NumberType::UInt8);
  } else if (bits <= 16) {
    take(std::int16_t{}, NumberType::Int16, std::uint16_t{}, NumberType::UInt16);
  } else if (bits <= 32) {
    take(std::int32_t{}, NumberType::Int32, std::uint32_t{}, NumberType::UInt32);
  } else {
    take(std::int64_t{}, NumberType::Int64, std::uint64_t{}, NumberType::UInt64);
  }
}

namespace {

// Calls `visit` with the numbers as what they are.
template <class Visit>
void asType(NumberType type, const void* numbers, Visit visit) {
  switch (type) {
    case NumberType::Int8:
      return visit(static_cast<const std::int8_t*>(numbers));
    case NumberType::Int16:
      return visit(static_cast<const std::int16_t*>(numbers));
    case NumberType::Int32:
      return visit(static_cast<const std::int32_t*>(numbers));
    case NumberType::Int64:
      return visit(static_cast<const std::int64_t*>(numbers));
    case NumberType::UInt8:
      return visit(static_cast<const std::uint8_t*>(numbers));
    case NumberType::UInt16:
      return visit(static_cast<const std::uint16_t*>(numbers));
    case NumberType::UInt32:
      return visit(static_cast<const std::uint32_t*>(numbers));
    case NumberType::UInt64:
      return visit(static_cast<const std::uint64_t*>(numbers));
    case NumberType::Float32:
      return visit(static_cast<const float*>(numbers));
    case NumberType::Float64:
      return visit(static_cast<const double*>(numbers));
  }
}

}  // namespace

void toDoubles(NumberType type, const void* numbers, std::size_t count, double* doubles) {
  asType(type, numbers, [&](const auto* from) {
    for (std::size_t i = 0; i < count; ++i) doubles[i] = static_cast<double>(from[i]);
  });
}

void toIntegers(NumberType type, const void* numbers, std::size_t count, std::int64_t* integers,
                std::int64_t tooLarge) {
  asType(type, numbers, [&](const auto* from) {
    if constexpr (std::is_integral_v<std::remove_reference_t<decltype(*from)>>) {
      for (std::size_t i = 0; i < count; ++i) {
        integers[i] =
            std::in_range<std::int64_t>(from[i]) ? static_cast<std::int64_t>(from[i]) : tooLarge;
      }
    }
  });
}

}  // namespace tolvex
