// The values outside the records of one group, and the offsets by which its records name them.
#pragma once

#include <cstdint>
#include <deque>

#include "Mdf4/rewrite/BlockPlan.h"
#include "Mdf4/rewrite/SourceGroup.h"
#include "Mdf4/rewrite/ValueData.h"

namespace tolvex {

// One for each variable-length channel of the group. Borrows the group.
class RecordValues {
 public:
  RecordValues(DirectFile& out, SourceGroup& group, const WorkSizes& sizes);

  bool empty() const { return data_.empty(); }
  std::size_t count() const { return data_.size(); }
  const ValueChannel& channel(std::size_t i) const { return group_.values[i]; }
  ValueData& data(std::size_t i) { return data_[i]; }

  // Whether the channel's sample counts in this record.
  bool isValid(std::size_t i, const std::uint8_t* record) const;
  std::uint64_t offset(std::size_t i, const std::uint8_t* record) const;
  void setOffset(std::size_t i, std::uint8_t* record, std::uint64_t offset) const;
  // What becomes of a record whose value is lost: a frame without its payload is none, so it is
  // left out (false); other records keep their other channels, with an empty value.
  [[nodiscard]] bool loseValue(std::size_t i, std::uint8_t* record);
  std::uint64_t lostValues() const { return lostValues_; }

  // Gives a copied record the offsets that its values have in the output. False when the record is
  // to be left out.
  [[nodiscard]] bool place(std::uint8_t* record);
  [[nodiscard]] bool placeOne(std::size_t i, std::uint8_t* record);

  // Writes what is gathered and links the channels to it. False when a write fails.
  [[nodiscard]] bool finish(BlockPlan& plan);

 private:
  SourceGroup& group_;
  std::deque<ValueData> data_;
  std::uint64_t lostValues_ = 0;
};

}  // namespace tolvex
