#include "Mdf4/rewrite/SortedRecords.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cinttypes>
#include <optional>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockBytes.h"
#include "Mdf4/format/BlockTraits.h"
#include "Mdf4/rewrite/Notes.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kPage = 4096;

}  // namespace

bool SortedRecords::copy(const FoundData& run, const Done& done) {
  const std::uint64_t counted = group_.record.cg_cycle_count;
  isFinished_ = counted != 0 && run.bytes / size_ == counted;
  oneByOne_ = !values_.empty() || (counted != 0 && run.bytes / size_ > counted);
  FoundBlocks blocks(in_, run);
  ListedBlock block;
  while (!ended_ && blocks.next(block)) {
    if (block.kind == ListedBlock::Missing) {
      leaveOut(block.columns && group_.record.cg_data_bytes != 0
                   ? block.bytes / group_.record.cg_data_bytes * size_
                   : block.bytes,
               block.position);
    } else if (!copyBlock(block, run.last && block.position == run.last->position, done)) {
      return false;
    }
  }
  if (!oneByOne_) records_.takeBack(records_.rest());
  return true;
}

// False when a write fails.
bool SortedRecords::copyBlock(const ListedBlock& found, bool isLast, const Done& done) {
  ListedBlock block = found;
  if (block.columns && group_.record.cg_data_bytes != 0) {
    block.bytes -=
        block.bytes % group_.record.cg_data_bytes;  // no record goes on in the next block
  }
  if (block.uncounted) block.bytes = writtenBytes(block);
  if (block.headless && isLast) block.bytes = filledBytes(block);
  RecordBytes bytes(in_, block, group_.record.cg_data_bytes, group_.record.cg_inval_bytes);
  const std::uint64_t whole = bytes.left();
  if (block.repaired) {
    noteRepair(
        group_.report,
        formatText("data block at %" PRIu64 ": its length is that of its list", block.position));
  }
  bool read = whole != 0 || block.bytes == 0;
  const std::uint64_t start = block.position + kBlockHeaderSize;
  const std::uint64_t page = start / kPage * kPage;
  if (page > block.position && in_.areZeros(page, page + kPage)) openHole_ = start;
  while (read && bytes.left() != 0 && !ended_) {
    std::uint64_t count = std::min(pieceSize_, bytes.left());
    const bool plain = isPlainData(block.type) && !block.columns;
    const std::uint64_t position = plain ? start + (whole - bytes.left()) : 0;
    const std::uint64_t inPage = (position + count) % kPage;
    if (plain && count < bytes.left() && inPage < count) count -= inPage;
    std::uint64_t got = 0;
    if (!takePiece(bytes, count, position, got)) return false;
    done(got);
    if (got == count) continue;
    const std::uint64_t lost = bytes.passUnreadable();
    read = lost != 0;
    if (read) leaveOut(lost, plain ? position + got : block.position, "unreadable bytes");
    done(lost);
  }
  if (!read) leaveOut(whole == 0 ? block.bytes : bytes.left(), block.position);
  if (bytes.lostInvalidation()) {
    lostInvalidation_ = true;
    noteLoss(group_.report,
             formatText("invalidation bytes at %" PRIu64 ": the samples of the block "
                        "beside them count as valid",
                        block.invalidation));
  }
  if (block.cut) leaveOut(0, block.position);
  return true;
}

// Of a block whose writing may have been broken off, the bytes that were written. A system copies
// page by page: what it did not reach begins with one, and is zeros when blocks behind it were
// written before. Zeros that are less than a record may as well be its end, unless its time is
// among them.
std::uint64_t SortedRecords::writtenBytes(const ListedBlock& block) {
  assert(size_ != 0);
  if (!isPlainData(block.type)) return block.bytes;
  const std::uint64_t start = block.position + kBlockHeaderSize;
  const std::uint64_t end = start + block.bytes;
  std::uint64_t written = end;
  while (written > start) {
    const std::uint64_t from = std::max(start, (written - 1) / kPage * kPage);
    if (from % kPage != 0 || !in_.areZeros(from, written)) break;
    written = from;
  }
  const std::uint64_t timeEnd = group_.time.byteOffset + (group_.time.bits + 7) / 8;
  if (end - written < size_ && end - size_ + timeEnd <= written) return block.bytes;
  return (written - start) / size_ * size_;
}

// Of a last block whose header cannot be read, the records up to the last one that is not zeros:
// the room behind them was never used.
std::uint64_t SortedRecords::filledBytes(const ListedBlock& block) {
  const std::uint64_t start = block.position + kBlockHeaderSize;
  std::array<std::uint8_t, kPage> page;
  for (std::uint64_t end = start + block.bytes; end > start;) {
    const std::uint64_t from = std::max(start, (end - 1) / kPage * kPage);
    if (!in_.ReadAt(from, end - from, page.data())) return end - start;
    while (end > from && page[inMemory(end - from - 1)] == 0) --end;
    if (end > from) return std::min((end - start + size_ - 1) / size_ * size_, block.bytes);
  }
  return 0;
}

