// How large a result may become.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>

namespace tolvex {

// Bytes. A few compressed bytes may stand for a thousand times as many, and what is made of those
// may be larger still: unless something else is `chosen`, where 0 stands for no limit, a result is
// allowed 1,000 times the size of its input, and at least 1 GiB.
inline std::uint64_t outputLimit(std::optional<std::uint64_t> chosen, std::uint64_t inputBytes) {
  constexpr std::uint64_t kUnlimited = std::numeric_limits<std::uint64_t>::max();
  constexpr std::uint64_t kFactor = 1000;
  constexpr std::uint64_t kLeast = std::uint64_t{1} << 30;
  if (chosen) return *chosen != 0 ? *chosen : kUnlimited;
  return std::max(kLeast, inputBytes > kUnlimited / kFactor ? kUnlimited : inputBytes * kFactor);
}

}  // namespace tolvex
