#include "TimeText.h"

#include <fmt/compile.h>
#include <fmt/format.h>

#include "CsvCell.h"

namespace tolvex {

namespace {

constexpr std::int64_t kSecondNs = 1'000'000'000;
constexpr std::size_t kRoom = 64;  // more characters than any time has

void writeAbsolute(Output& out, std::int64_t timeNs) {
  constexpr auto kSecond = std::uint64_t{kSecondNs};
  const auto bits = static_cast<std::uint64_t>(timeNs);
  const std::uint64_t size = timeNs < 0 ? ~bits + 1 : bits;
  if (timeNs < 0) {
    out.write('-');
  }
  out.advance(
      fmt::format_to(out.room(kRoom), FMT_COMPILE("{}.{:09}"), size / kSecond, size % kSecond));
}

void writeIso(Output& out, std::int64_t timeNs, bool isLocal) {
  const CalendarTime time(timeNs);
  out.advance(
      fmt::format_to(out.room(kRoom), FMT_COMPILE("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:09}{}"),
                     static_cast<int>(time.date.year()), static_cast<unsigned>(time.date.month()),
                     static_cast<unsigned>(time.date.day()), time.clock.hours().count(),
                     time.clock.minutes().count(), time.clock.seconds().count(), time.nanoseconds,
                     isLocal ? "" : "Z"));
}

// Rounded down. Whole seconds of the first times of all have no place in 64 bits of nanoseconds.
std::chrono::seconds secondOf(std::int64_t timeNs) {
  return std::chrono::floor<std::chrono::seconds>(std::chrono::nanoseconds(timeNs));
}

std::chrono::days dayOf(std::int64_t timeNs) {
  return std::chrono::floor<std::chrono::days>(secondOf(timeNs));
}

}  // namespace

CalendarTime::CalendarTime(std::int64_t timeNs)
    : date(std::chrono::sys_days(dayOf(timeNs))),
      clock(secondOf(timeNs) - dayOf(timeNs)),
      nanoseconds((timeNs % kSecondNs + kSecondNs) % kSecondNs) {}

void TimeText::write(Output& out, std::int64_t timeNs) const {
  switch (form) {
    case TimeForm::Relative: {
      // The difference of any two times has a place in a float64, but not in 64 bits.
      constexpr double kSecond = 1e9;
      std::int64_t sinceStart = 0;
      const bool isFar = __builtin_sub_overflow(timeNs, startNs, &sinceStart);
      const double ns = isFar ? static_cast<double>(timeNs) - static_cast<double>(startNs)
                              : static_cast<double>(sinceStart);
      writeCsvNumber(out, ns / kSecond);
      return;
    }
    case TimeForm::Absolute:
      writeAbsolute(out, timeNs);
      return;
    case TimeForm::Iso:
      writeIso(out, timeNs, isLocal);
      return;
  }
}

}  // namespace tolvex
