// A record on its way to becoming a frame.
#pragma once

#include <cstdint>

namespace tolvex {

struct FrameEntry {
  static constexpr std::uint32_t kNotYet = ~std::uint32_t{0};

  std::int64_t timeNs = 0;                // since 1970
  std::uint64_t number = 0;               // in its group
  const std::uint8_t* record = nullptr;   // without its id
  const std::uint8_t* payload = nullptr;  // outside of the record; null: there is none
  std::uint32_t payloadLength = 0;        // kNotYet: it is still to come
  std::uint32_t source = 0;               // whose records its lane knows apart
};

}  // namespace tolvex
