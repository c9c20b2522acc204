// The groups and channels of a file, as the format means them: with the members of structures and
// arrays, whatever they are for.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Mdf4/format/MDF4File.h"
#include "Mdf4/model/FileTexts.h"

namespace tolvex {

// What recorded something (SI block).
struct SignalSource {
  std::uint8_t type = 0;  // si_type
  std::uint8_t bus = 0;   // si_bus_type
  SharedText name;
  SharedText path;
  SharedText comment;
};

// What a conversion (CC block) says of itself.
struct ConversionFacts {
  std::uint8_t type = 0;  // cc_type
  SharedText name;
  SharedText unit;
};

// One dimension of an array: how many elements, and how far apart they lie.
struct ArrayDimension {
  std::uint64_t size = 0;
  std::int64_t byteStep = 0;
  std::int64_t invalidBitStep = 0;

  bool operator==(const ArrayDimension&) const = default;
};

// A channel, or a member of a structure or array.
struct ModelChannel {
  static constexpr std::int32_t kNone = -1;

  SharedText name;  // with those of the structures around it: "position.x"
  SharedText unit;  // its own, else that of its conversion
  SharedText comment;
  std::shared_ptr<const SignalSource> source;  // null: none is named
  m4CNRecord record = {};
  std::uint64_t position = 0;                    // of the CN block
  std::uint64_t conversion = 0;                  // likewise of the CC block; 0: none
  std::shared_ptr<const ConversionFacts> facts;  // of that block; null: there is none
  std::uint64_t data = 0;                        // where cn_data leads
  std::int32_t parent = kNone;                   // the channel that this one is a member of
  std::vector<ArrayDimension> dimensions;        // the outermost first; none: a single value
  std::string fault;                             // why it has no values; "" when it may have some

  std::uint64_t elements() const;
};

struct ModelGroup {
  SharedText name;
  SharedText comment;
  std::shared_ptr<const SignalSource> source;
  m4CGRecord record = {};
  std::uint64_t position = 0;                 // of the CG block
  std::int32_t dataGroup = 0;                 // its index
  std::vector<ModelChannel> channels;         // members behind what they are members of
  std::int32_t master = ModelChannel::kNone;  // the first one of time, else of anything else

  bool holdsValues() const { return (record.cg_flags & kCgFlagVlsd) != 0; }
  // Bytes of each record behind its id, when these are no values.
  std::uint64_t recordSize() const {
    return std::uint64_t{record.cg_data_bytes} + record.cg_inval_bytes;
  }
};

struct ModelDataGroup {
  std::uint64_t position = 0;  // of the DG block
  std::uint64_t data = 0;      // where dg_data leads
  std::uint8_t recordIdSize = 0;
  std::size_t firstGroup = 0;  // of the tree's groups
  std::size_t groups = 0;
};

// Of channels: everything, or only what tells time and bus logs; names, units, comments, sources
// and conversions are null where they do not.
enum class TreeDetail : std::uint8_t { All, Groups };

// All groups of a file, by data group. A chain ends at a block that is damaged, of another kind or
// visited before; the file's problems say so.
struct ChannelTree {
  ChannelTree() = default;
  ChannelTree(MDF4File& file, FileTexts& texts, TreeDetail detail = TreeDetail::All);

  std::vector<ModelDataGroup> dataGroups;
  std::vector<ModelGroup> groups;
};

}  // namespace tolvex
