// The writing side of m4DataStream.
#include "Mdf4/format/m4DataStream.h"

namespace tolvex {

m4DataStream::m4DataStream(DirectFile& file, Blocks blocks)
    : file_(&file), inflater_(file), blocks_(std::move(blocks)) {
  if (blocks_.dataList != nullptr) firstList_ = blocks_.dataList->place(file);
  if (blocks_.columnList != nullptr) firstList_ = blocks_.columnList->place(file);
}

void m4DataStream::addPendingLink(std::uint64_t position, std::uint64_t value) {
  pendingLinks_.push_back({position, value});
  pending_ = true;
}

bool m4DataStream::write(const std::uint8_t* data, std::uint64_t length,
                         const std::uint8_t* invalidation, std::uint64_t invalidationLength) {
  if (broken_ || blocks_.data == nullptr || blocks_.data->capacity() == 0) return false;
  if (invalidationLength != 0 &&
      (blocks_.invalidation == nullptr || blocks_.invalidation->capacity() == 0)) {
    return false;
  }
  for (bool first = true; length != 0 || invalidationLength != 0; first = false) {
    const bool full = open_ && blocks_.data->room() == 0;
    if ((!open_ || full || !first) && !nextBlock()) return fail(first);
    if (nameAtOnce_ && !named_ && !nameOpenBlock()) return fail(first);
    filling_ = blocks_.data.get();
    const std::uint64_t copied = blocks_.data->append(data, length);
    std::uint64_t invalidationCopied = 0;
    if (blocks_.invalidation != nullptr) {
      invalidationCopied = blocks_.invalidation->append(invalidation, invalidationLength);
    }
    pending_ = true;
    if (blocks_.data->room() == 0 && !saveBlock()) {
      takeBack(copied, invalidationCopied);
      return fail(first);
    }
    if (data != nullptr) data += copied;
    length -= copied;
    if (invalidation != nullptr) invalidation += invalidationCopied;
    invalidationLength -= invalidationCopied;
  }
  return true;
}

// The end of a call that could not append its bytes. Those that an earlier block took are in the
// file, and nothing may follow them.
bool m4DataStream::fail(bool inFirstBlock) {
  if (!inFirstBlock) {
    broken_ = true;
    filling_ = nullptr;
  }
  return false;
}

bool m4DataStream::skip(std::uint64_t length) {
  return write(nullptr, length, nullptr, 0);
}

void m4DataStream::takeBack(std::uint64_t bytes, std::uint64_t invalidation) {
  blocks_.data->takeBack(bytes);
  if (blocks_.invalidation != nullptr) blocks_.invalidation->takeBack(invalidation);
}

// Writes what the data blocks hold to their place. What a list in the file names is there at every
// moment, so the list comes behind them: at once, unless it was written a moment ago, for in a fast
// recording its writes would cost a tenth of the time.
bool m4DataStream::saveBlock() {
  if (!writeOut()) return false;
  constexpr std::uint64_t kMomentMs = 50;
  const std::uint64_t now = steadyMilliseconds();
  if (now - listSavedMs_ < kMomentMs) {
    unlistedBytes_ += blocks_.data->extraSize();
    return true;
  }
  listSavedMs_ = now;
  return saveList();
}

bool m4DataStream::writeOut() {
  return blocks_.data->writeOut() &&
         (blocks_.invalidation == nullptr || blocks_.invalidation->writeOut());
}

bool m4DataStream::saveList() {
  if (blocks_.dataList != nullptr && blocks_.dataList->save(nullptr, m4Block::kSaveAll) == 0) {
    return false;
  }
  if (blocks_.columnList != nullptr && blocks_.columnList->save(nullptr, m4Block::kSaveAll) == 0) {
    return false;
  }
  unlistedBytes_ = 0;
  named_ = true;
  return true;
}

bool m4DataStream::nameBlocksAtOnce() {
  nameAtOnce_ = true;
  return !open_ || named_ || nameOpenBlock();
}

// Writes the list with what it lacks: blocks that are full and in the file, and the open block's
// place, which is not counted until the block has come to it.
bool m4DataStream::nameOpenBlock() {
  if (blocks_.dataList == nullptr) return true;  // an LD counts all that it names
  if (blocks_.data->room() == 0) return saveList();
  if (!blocks_.dataList->saveWithLastUncounted()) return false;
  unlistedBytes_ = 0;
  named_ = true;
  return true;
}

// Gives the data blocks their next place, with those they had saved, and lists it.
bool m4DataStream::nextBlock() {
  M4DLBlock* const dataList = blocks_.dataList.get();
  M4LDBlock* const columnList = blocks_.columnList.get();
  if (dataList == nullptr && columnList == nullptr) return false;
  if (open_ && !writeOut()) return false;
  const bool full = dataList != nullptr ? dataList->full() : columnList->full();
  if (full) {
    const m4Block& list = dataList != nullptr ? static_cast<m4Block&>(*dataList) : *columnList;
    const std::uint64_t covered = list.position() + list.extraSize();
    if (covered > file_->end() && !file_->SetEnd(covered)) return false;
    const std::uint64_t next = dataList != nullptr ? dataList->moveOn() : columnList->moveOn();
    if (next == 0) return false;
    unlistedBytes_ = 0;
  }
  const std::uint64_t dataPosition = blocks_.data->place(*file_);
  std::uint64_t invalidationPosition = 0;
  if (blocks_.invalidation != nullptr) invalidationPosition = blocks_.invalidation->place(*file_);
  if (dataList != nullptr) {
    dataList->add(dataPosition);
  } else {
    columnList->add(dataPosition, invalidationPosition);
  }
  open_ = true;
  named_ = false;
  filling_ = nullptr;
  return true;
}

bool m4DataStream::finish(bool full) {
  bool written = true;
  const bool empty = open_ && blocks_.data->extraSize() == 0;
  const bool counted = open_ && blocks_.data->room() == 0;  // it was saved when it got full
  if (open_ && !empty && !counted && !named_) {
    static_cast<void>(nameOpenBlock());  // nothing is lost if that fails
  }
  if (open_ && (empty || !writeOut())) {
    written = empty;
    lostBytes_ = blocks_.data->extraSize();
    if (blocks_.dataList != nullptr) blocks_.dataList->removeLast();
    if (blocks_.columnList != nullptr) blocks_.columnList->removeLast();
    open_ = false;
  } else if (open_ && !counted) {
    unlistedBytes_ += blocks_.data->extraSize();
  }
  written &= saveList();
  lostBytes_ += unlistedBytes_;
  for (const Pending& link : pendingLinks_) {
    written &= file_->WriteAt(link.position, sizeof link.value, &link.value);
  }
  pendingLinks_.clear();
  for (M4DataBlock* const block : {blocks_.data.get(), blocks_.invalidation.get()}) {
    if (block == nullptr || !open_ || !full) continue;
    const std::uint64_t filled = block->extraSize();
    block->append(nullptr, block->room());
    written &= block->save(nullptr, m4Block::kSaveAll) != 0;
    block->setDataSize(filled);
    written &= block->save(nullptr, m4Block::kSaveFixed) != 0;
  }
  blocks_.data.reset();
  blocks_.invalidation.reset();
  filling_ = nullptr;
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
