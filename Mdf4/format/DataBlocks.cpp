#include "Mdf4/format/DataBlocks.h"

#include <algorithm>
#include <limits>
#include <new>

namespace tolvex {

const void* M4DataBlock::extraData(unsigned index, std::uint64_t& size) const {
  size = index == 0 ? size_ : 0;
  return index == 0 ? bytes() : nullptr;
}

bool M4DataBlock::readData(std::uint64_t position, std::uint64_t length) {
  if ((buffer_ == nullptr || capacity_ < length) && !reallocate(length)) return false;
  size_ = length;
  return file_->ReadAt(position, length, bytes());
}

bool M4DataBlock::reallocate(std::uint64_t bytes) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::ptrdiff_t>::max() - kBlockHeaderSize;
  std::unique_ptr<std::uint8_t[]> bigger;
  if (bytes <= kMost)
    bigger.reset(new (std::nothrow) std::uint8_t[inMemory(kBlockHeaderSize + bytes)]);
  if (bigger != nullptr && buffer_ != nullptr) {
    std::copy_n(this->bytes(), std::min(size_, bytes), bigger.get() + kBlockHeaderSize);
  }
  buffer_ = std::move(bigger);
  capacity_ = buffer_ != nullptr ? bytes : 0;
  size_ = std::min(size_, capacity_);
  return buffer_ != nullptr;
}

std::uint64_t M4DataBlock::place(DirectFile& file) {
  if (position_ != 0 && !writeOut()) return 0;
  size_ = 0;
  written_ = false;
  return reserve(file, capacity_ + kBlockHeaderSize, "DT");
}

bool M4DataBlock::writeOut() {
  if (written_) return true;
  header_.length = kBlockHeaderSize + size_;
  std::memcpy(buffer_.get(), &header_, kBlockHeaderSize);
  written_ = file_->WriteAt(position_, header_.length, buffer_.get());
  return written_;
}

M4DLBlock::M4DLBlock(std::uint32_t capacity, std::uint64_t equalLength) : capacity_(capacity) {
  links_.reserve(std::size_t{capacity} + 1);  // so that adding a block that is placed cannot fail
  dl_flags = kDlFlagEqualLength;
  extra_.assign(1, equalLength);
}

void M4DLBlock::add(std::uint64_t dataPosition) {
  setLink(++dl_count, dataPosition);
}

void M4DLBlock::removeLast() {
  links_.resize(links_.size() - 1);
  --dl_count;
}

bool M4DLBlock::saveWithLastUncounted() {
  --dl_count;
  const bool saved = save(nullptr, kSaveAll) != 0;
  ++dl_count;
  return saved;
}

std::uint64_t M4DLBlock::place(DirectFile& file) {
  const std::size_t links = links_.size();
  links_.resize(std::size_t{capacity_} + 1);
  const std::uint64_t end = file.end();
  reserve(file, kBlockHeaderSize + kLinkSize * links_.size() + recordSize() + extraSize(), "DL");
  if (write(kSaveAll) == 0) {
    file.giveBack(end);
    position_ = 0;
  }
  links_.resize(links);
  return position_;
}

std::uint64_t M4DLBlock::moveOn() {
  const std::uint64_t end = file_->end();
  M4DLBlock next(capacity_, extra_[0]);
  if (next.place(*file_) == 0) return 0;
  setLink(link::dl_dl_next, next.position());
  if (save(nullptr, kSaveAll) == 0) {
    setLink(link::dl_dl_next, 0);
    file_->giveBack(end);
    return 0;
  }
  position_ = next.position();
  links_.assign(1, 0);
  dl_count = 0;
  return position_;
}

M4LDBlock::M4LDBlock(std::uint32_t capacity, bool invalidation) : capacity_(capacity) {
  ld_flags = invalidation ? kLdFlagInvalidation : 0;
}

void M4LDBlock::add(std::uint64_t dataPosition, std::uint64_t invalidationPosition) {
  setLink(++ld_count, dataPosition);
  if (hasInvalidation()) {
    setLink(std::size_t{capacity_} + ld_count, invalidationPosition);
  }
}

void M4LDBlock::removeLast() {
  if (hasInvalidation()) {
    links_.resize(std::size_t{capacity_} + ld_count);
  } else {
    links_.resize(links_.size() - 1);
  }
  --ld_count;
}

std::uint64_t M4LDBlock::place(DirectFile& file) {
  const std::uint64_t perEntry = hasInvalidation() ? 2 : 1;
  return reserve(
      file, kBlockHeaderSize + kLinkSize * (perEntry * capacity_ + 1) + recordSize() + extraSize(),
      "DL");
}

std::uint64_t M4LDBlock::moveOn() {
  const std::uint64_t current = position_;
  const std::uint64_t end = file_->end();
  const std::uint64_t next = place(*file_);
  setLink(link::ld_ld_next, next);
  position_ = current;
  if (save(nullptr, kSaveAll) == 0) {
    setLink(link::ld_ld_next, 0);
    file_->giveBack(end);
    return 0;
  }
  position_ = next;
  links_.assign(1, 0);
  ld_count = 0;
  return next;
}

}  // namespace tolvex
