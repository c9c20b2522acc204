// How much of a file the check and the recovery take in one step.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tolvex/Mdf4.h"

namespace tolvex {

// Large enough that calls to the system do not count, small enough that a host does not notice.
// Smaller ones let small files reach every seam; no size may be 0.
struct WorkSizes {
  std::uint64_t piece = 256 << 10;  // bytes that are read, or come out of an inflater, at a time
  std::uint64_t block = 256 << 10;  // data bytes of a block that is written
  std::size_t blocksPerList = 4096;
  std::uint64_t farthest = 1 << 20;  // bytes in which the next sound record is looked for at a time
  std::size_t waiting = 256;         // records of a group whose value has not come
  std::size_t recent = 1024;         // values of a channel that a record may still name
  std::uint64_t held = 16 << 20;     // bytes of an inflated block that is looked at as a whole
};

// checkFile and recoverFile of tolvex/Mdf4.h, with steps of these sizes.
MdfCheckReport checkFile(const std::string& path, const MdfProgress& progress,
                         const WorkSizes& sizes);
MdfRecoveryReport recoverFile(const std::string& input, const std::string& output,
                              const MdfRecoverOptions& options, const WorkSizes& sizes);

}  // namespace tolvex
