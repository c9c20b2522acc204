#include "Progress.h"

#include <fmt/format.h>

#include <cstdio>
#include <utility>

#include "PrintableText.h"
#include "System.h"

namespace tolvex {

namespace {

constexpr std::chrono::milliseconds kPeriod(200);
constexpr const char* kClearLine = "\r\x1b[K";

}  // namespace

Progress::Progress(std::string_view what, std::uint64_t total, std::string unit)
    : what_(printable(what)),
      total_(total),
      unit_(std::move(unit)),
      shown_(isTerminal(kStandardError)),
      next_(std::chrono::steady_clock::now() + kPeriod) {}

Progress::~Progress() {
  clear();
}

void Progress::update(std::uint64_t done) {
  const auto now = std::chrono::steady_clock::now();
  if (!shown_ || now < next_) {
    return;
  }
  next_ = now + kPeriod;
  const double percent = 100.0 * static_cast<double>(done) / static_cast<double>(total_);
  show(fmt::format("{:.0f} % ({} of {} {})", percent, done, total_, unit_));
}

void Progress::show(std::string_view state) {
  if (shown_) {
    const std::string text = fmt::format("{}{}: {}", kClearLine, what_, state);
    std::fwrite(text.data(), 1, text.size(), stderr);
  }
}

void Progress::clear() {
  if (shown_) {
    std::fputs(kClearLine, stderr);
  }
}

}  // namespace tolvex
