// MdfSigCCInfo, from a record's bytes to a raw number or a text; its precision and its ranges.
#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "Mdf4/base/BitField.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

namespace {

enum ValueKind : std::uint32_t { kUnsigned, kSigned, kFloat, kLatin1, kUtf8, kUtf16, kLast = 11 };
enum Order : std::uint32_t { kNoOrder, kLittleEndian, kBigEndian };  // of MdfSigCCInfo

constexpr std::uint32_t kInvalidationBitValid = 1U << 1;  // in cn_flags
constexpr std::uint8_t kUnlimitedPrecision = 255;
constexpr unsigned kMaxBits = 64;

bool isString(std::uint32_t kind) {
  return kind >= kLatin1 && kind <= kUtf16;
}

bool holds(std::size_t size, std::uint64_t offset, std::uint64_t count) {
  return offset <= size && count <= size - offset;
}

// The invalidation bit is looked for in the sample's own bits, not in the record's invalidation
// bytes.
bool isMarkedInvalid(const MdfSigCCInfo& info, std::uint64_t value) {
  return (info.flags & kInvalidationBitValid) != 0 && info.invalidBitPos < kMaxBits &&
         (value >> info.invalidBitPos & 1) != 0;
}

// Appends little-endian units up to the first zero one. Units from 0x800 on, surrogates among
// them, become "?".
void appendUtf16(const std::uint8_t* bytes, std::size_t units, std::string& text) {
  for (std::size_t i = 0; i < units; ++i) {
    std::uint16_t unit = 0;
    std::memcpy(&unit, bytes + i * sizeof unit, sizeof unit);
    if (unit == 0) return;
    if (unit <= 0x7F) {
      text += static_cast<char>(unit);
    } else if (unit <= 0x7FF) {
      text += static_cast<char>(0xC0 | unit >> 6);
      text += static_cast<char>(0x80 | (unit & 0x3F));
    } else {
      text += '?';
    }
  }
}

}  // namespace

MdfSigCCInfo::MdfSigCCInfo() {
  initDataTypeInfo();
}

void MdfSigCCInfo::initDataTypeInfo() {
  struct Entry {
    std::uint32_t kind;
    std::uint32_t order;
  };
  static constexpr std::array<Entry, 16> kEntries = {{
      {kUnsigned, kLittleEndian},
      {kUnsigned, kBigEndian},
      {kSigned, kLittleEndian},
      {kSigned, kBigEndian},
      {kFloat, kLittleEndian},
      {kFloat, kBigEndian},
      {kLatin1, kNoOrder},
      {kUtf8, kNoOrder},
      {kUtf16, kLittleEndian},
      {kUtf16, kBigEndian},
      {6, kNoOrder},
      {7, kNoOrder},
      {8, kNoOrder},
      {9, kNoOrder},
      {10, kNoOrder},
      {kLast, kNoOrder},
  }};
  const Entry entry = dataType < kEntries.size() ? kEntries[dataType] : Entry{kUnsigned, kNoOrder};
  valueKind = entry.kind;
  byteOrder = entry.order;
}

void MdfSigCCInfo::calculateDisplayPrecision() {
  hasDisplayPrecision = cnPrecisionValid || ccPrecisionValid;
  displayPrecision = cnPrecisionValid   ? cnPrecision
                     : ccPrecisionValid ? ccPrecision
                                        : kUnlimitedPrecision;
}

std::string MdfSigCCInfo::getPrecisionString() const {
  if (!hasDisplayPrecision) return "Default";
  if (displayPrecision == kUnlimitedPrecision) return "Unlimited";
  return std::to_string(displayPrecision) + " decimal places";
}

RangeStatus MdfSigCCInfo::checkValueRange(double value, bool physical) const {
  const auto within = [value](double min, double max) { return min <= value && value <= max; };
  const auto plainRange = [&](bool valid, double min, double max) {
    if (!valid) return RangeStatus::NoRange;
    return within(min, max) ? RangeStatus::InRange : RangeStatus::OutOfRange;
  };
  if (!physical) return plainRange(valueRangeValid, valueRangeMin, valueRangeMax);
  if (!limitValid) return plainRange(physRangeValid, physRangeMin, physRangeMax);
  if (within(limitMin, limitMax)) return RangeStatus::InRange;
  return limitExtValid && within(limitExtMin, limitExtMax) ? RangeStatus::InExtendedRange
                                                           : RangeStatus::OutOfRange;
}

