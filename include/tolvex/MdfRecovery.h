// Checks files against the format, and recovers what damaged or unfinished ones hold.
//
// Both functions work by themselves, without a reader, and never throw. Any number of threads may
// call them at once. Positions and sizes are bytes.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tolvex/MdfExport.h"

namespace tolvex {

// Called periodically during long operations, on the thread that called the function: how many
// bytes of the input are done, and its size. What it throws ends the operation: its text is the
// failure.
using MdfProgress = std::function<void(std::uint64_t done, std::uint64_t total)>;

// One thing in a file that is wrong, or unusual.
struct MdfFinding {
  // True: data are lost or misread. False: a warning; the file can be read as it was meant.
  bool error = false;
  std::uint64_t position = 0;  // in the file: of the block or field in question
  std::string what;            // e.g. "CN block: cn_data_type"
  // As texts; "" where there is nothing to compare.
  std::string expected;
  std::string found;
};

// What checkFile found.
struct MdfCheckReport {
  // Why the file could not be checked, e.g. that it cannot be opened; "" when it was.
  std::string failure;
  // The first 1000, in the order in which they were found; the counts are of all.
  std::vector<MdfFinding> findings;
  std::uint64_t errors = 0;
  std::uint64_t warnings = 0;
};

// Checks a file against the format: every block that is linked, every list of data blocks, the
// records' number and times, variable-length values, and bytes that belong to no block. Continues
// after each finding. Bytes that the system fails to read are the first findings. A file that is
// not an MDF 4 file has that as its only finding.
//
//   const tolvex::MdfCheckReport report = tolvex::checkFile("drive.mf4");
//   if (!report.failure.empty()) std::fprintf(stderr, "%s\n", report.failure.c_str());
//   for (const tolvex::MdfFinding& finding : report.findings) {
//     std::printf("%s at %llu: %s\n", finding.error ? "error" : "warning",
//                 static_cast<unsigned long long>(finding.position), finding.what.c_str());
//   }
[[nodiscard]] TOLVEX_EXPORT MdfCheckReport checkFile(const std::string& path,
                                                     const MdfProgress& progress = nullptr);

// One channel group of a recovered file.
struct MdfRecoveredGroup {
  // The acquisition name, else the comment, else "".
  std::string name;
  // Where it was in the input. In the result every channel group has a data group of its own, in
  // the order of MdfRecoveryReport::groups.
  std::int32_t dgIndex = -1;
  std::int32_t cgIndex = -1;
  std::uint64_t records = 0;      // in the result
  std::uint64_t foundBlocks = 0;  // data blocks that no list named and that hold some of them
  // Records that the input held or names and the result lacks, as far as they can be counted.
  std::uint64_t lostRecords = 0;
  // What is missing and where, and what was corrected without a loss; the first 100 texts of each.
  std::vector<std::string> losses;
  std::vector<std::string> repairs;
};

// What recoverFile made of a file.
struct MdfRecoveryReport {
  // Why there is no result; "" when there is one.
  std::string failure;
  // In the order of the result.
  std::vector<MdfRecoveredGroup> groups;
  // What concerns no single group, the first 100 texts of each.
  std::vector<std::string> losses;
  std::vector<std::string> repairs;
  // Whether it failed because the result would exceed MdfRecoverOptions::maxOutput.
  bool beyondLimit = false;
  // Whether there is a result that has everything.
  bool lossless() const {
    bool whole = failure.empty() && losses.empty();
    for (const MdfRecoveredGroup& group : groups) {
      whole = whole && group.losses.empty() && group.lostRecords == 0;
    }
    return whole;
  }
};

struct MdfRecoverOptions {
  // Reads the result again, checks it and compares every record. What differs is a failure.
  bool verify = false;
  MdfProgress progress;
  // The largest result in bytes, as a small file can claim to hold a huge one; 0: no limit. By
  // default 1,000 times the input's size, and at least 1 GiB.
  std::optional<std::uint64_t> maxOutput = std::nullopt;
  // Asked before every read and write, on the thread that called; true ends the recovery with the
  // failure "cancelled". May throw as MdfProgress.
  std::function<bool()> cancelled = nullptr;
  // Fails when there is a file of the output's name, instead of replacing it.
  bool keepExisting = false;
};

// Writes everything recoverable from `input` (finished or not, cut or damaged) into `output`, which
// is replaced if it exists, unless it is to be kept: a finalized, sorted file with one data group
// for each channel group. The input stays as it is; it cannot be the output. Memory grows with the
// channels, not with the records. Bytes that the system fails to read are tried again, then counted
// as lost sector by sector, and listed among the losses.
//
//   const auto report = tolvex::recoverFile("killed.mf4", "recovered.mf4");
//   if (!report.failure.empty()) std::fprintf(stderr, "%s\n", report.failure.c_str());
//   for (const tolvex::MdfRecoveredGroup& group : report.groups) {
//     std::printf("%s: %llu records\n", group.name.c_str(),
//                 static_cast<unsigned long long>(group.records));
//   }
//
// The result is written in the output's folder under a random name, and takes its own, with the
// input's permissions, when it is complete and on the disk; after a failure a file that had the
// name is unchanged. Only a killed process leaves its tolvex-*.part behind. A device is written
// directly. Of several calls with the same output, the last one to finish wins.
[[nodiscard]] TOLVEX_EXPORT MdfRecoveryReport recoverFile(const std::string& input,
                                                          const std::string& output,
                                                          const MdfRecoverOptions& options = {});

}  // namespace tolvex
