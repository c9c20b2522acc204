// Text from files, made fit for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace tolvex {

// `text` with everything escaped that would steer a terminal or reorder what it shows: control
// characters as \n, \r, \t, \x1B or \u009B, format controls (bidirectional marks, invisible
// characters, separators) as \u202E or \U000E0001, bytes that are no UTF-8 as \xFF. Other
// characters, backslashes among them, stay as they are.
std::string printable(std::string_view text);

// The same for a JSON document, by the escapes of JSON, so that it still states the same texts.
// `json` is well-formed UTF-8 whose texts have no raw control characters below U+0020.
std::string printableJson(std::string_view json);

}  // namespace tolvex
