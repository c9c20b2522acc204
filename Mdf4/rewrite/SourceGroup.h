// The groups of a file that is copied: what is to be known of them to copy their data.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "Mdf4/format/FieldRules.h"
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
struct SourceGroup : GroupLayout {
  // What the channel should be and is not; null for one that fits into the group.
  const char* misfit(const m4CNRecord& channel, std::string_view name) const;
  // Takes in a channel of the input: `block` is its copy, `source` its position.
  void add(const m4CNRecord& channel, std::string_view name, std::size_t block,
           std::uint64_t source, std::uint64_t dataLink);

  MdfRecoveredGroup report;
  std::uint64_t position = 0;
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
};

// One data group of the input.
struct SourceData {
  // Whether its records stand back to back, as those of one group without record ids do.
  bool isSorted() const {
    return groups.size() == 1 && recordIdSize == 0 && !groups[0]->holdsValues();
  }
  // The group of the values that a channel of this data group leads to; null when the values are
  // elsewhere.
  const SourceGroup* valuesAt(std::uint64_t at) const {
    for (const SourceGroup* const group : groups) {
      if (group->holdsValues() && group->position == at) return group;
    }
    return nullptr;
  }

  std::uint64_t position = 0;
  std::uint64_t dataLink = 0;
  std::uint64_t comment = 0;
  std::uint8_t recordIdSize = 0;
  bool isLost = false;  // only its channel groups were found
  std::vector<SourceGroup*> groups = {};
  FoundData* found = nullptr;  // what is behind dataLink; set by who surveys the file
};

}  // namespace tolvex
