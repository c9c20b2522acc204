#include "Mdf4/reader/Text.h"

#include <algorithm>

namespace tolvex {
namespace {

constexpr std::uint32_t kReplacement = 0xFFFD;

void appendUtf8(std::uint32_t code, std::string& text) {
  const auto add = [&](std::uint32_t byte) { text += static_cast<char>(byte); };
  const auto addTail = [&](unsigned shift) { add(0x80 | (code >> shift & 0x3F)); };
  if (code < 0x80) {
    add(code);
  } else if (code < 0x800) {
    add(0xC0 | code >> 6);
    addTail(0);
  } else if (code < 0x10000) {
    add(0xE0 | code >> 12);
    addTail(6);
    addTail(0);
  } else {
    add(0xF0 | code >> 18);
    addTail(12);
    addTail(6);
    addTail(0);
  }
}

void decodeUtf16(ByteSpan bytes, bool bigEndian, std::string& text) {
  const auto unitAt = [&](std::size_t i) -> std::uint32_t {
    const std::uint32_t first = bytes[2 * i];
    const std::uint32_t second = bytes[2 * i + 1];
    return bigEndian ? first << 8 | second : second << 8 | first;
  };
  const std::size_t units = bytes.size() / 2;
  for (std::size_t i = 0; i < units && unitAt(i) != 0; ++i) {
    const std::uint32_t unit = unitAt(i);
    if (unit < 0xD800 || unit > 0xDFFF) {
      appendUtf8(unit, text);
      continue;
    }
    const std::uint32_t low = i + 1 < units ? unitAt(i + 1) : 0;
    if (unit < 0xDC00 && low >= 0xDC00 && low <= 0xDFFF) {
      appendUtf8(0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00), text);
      ++i;
    } else {
      appendUtf8(kReplacement, text);
    }
  }
}

}  // namespace

bool decodeText(std::uint8_t dataType, ByteSpan bytes, std::string& text) {
  if (!isTextType(dataType)) return false;
  text.clear();
  switch (dataType) {
    case data_type::kLatin1:
      for (const std::uint8_t byte : bytes.first(static_cast<std::size_t>(
               std::find(bytes.begin(), bytes.end(), 0) - bytes.begin()))) {
        appendUtf8(byte, text);
      }
      break;
    case data_type::kUtf8:
      text.assign(bytes.begin(), std::find(bytes.begin(), bytes.end(), 0));
      break;
    default:
      decodeUtf16(bytes, dataType == data_type::kUtf16BigEndian, text);
      break;
  }
  return true;
}

}  // namespace tolvex
