// Texts stored in records, as UTF-8.
#pragma once

#include <cstdint>
#include <string>

#include "Mdf4/base/Bytes.h"
#include "Mdf4/format/BlockRecords.h"

namespace tolvex {

// Whether cn_data_type is that of a string channel.
constexpr bool isTextType(std::uint8_t dataType) {
  return dataType >= data_type::kLatin1 && dataType <= data_type::kUtf16BigEndian;
}

// Appends the text, up to its first NUL. What is no sequence of its encoding becomes U+FFFD. Of a
// data type that is none of a string channel nothing.
void appendText(std::uint8_t dataType, ByteSpan bytes, std::string& text);

// Replaces `text` likewise, but UTF-8 is copied as it stands. False when the data type is none of a
// string channel.
bool decodeText(std::uint8_t dataType, ByteSpan bytes, std::string& text);

// Replaces what is no sequence of UTF-8 by U+FFFD.
void makeUtf8(std::string& text);

}  // namespace tolvex
