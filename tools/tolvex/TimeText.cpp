#include "TimeText.h"

#include <fmt/compile.h>
#include <fmt/format.h>

#include <chrono>

#include "CsvCell.h"

namespace tolvex {

namespace {

constexpr std::size_t kRoom = 64;  // more characters than any time has

void writeAbsolute(Output& out, std::int64_t timeNs) {
  constexpr std::uint64_t kSecond = 1'000'000'000;
  const auto bits = static_cast<std::uint64_t>(timeNs);
  const std::uint64_t size = timeNs < 0 ? ~bits + 1 : bits;
  if (timeNs < 0) {
    out.write('-');
  }
  out.advance(
      fmt::format_to(out.room(kRoom), FMT_COMPILE("{}.{:09}"), size / kSecond, size % kSecond));
}

void writeIso(Output& out, std::int64_t timeNs, bool isLocal) {
  using namespace std::chrono;
  const nanoseconds time(timeNs);
  const days day = floor<days>(time);
  const year_month_day date{sys_days(day)};
  const hh_mm_ss clock{time - day};
  out.advance(fmt::format_to(
      out.room(kRoom), FMT_COMPILE("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:09}{}"),
      static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
      static_cast<unsigned>(date.day()), clock.hours().count(), clock.minutes().count(),
      clock.seconds().count(), clock.subseconds().count(), isLocal ? "" : "Z"));
}

}  // namespace

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
