// The file under construction: identification, header block, and the tree of groups behind it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/m4Block.h"

namespace tolvex {

// Opens a file for DirectFile; a test hands in one that fails.
using FileOpener = std::function<std::unique_ptr<SystemFile>(const std::string& path, OpenMode mode,
                                                             std::string& error)>;

class CustomDGBlock;
class Mdf4DataStream;

// The header block, and the last data group of its list.
class HeaderBlock : public M4HDBlock {
 public:
  // Appends a data group that has its place in the file: links it behind the last one and writes
  // the links. False when a write fails; the group is then in no list.
  [[nodiscard]] bool append(const std::shared_ptr<CustomDGBlock>& group);

 private:
  std::shared_ptr<CustomDGBlock> lastGroup_;
};

// A channel group: 6 links, whatever the file's version.
class CustomCGBlock : public M4CGBlock {
 public:
  CustomCGBlock() : M4CGBlock(410) {}
};

// A data group without record ids, and the last channel group of its list.
class CustomDGBlock : public M4DGBlock {
 public:
  // Writes a new channel group at the end of the file and links it. Null when a write fails.
  std::shared_ptr<CustomCGBlock> addChannelGroup();

 private:
  std::shared_ptr<CustomCGBlock> lastGroup_;
};

// Owns the open file and its header block. Not synchronised.
class Mdf4File : public DirectFile {
 public:
  ~Mdf4File() override;

  // Creates or empties the file and writes identification and header block. An empty `programId`
  // stands for "tolvex"; `startTimeUs` is microseconds since 1970, 0 for now. False, with nothing
  // open, when that fails; error says why.
  [[nodiscard]] bool create(const FileOpener& open, const std::string& path,
                            const std::string& programId, std::uint32_t version,
                            std::uint64_t startTimeUs);
  const std::string& error() const { return error_; }

  // A data group at the end of the file, in no list yet; null when a write fails.
  std::shared_ptr<CustomDGBlock> addDataGroup();
  // Appends it to the list. False when a write fails; the group is then in no list.
  [[nodiscard]] bool append(const std::shared_ptr<CustomDGBlock>& group) {
    return header_.append(group);
  }
  // The streams of records that go into it, as long as they live.
  std::vector<Mdf4DataStream*>& streams() { return streams_; }
  // The start time of the header block, microseconds since 1970, as UTC.
  [[nodiscard]] bool setStartTime(std::uint64_t startTimeUs);

  // Writes the header block and closes the file. False when something was not written.
  bool Close() override;

 private:
  HeaderBlock header_;
  std::vector<Mdf4DataStream*> streams_;
  std::string error_;
};

}  // namespace tolvex
