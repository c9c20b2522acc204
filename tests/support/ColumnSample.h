// A file with a column of each type, for tests that hand columns on.
#pragma once

#include <cstdint>

#include "tests/support/FileBuilder.h"

namespace tolvex::test {

inline constexpr std::uint64_t kSampleStart = 1'700'000'000'123'456'789;  // nanoseconds

// One group "sample" of so many records, a quarter of a second apart; of record i
//   big     2^64 - 1 - i        kmh    0.5 i + 1 (float64)      small  -i (int8)
//   text    "text i", none in each fifth                          bytes  i, 0xFE
//   status  "off", "on", i / 2 where i % 4 >= 2                   level  "low" or "high"
//   matrix  i + row * 3 + column (2 rows, 3 columns, int16)       beyond no values
//   checked i, invalid where i % 3 == 1
FileBuilder columnSample(unsigned records);

}  // namespace tolvex::test
