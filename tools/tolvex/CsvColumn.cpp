#include "CsvColumn.h"

#include <fmt/compile.h>
#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>

#include "PrintableText.h"

namespace tolvex {

namespace {

// Numbers of the format.
constexpr std::uint32_t kAllInvalid = 1;       // channel flags
constexpr std::uint32_t kInvalidationBit = 2;  //
constexpr std::uint8_t kVariableLength = 1;    // channel types
constexpr std::uint8_t kMaster = 2;            //
constexpr std::uint8_t kVirtualMaster = 3;     //
constexpr std::uint8_t kVirtual = 6;           //
constexpr std::uint8_t kTime = 1;              // synchronisation types
constexpr std::uint32_t kFirstText = 6;        // data types
constexpr std::uint32_t kFirstBytes = 10;      //
constexpr std::uint32_t kLastBytes = 12;       //
constexpr std::uint32_t kSignedKind = 1;       // value kinds
constexpr std::uint32_t kFloatKind = 2;        //
constexpr std::uint32_t kMaxNumberBits = 64;

constexpr std::size_t kNumberRoom = 32;  // more characters than any number has

// The shortest text that reads back as the same number.
void writeNumber(Output& out, double value) {
  if (std::isnan(value)) {
    out.write("nan");
    return;
  }
  char* at = out.room(kNumberRoom);
  // Most values are small whole numbers, which need no search for the shortest digits.
  const auto whole = static_cast<std::int32_t>(std::clamp(value, -1e9, 1e9));
  if (whole == value && (whole != 0 || !std::signbit(value))) {
    out.advance(fmt::format_to(at, FMT_COMPILE("{}"), whole));
  } else {
    out.advance(fmt::format_to(at, FMT_COMPILE("{}"), value));
  }
}

template <typename Integer>
void writeInteger(Output& out, Integer value) {
  out.advance(fmt::format_to(out.room(kNumberRoom), FMT_COMPILE("{}"), value));
}

void writeHex(Output& out, std::span<const std::uint8_t> bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  char* at = out.room(2 * bytes.size());
  for (const std::uint8_t byte : bytes) {
    *at++ = kDigits[byte >> 4];
    *at++ = kDigits[byte & 0xF];
  }
  out.advance(at);
}

std::int64_t signExtend(std::uint64_t value, unsigned bitCount) {
  const unsigned unused = 64 - bitCount;
  return std::bit_cast<std::int64_t>(value << unused) >> unused;
}

// Spreadsheets compute what begins with one of these characters.
bool looksLikeFormula(std::string_view text) {
  if (text.empty() || std::string_view("=+-@\t\r").find(text[0]) == std::string_view::npos) {
    return false;
  }
  const bool isSigned = text[0] == '+' || text[0] == '-';
  const std::string_view digits = text.substr(1);
  const char* const end = digits.data() + digits.size();
  double number = 0;
  return !isSigned || digits.find_first_of("0123456789") > 1 ||
         std::from_chars(digits.data(), end, number).ptr != end;
}

}  // namespace

void writeCsvText(Output& out, std::string_view text, bool safe) {
  std::string changed;
  if (safe && looksLikeFormula(text)) {
    text = changed = fmt::format("'{}", text);
  }
  if (out.isTerminal()) {
    text = changed = printable(text);
  }
  if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
    out.write(text);
    return;
  }
  out.write('"');
  for (const char character : text) {
    if (character == '"') {
      out.write('"');
    }
    out.write(character);
  }
  out.write('"');
}

CsvColumn::CsvColumn(MdfSigReader& reader, int dg, int cg, int cn, const CsvOptions& options)
    : reader_(reader), dg_(dg), cg_(cg), cn_(cn), options_(options) {
  reader.getCCInfo(dg, cg, cn, description_);
  for (std::string* text : {&description_.name, &description_.unit, &description_.comment}) {
    std::string().swap(*text);  // gives its memory back, as an assignment does not
  }
  kind_ = kindOf(description_, reader.getSigAttr(dg, cg, cn).bitCount, options.raw);
  hasInvalidSamples_ = (description_.flags & (kAllInvalid | kInvalidationBit)) != 0;
  // Validity is read from the record's invalidation bytes, never from the value itself.
  description_.flags &= ~kInvalidationBit;
}

