// The records of one channel group.
#pragma once

#include <cstdint>
#include <optional>

#include "Mdf4/base/Bytes.h"
#include "Mdf4/format/m4Block.h"
#include "Mdf4/format/m4DataStream.h"

namespace tolvex {

// Records above this size are taken for damage where they would have to be put together.
inline constexpr std::uint32_t kLargestRecord = 0x100000;

// Bytes per record: data and invalidation bytes, the data bytes alone in a group of variable-length
// signal data. 0 when they do not fit into 32 bits.
std::uint32_t recordSizeOf(const M4CGBlock& group);

// Goes along the records of a group that has its data group's data for itself, or to any of them by
// its number. In column storage records come with their invalidation bytes. Copies go on by
// themselves. Not synchronised.
class RecordCursor {
 public:
  // Nothing when the records would have to be put together and are too large for that.
  static std::optional<RecordCursor> over(const m4DataStream& data, const M4CGBlock& group,
                                          bool columnStorage);

  std::uint32_t recordSize() const { return recordSize_; }
  // What a record takes in the data: in column storage invalidation bytes are kept elsewhere.
  std::uint32_t storedSize() const { return storedSize_; }
  // Whole records, by the lengths that the data's blocks state.
  std::uint64_t count() const { return storedSize_ == 0 ? 0 : data_.size() / storedSize_; }
  void seek(std::int64_t index) { data_.Seek(static_cast<std::uint64_t>(index) * storedSize_); }
  // The next record, or as many of its bytes as there are. The view lasts until the next call.
  ByteSpan next() { return data_.next(recordSize_); }

  m4DataStream& data() { return data_; }
  const m4DataStream& data() const { return data_; }

 private:
  RecordCursor(const m4DataStream& data, std::uint32_t recordSize)
      : data_(data), recordSize_(recordSize), storedSize_(recordSize) {}

  m4DataStream data_;
  std::uint32_t recordSize_;
  std::uint32_t storedSize_;
};

}  // namespace tolvex
