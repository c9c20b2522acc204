// Checks files against the format, and recovers what damaged or unfinished ones hold.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tolvex/MdfExport.h"

namespace tolvex {

// Told now and then by long work, on the thread that called it: bytes of the input done, and all.
using MdfProgress = std::function<void(std::uint64_t done, std::uint64_t total)>;

// One thing that is wrong with a file, or odd.
struct MdfFinding {
  bool error = false;          // false: a warning; the file can be read as it was meant
  std::uint64_t position = 0;  // in the file: of the block or field that is meant
  std::string what;            // e.g. "CN block: cn_data_type"
  std::string expected;        // "" where there is nothing to compare
  std::string found;
};

struct MdfCheckReport {
  std::string failure;               // why the file could not be looked at; "" when it was
  std::vector<MdfFinding> findings;  // the first 1000, in the order in which they were met
  std::uint64_t errors = 0;          // all of them
  std::uint64_t warnings = 0;
};

// Checks a file against the format: every block that is linked, every list of data blocks, the
// records' number and times, variable-length values, and bytes that belong to no block. Stops at no
// finding and never throws. Bytes that the system fails to read are the first findings. A file that
// is no MDF 4 file at all has that as its one finding.
TOLVEX_EXPORT MdfCheckReport checkFile(const std::string& path,
                                       const MdfProgress& progress = nullptr);

// One channel group of a recovered file.
struct MdfRecoveredGroup {
  std::string name;                 // the acquisition name, else the comment, else ""
  std::int32_t dgIndex = -1;        // where it stood in the input; in the result each channel group
  std::int32_t cgIndex = -1;        // has a data group of its own, in the same order
  std::uint64_t records = 0;        // in the result
  std::uint64_t foundBlocks = 0;    // data blocks among them that no list named
  std::uint64_t lostRecords = 0;    // that the input held or names, as far as they can be counted
  std::vector<std::string> losses;  // what is missing and where, the first 100
  std::vector<std::string> repairs;  // what was put right without a loss, the first 100
};

struct MdfRecoveryReport {
  std::string failure;  // why there is no usable result; "" when it was written
  std::vector<MdfRecoveredGroup> groups;
  std::vector<std::string> losses;   // outside the groups, the first 100
  std::vector<std::string> repairs;  // likewise
  bool beyondLimit = false;          // the failure is that the result exceeds the allowed size
  bool lossless() const {
    bool whole = failure.empty() && losses.empty();
    for (const MdfRecoveredGroup& group : groups) {
      whole = whole && group.losses.empty() && group.lostRecords == 0;
    }
    return whole;
  }
};

struct MdfRecoverOptions {
  bool verify = false;  // read the result again: check it, and compare every record
  MdfProgress progress;
  // The most bytes that the result may have, as a small file can claim to hold a huge one; 0: any
  // number. By default 1,000 times the input's size, and at least 1 GiB.
  std::optional<std::uint64_t> maxOutput = std::nullopt;
  // Asked before every read and write, on the thread that called; true ends the recovery with the
  // failure "cancelled".
  std::function<bool()> cancelled = nullptr;
};

// Writes what is really there of `input` (finished or not, cut or damaged) into `output`, an
// existing file of that name included: a finalized, sorted file with one data group for each
// channel group. Needs memory for the channels, not for the records. Refuses to write over its
// input. Never throws. Bytes that the system fails to read are tried again, then taken for lost
// sector by sector, and named among the losses.
//
// The result grows in the output's folder under a name that nobody can foresee, and takes its own,
// with the input's permissions, when it is whole and on the disk: after a failure what had that
// name is as it was. Only a process that is killed leaves its tolvex-*.part behind. A device is
// written directly. Several threads may recover and check files at once; of those that recover into
// one output, the last wins.
TOLVEX_EXPORT MdfRecoveryReport recoverFile(const std::string& input, const std::string& output,
                                            const MdfRecoverOptions& options = {});

}  // namespace tolvex
