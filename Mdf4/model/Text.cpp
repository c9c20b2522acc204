#include "Mdf4/model/Text.h"

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

ByteSpan upToNul(ByteSpan bytes) {
  return bytes.first(
      static_cast<std::size_t>(std::find(bytes.begin(), bytes.end(), 0) - bytes.begin()));
}

// Bytes of the UTF-8 sequence at the start, 1 to 4; 0 when they are none.
std::size_t sequenceLength(ByteSpan bytes) {
  const std::uint32_t first = bytes[0];
  if (first < 0x80) return 1;
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || bytes.size() < length) return 0;
  std::uint32_t code = first & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((bytes[i] & 0xC0) != 0x80) return 0;
    code = code << 6 | (bytes[i] & 0x3FU);
  }
  const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
  const bool isShortest = length == 2 || code >= (length == 3 ? 0x800U : 0x10000U);
  return isShortest && !isSurrogate && code <= 0x10FFFF ? length : 0;
}

void appendChecked(ByteSpan bytes, std::string& text) {
  while (!bytes.empty()) {
    const std::size_t length = sequenceLength(bytes);
    if (length == 0) {
      appendUtf8(kReplacement, text);
    } else {
      text.append(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
    }
    bytes = bytes.subspan(std::max<std::size_t>(length, 1));
  }
}

}  // namespace

void appendText(std::uint8_t dataType, ByteSpan bytes, std::string& text) {
  switch (dataType) {
    case data_type::kLatin1:
      for (const std::uint8_t byte : upToNul(bytes)) appendUtf8(byte, text);
      break;
    case data_type::kUtf8:
      appendChecked(upToNul(bytes), text);
      break;
    case data_type::kUtf16:
    case data_type::kUtf16BigEndian:
      decodeUtf16(bytes, dataType == data_type::kUtf16BigEndian, text);
      break;
    default:
      break;
  }
}

bool decodeText(std::uint8_t dataType, ByteSpan bytes, std::string& text) {
  if (!isTextType(dataType)) return false;
  text.clear();
  if (dataType == data_type::kUtf8) {
    const ByteSpan used = upToNul(bytes);
    text.assign(used.begin(), used.end());
  } else {
    appendText(dataType, bytes, text);
  }
  return true;
}

}  // namespace tolvex
