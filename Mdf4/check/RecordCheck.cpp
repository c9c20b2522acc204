#include "Mdf4/check/RecordCheck.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "Mdf4/base/Diagnostics.h"

namespace tolvex {
namespace {

std::uint64_t cycleCountPosition(const CheckedGroup& group) {
  return group.block.field(offsetof(m4CGRecord, cg_cycle_count));
}

}  // namespace

SortedRecordCheck::SortedRecordCheck(BlockCheck& walk, const CheckedGroup& group,
                                     const std::vector<CheckedValues*>& values, bool columns)
    : walk_(walk),
      group_(group),
      recordSize_(columns ? group.record.cg_data_bytes : group.recordSize()),
      watch_(walk, group, values, !columns) {}

void SortedRecordCheck::bytes(ByteSpan piece, std::uint64_t position) {
  total_ += piece.size();
  while (!piece.empty()) {
    if (inRecord_ == 0) recordPosition_ = position;
    const std::size_t used =
        inMemory(std::min<std::uint64_t>(recordSize_ - inRecord_, piece.size()));
    if (used == recordSize_) {
      watch_.check(piece.data(), position);
    } else {
      watch_.keep(piece.first(used), inRecord_);
      inRecord_ += used;
      if (inRecord_ == recordSize_) {
        if (hasHole_) {
          watch_.pass(1);
        } else {
          watch_.checkKept(recordPosition_);
        }
        inRecord_ = 0;
        hasHole_ = false;
      }
    }
    piece = piece.subspan(used);
    if (moves_) position += used;
  }
}

void SortedRecordCheck::skip(std::uint64_t length) {
  total_ += length;
  if (recordSize_ == 0) return;
  const std::uint64_t rest = length % recordSize_;
  watch_.pass(length / recordSize_ + (rest >= recordSize_ - inRecord_ ? 1 : 0));
  inRecord_ = (inRecord_ + rest) % recordSize_;
  hasHole_ = inRecord_ != 0 && (hasHole_ || length != 0);
}

void SortedRecordCheck::end(bool complete) {
  watch_.end({});
  const std::uint64_t stated = group_.record.cg_cycle_count;
  const std::uint64_t records = recordSize_ == 0 ? stated : total_ / recordSize_;
  const std::uint64_t rest = total_ - (recordSize_ == 0 ? 0 : records * recordSize_);
  if (!complete) return;
  if (records != stated && !walk_.announced(Unfinished::CycleCounts)) {
    walk_.findings().error(cycleCountPosition(group_), fieldName(block_type::kCG, "cg_cycle_count"),
                           formatText("%" PRIu64 ", for %" PRIu64 " bytes of records of %" PRIu64,
                                      records, total_, recordSize_),
                           std::to_string(stated));
  } else if (rest != 0 && !walk_.announced(Unfinished::LastDataLength)) {
    walk_.findings().warning(group_.block.position, fieldName(block_type::kCG, "records"),
                             formatText("whole records of %" PRIu64 " bytes", recordSize_),
                             formatText("%" PRIu64 " bytes behind the last one", rest));
  }
}

UnsortedRecordCheck::UnsortedRecordCheck(BlockCheck& walk, const CheckedDataGroup& group,
                                         const std::vector<std::vector<CheckedValues*>>& values)
    : walk_(walk), idSize_(group.record.dg_rec_id_size) {
  for (std::size_t i = 0; i < group.groups.size(); ++i) {
    const CheckedGroup& each = group.groups[i];
    groups_.push_back({&each, RecordWatch(walk, each, values[i], true)});
    byId_.emplace(idSize_ == 0 ? 0 : each.record.cg_record_id, i);
  }
}

void UnsortedRecordCheck::bytes(ByteSpan piece, std::uint64_t position) {
  while (!piece.empty() && !lost_) {
    const std::size_t used = take(piece, position);
    piece = piece.subspan(used);
    if (moves_) position += used;
  }
}

// Takes what it can of a piece that is not empty; returns how much.
std::size_t UnsortedRecordCheck::take(ByteSpan piece, std::uint64_t position) {
  std::size_t used = 0;
  switch (awaited_) {
    case Awaited::Id:
      if (headSize_ == 0) recordPosition_ = position;
      if (gather(piece, idSize_, used)) beginRecord();
      break;
    case Awaited::Length:
      if (gather(piece, kValuePrefix, used)) beginBody(loadNumber<std::uint32_t>(head_.data()));
      break;
    case Awaited::Body: {
      used = static_cast<std::size_t>(std::min<std::uint64_t>(bodyLeft_, piece.size()));
      RecordWatch& watch = groups_[current_].watch;
      const bool looks = watch.looksAtBytes() && !groups_[current_].group->holdsValues();
      if (!looks) {
        if (used == bodyLeft_) watch.pass(1);
      } else if (used == bodySize_) {
        watch.check(piece.data(), recordPosition_);
      } else {
        watch.keep(piece.first(used), bodySize_ - bodyLeft_);
        if (used == bodyLeft_) watch.checkKept(recordPosition_);
      }
      bodyLeft_ -= used;
      if (bodyLeft_ == 0) awaited_ = Awaited::Id;
      break;
    }
  }
  return used;
}

// Completes the id or length at the start of a record; false while bytes of it are missing.
bool UnsortedRecordCheck::gather(ByteSpan piece, std::size_t size, std::size_t& used) {
  used = std::min(size - headSize_, piece.size());
  std::memcpy(head_.data() + headSize_, piece.data(), used);
  headSize_ += used;
  if (headSize_ < size) return false;
  headSize_ = 0;
  return true;
}

void UnsortedRecordCheck::beginRecord() {
  std::uint64_t id = 0;
  std::memcpy(&id, head_.data(), idSize_);
  if (groups_[current_].group->record.cg_record_id != id || idSize_ == 0) {
    const auto found = byId_.find(id);
    if (found == byId_.end()) {
      lost_ = true;
      walk_.findings().error(recordPosition_, fieldName(block_type::kDT, "record id"),
                             formatText("that of one of %zu channel groups", groups_.size()),
                             std::to_string(id));
      return;
    }
    current_ = found->second;
  }
  const CheckedGroup& group = *groups_[current_].group;
  if (group.holdsValues()) {
    awaited_ = Awaited::Length;
  } else {
    beginBody(group.recordSize());
  }
}

void UnsortedRecordCheck::beginBody(std::uint64_t size) {
  Group& group = groups_[current_];
  if (group.group->holdsValues()) group.valueBytes += size;
  bodySize_ = size;
  bodyLeft_ = size;
  awaited_ = Awaited::Body;
  if (size != 0) return;
  group.watch.pass(1);
  awaited_ = Awaited::Id;
}

void UnsortedRecordCheck::end(bool complete) {
  std::unordered_map<std::uint64_t, std::uint64_t> values;
  for (const Group& group : groups_) {
    if (!group.group->holdsValues() || lost_ || !complete) continue;
    values.emplace(group.group->block.position,
                   group.valueBytes + kValuePrefix * group.watch.records());
  }
  for (Group& group : groups_) group.watch.end(values);
  if (lost_ || !complete) return;
  const bool inRecord = awaited_ != Awaited::Id || headSize_ != 0;
  if (inRecord && !walk_.announced(Unfinished::LastDataLength)) {
    walk_.findings().error(recordPosition_, fieldName(block_type::kDT, "records"), "whole records",
                           "one that the data end in");
  }
  for (const Group& group : groups_) checkCounts(group);
}

void UnsortedRecordCheck::checkCounts(const Group& group) {
  const CheckedGroup& stated = *group.group;
  const std::uint64_t records = group.watch.records();
  if (stated.record.cg_cycle_count != records && !walk_.announced(Unfinished::CycleCounts)) {
    walk_.findings().error(cycleCountPosition(stated), fieldName(block_type::kCG, "cg_cycle_count"),
                           formatText("%" PRIu64 ", as there are records", records),
                           std::to_string(stated.record.cg_cycle_count));
  }
  // The lengths in front of the values may be counted or not.
  const std::uint64_t bytes = stated.valueBytes();
  if (!stated.holdsValues() || walk_.announced(Unfinished::ValueByteCounts) ||
      bytes == group.valueBytes || bytes == group.valueBytes + kValuePrefix * records) {
    return;
  }
  walk_.findings().error(stated.block.field(offsetof(m4CGRecord, cg_data_bytes)),
                         fieldName(block_type::kCG, "cg_data_bytes and cg_inval_bytes"),
                         formatText("%" PRIu64 ", the bytes of the values", group.valueBytes),
                         std::to_string(bytes));
}

void ReductionRecords::end(bool complete) {
  const std::uint64_t size = reduction_.recordSize;
  const std::uint64_t stated = reduction_.record.sr_cycle_count;
  const std::uint64_t records = size == 0 ? stated : total_ / size;
  if (!complete || walk_.announced(Unfinished::ReductionCounts) ||
      (records == stated && total_ == (size == 0 ? 0 : records * size))) {
    return;
  }
  walk_.findings().error(reduction_.block.field(offsetof(m4SRRecord, sr_cycle_count)),
                         fieldName(block_type::kSR, "sr_cycle_count"),
                         formatText("%" PRIu64 ", for %" PRIu64 " bytes of records of %" PRIu64,
                                    records, total_, size),
                         std::to_string(stated));
}

}  // namespace tolvex
