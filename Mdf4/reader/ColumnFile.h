// One file of those that are read as columns.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/model/ChannelTree.h"
#include "Mdf4/model/RecordingData.h"
#include "Mdf4/reader/ColumnPlan.h"
#include "tolvex/MdfColumnReader.h"

namespace tolvex {

// Opens a file, however unfinished, and describes what there is to read. Not synchronised.
class ColumnFile {
 public:
  // One of many is closed whenever nothing is read of it.
  explicit ColumnFile(std::string path, bool isOneOfMany = false)
      : path_(std::move(path)), isOneOfMany_(isOneOfMany) {}
  ColumnFile(const ColumnFile&) = delete;
  ColumnFile& operator=(const ColumnFile&) = delete;
  ~ColumnFile() { file_.Close(); }

  // What is read when a file is opened: all that describes it, or what its groups need alone.
  enum class Extent : std::uint8_t { All, Groups };
  // False when it cannot be opened: error() says why. Throws std::bad_alloc.
  [[nodiscard]] bool open(Extent extent = Extent::All);
  const std::string& error() const { return file_.error(); }
  const std::string& path() const { return path_; }
  // Of a recording that started then; without it, its own start counts.
  void isPartOf(std::int64_t recordingStartNs) { recordingStartNs_ = recordingStartNs; }
  // What it was taken for, when it is unusual; "" else. Also one of the problems.
  const std::string& notice() const { return notice_; }
  ProblemLog& problems() { return file_.problems(); }
  std::uint64_t size() const { return file_.end(); }  // bytes
  // Whether groups may state how many records they have.
  bool hasCounts() const {
    return !file_.isUnfinished() || !has(file_.id().id_unfin_flags, Unfinished::CycleCounts);
  }

  const MdfRecordingInfo& info() const { return info_; }
  const ChannelTree& tree() const { return tree_; }
  // As the tree's, one by one.
  std::vector<MdfColumnGroup> describe();
  // Of a channel of the tree; with its time, when it is a master of time.
  ColumnPlan plan(const ModelGroup& group, const ModelChannel& channel);

  RecordingData& data() { return data_; }
  bool isOneOfMany() const { return isOneOfMany_; }
  // The file once more, for another thread: what reads there shares nothing with this. Null when
  // it is no longer the same file.
  struct Again;
  std::unique_ptr<Again> again() const;

 private:
  void describeRecording(Extent extent);
  MdfColumnGroup describe(const ModelGroup& group);
  MdfColumnChannel describe(const ModelGroup& group, const ModelChannel& channel);

  const std::string path_;
  const bool isOneOfMany_;
  MDF4File file_;
  FileTexts texts_{file_, TextForm::Checked};
  ConversionLoader conversions_{file_, texts_};
  ChannelTree tree_;
  RecordingData data_{file_, tree_};
  MdfRecordingInfo info_;
  std::string notice_;
  std::int64_t recordingStartNs_ = 0;
};

struct ColumnFile::Again {
  explicit Again(const ChannelTree& tree) : data(file, tree) {}
  Again(const Again&) = delete;
  Again& operator=(const Again&) = delete;
  ~Again() { file.Close(); }

  MDF4File file;
  RecordingData data;
};

}  // namespace tolvex
