// What there is to show of measurement files.
#pragma once

#include <tolvex/MdfColumnReader.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "BusStatistics.h"
#include "TimeSpan.h"

namespace tolvex {

// When the first record of a group is, and the last one.
struct GroupTimes {
  TimeSpan span;
  double firstSeconds = 0;  // since the recording's start
  double lastSeconds = 0;

  double duration() const { return lastSeconds - firstSeconds; }
};

// One of the files, while it is open.
struct InfoFile {
  const std::string& path;
  std::uint64_t size = 0;  // bytes
  const MdfRecordingInfo& info;
  const std::vector<std::string> notices;
};

// Files that are read as one recording. Borrows the reader, which is open.
class InfoSubject {
 public:
  InfoSubject(MdfColumnReader& reader, const std::vector<std::string>& files);

  // Reads the frames of all buses. What it meets beside what the other reader has is in problems().
  void countFrames(const BitRates& rates);

  const std::vector<std::string>& files() const { return files_; }
  std::uint64_t size() const;  // of all, bytes
  void forEachFile(const std::function<void(const InfoFile&)>& visit) const;
  const MdfRecordingInfo& recording() const { return reader_.info(); }
  std::vector<std::string> notices() const { return reader_.notices(); }

  const std::vector<MdfColumnGroup>& groups() const { return reader_.groups(); }
  // Nothing where they are unknown, or no such ones.
  const std::optional<GroupTimes>& timesOf(std::size_t group) const { return times_[group]; }
  const TimeSpan& span() const { return span_; }  // of all groups
  double secondsOf(std::int64_t timeNs) const;    // since the recording's start
  const std::map<std::uint16_t, BusStatistics>& buses() const { return buses_; }
  const std::vector<std::string>& problems() const { return problems_; }

 private:
  std::optional<GroupTimes> readTimes(std::size_t group);

  MdfColumnReader& reader_;
  const std::vector<std::string>& files_;
  std::vector<std::optional<GroupTimes>> times_;  // by group
  TimeSpan span_;
  std::map<std::uint16_t, BusStatistics> buses_;
  std::vector<std::string> problems_;
};

// The start of a text that is longer than anyone reads, else the text.
std::string shortened(std::string_view text, std::size_t longest = 4096);

// The acquisition name of a group, else its comment.
std::string_view titleOf(const MdfColumnGroup& group);

// "2021-07-26T04:34:14.5Z": a fraction only as far as there is one; in local time without the Z.
std::string isoText(std::int64_t timeNs, bool isLocal);

}  // namespace tolvex
