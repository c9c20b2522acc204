// Takes over the records of a group that stand one behind the other.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "Mdf4/format/BlockBytes.h"
#include "Mdf4/rewrite/DataWriter.h"
#include "Mdf4/rewrite/FoundData.h"
#include "Mdf4/rewrite/RecordValues.h"
#include "Mdf4/rewrite/SourceGroup.h"

namespace tolvex {

// Copies whole records from block to block and steps over what is missing: where the length of the
// missing part is known, with the record that begins behind it, else with the next block. Borrows
// everything.
class SortedRecords {
 public:
  using Done = std::function<void(std::uint64_t bytes)>;

  SortedRecords(DirectFile& in, SourceGroup& group, RecordValues& values, DataWriter& records,
                const WorkSizes& sizes)
      : in_(in),
        group_(group),
        values_(values),
        records_(records),
        size_(group.recordSize()),
        pieceSize_(std::max(sizes.piece / size_, std::uint64_t{1}) * size_),
        last_(inMemory(size_)) {}

  // False when a write fails.
  [[nodiscard]] bool copy(const FoundData& run, const Done& done);
  // Whether invalidation bytes were lost alone.
  bool lostInvalidation() const { return lostInvalidation_; }

 private:
  [[nodiscard]] bool copyBlock(const ListedBlock& found, bool isLast, const Done& done);
  std::uint64_t writtenBytes(const ListedBlock& block);
  std::uint64_t filledBytes(const ListedBlock& block);
  // A part of a piece that holds nothing.
  struct Hole {
    std::uint64_t start;
    std::uint64_t end;
  };

  [[nodiscard]] bool takePiece(RecordBytes& bytes, std::uint64_t count, std::uint64_t position,
                               std::uint64_t& got);
  std::optional<Hole> findHole(ByteSpan bytes, std::uint64_t from, std::uint64_t position,
                               bool toEnd) const;
  bool endsOnSector(std::uint64_t end, std::uint64_t sector) const;
  void keepLast(ByteSpan bytes);
  bool timeFalls(ByteSpan bytes, std::uint64_t from, Hole hole) const;
  [[nodiscard]] bool takeBytes(ByteSpan bytes);
  [[nodiscard]] bool takeRecords(ByteSpan bytes);
  void leaveOut(std::uint64_t bytes, std::uint64_t position, const char* what = "data block");

  DirectFile& in_;
  SourceGroup& group_;
  RecordValues& values_;
  DataWriter& records_;
  const std::uint64_t size_;           // of a record
  const std::uint64_t pieceSize_;      // bytes of whole records that are read at a time
  bool oneByOne_ = false;              // records are looked at, not just copied
  std::uint64_t offset_ = 0;           // in the sequence of all records, as far as it is known
  std::uint64_t skip_ = 0;             // bytes up to the next record
  std::uint64_t openHole_ = 0;         // position where a hole went beyond what was read; 0: none
  bool isFinished_ = false;            // the group has the records that it counts
  std::vector<std::uint8_t> last_;     // record of what was taken, zeros at first
  std::vector<std::uint8_t> piece_;    // one by one: what was read
  std::vector<std::uint8_t> partial_;  // and the beginning of a record
  bool lostInvalidation_ = false;
  bool ended_ = false;  // what follows is unused room
};

}  // namespace tolvex
