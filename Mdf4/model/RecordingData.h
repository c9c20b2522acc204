// Where the records and values of an open file are, also of one that nobody finished.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "Mdf4/model/ChannelTree.h"
#include "Mdf4/model/MixedRecords.h"
#include "Mdf4/model/RecordBatches.h"
#include "Mdf4/model/ValueSource.h"

namespace tolvex {

// Data blocks are opened once and shared by whoever reads them. Where they are not what the file
// states, as in recordings that were killed, never finalized or are damaged, what there is of them
// counts. Borrows file and tree, which stay where they are. Not synchronised.
class RecordingData {
 public:
  RecordingData(MDF4File& file, const ChannelTree& tree) : file_(file), tree_(tree) {}

  // Reports, in one problem, when the recording was not finished and so is taken for what is there.
  // Gives that problem, or "".
  std::string reportUnfinished();

  // The records of a group; null, and reported, when they cannot be told apart. When nobody has
  // them any more, those that were asked for last are given again: reading on costs no second
  // inflating.
  std::shared_ptr<RecordBatches> batches(const ModelGroup& group);
  // The values of a channel whose records have offsets; null when there are none.
  std::unique_ptr<ValueSource> values(const ModelGroup& group, const ModelChannel& channel);
  // The sequence that a group's records are in, with those of others or with ids; null when it
  // cannot be read.
  std::shared_ptr<MixedRecords> mixed(const ModelGroup& group);
  // Blocks whose length nothing else in the file states: values, and records of several groups.
  std::shared_ptr<SegmentTable> valueTable(std::uint64_t dataLink);
  // Nothing is read for a while.
  void rest() { file_.rest(); }

 private:
  std::shared_ptr<RecordBatches> newBatches(const ModelGroup& group);
  void reportUnreadable(const ModelDataGroup& data, const std::string& why);
  std::shared_ptr<SegmentTable> recordTable(const ModelGroup& group);
  std::shared_ptr<SegmentTable> whatIsThere(std::uint64_t dataLink);
  std::uint64_t endOfLast(std::uint64_t position) const;
  static bool isAlone(const ModelDataGroup& data);
  bool hasUncounted(const ModelDataGroup& data);
  void findUnlisted();

  MDF4File& file_;
  const ChannelTree& tree_;
  std::unordered_map<std::uint64_t, std::shared_ptr<SegmentTable>> tables_;  // by data link
  std::unordered_map<std::size_t, std::shared_ptr<MixedRecords>> mixed_;     // by data group
  bool unlistedAreFound_ = false;
  const ModelGroup* lastGroup_ = nullptr;
  std::shared_ptr<RecordBatches> lastBatches_;
};

}  // namespace tolvex
