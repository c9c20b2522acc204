// A channel description and a record, both filled from the input, through every operation.
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "tolvex/Mdf4.h"

namespace tolvex::fuzz {
namespace {

constexpr std::size_t kMostEntries = 24;  // of a table; a step of each costs time
constexpr std::size_t kMostRaw = 3;       // of them, those that are converted

// In the order in which make_corpus writes them.
MdfSigCCInfo descriptionFrom(Numbers& numbers) {
  MdfSigCCInfo info;
  info.dataType = numbers.next<std::uint8_t>();
  info.bitOffset = numbers.next<std::uint8_t>();
  info.bitCount = numbers.next<std::uint8_t>();
  info.conversionType = numbers.next<std::uint8_t>();
  info.byteOffset = numbers.next<std::uint32_t>();
  info.flags = numbers.next<std::uint32_t>();
  info.invalidBitPos = numbers.next<std::uint32_t>();
  info.valueCount = numbers.next<std::uint16_t>();
  info.textCount = numbers.next<std::uint16_t>();
  const std::size_t values = numbers.next<std::uint8_t>() % kMostEntries;
  const std::size_t texts = numbers.next<std::uint8_t>() % kMostEntries;
  info.cnPrecision = numbers.next<std::uint8_t>();
  info.ccPrecision = numbers.next<std::uint8_t>();
  const auto valid = numbers.next<std::uint8_t>();
  info.cnPrecisionValid = (valid & 0x01) != 0;
  info.ccPrecisionValid = (valid & 0x02) != 0;
  info.valueRangeValid = (valid & 0x04) != 0;
  info.physRangeValid = (valid & 0x08) != 0;
  info.limitValid = (valid & 0x10) != 0;
  info.limitExtValid = (valid & 0x20) != 0;
  for (double* const bound :
       {&info.valueRangeMin, &info.valueRangeMax, &info.physRangeMin, &info.physRangeMax,
        &info.limitMin, &info.limitMax, &info.limitExtMin, &info.limitExtMax}) {
    *bound = numbers.next<float>();
  }
  for (std::size_t i = 0; i < values; ++i) info.values.push_back(numbers.next<double>());
  for (std::size_t i = 0; i < texts; ++i) info.texts.push_back(numbers.text());
  if ((valid & 0x40) != 0) {  // nothing keeps an application from filling in what it likes
    info.valueKind = numbers.next<std::uint32_t>();
    info.byteOrder = numbers.next<std::uint32_t>();
  } else {
    info.initDataTypeInfo();
  }
  info.calculateDisplayPrecision();
  return info;
}

bool sameNumber(double a, double b) {
  return a == b || (std::isnan(a) && std::isnan(b));
}

// The field's bits one after the other.
bool extractByHand(const MdfSigCCInfo& info, ByteSpan record, std::uint64_t& value) {
  const std::uint64_t bits = info.bitCount;
  if (bits > 64 || info.byteOffset + (info.bitOffset + bits + 7) / 8 > record.size()) return false;
  std::uint8_t bytes[8] = {};
  for (std::uint64_t i = 0; i < bits; ++i) {
    const std::uint64_t from = std::uint64_t{info.byteOffset} * 8 + info.bitOffset + i;
    if ((record[from / 8] >> from % 8 & 1) != 0) bytes[i / 8] |= static_cast<uint8_t>(1 << i % 8);
  }
  value = 0;
  for (std::uint64_t i = 0, count = (bits + 7) / 8; i < count; ++i) {
    const std::uint64_t place = info.byteOrder == 2 ? count - 1 - i : i;
    value |= std::uint64_t{bytes[i]} << 8 * place;
  }
  return true;
}

void convert(const MdfSigCCInfo& info, double raw) {
  using Conversion = bool (MdfSigCCInfo::*)(double, double&, std::string&) const;
  static constexpr Conversion kAll[] = {
      &MdfSigCCInfo::convertIdentity,    &MdfSigCCInfo::convertLinear,
      &MdfSigCCInfo::convertRational,    &MdfSigCCInfo::convertFormula,
      &MdfSigCCInfo::convertN2NInterpol, &MdfSigCCInfo::convertN2N,
      &MdfSigCCInfo::convertR2N,         &MdfSigCCInfo::convertN2T,
      &MdfSigCCInfo::convertR2T,         &MdfSigCCInfo::convertT2N,
      &MdfSigCCInfo::convertT2T,         &MdfSigCCInfo::convertBTT,
  };
  constexpr std::size_t kNumeric = 7;  // the first ones, which have no texts
  for (std::size_t type = 0; type < std::size(kAll); ++type) {
    double phys = 0;
    std::string text = "before";
    const bool done = (info.*kAll[type])(raw, phys, text);
    require(done || sameNumber(phys, raw), "what is not converted stays raw");
    if (type < kNumeric) require(text == (done ? "" : "before"), "a number has no text");
    if (type != info.conversionType) continue;
    double again = 0;
    std::string textAgain = "before";
    require(info.applyConversion(raw, again, textAgain) == done && sameNumber(phys, again) &&
                text == textAgain,
            "the channel's conversion is the one of its type");
  }
  double phys = 0;
  std::string text;
  info.applyConversion(raw, phys, text);
  info.checkValueRange(phys, true);
  info.checkValueRange(raw, false);
}

void extract(const MdfSigCCInfo& info, ByteSpan record) {
  std::uint64_t value = 0;
  std::uint64_t expected = 0;
  const bool done = info.extractBitFieldValue(record.data(), record.size(), value);
  require(done == extractByHand(info, record, expected), "a field is there or not");
  require(!done || value == expected, "a field has the bits that the record holds");
  double raw = 0;
  try {
    info.convertBitFieldValueToRaw(value, raw);
  } catch (const std::runtime_error&) {
    require((info.flags & 2) != 0, "only invalid samples throw");
  }
  const std::vector<std::uint8_t> bytes = info.extractRawBytes(record.data(), record.size());
  require(bytes.empty() || bytes.size() == (info.bitCount + 7U) / 8, "a field has its bytes");
  std::string text;
  info.extractStringValue(record.data(), record.size(), text);
}

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex;
  using namespace tolvex::fuzz;
  Numbers numbers(ByteSpan(data, size));
  const auto raw = numbers.next<double>();
  const MdfSigCCInfo info = descriptionFrom(numbers);
  // A record of its own, so that a step beyond its end is seen.
  const std::vector<std::uint8_t> record(numbers.rest().begin(), numbers.rest().end());
  convert(info, raw);
  for (std::size_t i = 0; i < std::min(kMostRaw, info.values.size()); ++i) {
    convert(info, info.values[size % info.values.size()] + static_cast<double>(i));
  }
  extract(info, record);
  double phys = 0;
  double again = 0;
  std::string text;
  const bool done = info.convertToPhysical(record, phys, text);
  require(info.convertToPhysical(record, again) == done && (!done || sameNumber(phys, again)),
          "a value is the same with and without its text");
  info.getConversionTypeString();
  info.getPrecisionString();
  info.isTextConversion();
  info.requiresInterpolation();
  return 0;
}
