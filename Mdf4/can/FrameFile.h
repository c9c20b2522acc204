// The frames of one file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Mdf4/can/BusLogGroups.h"
#include "Mdf4/can/FrameLane.h"
#include "Mdf4/format/MDF4File.h"
#include "Mdf4/model/ChannelTree.h"
#include "Mdf4/model/FileTexts.h"
#include "Mdf4/model/RecordingData.h"
#include "tolvex/MdfFrameReader.h"

namespace tolvex {

// An open file with a lane for each sequence of records that holds frames, by data group. It stays
// where it is. Closes the file at its end.
class FrameFile {
 public:
  FrameFile() = default;
  FrameFile(const FrameFile&) = delete;
  FrameFile& operator=(const FrameFile&) = delete;
  ~FrameFile();

  // False when it is no file to read; error() says why.
  [[nodiscard]] bool open(const std::string& path);
  const std::string& error() const { return file_.error(); }
  const std::vector<std::string>& problems() const { return file_.problems().texts(); }
  // That of the problems which says what an unusual file was taken for; "" for any other file.
  const std::string& notice() const { return notice_; }

  const M4HDBlock& header() const { return *file_.header(); }
  const std::vector<std::unique_ptr<FrameLane>>& lanes() const { return lanes_; }
  const std::vector<MdfFrameGroup>& groups() const { return groups_; }

 private:
  // What one data group's records hold.
  struct Found {
    const ModelDataGroup* data;
    std::vector<std::vector<FrameSource>> sources;  // by channel group
  };

  void describe(const ModelGroup& group, bool isRead);
  void addLanes(const Found& found, LaneSettings settings);
  void addSorted(const ModelGroup& group, const std::vector<FrameSource>& sources,
                 const LaneSettings& settings);
  void addMixed(const Found& found, const LaneSettings& settings);

  MDF4File file_;
  FileTexts texts_{file_};
  ChannelTree tree_;
  RecordingData data_{file_, tree_};
  std::string notice_;
  std::vector<MdfFrameGroup> groups_;
  std::vector<std::unique_ptr<FrameLane>> lanes_;
};

}  // namespace tolvex
