// CAN frames as lines of text.
#pragma once

#include <tolvex/Mdf4.h>

#include <cstdint>

#include "Output.h"

namespace tolvex {

enum class FrameFormat { Candump, Csv, Ndjson };

// Writes frames in one format. Borrows `out`, which must outlive it.
class FrameText {
 public:
  // `startTimeNs`: the recording's start, nanoseconds since 1970 in UTC.
  FrameText(Output& out, FrameFormat format, std::uint64_t startTimeNs)
      : out_(out), format_(format), startTimeNs_(startTimeNs) {}

  // What stands before the first frame: the names of the fields in csv, nothing otherwise.
  void writeHeader();
  void write(const MdfCanMessage& message);
  void write(const MdfCanError& error);

 private:
  Output& out_;
  FrameFormat format_;
  std::uint64_t startTimeNs_;
};

}  // namespace tolvex
