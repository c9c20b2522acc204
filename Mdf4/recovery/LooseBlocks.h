// Finds the data blocks that no list names, and the groups that they belong to.
#pragma once

#include <cstdint>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/OwnedRanges.h"
#include "Mdf4/recovery/BlockSurvey.h"
#include "Mdf4/rewrite/TreeCopy.h"

namespace tolvex {

// Looks through the bytes that no known block owns: for groups and channels whose chain broke off,
// for lists, and for data blocks.
//
// A recording writes full blocks of one size for each group, and a list of them now and then. What
// a machine that lost its power had not written is missing in any order, so a block may be that of
// a group, or of a list, that is lost. It belongs to a group for certain when it stands directly
// behind the group's last list, which is where the next one is put; when its frames have the bus
// and the direction of the group's; and when it makes up the records that the group counts.
// Otherwise of all groups that miss records, have blocks of this size, and whose last list and
// block stand in front of it, there must be one, and no sign of a lost group in front of it. A
// killed process leaves none. Borrows everything.
class LooseBlocks {
 public:
  // Of each data group of the tree it is known what the survey found.
  LooseBlocks(DirectFile& in, OwnedRanges& owned, TreeCopy& tree, BlockSurvey& survey,
              bool unfinished);

  // The next position from `from` on of a sound block that nothing owns and whose kind is one of
  // `wanted`; 0 when there is none.
  std::uint64_t find(std::uint64_t from, bool (*wanted)(std::uint16_t type));
  // The same behind the block at the position.
  std::uint64_t findBehind(std::uint64_t position, bool (*wanted)(std::uint16_t type));
  // Gives the data blocks to their groups. Notes in `report` those that it cannot. With `openEnds`
  // a block may be longer than it says.
  void assign(bool openEnds, MdfRecoveryReport& report);
  // The data group whose list the block at the position is; null when there is none.
  SourceData* ownerOfList(std::uint64_t position);

 private:
  enum class Claim : std::uint8_t { None, Possible, Certain };

  void extend(ListedBlock& block);
  std::uint64_t nextMarker(std::uint64_t at, std::uint64_t end);
  bool sharesItsLayout(const SourceGroup& group) const;
  Claim claimOf(const SourceData& data, const ListedBlock& block, std::uint64_t expected,
                bool isListed);
  SourceData* ownerOf(const ListedBlock& block, std::uint64_t expected, bool isListed);
  bool misses(const SourceData& data) const;
  static const SourceGroup* sortedGroup(const SourceData& data);
  Claim sameBus(const SourceGroup& group, const ListedBlock& a, const ListedBlock& b);
  bool readRecord(const SourceGroup& group, const ListedBlock& block, std::uint64_t number,
                  std::vector<std::uint8_t>& record);

  DirectFile& in_;
  OwnedRanges& owned_;
  TreeCopy& tree_;
  BlockSurvey& survey_;
  const bool unfinished_;
  bool groupIsLost_ = false;  // there are lists that are no known group's
  std::uint64_t effort_ = 0;  // groups that were considered for a block
};

}  // namespace tolvex
