// The groups and channels of a file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "Mdf4/format/MDF4File.h"
#include "Mdf4/format/m4Block.h"
#include "Mdf4/model/FileTexts.h"

namespace tolvex {

// What a channel is read as.
enum class ChannelUse : std::uint8_t {
  None,   // nothing: it only counts
  Value,  // of fixed or variable length
  Can,    // frames, whose fields are its composition
  Time,   // master channel of time
};

// A channel of a composition.
struct TreeChild {
  SharedText name;  // null: ""
  std::unique_ptr<M4CNBlock> block;
};
inline std::string_view nameOf(const TreeChild& child) {
  return child.name == nullptr ? std::string_view() : *child.name;
}

struct TreeChannel {
  std::unique_ptr<M4CNBlock> block;
  ChannelUse use = ChannelUse::None;
  std::vector<TreeChild> children;  // of CAN channels, by name; of one name the first
};

struct TreeGroup {
  std::unique_ptr<M4CGBlock> block;
  std::vector<TreeChannel> channels;
  std::int32_t timeIndex = -1;  // of the first master channel of time; -1: none

  // That channel, or null.
  const TreeChannel* time() const {
    return timeIndex < 0 ? nullptr : &channels[static_cast<std::size_t>(timeIndex)];
  }
};

struct TreeDataGroup {
  std::unique_ptr<M4DGBlock> block;
  std::vector<TreeGroup> groups;
};

// One listed channel. Borrows from the tree.
struct MdfCNInfo {
  std::int32_t dgIndex = -1;
  std::int32_t cgIndex = -1;
  std::int32_t cnIndex = -1;
  std::uint32_t recordSize = 0;        // of the channel group
  const M4CNBlock* cnBlock = nullptr;  // never null
  const std::vector<TreeChild>* children = nullptr;
};

// Data groups, channel groups and channels by their places in the file's chains, from 0 on.
class FileTree {
 public:
  FileTree() = default;
  // Goes along the chains of an opened file. A chain ends at a block that is damaged, of another
  // kind or visited before. Under logger rules more channels count as CAN.
  FileTree(MDF4File& file, FileTexts& texts, bool loggerRules);

  const std::vector<TreeDataGroup>& dataGroups() const { return dataGroups_; }
  // Null for what is not there.
  const TreeDataGroup* findGroup(int dg) const;
  const TreeGroup* findGroup(int dg, int cg) const;
  const TreeChannel* findChannel(int dg, int cg, int cn) const;
  // The time of the group; with a negative `cg` that of the first group of `dg` that has one.
  const TreeChannel* findTime(int dg, int cg) const;

  // The channels of that use, by data group, channel group and channel.
  std::vector<MdfCNInfo> list(ChannelUse use) const;

  // What `before` has at places that this tree does not have moves to this one. When memory runs
  // out both stay as they are.
  void keepRestOf(FileTree& before);

 private:
  std::vector<TreeDataGroup> dataGroups_;
};

}  // namespace tolvex
