#include "CsvCell.h"

#include <fmt/compile.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>

#include "PrintableText.h"

namespace tolvex {

namespace {

constexpr std::size_t kNumberRoom = 32;  // more characters than any number has

template <typename Integer>
void writeInteger(Output& out, Integer value) {
  out.advance(fmt::format_to(out.room(kNumberRoom), FMT_COMPILE("{}"), value));
}

void writeHex(Output& out, std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  char* at = out.room(2 + 2 * bytes.size());
  *at++ = '0';
  *at++ = 'x';
  for (const char character : bytes) {
    const auto byte = static_cast<std::uint8_t>(character);
    *at++ = kDigits[byte >> 4];
    *at++ = kDigits[byte & 0xF];
  }
  out.advance(at);
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

// Calls use(value) with the integer or float, as it is in the column. False when it has others.
template <class Use>
bool withNumber(const MdfColumn& column, std::uint64_t index, Use use) {
  switch (column.type()) {
    case MdfColumnType::Int8:
      use(column.as<std::int8_t>()[index]);
      return true;
    case MdfColumnType::Int16:
      use(column.as<std::int16_t>()[index]);
      return true;
    case MdfColumnType::Int32:
      use(column.as<std::int32_t>()[index]);
      return true;
    case MdfColumnType::Int64:
      use(column.as<std::int64_t>()[index]);
      return true;
    case MdfColumnType::UInt8:
      use(column.as<std::uint8_t>()[index]);
      return true;
    case MdfColumnType::UInt16:
      use(column.as<std::uint16_t>()[index]);
      return true;
    case MdfColumnType::UInt32:
      use(column.as<std::uint32_t>()[index]);
      return true;
    case MdfColumnType::UInt64:
      use(column.as<std::uint64_t>()[index]);
      return true;
    case MdfColumnType::Float32:
      use(column.as<float>()[index]);
      return true;
    case MdfColumnType::Float64:
      use(column.as<double>()[index]);
      return true;
    default:
      return false;
  }
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

void writeCsvNumber(Output& out, double value) {
  if (std::isnan(value)) {
    out.write("nan");
    return;
  }
  char* at = out.room(kNumberRoom);
  // Many values are small whole numbers, which need no search for the shortest digits.
  const auto whole = static_cast<std::int32_t>(std::clamp(value, -1e9, 1e9));
  if (whole == value && (whole != 0 || !std::signbit(value))) {
    out.advance(fmt::format_to(at, FMT_COMPILE("{}"), whole));
  } else {
    out.advance(fmt::format_to(at, FMT_COMPILE("{}"), value));
  }
}

void writeCsvCell(Output& out, const MdfColumn& column, std::uint64_t index, bool safe) {
  if (!column.isValid(index)) {
    return;
  }
  const auto writeNumber = [&](auto value) {
    if constexpr (std::numeric_limits<decltype(value)>::is_integer) {
      writeInteger(out, value);
    } else {
      writeCsvNumber(out, value);
    }
  };
  if (withNumber(column, index, writeNumber)) {
    return;
  }
  switch (column.type()) {
    case MdfColumnType::Text:
      writeCsvText(out, column.text(index), safe);
      return;
    case MdfColumnType::Bytes:
      writeHex(out, column.text(index));
      return;
    case MdfColumnType::Dictionary:
      if (column.as<std::int32_t>()[index] >= 0) {
        writeCsvText(out, column.text(index), safe);
      } else if (!column.numbers().empty()) {
        writeCsvNumber(out, column.numbers()[static_cast<std::size_t>(index)]);
      }
      return;
    default:
      return;
  }
}

std::optional<double> numberAt(const MdfColumn& column, std::uint64_t index) {
  std::optional<double> number;
  if (column.isValid(index)) {
    withNumber(column, index, [&](auto value) { number = static_cast<double>(value); });
  }
  return number;
}

}  // namespace tolvex