// The next `count` bytes of a block, from `position` of the file on unless that is 0. `got` becomes
// how many of them can be read, up to the first one that cannot.
bool SortedRecords::takePiece(RecordBytes& bytes, std::uint64_t count, std::uint64_t position,
                              std::uint64_t& got) {
  if (!oneByOne_ && skip_ == 0) {
    std::uint8_t* const place = records_.room(count);
    got = bytes.readSome(count, place);
    if (position == 0 || !findHole({place, inMemory(got)}, 0, position, bytes.left() == 0)) {
      keepLast({place, inMemory(got)});
      offset_ += got;
      return records_.commit(got);
    }
    piece_.assign(place, place + got);
  } else {
    piece_.resize(inMemory(count));
    got = bytes.readSome(count, piece_.data());
    piece_.resize(inMemory(got));
  }
  for (std::uint64_t at = 0; at < got;) {
    std::optional<Hole> hole;
    if (position != 0) hole = findHole(piece_, at, position, bytes.left() == 0);
    const std::uint64_t end = hole ? hole->start : got;
    if (!hole && at == 0) keepLast(piece_);
    if (!takeBytes(ByteSpan(piece_).subspan(inMemory(at), inMemory(end - at)))) return false;
    if (hole) leaveOut(hole->end - hole->start, position + hole->start, "zeros");
    if (hole && hole->end == got) openHole_ = position + got;
    at = hole ? hole->end : got;
  }
  return true;
}

// Looks, from `from` on, for sectors of zeros among records: what a disk or a card lost, or a
// system that crashed had not written. A time that falls to zero tells them from records of zeros;
// a group that has lost its channels, and may have had a time, has no whole pages of zeros. The
// last sector may be cut by the end of the block.
std::optional<SortedRecords::Hole> SortedRecords::findHole(ByteSpan bytes, std::uint64_t from,
                                                           std::uint64_t position,
                                                           bool toEnd) const {
  const bool timed = group_.time.bits != 0;
  if (!timed && !group_.lostChannels) return std::nullopt;
  const std::uint64_t sector = timed ? 512 : kPage;
  const bool goesOn = openHole_ != 0 && position + from == openHole_;
  std::uint64_t at = goesOn ? from : from + (sector - (position + from) % sector) % sector;
  for (; at < bytes.size(); at += sector - (position + at) % sector) {
    if (bytes[inMemory(at)] != 0) continue;
    const auto zeros = std::find_if(bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes.end(),
                                    [](std::uint8_t byte) { return byte != 0; });
    auto end = static_cast<std::uint64_t>(zeros - bytes.begin());
    const bool reachesEnd = end == bytes.size();
    if (!reachesEnd) end -= std::min((position + end) % sector, end);
    if (end <= at) continue;
    if (goesOn && at == from) return Hole{at, end};
    if (end - at < sector && !(toEnd && reachesEnd && endsOnSector(position + end, sector))) {
      continue;
    }
    if (!timed || timeFalls(bytes, from, {at, end})) return Hole{at, end};
  }
  return std::nullopt;
}

// Whether the sector that a block ends in may be lost. Of a recording that was cut off, the block
// behind it may have been written before; where a group has all records that it counts, the sector
// must be zeros to its end.
bool SortedRecords::endsOnSector(std::uint64_t end, std::uint64_t sector) const {
  return !isFinished_ || in_.areZeros(end, (end + sector - 1) / sector * sector);
}

// Whether the first time that ends in the hole has, in it, bytes that the time before it had not as
// zeros.
bool SortedRecords::timeFalls(ByteSpan bytes, std::uint64_t from, Hole hole) const {
  const RecordField& field = group_.time;
  const std::uint64_t fieldEnd = field.byteOffset + (field.bits + 7) / 8;
  if (fieldEnd > size_) return false;
  const std::uint64_t inRecord = (hole.start - from + offset_) % size_;
  const std::uint64_t next = inRecord < fieldEnd ? 0 : size_;
  const std::uint64_t end = hole.start + next + fieldEnd - inRecord;
  if (end > hole.end) return false;
  const std::size_t bytesInHole =
      inMemory(std::min<std::uint64_t>(end - hole.start, fieldEnd - field.byteOffset));
  const std::uint64_t start = end - bytesInHole;
  const ByteSpan before =
      start >= from + size_
          ? bytes.subspan(inMemory(start - size_), bytesInHole)
          : ByteSpan(last_).subspan(inMemory(fieldEnd) - bytesInHole, bytesInHole);
  return !areZeros(before);
}

// Keeps the last record of bytes without a hole.
void SortedRecords::keepLast(ByteSpan bytes) {
  const std::uint64_t rest = (offset_ + bytes.size()) % size_;
  if (bytes.size() < rest + size_) return;
  const ByteSpan record = bytes.last(inMemory(rest + size_)).first(inMemory(size_));
  last_.assign(record.begin(), record.end());
}

// Bytes that stand where the next ones belong.
bool SortedRecords::takeBytes(ByteSpan bytes) {
  const std::uint64_t skipped = std::min<std::uint64_t>(skip_, bytes.size());
  skip_ -= skipped;
  offset_ += bytes.size();
  bytes = bytes.subspan(inMemory(skipped));
  return oneByOne_ ? takeRecords(bytes) : records_.append(bytes);
}

bool SortedRecords::takeRecords(ByteSpan bytes) {
  while (!bytes.empty() && !ended_) {
    const std::uint64_t count = std::min<std::uint64_t>(size_ - partial_.size(), bytes.size());
    partial_.insert(partial_.end(), bytes.begin(),
                    bytes.begin() + static_cast<std::ptrdiff_t>(count));
    bytes = bytes.subspan(inMemory(count));
    if (partial_.size() < size_) break;
    // Behind the records that are counted there may be more, or room that was never used.
    ended_ = group_.record.cg_cycle_count != 0 &&
             records_.units() >= group_.record.cg_cycle_count && areZeros(partial_);
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
void SortedRecords::leaveOut(std::uint64_t bytes, std::uint64_t position, const char* what) {
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
             formatText("%s at %" PRIu64 ": it is missing or ends early", what, position));
  } else {
    noteLoss(group_.report, formatText("%s at %" PRIu64 ": %" PRIu64 " bytes, %" PRIu64 " records",
                                       what, position, bytes, lost));
  }
}

}  // namespace tolvex
