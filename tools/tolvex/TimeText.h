// Times of records as cells of a CSV file.
#pragma once

#include <tolvex/MdfColumnReader.h>

#include <chrono>
#include <cstdint>

#include "Output.h"

namespace tolvex {

// A time as calendar and clock tell it.
struct CalendarTime {
  // `timeNs`: since 1970-01-01 00:00.
  explicit CalendarTime(std::int64_t timeNs);

  std::chrono::year_month_day date;
  std::chrono::hh_mm_ss<std::chrono::seconds> clock;
  std::int64_t nanoseconds;  // behind the second
};

enum class TimeForm {
  Relative,  // seconds since the recording's start, the shortest number that reads back the same
  Absolute,  // seconds since 1970-01-01 00:00 with nine digits behind the point
  Iso,       // "2021-07-26T04:34:14.500000000Z"
};

struct TimeText {
  TimeForm form = TimeForm::Relative;
  std::int64_t startNs = 0;  // of the recording, since 1970
  bool isLocal = false;      // the time of an unknown place: without a Z

  static TimeText of(const MdfRecordingInfo& info, TimeForm form) {
    return {form, info.startTimeNs, info.startIsLocal};
  }
  // Writes the time that is so many nanoseconds since 1970.
  void write(Output& out, std::int64_t timeNs) const;
};

}  // namespace tolvex
