// Numbers at any bit of a record, in both byte orders.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "Mdf4/base/BitField.h"

namespace tolvex {
namespace {

// The bytes that the field touches as one number, taken bit by bit. Those behind the record are 0.
std::uint64_t modelBits(const std::vector<std::uint8_t>& record, std::uint32_t byte,
                        std::uint32_t bitOffset, std::uint32_t bits, ByteOrder order) {
  const std::uint32_t touched = (bitOffset + bits + 7) / 8;
  std::uint64_t value = 0;
  for (std::uint32_t i = 0; i < bits; ++i) {
    const std::uint32_t bit = bitOffset + i;
    const std::uint64_t at =
        std::uint64_t{byte} + (order == ByteOrder::Little ? bit / 8 : touched - 1 - bit / 8);
    if (at < record.size()) value |= std::uint64_t{record[inMemory(at)] >> bit % 8 & 1U} << i;
  }
  return value;
}

TEST(BitField, EqualsABitByBitModel) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto upTo = [&](unsigned max) { return static_cast<unsigned>(random() % (max + 1)); };
  for (int round = 0; round < 100'000; ++round) {
    std::vector<std::uint8_t> record(upTo(20));
    for (auto& byte : record) byte = static_cast<std::uint8_t>(random());
    const std::uint32_t byte = upTo(50) == 0 ? ~0U - upTo(10) : upTo(10);
    const std::uint32_t bitOffset = upTo(20) == 0 ? upTo(255) : upTo(7);
    const std::uint32_t bits = upTo(64);
    const auto order = upTo(1) == 0 ? ByteOrder::Little : ByteOrder::Big;
    SCOPED_TRACE(testing::Message() << record.size() << " bytes, " << bits << " bits at " << byte
                                    << '.' << bitOffset << ", order " << int(order));
    const BitField field(byte, bitOffset, bits, order);
    const std::uint64_t want = modelBits(record, byte, bitOffset, bits, order);
    ASSERT_EQ(field.read(record), want);
    const bool isNegative = bits > 0 && (want >> (bits - 1) & 1) != 0;
    const std::uint64_t above = bits < 64 && isNegative ? ~std::uint64_t{0} << bits : 0;
    ASSERT_EQ(static_cast<std::uint64_t>(field.readSigned(record)), want | above);
  }
}

}  // namespace
}  // namespace tolvex
