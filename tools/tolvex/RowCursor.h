// The records of a group one after the other, by their times.
#pragma once

#include <cstdint>
#include <memory>

#include "GroupRows.h"

namespace tolvex {

// A record of a group; it keeps what was read with it.
struct RowPlace {
  std::shared_ptr<const RowChunk> chunk;  // null: there is none
  std::size_t row = 0;

  explicit operator bool() const { return chunk != nullptr; }
  std::int64_t timeNs() const { return chunk->nanoseconds[row]; }
};

// Goes along the records that have a time, in the order in which they stand in the file. Borrows
// the rows.
class RowCursor {
 public:
  explicit RowCursor(GroupRows& rows) : rows_(rows) { load(); }

  // The record that it stands at; none behind the last one.
  const RowPlace& place() const { return place_; }
  void advance() {
    ++place_.row;
    skip();
  }
  std::uint64_t withoutTime() const { return withoutTime_; }

 private:
  void load() {
    place_ = {rows_.next(), 0};
    skip();
  }
  void skip() {
    while (place_ && (place_.row == place_.chunk->count || place_.timeNs() == kMdfNoTime)) {
      if (place_.row == place_.chunk->count) {
        place_ = {rows_.next(), 0};
      } else {
        ++place_.row;
        ++withoutTime_;
      }
    }
  }

  GroupRows& rows_;
  RowPlace place_;
  std::uint64_t withoutTime_ = 0;
};

}  // namespace tolvex
