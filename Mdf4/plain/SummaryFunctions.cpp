// Plain functions: the summary of a file.
#include <algorithm>
#include <cstring>
#include <string>

#include "Mdf4/can/FileSummary.h"
#include "Mdf4/plain/Plain.h"
#include "tolvex/MdfColumns.h"

namespace tolvex::plain {
namespace {

tolvex_summary describe(const FileSummary& summary) {
  tolvex_summary described = {};
  described.bytes = summary.bytes;
  described.start_time_ns = summary.info.startTimeNs;
  described.first_time_ns = summary.firstNs;
  described.last_time_ns = summary.lastNs;
  described.records = summary.records;
  described.frames = summary.frames;
  described.problem_count = summary.problems;
  described.version = summary.info.version;
  described.group_count = static_cast<std::uint32_t>(summary.groups);
  described.channel_count = static_cast<std::uint32_t>(summary.channels);
  described.start_is_local = summary.info.startIsLocal ? 1 : 0;
  described.utc_offset_minutes = summary.info.utcOffsetMinutes;
  described.is_finalized = summary.isFinalized ? 1 : 0;
  // Of 8 bytes that are no UTF-8 each takes 3.
  const std::string& program = summary.info.program;
  std::size_t length = std::min(program.size(), sizeof described.program - 1);
  while (length < program.size() && (static_cast<unsigned char>(program[length]) & 0xC0) == 0x80) {
    --length;
  }
  program.copy(described.program, length);
  return described;
}

}  // namespace
}  // namespace tolvex::plain

using namespace tolvex::plain;

tolvex_status tolvex_summarize_file(const char* path, tolvex_summary* summary, char* error,
                                    size_t error_size) {
  return ErrorText(error, error_size).of([&](LastError& failure) -> tolvex_status {
    if (path == nullptr) return failure.setFixed(TOLVEX_ERROR_ARGUMENT, kNoPath);
    if (tolvex_summary sized; !take(summary, sized)) {
      return failure.setFixed(TOLVEX_ERROR_ARGUMENT, kNoSize);
    }
    tolvex::FileSummary found;
    std::string why;
    if (!tolvex::summarizeFile(path, found, why)) return failed(failure, why, TOLVEX_ERROR_FILE);
    return fill(summary, describe(found)) ? TOLVEX_OK : TOLVEX_ERROR_ARGUMENT;
  });
}
