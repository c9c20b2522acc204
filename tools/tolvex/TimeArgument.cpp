#include "TimeArgument.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string_view>

namespace tolvex {

namespace {

constexpr std::int64_t kSecondNs = 1'000'000'000;
constexpr double kFirstSince1970 = 1e8;  // seconds
constexpr double kMostNs = 9.2e18;
constexpr std::size_t kNsDigits = 9;

// Reads a text from its front.
class Digits {
 public:
  explicit Digits(std::string_view text) : rest_(text) {}

  bool atEnd() const { return rest_.empty(); }
  bool take(char character) {
    if (rest_.empty() || rest_.front() != character) {
      return false;
    }
    rest_.remove_prefix(1);
    return true;
  }
  // A number of so many digits; -1 when there are fewer.
  int number(std::size_t digits) {
    int value = 0;
    for (std::size_t i = 0; i < digits; ++i) {
      if (i >= rest_.size() || rest_[i] < '0' || rest_[i] > '9') {
        return -1;
      }
      value = value * 10 + (rest_[i] - '0');
    }
    rest_.remove_prefix(digits);
    return value;
  }
  // The digits behind a point as nanoseconds: at least one; those beyond the ninth are dropped.
  std::optional<std::int64_t> fraction() {
    std::int64_t ns = 0;
    std::size_t count = 0;
    for (int digit = number(1); digit >= 0; digit = number(1), ++count) {
      ns = count < kNsDigits ? ns * 10 + digit : ns;
    }
    for (std::size_t i = count; i < kNsDigits; ++i) {
      ns *= 10;
    }
    return count == 0 ? std::nullopt : std::optional(ns);
  }

 private:
  std::string_view rest_;
};

// Digits with a point or without one: exact, where a double would round.
std::optional<std::int64_t> plainSeconds(std::string_view text) {
  constexpr auto kMostSeconds = static_cast<std::int64_t>(kMostNs) / kSecondNs;
  Digits digits(text);
  std::int64_t seconds = digits.number(1);
  for (int digit = digits.number(1); digit >= 0; digit = digits.number(1)) {
    seconds = seconds * 10 + digit;
    if (seconds > kMostSeconds) {
      return std::nullopt;
    }
  }
  const auto fraction = digits.take('.') ? digits.fraction() : std::optional<std::int64_t>(0);
  if (seconds < 0 || !fraction || !digits.atEnd()) {
    return std::nullopt;
  }
  return seconds * kSecondNs + *fraction;
}

std::optional<TimeArgument> parseNumber(const std::string& text) {
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str(), &end);
  if (text.empty() || end != text.c_str() + text.size() || std::isnan(seconds)) {
    return std::nullopt;
  }
  const double ns = std::round(seconds * static_cast<double>(kSecondNs));
  const auto from =
      seconds >= kFirstSince1970 ? TimeArgument::From::Clock : TimeArgument::From::Start;
  return TimeArgument{from, plainSeconds(text).value_or(
                                static_cast<std::int64_t>(std::clamp(ns, -kMostNs, kMostNs)))};
}

// "04:34", "04:34:14" or "04:34:14.5", as nanoseconds since midnight.
std::optional<std::int64_t> parseClock(Digits& digits) {
  const int hour = digits.number(2);
  const bool hasMinute = digits.take(':');
  const int minute = hasMinute ? digits.number(2) : -1;
  const int second = digits.take(':') ? digits.number(2) : 0;
  const auto fraction = digits.take('.') ? digits.fraction() : std::optional<std::int64_t>(0);
  if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 60 ||
      !fraction) {
    return std::nullopt;
  }
  return (hour * 3600LL + minute * 60LL + second) * kSecondNs + *fraction;
}

// What a clock there shows beside one in UTC, "Z", "+02:00", "+0200" or "+02", in nanoseconds.
std::optional<std::int64_t> parseZone(Digits& digits) {
  if (digits.take('Z') || digits.take('z')) {
    return 0;
  }
  const bool isWest = digits.take('-');
  if (!isWest && !digits.take('+')) {
    return std::nullopt;
  }
  const int hours = digits.number(2);
  const bool hasColon = digits.take(':');
  const int minutes = hasColon || !digits.atEnd() ? digits.number(2) : 0;
  if (hours < 0 || minutes < 0 || minutes > 59) {
    return std::nullopt;
  }
  const std::int64_t ns = (hours * 3600LL + minutes * 60LL) * kSecondNs;
  return isWest ? -ns : ns;
}

std::optional<TimeArgument> parseDate(const std::string& text) {
  using namespace std::chrono;
  Digits digits(text);
  const int yearNumber = digits.number(4);
  const int monthNumber = digits.take('-') ? digits.number(2) : -1;
  const int dayNumber = digits.take('-') ? digits.number(2) : -1;
  if (yearNumber < 0 || monthNumber < 0 || dayNumber < 0) {
    return std::nullopt;
  }
  const year_month_day date{year(yearNumber), month(static_cast<unsigned>(monthNumber)),
                            day(static_cast<unsigned>(dayNumber))};
  constexpr int kFirstYear = 1678;  // those that nanoseconds since 1970 in 64 bits reach
  constexpr int kLastYear = 2261;
  if (!date.ok() || yearNumber < kFirstYear || yearNumber > kLastYear) {
    return std::nullopt;
  }
  TimeArgument time{TimeArgument::From::Clock,
                    sys_days(date).time_since_epoch().count() * 24 * 3600 * kSecondNs};
  if (digits.atEnd()) {
    return time;
  }
  const bool hasClock = digits.take('T') || digits.take('t') || digits.take(' ');
  const auto clock = hasClock ? parseClock(digits) : std::nullopt;
  if (!clock) {
    return std::nullopt;
  }
  time.ns += *clock;
  if (digits.atEnd()) {
    return time;
  }
  const auto zone = parseZone(digits);
  if (!zone || !digits.atEnd()) {
    return std::nullopt;
  }
  return TimeArgument{TimeArgument::From::Utc, time.ns - *zone};
}

}  // namespace

std::optional<TimeArgument> TimeArgument::parse(const std::string& text) {
  const auto number = parseNumber(text);
  return number ? number : parseDate(text);
}

void addTimeArgument(CLI::App& command, const char* name, std::optional<TimeArgument>& time,
                     const char* help) {
  command
      .add_option_function<std::string>(
          name, [&time](const std::string& text) { time = TimeArgument::parse(text); }, help)
      ->type_name("TIME")
      ->check(
          [](const std::string& text) {
            return TimeArgument::parse(text) ? "" : "neither seconds nor a date: " + text;
          },
          "");
}

}  // namespace tolvex
