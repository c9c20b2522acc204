// One line of a can-utils log, as "candump -L" writes it and canplayer reads it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tolvex {

// The frame that a line states. A plain value, made to be filled again for the next line.
struct CandumpLine {
  std::uint64_t timeUs = 0;    // microseconds since 1970
  std::string_view interface;  // a part of the line
  std::uint32_t id = 0;        // without the mark of an error frame
  bool extended = false;       // the identifier has 29 bits
  bool error = false;
  bool remote = false;
  bool fd = false;
  bool brs = false;
  bool esi = false;
  bool transmitted = false;
  // The code of a remote frame, or of a classic frame of 8 bytes that states one above 8; else 0.
  std::uint8_t dlc = 0;
  std::uint8_t length = 0;  // bytes of data
  std::array<std::uint8_t, 64> data{};
};

// Why a line is no frame.
struct CandumpFault {
  const char* expected = nullptr;
  std::size_t at = 0;  // where in the line something else was found
};

// Reads the frame of `text`, a line without its line feed; nothing when it is one, else its fault,
// and `line` holds no frame.
std::optional<CandumpFault> parseCandumpLine(std::string_view text, CandumpLine& line);

}  // namespace tolvex
