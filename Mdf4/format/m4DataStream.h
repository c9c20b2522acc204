// A data group's data blocks as one byte sequence.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Mdf4/base/ByteBuffer.h"
#include "Mdf4/base/Bytes.h"
#include "Mdf4/format/DataBlocks.h"
#include "Mdf4/format/SegmentInflater.h"
#include "Mdf4/format/SegmentTable.h"

namespace tolvex {

// Reads the bytes behind a data link, or writes new ones into data blocks and their lists.
//
// Reading: one position, which seeking and reading move. Bytes come from the file in large pieces
// when they are read in order; of compressed blocks, one at a time is held inflated, and for values
// the file holds those that were used last. Copies read independently and share the segment table.
// Borrows the file. Not synchronised.
class m4DataStream {
 public:
  // For reading.
  m4DataStream(DirectFile& file, std::shared_ptr<SegmentTable> table);
  m4DataStream(DirectFile& file, std::uint64_t dataLink, std::uint64_t expectedSize = 0);
  m4DataStream(const m4DataStream& other);
  m4DataStream& operator=(const m4DataStream&) = delete;
  virtual ~m4DataStream();

  DirectFile& file() const { return *file_; }
  bool valid() const { return table_ != nullptr && table_->valid(); }
  std::uint64_t size() const { return table_ == nullptr ? 0 : table_->totalSize(); }
  std::uint64_t presentSize() const { return table_ == nullptr ? 0 : table_->presentSize(); }
  std::uint64_t position() const { return at_ - skew_; }

  // For column storage: from now on records of `dataBytes` are delivered with the `invalBytes` of
  // their invalidation block behind them (zeros where there is none). Lengths given to Read then
  // count both; Seek still counts data bytes alone.
  void mergeInvalidation(std::uint32_t dataBytes, std::uint32_t invalBytes);
  // Reading in order fetches up to this many bytes at a time, 256 KiB at first.
  void limitReadAhead(std::uint64_t bytes) { mostReadAhead_ = bytes; }
  bool merges() const { return invalBytes_ != 0; }
  // What reading ahead and inflating hold in memory. Releasing it costs the next read to read or
  // inflate its block again; the end of the data does it too, since a reader may keep the streams
  // of thousands of groups.
  std::uint64_t heldBytes() const;
  void releaseBuffers();

  // Moves to the offset and returns it. An offset that no segment holds, the size included, goes to
  // the first segment and returns 0, but keeps the offset inside the segment that was current; when
  // that lies beyond the first segment, reading finds the end of the data.
  std::uint64_t Seek(std::uint64_t offset);
  // Copies the next `length` bytes; with merging, `length` is that of `records` whole records.
  // Returns the bytes delivered: fewer at the end of the data and in front of a damaged block. What
  // a cut file no longer holds of a block's share is not delivered in part.
  [[nodiscard]] std::uint64_t Read(std::uint64_t length, std::uint8_t* buffer,
                                   std::uint32_t records = 0);
  // The next `length` bytes, or the next record when merging, without copying where possible; fewer
  // as for Read, but none when the system fails to read them: then another call tries again. The
  // view lasts until the stream is used again.
  ByteSpan next(std::uint64_t length) {
    if (at_ >= windowStart_ && at_ <= windowEnd_ && length <= windowEnd_ - at_ && !merges()) {
      const std::uint8_t* const bytes = window_ + (at_ - windowStart_);
      at_ += length;
      return {bytes, inMemory(length)};
    }
    return nextSlowly(length);
  }
  // The next `least` bytes as next gives them, and those that lie behind them in memory.
  ByteSpan nextAtLeast(std::uint64_t least);
  // Reads the value at `offset`, a 32-bit length and that many bytes, or its first `longest` bytes.
  // False, with `value` unchanged and the damage noted, when it does not lie inside the data.
  [[nodiscard]] bool readValue(std::uint64_t offset, std::vector<std::uint8_t>& value,
                               std::uint64_t longest = ~std::uint32_t{0});

  // For writing: data blocks of the capacity that `data` has, listed by a DL or an LD (`list` given
  // anew, one of the two), with `invalidation` blocks beside them for an LD. Places the first list;
  // data blocks are placed when a byte needs them, and written, with their list, when they are
  // full.
  struct Blocks {
    std::unique_ptr<M4DataBlock> data;
    std::unique_ptr<M4DataBlock> invalidation;
    std::unique_ptr<M4DLBlock> dataList;
    std::unique_ptr<M4LDBlock> columnList;
  };
  m4DataStream(DirectFile& file, Blocks blocks);

