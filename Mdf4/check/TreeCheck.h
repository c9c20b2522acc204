// The check of a file's description: every block but the data, and what the data are measured by.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "Mdf4/check/BlockCheck.h"
#include "Mdf4/format/WorkSizes.h"

namespace tolvex {

// A channel that the records are asked for: a master of time, or a variable-length channel.
struct WatchedChannel {
  FoundBlock block;
  m4CNRecord record = {};
  BlockLink data = {};  // of a variable-length channel
};

struct CheckedGroup : GroupLayout {
  FoundBlock block;
  std::optional<WatchedChannel> time = {};
  std::vector<WatchedChannel> values = {};

  // Of the values of a group of variable-length signal data.
  std::uint64_t valueBytes() const {
    return record.cg_data_bytes | std::uint64_t{record.cg_inval_bytes} << 32;
  }
};

struct CheckedReduction {
  FoundBlock block;
  m4SRRecord record = {};
  std::uint64_t recordSize = 0;
  BlockLink data = {};
};

struct CheckedDataGroup {
  FoundBlock block;
  m4DGRecord record = {};
  BlockLink data = {};
  std::vector<CheckedGroup> groups = {};
};

// Checks everything that the header block leads to, the data excepted: where those begin is told by
// the members. Needs memory for the description only.
class TreeCheck {
 public:
  TreeCheck(BlockCheck& walk, const WorkSizes& sizes) : walk_(walk), sizes_(sizes) {}

  void check();

  std::vector<CheckedDataGroup> groups = {};
  std::vector<CheckedReduction> reductions = {};
  std::vector<BlockLink> arrays = {};  // data of arrays that lie outside the records

 private:
  // Visits the blocks that are linked one to the next by link `next`.
  template <class Visit>
  void chain(BlockLink link, std::size_t next, Visit visit) {
    while (const std::optional<FoundBlock> block = walk_.enterBlock(link)) {
      visit(*block);
      link = walk_.link(*block, next);
    }
  }
  void checkCommon(const FoundBlock& block);
  void checkHierarchies(const BlockLink& first);
  void checkAttachment(const FoundBlock& block);
  void checkEvent(const FoundBlock& block);
  void checkDataGroup(const FoundBlock& block);
  void checkRecordIds(const CheckedDataGroup& group);
  void checkGroup(const FoundBlock& block, CheckedDataGroup& parent);
  void checkReduction(const FoundBlock& block, const CheckedGroup& group);
  void checkChannels(const BlockLink& first, CheckedGroup& group);
  void checkChannel(const FoundBlock& block, CheckedGroup& group);
  void checkPlace(const FoundBlock& block, const m4CNRecord& channel, const CheckedGroup& group);
  void checkChannelData(const FoundBlock& block, const m4CNRecord& channel, CheckedGroup& group);
  void checkArray(const FoundBlock& block);
  void checkMasters(const CheckedGroup& group, bool hasChannels);
  void checkSource(const BlockLink& link);
  void checkConversion(const BlockLink& link);

  BlockCheck& walk_;
  const WorkSizes sizes_;
  std::uint32_t masters_ = 0;            // sync types of the group's masters, a bit each
  std::vector<BlockLink> compositions_;  // of the group's channels, to be followed
};

}  // namespace tolvex
