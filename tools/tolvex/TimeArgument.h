// Points in time as they are typed on the command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace tolvex {

// A number of seconds: from 10^8 on since 1970, below since the recording's start; or a date as
// ISO 8601 has it, "2021-07-26", "2021-07-26T04:34:14.5Z" or with "+02:00", to the nanosecond.
struct TimeArgument {
  enum class From : std::uint8_t {
    Start,  // of the recording
    Clock,  // 1970, on the clock that times are shown by
    Utc,    // 1970, in UTC
  };
  From from = From::Start;
  std::int64_t ns = 0;

  // Nothing when the text is none.
  static std::optional<TimeArgument> parse(const std::string& text);
};

// The option `name` of a command; `help` says what it is the time of.
void addTimeArgument(CLI::App& command, const char* name, std::optional<TimeArgument>& time,
                     const char* help);

}  // namespace tolvex
