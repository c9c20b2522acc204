#include "Mdf4/recovery/BlockBytes.h"

#include <algorithm>
#include <cstring>

namespace tolvex {

BlockBytes::BlockBytes(DirectFile& file, const ChainBlock& block)
    : file_(file), position_(block.position + kBlockHeaderSize), left_(block.bytes) {
  if (block.type != block_type::kDZ) return;
  inflated_.emplace(file, block.position);
  if (left_ > kLargestInflated) left_ = 0;
}

bool BlockBytes::read(std::uint64_t bytes, std::uint8_t* to) {
  if (bytes > left_) return false;
  if (inflated_ ? inflated_->Read(bytes, to) != bytes : !file_.ReadAt(position_, bytes, to)) {
    return false;
  }
  position_ += bytes;
  left_ -= bytes;
  return true;
}

RecordBytes::RecordBytes(DirectFile& file, const ChainBlock& block, std::uint32_t dataBytes,
                         std::uint32_t invalBytes)
    : data_(file, block),
      dataBytes_(dataBytes),
      invalBytes_(block.columns && dataBytes != 0 ? invalBytes : 0) {
  ChainBlock marks;
  if (invalBytes_ == 0 || block.marks == 0) return;
  if (DataChain(file, block.marks).next(marks) && marks.kind == ChainBlock::Data) {
    marks_.emplace(file, marks);
  } else {
    lostMarks_ = true;
  }
}

std::uint64_t RecordBytes::left() const {
  if (invalBytes_ == 0) return data_.left();
  return data_.left() / dataBytes_ * (std::uint64_t{dataBytes_} + invalBytes_);
}

bool RecordBytes::read(std::uint64_t bytes, std::uint8_t* to) {
  if (invalBytes_ == 0) return data_.read(bytes, to);
  const std::uint64_t recordSize = std::uint64_t{dataBytes_} + invalBytes_;
  for (std::uint64_t done = 0; done < bytes; done += recordSize, to += recordSize) {
    if (!data_.read(dataBytes_, to)) return false;
    std::memset(to + dataBytes_, 0, invalBytes_);
    if (marks_ && !marks_->read(invalBytes_, to + dataBytes_)) {
      marks_.reset();
      lostMarks_ = true;
    }
  }
  return true;
}

}  // namespace tolvex
