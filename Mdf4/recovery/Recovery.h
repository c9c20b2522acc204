// The work of a recovery, from one open file into another.
#pragma once

#include <memory>
#include <vector>

#include "Mdf4/base/System.h"
#include "Mdf4/format/WorkSizes.h"
#include "Mdf4/recovery/VerifyRecovery.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

struct RecoveryResult {
  MdfRecoveryReport report;
  std::vector<GroupChecksum> checksums;  // of what was written; computed for options.verify only
};

// Writes all of the result into `output`, an empty file, and closes it. May throw; the result is
// then as unusable as after a failure.
RecoveryResult recoverBetween(std::unique_ptr<SystemFile> input, std::unique_ptr<SystemFile> output,
                              const MdfRecoverOptions& options, const WorkSizes& sizes = {});

}  // namespace tolvex
