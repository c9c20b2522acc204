// How a channel's column is made of its group's records.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Mdf4/format/TransposedRecords.h"
#include "Mdf4/model/ChannelTree.h"
#include "Mdf4/model/RawField.h"
#include "Mdf4/model/TimeScale.h"
#include "Mdf4/model/ValueConversion.h"
#include "tolvex/MdfColumnReader.h"

namespace tolvex {

// What a channel's values are before their conversion, where they lie, and what they become.
struct ColumnPlan {
  enum class Kind : std::uint8_t {
    None,      // there are none: `fault` says why
    Index,     // the record's number: of a virtual channel
    Constant,  // 0: of a channel without bits
    Number,    // in the record
    Bytes,     // in the record
    Sized,     // likewise, as many as another channel says
    Value,     // outside of the record, which has the offset
  };
  // The invalidation bits of the channel, or of one that it is a member of.
  struct InvalidBits {
    std::uint64_t first = 0;     // of the record's invalidation bytes: that of the first element
    std::size_t dimensions = 0;  // of the column that count for them, the outer ones
  };

  Kind kind = Kind::None;
  std::string fault;
  std::uint8_t dataType = 0;               // cn_data_type
  std::size_t elements = 1;                // of a record
  std::vector<ArrayDimension> dimensions;  // of them: the outermost first; none: one element
  std::optional<RawField> number;          // of the first element: itself, its offset or its length
  std::size_t lengthDimensions = 0;        // for which lengths are on their own, the outer ones
  std::uint32_t byte = 0;                  // where the bytes of the first element begin
  std::size_t size = 0;                    // of an element, at most: bytes
  bool allInvalid = false;
  std::uint32_t dataBytes = 0;  // of the record, in front of its invalidation bytes
  std::vector<InvalidBits> invalidBits;
  MdfColumnType rawType = MdfColumnType::None;

  std::shared_ptr<const ValueConversion> conversion;
  MdfColumnType type = MdfColumnType::None;
  std::optional<TimeScale> time;  // of a master of time
};

// Plans the column of a channel of the group, whose conversion and type are still missing.
ColumnPlan planColumn(const ModelGroup& group, const ModelChannel& channel);
// Adds to `ranges` which bytes of a record the column is made of.
void addBytes(const ColumnPlan& plan, std::vector<RecordBytes>& ranges);
// Adds conversion and type.
void planConversion(ColumnPlan& plan, std::uint64_t conversion, ConversionLoader& conversions);
// Of a master of time: adds what its values are on the clock.
void planTime(ColumnPlan& plan, const TimeScale::Base& base);

}  // namespace tolvex
