// What a file holds, from its headers.
#pragma once

#include <cstdint>
#include <string>

#include "tolvex/MdfColumnReader.h"

namespace tolvex {

struct FileSummary {
  MdfRecordingInfo info;  // without properties, history, attachments and events
  std::uint64_t bytes = 0;
  // Of the earliest record and of the latest one, as far as the first and last records of sorted
  // groups tell; kMdfNoTime: they do not.
  std::int64_t firstNs = kMdfNoTime;
  std::int64_t lastNs = kMdfNoTime;
  // As the file states them; of a recording that was not finished, those of sorted groups that are
  // there.
  std::uint64_t records = 0;
  std::uint64_t frames = 0;    // CAN frames: so many of the records
  std::uint64_t problems = 0;  // beside that it was not finished
  std::size_t groups = 0;
  std::size_t channels = 0;
  bool isFinalized = false;
};

// Opens the file and closes it again. Reads no records but the first and the last one of each
// sorted group. False when it cannot be opened: `error` says why. Throws std::bad_alloc.
[[nodiscard]] bool summarizeFile(const std::string& path, FileSummary& summary, std::string& error);

}  // namespace tolvex
