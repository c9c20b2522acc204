// The clocks, which the standard library knows on every system.
#include "Mdf4/base/System.h"

#include <chrono>

namespace tolvex {

std::uint64_t systemTicks() {
  using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<Ticks>(now).count());
}

std::uint64_t steadyMilliseconds() {
  using std::chrono::milliseconds;
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<milliseconds>(now).count());
}

}  // namespace tolvex
