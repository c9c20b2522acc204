#include "Mdf4/format/BlockBytes.h"

#include <cstring>

namespace tolvex {

BlockBytes::BlockBytes(DirectFile& file, const ListedBlock& block)
    : BlockBytes(file, block.position + kBlockHeaderSize, block.bytes) {
  if (block.type != block_type::kDZ) return;
  inflated_.emplace(file, block.position);
  if (left_ > kLargestInflated) left_ = 0;
}

bool BlockBytes::read(std::uint64_t bytes, std::uint8_t* to) {
  if (bytes > left_) return false;
  if (inflated_ ? inflated_->Read(bytes, to) != bytes : !file_.ReadAt(position_, bytes, to)) {
    return false;
  }
  pass(bytes);
  return true;
}

std::uint64_t BlockBytes::readSome(std::uint64_t bytes, std::uint8_t* to) {
  if (!inflated_ && read(bytes, to)) return bytes;
  if (bytes > left_) return 0;
  const WritableBytes piece(to, inMemory(bytes));
  const std::uint64_t got =
      inflated_ ? inflated_->Read(bytes, to) : file_.readPieces(position_, std::span(&piece, 1));
  pass(got);
  return got;
}

std::uint64_t BlockBytes::passUnreadable() {
  const ByteRange bad = file_.reads().nextUnreadable(position_, position_ + left_);
  if (inflated_ || bad.start != position_) return 0;
  pass(bad.end - bad.start);
  return bad.end - bad.start;
}

void BlockBytes::pass(std::uint64_t bytes) {
  position_ += bytes;
  left_ -= bytes;
}

RecordBytes::RecordBytes(DirectFile& file, const ListedBlock& block, std::uint32_t dataBytes,
                         std::uint32_t invalBytes)
    : data_(file, block),
      dataBytes_(dataBytes),
      invalBytes_(block.columns && dataBytes != 0 ? invalBytes : 0) {
  ListedBlock invalidation;
  if (invalBytes_ == 0 || block.invalidation == 0) return;
  if (ListedBlocks(file, block.invalidation).next(invalidation) &&
      invalidation.kind == ListedBlock::Data) {
    invalidation_.emplace(file, invalidation);
  } else {
    lostInvalidation_ = true;
  }
}

std::uint64_t RecordBytes::left() const {
  if (invalBytes_ == 0) return data_.left();
  return data_.left() / dataBytes_ * (std::uint64_t{dataBytes_} + invalBytes_);
}

std::uint64_t RecordBytes::readSome(std::uint64_t bytes, std::uint8_t* to) {
  if (invalBytes_ == 0) return data_.readSome(bytes, to);
  const std::uint64_t recordSize = std::uint64_t{dataBytes_} + invalBytes_;
  std::uint64_t done = 0;
  for (; done < bytes && data_.read(dataBytes_, to + done); done += recordSize) {
    readInvalidation(to + done + dataBytes_);
  }
  return done;
}

void RecordBytes::readInvalidation(std::uint8_t* to) {
  std::memset(to, 0, invalBytes_);
  if (!invalidation_ || invalidation_->read(invalBytes_, to)) return;
  std::memset(to, 0, invalBytes_);
  lostInvalidation_ = true;
  passInvalidation();
}

// Those of the next record; of all that follow where there is no way on.
void RecordBytes::passInvalidation() {
  if (!invalidation_) return;
  if (invalidation_->left() < invalBytes_ || !invalidation_->canPass()) {
    invalidation_.reset();
  } else {
    invalidation_->pass(invalBytes_);
  }
}

std::uint64_t RecordBytes::passUnreadable() {
  if (invalBytes_ == 0) return data_.passUnreadable();
  if (data_.left() < dataBytes_ || !data_.canPass()) return 0;
  data_.pass(dataBytes_);
  passInvalidation();
  return std::uint64_t{dataBytes_} + invalBytes_;
}

}  // namespace tolvex
