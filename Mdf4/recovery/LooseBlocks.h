// Finds the data blocks that no list names, and the groups that they belong to.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <tuple>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/recovery/DataSurvey.h"
#include "Mdf4/recovery/OwnedRanges.h"
#include "Mdf4/recovery/TreeCopy.h"

namespace tolvex {

// Looks through the bytes that no known block owns: for groups and channels whose chain broke off,
// for lists, and for data blocks.
//
// A recording writes full blocks of one size for each group, and a list of them now and then. So a
// block belongs to a group that misses records, has blocks of this size, and whose last list and
// block stand in front of it. Where several do, what stands in the records tells them apart: bus
// channel and direction, and times that go on where the group's last block ends. Borrows
// everything.
class LooseBlocks {
 public:
  // `runs` are the survey's, one for each data group of the tree.
  LooseBlocks(DirectFile& in, OwnedRanges& owned, TreeCopy& tree, DataSurvey& survey,
              bool unfinished);

  // The next position from `from` on of a sound block that nothing owns and whose kind is one of
  // `wanted`; 0 when there is none.
  std::uint64_t find(std::uint64_t from, bool (*wanted)(std::uint16_t type));
  // The same behind the block at the position.
  std::uint64_t findBehind(std::uint64_t position, bool (*wanted)(std::uint16_t type));
  // Gives the data blocks to their groups. Notes in `report` those that it cannot. With `openEnds`
  // a block may be longer than it says.
  void assign(const std::vector<std::size_t>& runs, bool openEnds, MdfRecoveryReport& report);
  // The data group whose list the block at the position is; nothing when there is none.
  std::optional<std::size_t> ownerOfList(std::uint64_t position,
                                         const std::vector<std::size_t>& runs);

 private:
  struct Times {
    double first = 0;
    double last = 0;
    double spacing = 0;  // from record to record, on average
  };

  void extend(ChainBlock& block);
  std::uint64_t nextMarker(std::uint64_t at, std::uint64_t end);
  // What speaks for a group, the most telling first.
  struct Rank {
    bool behindList = false;  // the block stands where the group's next one would be put
    bool rises = false;       // its times do, read as the group's
    bool full = false;        // it is as long as the group's blocks are
    bool sameBus = false;
    bool complete = false;  // with it the group has all records that it counts
    bool goesOn = false;    // its times go on where the group's end, at the same pace
    double nearness = 0;    // of the times, or of the list
    double waiting = 0;     // how far the group's last block lies in front

    bool operator<(const Rank& other) const { return inOrder() < other.inOrder(); }

   private:
    std::tuple<bool, bool, bool, bool, bool, bool, double, double> inOrder() const {
      return {behindList, rises, full, sameBus, complete, goesOn, nearness, waiting};
    }
  };

  bool sharesItsLayout(const SourceGroup& group) const;
  std::optional<Rank> rankOf(const SourceGroup& group, const DataRun& run, const ChainBlock& block,
                             std::uint64_t expected);
  std::optional<std::size_t> ownerOf(const ChainBlock& block, std::uint64_t expected,
                                     const std::vector<std::size_t>& runs);
  bool misses(const SourceData& data, const DataRun& run) const;
  const SourceGroup* sortedGroup(const SourceData& data) const;
  bool sameBus(const SourceGroup& group, const ChainBlock& a, const ChainBlock& b);
  std::optional<Times> timesOf(const SourceGroup& group, const ChainBlock& block);
  bool readRecord(const SourceGroup& group, const ChainBlock& block, std::uint64_t number,
                  std::vector<std::uint8_t>& record);

  DirectFile& in_;
  OwnedRanges& owned_;
  TreeCopy& tree_;
  DataSurvey& survey_;
  const bool unfinished_;
  std::uint64_t effort_ = 0;                       // groups that were considered for a block
  std::map<std::uint64_t, MdfSigCCInfo> masters_;  // by the position of the channel
};

}  // namespace tolvex
