// Where the bytes of one data link lie in the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/ListWalk.h"

namespace tolvex {

class VisitedBlocks;

// One listed data block.
struct DataSegment {
  std::uint64_t position = 0;  // of the data section: 24 bytes behind the block's start
  std::uint64_t length = 0;    // bytes that the block contributes, inflated
  std::uint64_t start = 0;     // of these bytes in the whole sequence
  std::uint16_t type = 0;      // 0: not yet known
  bool checked = false;        // the block was held against what its list says of it
  bool damaged = false;        // and failed: reading ends in front of it
};

// The data blocks that a data link leads to, in order: one block, a chain of lists, or a header in
// front of a chain. Made once per data link and shared by all streams over it; a few dozen bytes
// per block. What a list does not say of a block is read when a stream reaches the block.
class SegmentTable {
 public:
  // What an empty block among others does.
  enum class Empty : std::uint8_t { EndsReading, IsPassed };

  // Reads the lists at `dataLink` (0: nothing). `expectedSize`, or 0, only sizes the tables in
  // advance.
  SegmentTable(DirectFile& file, std::uint64_t dataLink, std::uint64_t expectedSize,
               Empty empty = Empty::EndsReading);
  // What there is of the data blocks where lists and blocks may be damaged, or were never finished:
  // each contributes the bytes that it has, and a missing one is a damaged segment. Ends where it
  // cannot be told how much is missing, and with `lastIsOpen` behind a block that states no length.
  // Looks at each block. Empty ones are passed.
  static SegmentTable ofWhatIsThere(DirectFile& file, std::uint64_t dataLink,
                                    bool lastIsOpen = false);
  // Of a recording that was not finished: the last block, unless it is compressed, goes on to
  // `end`. This and append are for tables that pass empty blocks.
  void extendLast(std::uint64_t end);
  // Adds a data block, with its bytes at the position, behind the others.
  void append(DirectFile& file, std::uint64_t position, std::uint64_t length);

  // False when a list or a listed block is not what it must be; the table is then empty.
  bool valid() const { return valid_; }
  bool columnStorage() const { return columnStorage_; }
  std::uint64_t totalSize() const { return totalSize_; }
  // At most this many bytes can be read: totalSize less what a cut file no longer holds and what
  // no compressed block can give.
  std::uint64_t presentSize() const { return presentSize_; }

  // Without the terminating empty segment.
  std::size_t count() const { return data_.size() - 1; }
  DataSegment& operator[](std::size_t index) { return data_[index]; }
  // The invalidation segment beside a data segment; empty when there is none.
  DataSegment& invalidation(std::size_t index);
  // The segment that holds the offset; count() when none does.
  std::size_t find(std::uint64_t offset) const;
  // Where reading on from `offset` ends: at the next empty segment, the last one at the latest.
  std::uint64_t limitAfter(std::uint64_t offset) const;

  // Learns the type of a segment's block, from its header, and checks that the block holds what
  // its list says and does not overlap another one. False when it is damaged.
  [[nodiscard]] bool settle(DirectFile& file, std::size_t index);
  // The same with a header that was read already.
  [[nodiscard]] bool settle(DirectFile& file, std::size_t index, const BlockHeader& header);

 private:
  explicit SegmentTable(Empty empty) : empty_(empty) {}

  // What became of an entry of a list. Absent: so is the rest of the data.
  enum class Entry : std::uint8_t { Listed, Absent, Wrong };

  [[nodiscard]] bool readLists(DirectFile& file, std::uint64_t dataLink,
                               std::uint64_t expectedSize);
  [[nodiscard]] bool readChain(DirectFile& file, ListWalk& walk, const BlockScan& first,
                               std::uint64_t expectedSize);
  Entry readDataEntry(DirectFile& file, const ListWalk& walk, std::uint64_t expectedSize);
  Entry readColumnEntry(DirectFile& file, const ListWalk& walk, VisitedBlocks& visited,
                        std::uint64_t expectedSize);
  void addInvalidation(DirectFile& file, std::uint64_t position, VisitedBlocks& visited);
  [[nodiscard]] bool readSegment(DirectFile& file, std::uint64_t blockPosition,
                                 DataSegment& segment);
  [[nodiscard]] bool append(DirectFile& file, const DataSegment& segment,
                            std::uint64_t expectedSize);
  void finish(DirectFile& file);
  bool damage(DirectFile& file, DataSegment& segment, std::uint64_t found);
  std::uint64_t roomOf(std::size_t index) const;

  std::vector<DataSegment> data_;
  std::vector<DataSegment> invalidation_;
  Empty empty_;
  std::vector<std::uint64_t> emptyStarts_;  // of the empty segments that end reading, ascending
  std::vector<std::size_t> byPosition_;  // the segments, only when they do not ascend in the file
  std::uint64_t totalSize_ = 0;
  std::uint64_t presentSize_ = 0;
  bool columnStorage_ = false;
  bool valid_ = false;
};

}  // namespace tolvex
