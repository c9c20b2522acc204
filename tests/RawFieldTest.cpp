// Numbers taken out of many records at once.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "Mdf4/base/BitField.h"
#include "Mdf4/model/RawField.h"

namespace tolvex {
namespace {

using Records = std::vector<std::uint8_t>;

template <class Number>
std::vector<Number> gathered(const RawField& field, const Records& records, std::size_t size) {
  std::vector<Number> numbers(records.size() / size);
  field.gather({records.data(), size, numbers.size(), records.data() + records.size()},
               numbers.data());
  return numbers;
}

// As doubles or, where these do not hold every number, as integers.
void expectIntegers(const RawField& field, const BitField& place, bool isSigned,
                    const Records& records, std::size_t size) {
  const std::size_t count = records.size() / size;
  std::vector<std::uint8_t> numbers(count * sizeOf(field.type()));
  field.gather({records.data(), size, count, records.data() + records.size()}, numbers.data());
  for (std::size_t i = 0; i < count; ++i) {
    const ByteSpan record(records.data() + i * size, size);
    const std::uint64_t want =
        isSigned ? static_cast<std::uint64_t>(place.readSigned(record)) : place.read(record);
    const std::size_t width = sizeOf(field.type());
    ASSERT_EQ(std::memcmp(numbers.data() + i * width, &want, width), 0) << "record " << i;
  }
}

TEST(RawField, GathersIntegersOfAnyWidthPlaceAndOrder) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto upTo = [&](unsigned max) { return static_cast<unsigned>(random() % (max + 1)); };
  constexpr NumberType kTypes[2][4] = {
      {NumberType::UInt8, NumberType::UInt16, NumberType::UInt32, NumberType::UInt64},
      {NumberType::Int8, NumberType::Int16, NumberType::Int32, NumberType::Int64}};
  for (int round = 0; round < 20'000; ++round) {
    const std::uint32_t bits = 1 + upTo(63);
    const std::uint32_t byte = upTo(9);
    const std::uint32_t bitOffset = upTo(10);
    const auto dataType = static_cast<std::uint8_t>(upTo(3));
    const std::size_t size = byte + (bitOffset + bits + 7) / 8 + upTo(3) * upTo(4);
    Records records(size * upTo(5));
    for (auto& one : records) one = static_cast<std::uint8_t>(random());
    SCOPED_TRACE(testing::Message() << "type " << int(dataType) << ", " << bits << " bits at "
                                    << byte << '.' << bitOffset << ", records of " << size);
    const RawField field(dataType, bits, byte, bitOffset);
    ASSERT_TRUE(field.isInside(size));
    const bool isSigned = dataType >= data_type::kSigned;
    const int width = bits <= 8 ? 0 : bits <= 16 ? 1 : bits <= 32 ? 2 : 3;
    ASSERT_EQ(field.type(), kTypes[isSigned ? 1 : 0][width]);
    const auto order = dataType % 2 == 0 ? ByteOrder::Little : ByteOrder::Big;
    expectIntegers(field, BitField(byte, bitOffset, bits, order), isSigned, records, size);
  }
}

// A float32 of the same value, worked out from the fields of the half one by hand.
float halfByHand(std::uint32_t half) {
  const double fraction = (half & 0x3FF) / 1024.0;
  const int exponent = static_cast<int>(half >> 10 & 0x1F);
  const double size = exponent == 0    ? std::pow(2.0, -14) * fraction
                      : exponent == 31 ? (fraction == 0 ? HUGE_VAL : NAN)
                                       : std::pow(2.0, exponent - 15) * (1 + fraction);
  return static_cast<float>((half & 0x8000) != 0 ? -size : size);
}

TEST(RawField, GathersFloatsOfThreeWidths) {
  Records halves;
  for (std::uint32_t half = 0; half < 0x10000; ++half) {
    halves.push_back(static_cast<std::uint8_t>(half));
    halves.push_back(static_cast<std::uint8_t>(half >> 8));
  }
  const auto floats = gathered<float>(RawField(data_type::kFloat, 16, 0, 0), halves, 2);
  for (std::uint32_t half = 0; half < 0x10000; ++half) {
    const float want = halfByHand(half);
    ASSERT_TRUE(std::isnan(want) ? std::isnan(floats[half])
                                 : std::bit_cast<std::uint32_t>(want) ==
                                       std::bit_cast<std::uint32_t>(floats[half]))
        << half;
  }

  // 1.5 as float64 and -2.25 as float32, both with the highest byte first, behind one byte each.
  const Records records = {9, 0x3F, 0xF8, 0, 0, 0, 0, 0, 0, 9, 0xC0, 0x10, 0, 0};
  const RawField wide(data_type::kFloatBigEndian, 64, 1, 0);
  const RawField narrow(data_type::kFloatBigEndian, 32, 10, 0);
  EXPECT_EQ(wide.type(), NumberType::Float64);
  EXPECT_EQ(narrow.type(), NumberType::Float32);
  EXPECT_EQ(gathered<double>(wide, records, records.size()), std::vector{1.5});
  EXPECT_EQ(gathered<float>(narrow, records, records.size()), std::vector{-2.25F});
  EXPECT_FALSE(narrow.isInside(records.size() - 1));

  EXPECT_FALSE(RawField::isNumber(data_type::kFloat, 24));
  EXPECT_FALSE(RawField::isNumber(data_type::kUnsigned, 65));
  EXPECT_FALSE(RawField::isNumber(data_type::kUnsigned, 0));
  EXPECT_FALSE(RawField::isNumber(data_type::kUtf8, 8));
}

}  // namespace
}  // namespace tolvex
