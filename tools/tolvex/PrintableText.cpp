#include "PrintableText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace tolvex {

namespace {

// The length of the well-formed UTF-8 sequence that `text` begins with, 0 when there is none.
std::size_t sequenceLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t lead = byte(0);
  if (lead < 0x80) {
    return 1;
  }
  const std::size_t length = lead >= 0xF5   ? 0
                             : lead >= 0xF0 ? 4
                             : lead >= 0xE0 ? 3
                             : lead >= 0xC2 ? 2
                                            : 0;
  if (length == 0 || text.size() < length) {
    return 0;
  }
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) {
      return 0;
    }
  }
  const std::uint8_t second = byte(1);
  const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
  const bool outside = (lead == 0xED && second >= 0xA0) || (lead == 0xF4 && second >= 0x90);
  return overlong || outside ? 0 : length;
}

// The character of a well-formed sequence.
char32_t decode(std::string_view sequence) {
  const auto lead = static_cast<std::uint8_t>(sequence[0]);
  if (sequence.size() == 1) {
    return lead;
  }
  char32_t character = lead & (0xFFU >> (sequence.size() + 1));
  for (const char c : sequence.substr(1)) {
    character = character << 6 | (static_cast<std::uint8_t>(c) & 0x3FU);
  }
  return character;
}

// Control and format characters, line and paragraph separators: the general categories Cc, Cf, Zl
// and Zp of Unicode 15.
constexpr struct {
  char32_t first;
  char32_t last;
} kUnprintable[] = {
    {0x0000, 0x001F},   {0x007F, 0x009F},   {0x00AD, 0x00AD},   {0x0600, 0x0605},
    {0x061C, 0x061C},   {0x06DD, 0x06DD},   {0x070F, 0x070F},   {0x0890, 0x0891},
    {0x08E2, 0x08E2},   {0x180E, 0x180E},   {0x200B, 0x200F},   {0x2028, 0x202E},
    {0x2060, 0x206F},   {0xFEFF, 0xFEFF},   {0xFFF9, 0xFFFB},   {0x110BD, 0x110BD},
    {0x110CD, 0x110CD}, {0x13430, 0x1343F}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A},
    {0xE0001, 0xE0001}, {0xE0020, 0xE007F},
};

bool isPrintable(char32_t character) {
  const auto range = std::ranges::lower_bound(kUnprintable, character, {},
                                              [](const auto& known) { return known.last; });
  return range == std::end(kUnprintable) || character < range->first;
}

enum class Style { Plain, Json };

std::string escaped(char32_t character, Style style) {
  const auto number = static_cast<std::uint32_t>(character);
  if (style == Style::Json) {
    return number < 0x10000 ? fmt::format("\\u{:04x}", number)
                            : fmt::format("\\u{:04x}\\u{:04x}", 0xD7C0 + (number >> 10),
                                          0xDC00 + (number & 0x3FF));
  }
  switch (character) {
    case U'\n':
      return "\\n";
    case U'\r':
      return "\\r";
    case U'\t':
      return "\\t";
    default:
      return number < 0x80      ? fmt::format("\\x{:02X}", number)
             : number < 0x10000 ? fmt::format("\\u{:04X}", number)
                                : fmt::format("\\U{:08X}", number);
  }
}

// Appends the character that `text` begins with, escaped where it must be. Gives its length.
std::size_t appendFirst(std::string& shown, std::string_view text, Style style) {
  const std::size_t length = sequenceLength(text);
  if (length == 0) {
    shown += fmt::format("\\x{:02X}", static_cast<std::uint8_t>(text[0]));
    return 1;
  }
  const std::string_view sequence = text.substr(0, length);
  const char32_t character = decode(sequence);
  if (isPrintable(character) || (style == Style::Json && character == U'\n')) {
    shown += sequence;
  } else {
    shown += escaped(character, style);
  }
  return length;
}

std::string withEscapes(std::string_view text, Style style) {
  const auto isPlain = [](char c) { return c >= 0x20 && c < 0x7F; };
  std::string shown;
  while (!text.empty()) {
    const auto plainEnd = std::ranges::find_if_not(text, isPlain);
    shown.append(text.begin(), plainEnd);
    text.remove_prefix(static_cast<std::size_t>(plainEnd - text.begin()));
    if (!text.empty()) {
      text.remove_prefix(appendFirst(shown, text, style));
    }
  }
  return shown;
}

}  // namespace

std::string printable(std::string_view text) {
  return withEscapes(text, Style::Plain);
}

std::string printableJson(std::string_view json) {
  return withEscapes(json, Style::Json);
}

}  // namespace tolvex
