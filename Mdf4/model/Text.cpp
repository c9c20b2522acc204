#include "Mdf4/model/Text.h"

#include <algorithm>
#include <utility>

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

// What a text in UTF-8 starts with.
struct Sequence {
  std::size_t length;  // in bytes: of a character, or of what one U+FFFD stands for
  bool isCharacter;
};

// A character that breaks off is one wrong sequence; each byte that can begin none is one too.
Sequence nextSequence(ByteSpan bytes) {
  const std::uint8_t first = bytes[0];
  if (first < 0x80) return {1, true};
  if (first < 0xC2 || first > 0xF4) return {1, false};
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  // The second byte's range keeps out longer forms than necessary, surrogates, and codes that are
  // too large.
  std::uint8_t low = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
  std::uint8_t high = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
  for (std::size_t i = 1; i < length; ++i) {
    if (i >= bytes.size() || bytes[i] < low || bytes[i] > high) return {i, false};
    low = 0x80;
    high = 0xBF;
  }
  return {length, true};
}

void appendChecked(ByteSpan bytes, std::string& text) {
  const auto add = [&](ByteSpan sound) { text.append(sound.begin(), sound.end()); };
  for (std::size_t at = 0; at < bytes.size();) {
    const Sequence next = nextSequence(bytes.subspan(at));
    at += next.length;
    if (next.isCharacter) continue;
    add(bytes.first(at - next.length));
    appendUtf8(kReplacement, text);
    bytes = bytes.subspan(at);
    at = 0;
  }
  add(bytes);
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

void makeUtf8(std::string& text) {
  const std::string stored = std::exchange(text, {});
  appendChecked({reinterpret_cast<const std::uint8_t*>(stored.data()), stored.size()}, text);
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