std::string CsvColumn::title() const {
  MdfSigCCInfo description;
  reader_.getCCInfo(dg_, cg_, cn_, description);
  return description.unit.empty() ? name() : fmt::format("{} [{}]", name(), description.unit);
}

CsvColumn::Kind CsvColumn::kindOf(const MdfSigCCInfo& description, std::uint32_t bitCount,
                                  bool raw) {
  if (description.channelType == kVirtual || description.channelType == kVirtualMaster) {
    return Kind::Index;
  }
  if (description.dataType >= kFirstText && description.dataType < kFirstBytes) {
    return Kind::Text;
  }
  if ((description.dataType >= kFirstBytes && description.dataType <= kLastBytes) ||
      description.channelType == kVariableLength || bitCount > kMaxNumberBits) {
    return Kind::Bytes;
  }
  if (!raw) {
    return Kind::Physical;
  }
  return description.valueKind == kFloatKind    ? Kind::RawFloat
         : description.valueKind == kSignedKind ? Kind::RawSigned
                                                : Kind::RawUnsigned;
}

bool CsvColumn::isMasterTime() const {
  return description_.syncType == kTime &&
         (description_.channelType == kMaster || description_.channelType == kVirtualMaster);
}

void CsvColumn::writeCell(Output& out, std::span<const std::uint8_t> record, std::uint64_t index) {
  if (hasInvalidSamples_ && reader_.isInvalidSample(dg_, cg_, cn_, record.data(), record.size())) {
    return;
  }
  switch (kind_) {
    case Kind::Physical:
      writePhysical(out, record);
      return;
    case Kind::RawUnsigned:
    case Kind::RawSigned:
    case Kind::RawFloat:
      writeRaw(out, record);
      return;
    case Kind::Index:
      writeIndex(out, index);
      return;
    case Kind::Text:
      if (reader_.readText(dg_, cg_, cn_, record.data(), record.size(), text_)) {
        writeCsvText(out, text_, options_.safe);
      }
      return;
    case Kind::Bytes:
      if (reader_.readValueBytes(dg_, cg_, cn_, record.data(), record.size(), bytes_)) {
        writeHex(out, bytes_);
      }
      return;
  }
}

void CsvColumn::writePhysical(Output& out, std::span<const std::uint8_t> record) {
  double value = 0;
  text_.clear();
  if (description_.convertToPhysical(record.data(), record.size(), value, text_)) {
    writeConverted(out, value);
  }
}

void CsvColumn::writeConverted(Output& out, double value) {
  if (description_.isTextConversion()) {
    writeCsvText(out, text_, options_.safe);
  } else {
    writeNumber(out, value);
  }
}

void CsvColumn::writeRaw(Output& out, std::span<const std::uint8_t> record) {
  std::uint64_t bits = 0;
  if (!description_.extractBitFieldValue(record.data(), record.size(), bits)) {
    return;
  }
  double value = 0;
  if (kind_ == Kind::RawUnsigned || description_.bitCount == 0) {
    writeInteger(out, bits);
  } else if (kind_ == Kind::RawSigned) {
    writeInteger(out, signExtend(bits, description_.bitCount));
  } else if (description_.convertBitFieldValueToRaw(bits, value)) {
    writeNumber(out, value);
  }
}

void CsvColumn::writeIndex(Output& out, std::uint64_t index) {
  double value = 0;
  text_.clear();
  if (options_.raw) {
    writeInteger(out, index);
  } else if (description_.applyConversion(static_cast<double>(index), value, text_)) {
    writeConverted(out, value);
  }
}

}  // namespace tolvex
