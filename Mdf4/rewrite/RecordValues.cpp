#include "Mdf4/rewrite/RecordValues.h"

#include <cstring>
#include <optional>

#include "Mdf4/base/BitField.h"

namespace tolvex {

RecordValues::RecordValues(DirectFile& out, SourceGroup& group, const WorkSizes& sizes)
    : group_(group) {
  for (std::size_t i = 0; i < group.values.size(); ++i) data_.emplace_back(out, sizes);
}

bool RecordValues::isValid(std::size_t i, const std::uint8_t* record) const {
  const ValueChannel& channel = group_.values[i];
  if ((channel.flags & kCnFlagAllInvalid) != 0) return false;
  if ((channel.flags & kCnFlagInvalidBit) == 0) return true;
  const std::uint8_t byte = record[group_.record.cg_data_bytes + channel.invalidBit / 8];
  return (byte >> channel.invalidBit % 8 & 1) == 0;
}

std::uint64_t RecordValues::offset(std::size_t i, const std::uint8_t* record) const {
  const ValueChannel& channel = group_.values[i];
  return BitField(0, 0, 8 * channel.bytes).read({record + channel.byteOffset, channel.bytes});
}

void RecordValues::setOffset(std::size_t i, std::uint8_t* record, std::uint64_t offset) const {
  std::memcpy(record + group_.values[i].byteOffset, &offset, group_.values[i].bytes);
}

bool RecordValues::loseValue(std::size_t i, std::uint8_t* record) {
  ++lostValues_;
  if ((group_.record.cg_flags & kCgFlagBusEvent) != 0) return false;
  setOffset(i, record, data_[i].empty());
  return true;
}

bool RecordValues::placeOne(std::size_t i, std::uint8_t* record) {
  if (!isValid(i, record)) return true;
  const std::optional<std::uint64_t> placed = data_[i].find(offset(i, record));
  if (!placed) return loseValue(i, record);
  setOffset(i, record, *placed);
  return true;
}

bool RecordValues::place(std::uint8_t* record) {
  for (std::size_t i = 0; i < data_.size(); ++i) {
    if (!placeOne(i, record)) return false;
  }
  return true;
}

bool RecordValues::finish(BlockPlan& plan) {
  for (std::size_t i = 0; i < data_.size(); ++i) {
    if (!data_[i].writer().finish()) return false;
    plan.setLink(group_.values[i].block, link::cn_data, data_[i].writer().link());
  }
  return true;
}

}  // namespace tolvex
