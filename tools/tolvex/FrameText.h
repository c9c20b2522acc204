// CAN frames as lines of text.
#pragma once

#include <tolvex/MdfFrameReader.h>

#include <cstdint>
#include <string>

#include "Output.h"

namespace tolvex {

enum class FrameFormat { Candump, Csv, Ndjson };

// Writes frames in one format. Borrows `out`, which must outlive it.
class FrameText {
 public:
  // `startTimeNs`: the recording's start, from which frames state their times, too. `shiftNs` is
  // added to times since 1970.
  FrameText(Output& out, FrameFormat format, std::int64_t startTimeNs, std::int64_t shiftNs)
      : out_(out),
        format_(format),
        startTimeNs_(static_cast<std::uint64_t>(startTimeNs)),
        shiftNs_(shiftNs) {}

  // What stands before the first frame: the names of the fields in csv, nothing otherwise.
  void writeHeader();
  void write(const MdfFrameView& frame);

 private:
  // A point in time since 1970: whole seconds, rounded down, and nanoseconds on top.
  struct Instant {
    std::int64_t seconds;
    std::uint32_t nanoseconds;
  };

  std::int64_t sinceStart(const MdfFrameView& frame) const {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(frame.timeNs) - startTimeNs_);
  }
  Instant instantOf(const MdfFrameView& frame) const;
  char* putSeconds(char* at, Instant time, int digits);
  char* putCandump(char* at, const MdfFrameView& frame);
  char* putRow(char* at, const MdfFrameView& frame);

  Output& out_;
  FrameFormat format_;
  std::uint64_t startTimeNs_;
  std::int64_t shiftNs_;
  std::int64_t lastSeconds_ = -1;  // that were written,
  std::string lastSecondsText_;    // and how
};

}  // namespace tolvex
