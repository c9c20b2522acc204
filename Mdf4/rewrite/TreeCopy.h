// The description part of a file (everything but records and values), taken over into another one.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Mdf4/format/BlockRecords.h"
#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/FieldRules.h"
#include "Mdf4/format/OwnedRanges.h"
#include "Mdf4/rewrite/FoundData.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

// A channel whose values lie outside the records: a record holds the value's offset.
struct ValueChannel {
  std::size_t block;         // of the planned blocks
  std::uint64_t data;        // where cn_data leads in the input
  std::uint32_t byteOffset;  // of the offset in a record
  std::uint32_t bytes;       // that it has, at most 8
  std::uint32_t flags;       // cn_flags and cn_inval_bit_pos: whether a record's sample is valid
  std::uint32_t invalidBit;
};

// A number in a record.
struct RecordField {
  std::uint32_t byteOffset = 0;
  std::uint32_t bitOffset = 0;
  std::uint32_t bits = 0;  // 0: there is no such field
};

struct SampleReduction {
  std::size_t block;
  std::uint64_t data;        // where sr_data leads in the input
  std::uint64_t recordSize;  // bytes: mean, minimum and maximum of each channel
};

// One channel group of the input.
struct SourceGroup {
  MdfRecoveredGroup report;
  std::uint64_t position = 0;
  m4CGRecord record = {};
  std::size_t groupBlock = 0;  // of the planned blocks: its channel group and its data group
  std::size_t dataBlock = 0;
  std::vector<ValueChannel> values;
  std::vector<SampleReduction> reductions;
  bool lostChannels = false;  // the chain of its channels broke off
  std::uint64_t master = 0;   // position of the time master channel; 0: none
  std::uint32_t masters = 0;  // a bit for each kind of master (cn_sync_type) that there is
  RecordField time;           // of that channel
  RecordField busChannel;
  RecordField direction;

  bool holdsValues() const { return (record.cg_flags & kCgFlagVlsd) != 0; }
  std::uint64_t recordSize() const {
    return std::uint64_t{record.cg_data_bytes} + record.cg_inval_bytes;
  }
};

// One data group of the input.
struct SourceData {
  // Whether its records stand back to back, as those of one group without record ids do.
  bool isSorted() const {
    return groups.size() == 1 && recordIdSize == 0 && !groups[0]->holdsValues();
  }
  // The group of the values that a channel of this data group leads to; null when the values are
  // elsewhere.
  const SourceGroup* valuesAt(std::uint64_t at) const;

  std::uint64_t position = 0;
  std::uint64_t dataLink = 0;
  std::uint64_t comment = 0;
  std::uint8_t recordIdSize = 0;
  bool isLost = false;  // only its channel groups were found
  std::vector<SourceGroup*> groups = {};
  FoundData* found = nullptr;  // what is behind dataLink; set by who surveys the file
};

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

  void setLink(std::size_t block, std::size_t index, std::uint64_t position);
  // Records go with their group: without record ids, so many.
  void setCycleCount(const SourceGroup& group, std::uint64_t records);
  void setReduction(std::size_t block, std::uint64_t cycles, std::uint64_t dataLink);
  // False when a write fails.
  [[nodiscard]] bool write();

 private:
  static constexpr std::size_t kNone = ~std::size_t{0};

  struct PlannedLink {
    std::uint64_t position = 0;  // in the output; of a reference in the input
    bool reference = false;      // to a block that another link brings along
  };
  struct PlannedBlock {
    std::uint16_t type = 0;
    std::uint64_t position = 0;  // in the output
    std::uint64_t source = 0;    // in the input; 0: a new block
    std::vector<PlannedLink> links;
    std::uint64_t dataPosition = 0;  // in the input, of what follows the links
    std::uint64_t dataBytes = 0;
    std::vector<std::uint8_t> data = {};  // instead, when not empty
    bool unterminated = false;            // a text that lacks its NUL
  };
  // A link that is still to be followed, of the block `from` that has `parent` in the plan.
  struct Step {
    std::size_t parent;
    std::size_t index;
    std::uint64_t target;
    std::size_t group;  // whose channels or reductions they are; kNone: neither
  };
  [[nodiscard]] bool load(std::uint64_t position, std::uint16_t from, std::size_t index,
                          PlannedBlock& block);
  [[nodiscard]] bool loadData(PlannedBlock& block, BlockRoom room);
  std::size_t place(PlannedBlock block);
  std::uint64_t takeOver(std::uint64_t position, std::uint16_t from, std::size_t index, int depth);
  void follow(const Step& first);
  void followSteps();
  void followChannel(const Step& step, PlannedBlock loaded);
  void followLinks(std::size_t block, std::size_t group);
  void readGroups(std::uint64_t first, std::uint16_t from);
  void readChannelGroups(std::size_t data, std::uint64_t first);
  void readChannelGroup(std::size_t data, PlannedBlock loaded);
  bool isOnLostPage(std::uint64_t position);
  static const char* misplaced(const SourceGroup& group, const m4CNRecord& channel,
                               std::string_view name);
  void describeChannel(SourceGroup& group, std::size_t block, const m4CNRecord& channel,
                       std::string_view name, std::uint64_t dataLink);
  std::string text(std::uint64_t position) const;
  std::uint64_t newText(const std::string& text, std::uint16_t type);
  std::uint64_t resolved(const PlannedBlock& block, std::size_t index) const;
  [[nodiscard]] bool write(const PlannedBlock& block);
  [[nodiscard]] bool writeWithoutData(PlannedBlock block);
  void lose(std::size_t group, std::string text);
  void loseGroups(std::uint64_t position);

  DirectFile& in_;
  DirectFile& out_;
  OwnedRanges& owned_;
  MdfRecoveryReport& report_;
  const bool counted_;
  std::vector<PlannedBlock> blocks_;                         // the header block first
  std::unordered_map<std::uint64_t, std::size_t> bySource_;  // planned blocks by input position
  std::unordered_map<std::uint64_t, std::uint64_t> dataOfGroup_;  // by CG: its DG in the output
  std::unordered_map<std::uint64_t, std::uint64_t> dataOfData_;   // by DG: of its first CG
  std::unordered_set<std::uint64_t> unfit_;  // positions of blocks that cannot be taken over
  std::deque<SourceData> data_;
  std::deque<SourceGroup> groups_;
  std::vector<Step> steps_;
  std::vector<std::size_t> brokenGroups_;  // data groups whose chain of channel groups broke off
  std::vector<Step> brokenChannels_;       // links where a chain of channels broke off
  std::uint64_t firstLost_ = ~std::uint64_t{0};
  bool groupsAreLost_ = false;
  std::size_t lastData_ = 0;         // the planned block, HD or DG, that the next DG comes behind
  std::size_t lastHistory_ = kNone;  // the planned FH likewise
};

}  // namespace tolvex
