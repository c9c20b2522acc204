// The description part of a file (everything but records and values), taken over into another one.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/OwnedRanges.h"
#include "Mdf4/rewrite/BlockPlan.h"
#include "Mdf4/rewrite/SourceBlocks.h"
#include "Mdf4/rewrite/SourceGroup.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

// Reads the tree of blocks of a possibly damaged file and plans its copy, in which every channel
// group has a data group of its own. A link that leads to no fitting block becomes 0, and what was
// lost with it is noted. A place in the output is found for every block when it is read; the blocks
// are written at the end, when it is known what lies behind their links to data. Needs memory for
// the description only. Borrows everything that it is given.
class TreeCopy {
 public:
  // The cycle counts of a file that is not `counted` are not looked at.
  TreeCopy(DirectFile& in, DirectFile& out, OwnedRanges& owned, MdfRecoveryReport& report,
           bool counted);

  // Reads the header block and all that it leads to.
  void readHeader();
  // Takes in a DG, CG or CN block that was found where a chain of such blocks broke off. False when
  // it fits nowhere; channels do where one chain broke, if no group is lost whose they may be.
  [[nodiscard]] bool adopt(std::uint64_t position);
  // Adds an entry to the file's history.
  void addHistory(const std::string& comment);

  // The first place of a DG, CG or CN block that is not there, or was found; groups that are lost
  // may lie behind it.
  std::uint64_t firstLost() const { return firstLost_; }
  // Neither moves when more is adopted.
  std::deque<SourceData>& data() { return data_; }
  std::deque<SourceGroup>& groups() { return groups_; }

  // Records go with their group: without record ids, so many.
  void setCycleCount(const SourceGroup& group, std::uint64_t records);
  void setReduction(std::size_t block, std::uint64_t cycles, std::uint64_t dataLink);
  BlockPlan& plan() { return plan_; }

 private:
  // A link that is still to be followed.
  struct Step {
    std::size_t parent;  // the planned block that it stands in
    std::size_t index;
    std::uint64_t target;
    std::size_t group;  // whose channels or reductions they are; kNone: neither
  };
  void follow(const Step& first);
  void followSteps();
  std::size_t placeAt(const Step& step, BlockPlan::Block loaded);
  void loseStep(const Step& step);
  void followReduction(const Step& step, BlockPlan::Block loaded);
  void followChannel(const Step& step, BlockPlan::Block loaded);
  void noteMisfit(SourceGroup& group, std::string text, const m4CNRecord& channel);
  void completeChannel(SourceGroup& group, std::size_t block, bool hadConversion,
                       const std::string& name);
  void followLinks(std::size_t block, std::size_t group);
  void readGroups(std::uint64_t first, std::uint16_t from);
  void readChannelGroups(std::size_t data, std::uint64_t first);
  void readChannelGroup(std::size_t data, BlockPlan::Block loaded);
  void placeDataGroup(SourceGroup& group);
  bool isOnLostPage(std::uint64_t position) const;
  void lose(std::size_t group, std::string text);
  void loseGroups(std::uint64_t position);

  DirectFile& in_;
  OwnedRanges& owned_;
  MdfRecoveryReport& report_;
  const bool counted_;
  BlockPlan plan_;
  SourceBlocks source_;
  std::deque<SourceData> data_;
  std::deque<SourceGroup> groups_;
  std::vector<Step> steps_;
  std::vector<std::size_t> brokenGroups_;  // data groups whose chain of channel groups broke off
  std::vector<Step> brokenChannels_;       // links where a chain of channels broke off
  std::uint64_t firstLost_ = ~std::uint64_t{0};
  bool groupsAreLost_ = false;
  std::size_t lastData_ = 0;     // the planned block, HD or DG, that the next DG comes behind
  std::size_t lastHistory_ = 0;  // HD or FH likewise
};

}  // namespace tolvex
