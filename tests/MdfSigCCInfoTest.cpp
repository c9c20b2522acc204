// From a record's bytes to raw numbers, physical values and texts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <ostream>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/base/Bytes.h"
#include "tolvex/Mdf4.h"

namespace tolvex {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Values = std::vector<double>;
using Texts = std::vector<std::string>;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

MdfSigCCInfo channel(std::uint32_t dataType, unsigned bitCount, std::uint32_t byteOffset = 0,
                     unsigned bitOffset = 0) {
  MdfSigCCInfo info;
  info.dataType = dataType;
  info.bitCount = static_cast<std::uint8_t>(bitCount);
  info.byteOffset = byteOffset;
  info.bitOffset = static_cast<std::uint8_t>(bitOffset);
  info.initDataTypeInfo();
  return info;
}

MdfSigCCInfo conversion(int type, const Values& values, const Texts& texts = {},
                        MdfSigCCInfo info = channel(0, 8)) {
  info.conversionType = static_cast<std::uint8_t>(type);
  info.values = values;
  info.valueCount = static_cast<std::uint16_t>(values.size());
  info.texts = texts;
  info.textCount = static_cast<std::uint16_t>(texts.size());
  return info;
}

struct Result {
  bool ok;
  double phys;
  std::string text;

  bool operator==(const Result& other) const {
    const bool samePhys = phys == other.phys || (std::isnan(phys) && std::isnan(other.phys));
    return ok == other.ok && samePhys && text == other.text;
  }
  friend std::ostream& operator<<(std::ostream& out, const Result& result) {
    return out << (result.ok ? "ok " : "failed ") << result.phys << " '" << result.text << "'";
  }
};

// The conversion of `raw`, with "old" as the text before it.
Result convert(const MdfSigCCInfo& info, double raw) {
  Result result{false, -99, "old"};
  result.ok = info.applyConversion(raw, result.phys, result.text);
  return result;
}

Result is(double phys, const std::string& text = "") {
  return {true, phys, text};
}
Result failed(double raw) {
  return {false, raw, "old"};
}

// Bit by bit, then byte by byte.
std::optional<std::uint64_t> modelBits(const MdfSigCCInfo& info, const Bytes& record) {
  const std::uint64_t start = std::uint64_t{info.byteOffset} * 8 + info.bitOffset;
  const std::uint64_t needed =
      std::uint64_t{info.byteOffset} + (info.bitOffset + info.bitCount + 7U) / 8;
  if (info.bitCount > 64 || record.size() < needed) return std::nullopt;
  std::uint64_t value = 0;
  for (std::uint64_t i = 0; i < info.bitCount; ++i) {
    value |= std::uint64_t{record[inMemory((start + i) / 8)] >> ((start + i) % 8) & 1U} << i;
  }
  if (info.byteOrder != 2 || info.bitCount < 8) return value;
  std::uint64_t reversed = 0;
  for (unsigned left = info.bitCount; left > 0; left -= std::min(left, 8U)) {
    reversed = reversed << 8 | (value & 0xFF);
    value >>= 8;
  }
  return reversed;
}

TEST(MdfSigCCInfo, BitFieldsEqualABitByBitModel) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto upTo = [&](unsigned max) { return static_cast<unsigned>(random() % (max + 1)); };
  int extracted = 0;
  for (int round = 0; round < 100'000; ++round) {
    Bytes record(upTo(20));
    for (auto& byte : record) byte = static_cast<std::uint8_t>(random());
    const std::uint32_t byteOffset = upTo(50) == 0 ? 0xFFFFFFFF : upTo(10);
    auto info = channel(0, upTo(70), byteOffset, upTo(20) == 0 ? upTo(255) : upTo(7));
    info.byteOrder = upTo(2);
    std::uint64_t value = 0;
    const bool ok = info.extractBitFieldValue(record, value);
    const auto want = modelBits(info, record);
    ASSERT_EQ(ok ? std::optional(value) : std::nullopt, want)
        << record.size() << " bytes, field at " << byteOffset << '.' << int{info.bitOffset}
        << " of " << int{info.bitCount} << " bits, order " << info.byteOrder;
    extracted += ok;
  }
  EXPECT_GT(extracted, 30'000);
}

TEST(MdfSigCCInfo, BitsBecomeNumbers) {
  const struct {
    std::uint32_t dataType;
    unsigned bitCount;
    std::uint64_t bits;
    std::optional<double> want;
  } rows[] = {
      {0, 64, 0x8000000000000000, -9223372036854775808.0},
      {2, 8, 200, -56},
      {2, 12, 0x7FF, 2047},
      {3, 12, 0x800, -2048},
      {2, 64, 0xFFFFFFFFFFFFFFFF, -1},
      {2, 0, 0, 0},
      {4, 32, 0xC0200000, -2.5},
      {5, 64, 0x3FF8000000000000, 1.5},
      {4, 16, 0x3C00, std::nullopt},
      {7, 32, 1, std::nullopt},
      {10, 64, 0x8000000000000000, 9223372036854775808.0},
  };
  for (const auto& row : rows) {
    double raw = 0;
    const bool ok = channel(row.dataType, row.bitCount).convertBitFieldValueToRaw(row.bits, raw);
    EXPECT_EQ(ok ? std::optional(raw) : std::nullopt, row.want) << row.dataType << ", " << row.bits;
  }
}

TEST(MdfSigCCInfo, AnInvalidationBitInTheSampleFailsIt) {
  auto info = channel(0, 8);
  info.flags = 2;
  info.invalidBitPos = 7;
  double number = 0;
  EXPECT_TRUE(info.convertToPhysical({0x7F}, number));
  EXPECT_FALSE(info.convertToPhysical({0x80}, number));
  EXPECT_THROW(info.convertBitFieldValueToRaw(0x80, number), std::runtime_error);
  info.invalidBitPos = 64;  // beyond the bits: not looked at
  EXPECT_TRUE(info.convertToPhysical({0x80}, number));
}

TEST(MdfSigCCInfo, StringsEndAtTheFieldOrTheFirstNul) {
  const struct {
    MdfSigCCInfo info;
    Bytes record;
    std::optional<std::string> want;
  } rows[] = {
      {channel(7, 24, 1), {'x', 'a', 'b', 'c', 'd'}, "abc"},
      {channel(7, 32), {'a', 0, 'c', 'd'}, "a"},
      {channel(6, 16), {0xE4, '!'}, "\xE4!"},
      {channel(7, 24, 1), {'x', 'a', 'b'}, std::nullopt},
      {channel(7, 8, 0xFFFFFFFF), {'x'}, std::nullopt},
      {channel(7, 0), {}, ""},
      {channel(8, 72), {'A', 0, 0xE4, 0, 0xAC, 0x20, 0xFF, 0x07, 'B'}, "A\xC3\xA4?\xDF\xBF"},
      {channel(9, 48), {'A', 0, 0, 0, 'B', 0}, "A"},
      {channel(0, 8), {'A'}, std::nullopt},
  };
  for (const auto& row : rows) {
    std::string text = "old";
    const bool ok = row.info.extractStringValue(row.record, text);
    EXPECT_EQ(ok ? std::optional(text) : std::nullopt, row.want);
  }
}

TEST(MdfSigCCInfo, RawBytesAreTheFieldsWholeBytes) {
  EXPECT_EQ(channel(0, 9, 1, 3).extractRawBytes({1, 2, 3}), (Bytes{2, 3}));
  EXPECT_EQ(channel(0, 9, 2).extractRawBytes({1, 2, 3}), Bytes{});
}

TEST(MdfSigCCInfo, ConversionsWorkedOutByHand) {
  const double two64 = 18446744073709551616.0;
  const struct {
    MdfSigCCInfo info;
    std::vector<std::pair<double, Result>> results;
  } rows[] = {
      {conversion(0, {}), {{3, is(3)}, {kInf, is(kInf)}, {kNaN, is(kNaN)}}},
      {conversion(3, {}, {"X+1"}), {{3, is(3)}}},
      {conversion(12, {1, 2}), {{3, is(3)}}},
      {conversion(1, {1, 2}), {{3, is(7)}}},
      {conversion(1, {1}), {{3, failed(3)}}},
      {conversion(2, {1, 2, 3, 4, 5, -6}), {{2, is(11.0 / 20)}, {0.75, failed(0.75)}}},
      {conversion(2, {0, 0, 1, 0, 0}), {{2, failed(2)}}},
      {conversion(4, {0, 100, 10, 200, 20, 0}),
       {{-5, is(100)}, {5, is(150)}, {10, is(200)}, {15, is(100)}, {kInf, is(0)}}},
      {conversion(4, {5, 1}), {{4, is(1)}, {5, is(1)}, {6, is(1)}}},
      {conversion(4, {0, 1, 2}), {{1, failed(1)}}},
      {conversion(5, {0, 100, 10, 200, 20, 300}),
       {{-5, is(100)}, {5, is(100)}, {5.5, is(200)}, {15, is(200)}, {99, is(300)}}},
      {conversion(6, {0, 10, 1, 5, 20, 2}), {{7, is(1)}, {20, is(2)}, {21, failed(21)}}},
      {conversion(6, {0, 10}), {{1, failed(1)}}},
      {conversion(7, {1, 2, 1}, {"one", "two", "again", "else"}),
       {{1 + 1e-13, is(1 + 1e-13, "one")}, {2, is(2, "two")}, {3, is(3, "else")}}},
      {conversion(7, {1}, {"one", ""}), {{3, {false, 3, ""}}}},
      {conversion(7, {1}, {"one"}), {{1, failed(1)}}},
      {conversion(8, {0, 10, 10, 20}, {"low", "high", "else"}),
       {{10, is(10, "low")}, {20, is(20, "high")}, {21, is(21, "else")}}},
      {conversion(8, {0, 10, 10, 20}, {"low", "high", ""}, channel(4, 32)),
       {{10, is(10, "high")}, {20, failed(20)}}},
      {conversion(9, {7, 8, 9}, {"a", "b"}),
       {{0.5, is(8, "b")}, {-0.4, is(7, "a")}, {2, failed(2)}, {-0.5, failed(-0.5)}}},
      {conversion(10, {}, {"a", "A", "b", "B", "else"}), {{1, is(1, "B")}, {2, failed(2)}}},
      {conversion(11, {1, 1, 6, 2, 8, 8, 0, 0}, {"on", "two", "", "any"}),
       {{3, is(3, "on | two | any")}, {8, is(8, "any")}, {-1, failed(-1)}, {two64, failed(two64)}}},
      {conversion(11, {1, 1, 2, 2}, {"on"}), {{2, failed(2)}, {3, is(3, "on")}}},
      {conversion(11, {1, 1, -1, 0}, {"on", "x"}), {{1, failed(1)}}},
      {conversion(11, {1, 1, 1}, {"on"}), {{1, failed(1)}}},
  };
  for (const auto& row : rows) {
    for (const auto& [raw, want] : row.results) {
      EXPECT_EQ(convert(row.info, raw), want) << row.info.getConversionTypeString() << ": " << raw;
    }
  }
}

TEST(MdfSigCCInfo, TableSearchEqualsAScan) {
  for (int count = 1; count <= 33; ++count) {
    Values pairs;
    for (int i = 0; i < count; ++i) pairs.insert(pairs.end(), {i * i * 1.0, 1000.0 - i});
    const auto interpolated = conversion(4, pairs);
    const auto nearest = conversion(5, pairs);
    for (double raw = -1; raw <= count * count; raw += 0.5) {
      int i = 0;  // the last pair whose key is not above raw
      while (i + 1 < count && (i + 1) * (i + 1) <= raw) ++i;
      const double part = i + 1 < count ? std::max(0.0, raw - i * i) / (2 * i + 1) : 0;
      EXPECT_EQ(convert(interpolated, raw), is(1000 - i - part)) << count << " pairs: " << raw;
      EXPECT_EQ(convert(nearest, raw), is(1000 - i - (part > 0.5))) << count << " pairs: " << raw;
    }
  }
}

TEST(MdfSigCCInfo, DamagedConversionsFail) {
  for (const int type : {1, 2, 4, 5, 6, 7, 8, 9, 10, 11}) {
    auto info = conversion(type, {0, 0, 10, 1, 20, 2}, {"a", "b", "c", "d", "e", "f", "g"});
    if (type == 8) info.textCount = 4;
    SCOPED_TRACE(info.getConversionTypeString());
    EXPECT_TRUE(convert(info, 0).ok);
    EXPECT_EQ(convert(info, kNaN), failed(kNaN));
    for (const double raw : {kInf, -kInf, 1e300, -1e300}) convert(info, raw);
    info.values.resize(4);  // the counts still claim everything
    if (type == 10) info.texts.resize(2);
    EXPECT_EQ(convert(info, 1), failed(1));
  }
  auto fewTexts = conversion(7, {1, 2}, {"one", "two", "else"});
  fewTexts.texts.resize(1);
  EXPECT_EQ(convert(fewTexts, 1), is(1, "one"));
  EXPECT_EQ(convert(fewTexts, 2), failed(2));
  for (const int type : {4, 5}) {
    EXPECT_EQ(convert(conversion(type, {20, 0, 10, 1, 0, 2}), 5), failed(5));
    EXPECT_EQ(convert(conversion(type, {0, 0, 30, 1, 20, 2}), 15), failed(15));
    EXPECT_EQ(convert(conversion(type, {0, 0, kNaN, 1, 20, 2}), 15), failed(15));
    EXPECT_EQ(convert(conversion(type, {kNaN, 0, 10, 1, 20, 2}), 5), failed(5));
  }
}

TEST(MdfSigCCInfo, RecordsBecomePhysicalValuesAndTexts) {
  const Bytes record = {'a', 'b', 'c', 'd'};
  const std::pair<MdfSigCCInfo, Result> rows[] = {
      {channel(1, 12), is(0x6102)},  // big endian: gathered first, swapped afterwards
      {channel(1, 16, 0, 4), is(0x2636)},
      {conversion(1, {1, 0.5}, {}, channel(0, 8, 1)), is(50)},
      {channel(7, 32), is(4, "abcd")},
      {conversion(1, {1, 2}, {}, channel(7, 24, 1)), is(7)},
      {conversion(7, {9}, {"nine"}, channel(7, 32)), {false, 4, "abcd"}},
      {channel(0, 33), failed(-99)},
  };
  for (const auto& [info, want] : rows) {
    Result got{false, -99, "old"};
    got.ok = info.convertToPhysical(record, got.phys, got.text);
    EXPECT_EQ(got, want);
    double phys = -99;
    EXPECT_EQ(info.convertToPhysical(record, phys), want.ok);
    EXPECT_EQ(phys, want.phys);
  }
}

TEST(MdfSigCCInfo, RangesIncludeTheirBounds) {
  using enum RangeStatus;
  MdfSigCCInfo info;
  info.valueRangeMin = 10, info.valueRangeMax = 20;
  info.physRangeMin = 20, info.physRangeMax = 25;
  info.limitMin = 15, info.limitMax = 20;
  info.limitExtMin = 5, info.limitExtMax = 25;
  const auto status = [&](bool physical) {
    std::vector<RangeStatus> got;
    for (const double value : {10, 20, 25, 40}) {
      got.push_back(info.checkValueRange(value, physical));
    }
    return got;
  };
  EXPECT_EQ(status(false), std::vector(4, NoRange));
  info.valueRangeValid = info.limitExtValid = true;
  EXPECT_EQ(status(false), (std::vector{InRange, InRange, OutOfRange, OutOfRange}));
  EXPECT_EQ(status(true), std::vector(4, NoRange));
  info.physRangeValid = true;
  EXPECT_EQ(status(true), (std::vector{OutOfRange, InRange, InRange, OutOfRange}));
  info.limitValid = true;
  EXPECT_EQ(status(true), (std::vector{InExtendedRange, InRange, InExtendedRange, OutOfRange}));
  info.limitExtValid = false;
  EXPECT_EQ(status(true), (std::vector{OutOfRange, InRange, OutOfRange, OutOfRange}));
}

}  // namespace
}  // namespace tolvex
