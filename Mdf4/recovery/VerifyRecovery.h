// Reads the result of a recovery again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tolvex/Mdf4.h"

namespace tolvex {

// What was written for one group's records or one channel's values.
struct GroupChecksum {
  std::uint64_t dataLink = 0;
  std::uint64_t bytes = 0;
  std::uint32_t checksum = 0;  // CRC-32 of them
};

// Checks the file, and that what stands behind each link is what was written. Why it is not as it
// should be, or "".
std::string verifyRecovery(const std::string& path, const std::vector<GroupChecksum>& written,
                           const MdfProgress& progress);

}  // namespace tolvex
