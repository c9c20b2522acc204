// Texts stored in records, as UTF-8.
#pragma once

#include <cstdint>
#include <string>

#include "Mdf4/base/Bytes.h"

namespace tolvex {

// cn_data_type of a string channel: 6 Latin-1, 7 UTF-8, 8 UTF-16 little endian, 9 big endian.
constexpr bool isTextType(std::uint8_t dataType) {
  return dataType >= 6 && dataType <= 9;
}

// The text up to its first NUL. UTF-8 is copied as it stands; half a surrogate pair of UTF-16
// becomes U+FFFD. False when the data type is none of a string channel.
bool decodeText(std::uint8_t dataType, ByteSpan bytes, std::string& text);

}  // namespace tolvex
