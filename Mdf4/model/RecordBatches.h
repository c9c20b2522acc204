// The records of a group, many at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Mdf4/format/TransposedRecords.h"
#include "Mdf4/format/m4DataStream.h"
#include "Mdf4/model/RawField.h"

namespace tolvex {

// The next records of a group: those that lie together in memory, or as many as are lost where
// their data are damaged. Neither at the end.
struct RecordBatch {
  RecordRows rows = {};
  std::uint64_t lost = 0;

  std::uint64_t count() const { return rows.count + lost; }
};

// Goes along records from any one on. What it gives lasts until it is used again. Not synchronised.
class RecordBatches {
 public:
  virtual ~RecordBatches() = default;
  // Records that are there: some of them may be lost.
  virtual std::uint64_t count() = 0;
  virtual void seek(std::uint64_t record) = 0;
  virtual RecordBatch next(std::uint64_t most) = 0;
  // Reading in order fetches up to this many bytes at a time.
  virtual void limitReadAhead(std::uint64_t /*bytes*/) {}
  // From now on only these bytes of each record are looked at; others may be anything.
  virtual void want(const std::vector<RecordBytes>& /*bytes*/) {}

 protected:
  RecordBatches() = default;
  RecordBatches(const RecordBatches&) = default;
  RecordBatches& operator=(const RecordBatches&) = default;
};

// Those of a group that has its data group's data for itself: they stand back to back.
class SortedBatches final : public RecordBatches {
 public:
  // Of `dataBytes` and `invalidationBytes` each, which column storage keeps apart.
  SortedBatches(DirectFile& file, std::shared_ptr<SegmentTable> table, std::uint32_t dataBytes,
                std::uint32_t invalidationBytes);

  std::uint64_t count() override { return count_; }
  void seek(std::uint64_t record) override;
  RecordBatch next(std::uint64_t most) override;
  void limitReadAhead(std::uint64_t bytes) override { stream_.limitReadAhead(bytes); }
  void want(const std::vector<RecordBytes>& bytes) override;

 private:
  RecordRows rowsInMemory(std::uint64_t most);
  std::uint64_t passLost(std::uint64_t most);

  DirectFile& file_;
  std::shared_ptr<SegmentTable> table_;
  m4DataStream stream_;
  std::optional<TransposedRecords> transposed_;  // when few bytes are wanted
  std::uint64_t recordSize_;
  std::uint64_t storedSize_;  // of it in the data: without what column storage keeps apart
  std::uint64_t count_ = 0;
  std::uint64_t next_ = 0;
  std::vector<std::uint8_t> merged_;  // of column storage
};

// Records without bytes: there is only their number.
class CountedBatches final : public RecordBatches {
 public:
  explicit CountedBatches(std::uint64_t count) : count_(count) {}

  std::uint64_t count() override { return count_; }
  void seek(std::uint64_t) override {}
  RecordBatch next(std::uint64_t most) override {
    return {{nullptr, 0, inMemory(most), nullptr}, 0};
  }

 private:
  std::uint64_t count_;
};

}  // namespace tolvex