  // The position of the first list, for the data link; 0 when it could not be written.
  std::uint64_t firstList() const { return firstList_; }
  // After finish: the appended bytes that no listed block of the file holds.
  std::uint64_t lostBytes() const { return lostBytes_; }
  // An 8-byte position that finish writes at `position`.
  void addPendingLink(std::uint64_t position, std::uint64_t value);
  // From now on the file tells whose every block is: a DL names each one as soon as it has its
  // place, and counts it, as ever, once it is there. For blocks that might be taken for those of
  // another stream. False when the open block could not be named; writing tries again then.
  [[nodiscard]] bool nameBlocksAtOnce();
  // Appends bytes, and invalidation bytes in the same proportion to the blocks' capacities. False
  // when a write fails or there is no list to name another block: nothing is appended then, and the
  // next call tries again. Only when a call's bytes fill several blocks and not the first of them
  // fails, the stream refuses whatever follows, since a part of them is in the file.
  [[nodiscard]] virtual bool write(const std::uint8_t* data, std::uint64_t length,
                                   const std::uint8_t* invalidation,
                                   std::uint64_t invalidationLength);
  // Where to put the next `length` bytes, when they fit into the open block and leave room in it,
  // so that appending them cannot fail; else null. They count as appended from appendInPlace on.
  std::uint8_t* placeFor(std::uint64_t length) {
    return filling_ != nullptr && length < filling_->room() ? filling_->end() : nullptr;
  }
  void appendInPlace(std::uint64_t length) { filling_->appendInPlace(length); }
  // The most bytes for which placeFor has a place.
  std::uint64_t roomInPlace() const {
    return filling_ != nullptr && filling_->room() != 0 ? filling_->room() - 1 : 0;
  }
  // Appends zeros.
  [[nodiscard]] virtual bool skip(std::uint64_t length);
  // Names the open data blocks, writes them, counts them and writes the pending links, in this
  // order: lists lead to all that the file holds at every moment in between. `full`: the file then
  // covers the whole room reserved for a block, while its header states the bytes that are filled.
  // A data block that cannot be written is not listed.
  [[nodiscard]] virtual bool finish(bool full);
  // Finishes what is pending and releases all buffers and blocks.
  [[nodiscard]] virtual bool close();

 private:
  struct Pending {
    std::uint64_t position;
    std::uint64_t value;
  };

  void seekInside(std::uint64_t offset);
  std::uint64_t offsetInSegment() const;
  std::size_t segmentAt(std::uint64_t offset);
  ByteSpan nextSlowly(std::uint64_t length);
  ByteSpan nextMerged(std::uint64_t length);
  ByteSpan nextPlain(std::uint64_t length);
  void refill(std::uint64_t wanted);
  void setWindow(const std::uint8_t* bytes, std::uint64_t start, std::uint64_t length);
  std::uint64_t assemble(std::uint64_t length, std::uint8_t* buffer);
  std::uint64_t readPlain(std::uint64_t offset, std::uint64_t length, std::uint8_t* buffer);
  std::uint64_t wholeShares(std::uint64_t offset, std::uint64_t got, std::uint64_t wanted);
  [[nodiscard]] bool inflate(std::size_t index);
  std::uint64_t readMerged(std::uint64_t length, std::uint8_t* buffer, std::uint32_t records);
  std::uint64_t readInvalidation(std::size_t index, std::uint64_t offset,
                                 WritableBytes invalidation);

  bool fail(bool inFirstBlock);
  [[nodiscard]] bool saveBlock();
  [[nodiscard]] bool writeOut();
  [[nodiscard]] bool saveList();
  [[nodiscard]] bool nameOpenBlock();
  [[nodiscard]] bool nextBlock();
  void takeBack(std::uint64_t bytes, std::uint64_t invalidation);

  DirectFile* file_;

  // Reading.
  std::shared_ptr<SegmentTable> table_;
  std::uint64_t at_ = 0;     // offset of the next byte
  std::uint64_t skew_ = 0;   // at_ less the position that a rewinding seek claims
  std::uint64_t limit_ = 0;  // reading in order ends here
  std::uint64_t stale_ = 0;  // offset in the segment that a seek left behind, beyond the first one
  std::size_t segment_ = 0;  // the last one looked at
  const std::uint8_t* window_ = nullptr;  // bytes windowStart_ .. windowEnd_ of the sequence
  std::uint64_t windowStart_ = 0;
  std::uint64_t windowEnd_ = 0;
  std::uint64_t readAhead_ = 0;
  std::uint64_t mostReadAhead_ = 256 * 1024;
  ByteBuffer buffer_;
  ByteBuffer scratch_;
  SegmentInflater inflater_;
  std::shared_ptr<InflatedBlock> inflated_;  // of inflatedSegment_; null: none
  std::size_t inflatedSegment_ = 0;
  std::shared_ptr<InflatedBlock> inflatedInvalidation_;  // of invalidationSegment_; null: none
  std::size_t invalidationSegment_ = 0;
  bool readsValues_ = false;
  std::uint32_t dataBytes_ = 0;
  std::uint32_t invalBytes_ = 0;

  // Writing.
  Blocks blocks_;
  std::vector<Pending> pendingLinks_;
  std::uint64_t firstList_ = 0;
  std::uint64_t unlistedBytes_ = 0;  // in blocks that the file holds, but no list in it
  std::uint64_t lostBytes_ = 0;
  std::uint64_t listSavedMs_ = 0;   // when the list was written last, of steadyMilliseconds
  M4DataBlock* filling_ = nullptr;  // the open data block, unless the stream is broken
  bool pending_ = false;            // something is not in the file yet
  bool open_ = false;               // the data blocks have a place
  bool named_ = false;              // which a list in the file names
  bool nameAtOnce_ = false;
  bool broken_ = false;  // the file holds a part of what a call should have appended
};

}  // namespace tolvex