std::vector<std::uint8_t> MdfSigCCInfo::extractRawBytes(
    const std::vector<std::uint8_t>& record) const {
  return extractRawBytes(record.data(), record.size());
}

std::vector<std::uint8_t> MdfSigCCInfo::extractRawBytes(const std::uint8_t* record,
                                                        std::size_t size) const {
  const std::size_t count = (bitCount + 7U) / 8;
  if (count == 0 || !holds(size, byteOffset, count)) return {};
  return {record + byteOffset, record + byteOffset + count};
}

bool MdfSigCCInfo::extractBitFieldValue(const std::vector<std::uint8_t>& record,
                                        std::uint64_t& value) const {
  return extractBitFieldValue(record.data(), record.size(), value);
}

bool MdfSigCCInfo::extractBitFieldValue(const std::uint8_t* record, std::size_t size,
                                        std::uint64_t& value) const {
  const unsigned width = bitCount;
  if (width > kMaxBits || !holds(size, byteOffset, (bitOffset + width + 7) / 8)) return false;
  value = BitField(byteOffset, bitOffset, width).read({record, size});
  // The value's bytes, not the record's: for a field that starts or ends within a byte that is
  // something else than ByteOrder::Big.
  if (byteOrder == kBigEndian && width > 8) {
    value = swapBytes(value) >> (kMaxBits - (width + 7) / 8 * 8);
  }
  return true;
}

bool MdfSigCCInfo::extractStringValue(const std::vector<std::uint8_t>& record,
                                      std::string& text) const {
  return extractStringValue(record.data(), record.size(), text);
}

bool MdfSigCCInfo::extractStringValue(const std::uint8_t* record, std::size_t size,
                                      std::string& text) const {
  const std::size_t length = bitCount / 8U;
  if (!isString(valueKind) || !holds(size, byteOffset, length)) return false;
  text.clear();
  if (length == 0) return true;
  const std::uint8_t* bytes = record + byteOffset;
  if (valueKind == kUtf16) {
    appendUtf16(bytes, length / 2, text);
  } else {
    text.append(bytes, std::find(bytes, bytes + length, 0));
  }
  return true;
}

bool MdfSigCCInfo::convertBitFieldValueToRaw(std::uint64_t value, double& raw) const {
  if (isMarkedInvalid(*this, value)) {
    throw std::runtime_error("Invalid sample: invalidation bit set");
  }
  if (valueKind == kUnsigned || valueKind == kSigned) {
    const unsigned width = bitCount;
    if (valueKind == kSigned && width > 0 && width < kMaxBits && (value >> (width - 1) & 1) != 0) {
      value |= ~std::uint64_t{0} << width;
    }
    // Unsigned values too: one of 64 bits with its top bit set turns negative.
    raw = static_cast<double>(static_cast<std::int64_t>(value));
    return true;
  }
  if (valueKind == kFloat) {
    if (bitCount == 32) {
      raw = static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(value)));
    } else if (bitCount == 64) {
      raw = std::bit_cast<double>(value);
    }
    return bitCount == 32 || bitCount == 64;
  }
  if (isString(valueKind) || valueKind > kLast) return false;
  raw = static_cast<double>(value);
  return true;
}

bool MdfSigCCInfo::convertToPhysical(const std::vector<std::uint8_t>& record, double& phys) const {
  thread_local std::string scratch;
  scratch.clear();
  return convertToPhysical(record, phys, scratch);
}

bool MdfSigCCInfo::convertToPhysical(const std::vector<std::uint8_t>& record, double& phys,
                                     std::string& text) const {
  return convertToPhysical(record.data(), record.size(), phys, text);
}

bool MdfSigCCInfo::convertToPhysical(const std::uint8_t* record, std::size_t size, double& phys,
                                     std::string& text) const {
  try {
    if (isString(valueKind)) {
      if (!extractStringValue(record, size, text)) return false;
      const auto length = static_cast<double>(text.size());
      if (conversionType != 0) return applyConversion(length, phys, text);
      phys = length;
      return true;
    }
    std::uint64_t value = 0;
    double raw = 0;
    // Asked here as well, since invalid samples may be many and a throw costs a microsecond.
    if (!extractBitFieldValue(record, size, value) || isMarkedInvalid(*this, value)) return false;
    return convertBitFieldValueToRaw(value, raw) && applyConversion(raw, phys, text);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace tolvex
