// The writing side of m4DataStream.
#include "Mdf4/format/m4DataStream.h"

namespace tolvex {

m4DataStream::m4DataStream(DirectFile& file, Blocks blocks)
    : file_(&file), blocks_(std::move(blocks)) {
  if (blocks_.dataList != nullptr) firstList_ = blocks_.dataList->place(file);
  if (blocks_.columnList != nullptr) firstList_ = blocks_.columnList->place(file);
}

void m4DataStream::addPendingLink(std::uint64_t position, std::uint64_t value) {
  pendingLinks_.push_back({position, value});
  pending_ = true;
}

bool m4DataStream::write(const std::uint8_t* data, std::uint64_t length,
                         const std::uint8_t* invalidation, std::uint64_t invalidationLength) {
  if (blocks_.data == nullptr || blocks_.data->capacity() == 0) return false;
  if (invalidationLength != 0 &&
      (blocks_.invalidation == nullptr || blocks_.invalidation->capacity() == 0)) {
    return false;
  }
  while (length != 0 || invalidationLength != 0) {
    if (!open_ && !openBlocks()) return false;
    const std::uint64_t copied = blocks_.data->append(data, length);
    if (data != nullptr) data += copied;
    length -= copied;
    std::uint64_t marksCopied = 0;
    if (blocks_.invalidation != nullptr) {
      marksCopied = blocks_.invalidation->append(invalidation, invalidationLength);
      if (invalidation != nullptr) invalidation += marksCopied;
      invalidationLength -= marksCopied;
    }
    pending_ = true;
    if ((length != 0 || invalidationLength != 0) && !nextBlock()) return false;
  }
  return true;
}

bool m4DataStream::skip(std::uint64_t length) {
  return write(nullptr, length, nullptr, 0);
}

// Gives the data blocks their first place.
bool m4DataStream::openBlocks() {
  open_ = nextBlock();
  return open_;
}

// Moves the data blocks to a new place, which writes what they hold, and lists it.
bool m4DataStream::nextBlock() {
  M4DLBlock* const dataList = blocks_.dataList.get();
  M4LDBlock* const columnList = blocks_.columnList.get();
  if (dataList == nullptr && columnList == nullptr) return false;
  const bool full = dataList != nullptr ? dataList->full() : columnList->full();
  if (full) {
    const m4Block& list = dataList != nullptr ? static_cast<m4Block&>(*dataList) : *columnList;
    const std::uint64_t covered = list.position() + list.extraSize();
    if (covered > file_->end() && !file_->SetEnd(covered)) return false;
    const std::uint64_t next = dataList != nullptr ? dataList->moveOn() : columnList->moveOn();
    if (next == 0) return false;
  }
  const std::uint64_t dataPosition = blocks_.data->place(*file_);
  if (dataPosition == 0) return false;
  if (dataList != nullptr) {
    dataList->add(dataPosition);
    return true;
  }
  std::uint64_t marksPosition = 0;
  if (blocks_.invalidation != nullptr) {
    marksPosition = blocks_.invalidation->place(*file_);
    if (marksPosition == 0) return false;
  }
  columnList->add(dataPosition, marksPosition);
  return true;
}

bool m4DataStream::finish(bool full) {
  bool written = true;
  if (blocks_.dataList != nullptr) {
    written &= blocks_.dataList->save(nullptr, m4Block::kSaveAll) != 0;
  }
  if (blocks_.columnList != nullptr) {
    written &= blocks_.columnList->save(nullptr, m4Block::kSaveAll) != 0;
  }
  for (const Pending& link : pendingLinks_) {
    written &= file_->WriteAt(link.position, sizeof link.value, &link.value);
  }
  pendingLinks_.clear();
  for (M4DataBlock* const block : {blocks_.data.get(), blocks_.invalidation.get()}) {
    if (block == nullptr || !open_) continue;
    const std::uint64_t filled = block->extraSize();
    if (full) block->setDataSize(block->capacity());
    written &= block->save(nullptr, m4Block::kSaveAll) != 0;
    if (full) {
      block->setDataSize(filled);
      written &= block->save(nullptr, m4Block::kSaveFixed) != 0;
    }
  }
  blocks_.data.reset();
  blocks_.invalidation.reset();
  open_ = false;
  pending_ = false;
  return written;
}

bool m4DataStream::close() {
  const bool written = !pending_ || finish(false);
  blocks_ = {};
  releaseBuffers();
  return written;
}

}  // namespace tolvex
