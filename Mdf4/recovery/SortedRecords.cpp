#include "Mdf4/recovery/SortedRecords.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cinttypes>

#include "Mdf4/format/Diagnostics.h"
#include "Mdf4/recovery/BlockBytes.h"
#include "Mdf4/recovery/LinkRules.h"
#include "Mdf4/recovery/RecoveryNotes.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kPiece = 256 << 10;  // bytes that are read at a time
constexpr std::uint64_t kOne = 1;

}  // namespace

bool SortedRecords::copy(const DataRun& run, const Done& done) {
  const std::uint64_t counted = group_.record.cg_cycle_count;
  oneByOne_ = !values_.empty() || (counted != 0 && run.bytes / size_ > counted);
  DataSequence blocks(in_, run);
  ChainBlock block;
  while (!ended_ && blocks.next(block)) {
    if (block.kind == ChainBlock::Missing) {
      leaveOut(block.columns && group_.record.cg_data_bytes != 0
                   ? block.bytes / group_.record.cg_data_bytes * size_
                   : block.bytes,
               block.position);
    } else if (!copyBlock(block, done)) {
      return false;
    }
  }
  if (!oneByOne_) records_.takeBack(records_.rest());
  return true;
}

// False when a write fails.
bool SortedRecords::copyBlock(const ChainBlock& found, const Done& done) {
  ChainBlock block = found;
  if (block.uncounted) block.bytes = writtenBytes(block);
  RecordBytes bytes(in_, block, group_.record.cg_data_bytes, group_.record.cg_inval_bytes);
  const std::uint64_t whole = bytes.left();
  if (block.repaired) {
    noteRepair(
        group_.report,
        formatText("data block at %" PRIu64 ": its length is that of its list", block.position));
  }
  bool read = whole != 0 || block.bytes == 0;
  while (read && bytes.left() != 0 && !ended_) {
    const std::uint64_t count = std::min(std::max(kPiece / size_, kOne) * size_, bytes.left());
    if (!takePiece(bytes, count, read)) return false;
    done(count);
  }
  if (!read) leaveOut(whole == 0 ? block.bytes : bytes.left(), block.position);
  if (bytes.lostMarks()) {
    noteLoss(group_.report,
             formatText("invalidation bytes at %" PRIu64 ": the samples of the block "
                        "beside them count as valid",
                        block.marks));
  }
  if (block.cut) leaveOut(0, block.position);
  return true;
}

// Of a block whose writing may have been broken off, the bytes that were written. A system copies
// page by page: what it did not reach begins with one, and is zeros when blocks behind it were
// written before. Zeros that are less than a record may as well be its end.
std::uint64_t SortedRecords::writtenBytes(const ChainBlock& block) {
  assert(size_ != 0);
  constexpr std::uint64_t kPage = 4096;
  if (!isPlainData(block.type)) return block.bytes;
  const std::uint64_t start = block.position + kBlockHeaderSize;
  const std::uint64_t end = start + block.bytes;
  std::uint64_t written = end;
  std::array<std::uint8_t, kPage> page;
  while (written > start) {
    const std::uint64_t from = std::max(start, (written - 1) / kPage * kPage);
    const auto pageEnd = page.begin() + static_cast<std::ptrdiff_t>(written - from);
    if (from % kPage != 0 || !in_.ReadAt(from, written - from, page.data()) ||
        std::any_of(page.begin(), pageEnd, [](std::uint8_t byte) { return byte != 0; })) {
      break;
    }
    written = from;
  }
  return end - written < size_ ? block.bytes : (written - start) / size_ * size_;
}

// The next bytes of a block. `read` becomes false when they cannot be read.
bool SortedRecords::takePiece(RecordBytes& bytes, std::uint64_t count, bool& read) {
  if (skip_ != 0) {
    const std::uint64_t skipped = std::min(skip_, count);
    piece_.resize(skipped);
    read = bytes.read(skipped, piece_.data());
    if (!read) return true;
    skip_ -= skipped;
    offset_ += skipped;
    count -= skipped;
  }
  if (oneByOne_) {
    piece_.resize(count);
    read = bytes.read(count, piece_.data());
    if (!read) return true;
    offset_ += count;
    return takeRecords(piece_);
  }
  std::uint8_t* const place = records_.room(count);
  if (place == nullptr) return false;
  read = bytes.read(count, place);
  if (!read) return true;
  offset_ += count;
  return records_.commit(count);
}

bool SortedRecords::takeRecords(ByteSpan bytes) {
  const auto isZero = [](std::uint8_t byte) { return byte == 0; };
  while (!bytes.empty() && !ended_) {
    const std::uint64_t count = std::min<std::uint64_t>(size_ - partial_.size(), bytes.size());
    partial_.insert(partial_.end(), bytes.begin(),
                    bytes.begin() + static_cast<std::ptrdiff_t>(count));
    bytes = bytes.subspan(count);
    if (partial_.size() < size_) break;
    // Behind the records that are counted there may be more, or room that was never used.
    ended_ = group_.record.cg_cycle_count != 0 &&
             records_.units() >= group_.record.cg_cycle_count &&
             std::all_of(partial_.begin(), partial_.end(), isZero);
    if (!ended_) {
      if (!values_.place(partial_.data())) {
        ++group_.report.lostRecords;
      } else if (!records_.append(partial_)) {
        return false;
      }
    }
    partial_.clear();
  }
  return true;
}

// So many bytes, 0: nobody knows how many, that belong here are not there.
void SortedRecords::leaveOut(std::uint64_t bytes, std::uint64_t position) {
  const std::uint64_t rest = oneByOne_ ? partial_.size() : records_.rest();
  const std::uint64_t begin = offset_ - rest;
  if (!oneByOne_) records_.takeBack(rest);
  partial_.clear();
  offset_ += bytes;
  skip_ = bytes == 0 ? 0 : (size_ - offset_ % size_) % size_;
  if (bytes == 0) offset_ = begin + (rest == 0 ? 0 : size_);
  const std::uint64_t lost = (offset_ + skip_ - begin) / size_;
  group_.report.lostRecords += lost;
  if (bytes == 0) {
    noteLoss(group_.report,
             formatText("data block at %" PRIu64 ": it is missing or ends early", position));
  } else {
    noteLoss(group_.report, formatText("data block at %" PRIu64 ": its %" PRIu64
                                       " bytes of data, %" PRIu64 " records",
                                       position, bytes, lost));
  }
}

}  // namespace tolvex
