// The groups of several files as those of one recording.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Mdf4/reader/ColumnFile.h"
#include "tolvex/MdfColumnReader.h"

namespace tolvex {

// One group, and where its records are: in one file behind the other.
struct RecordingGroup {
  struct Member {
    std::size_t file = 0;
    std::size_t group = 0;  // of the file's tree
    std::uint64_t records = 0;
  };
  std::vector<Member> members;  // at least one
  // The channel that counts from the start of the first file; -1: none.
  std::int32_t inSeconds = -1;
};

// Those of all files, which are in order. Groups of the same name and layout continue each other:
// the first one of a file that of the file before, and so on.
struct RecordingGroups {
  RecordingGroups() = default;
  explicit RecordingGroups(const std::vector<std::unique_ptr<ColumnFile>>& files);

  std::vector<RecordingGroup> groups;
  std::vector<MdfColumnGroup> described;  // likewise
};

}  // namespace tolvex
