#include "Mdf4/model/RecordBatches.h"

#include <algorithm>
#include <utility>

namespace tolvex {

SortedBatches::SortedBatches(DirectFile& file, std::shared_ptr<SegmentTable> table,
                             std::uint32_t dataBytes, std::uint32_t invalidationBytes)
    : file_(file),
      table_(std::move(table)),
      stream_(file, table_),
      recordSize_(std::uint64_t{dataBytes} + invalidationBytes),
      storedSize_(recordSize_) {
  if (table_->columnStorage() && invalidationBytes != 0) {
    stream_.mergeInvalidation(dataBytes, invalidationBytes);
    storedSize_ = dataBytes;
  }
  if (storedSize_ != 0) count_ = stream_.size() / storedSize_;
}

void SortedBatches::seek(std::uint64_t record) {
  next_ = std::min(record, count_);
  if (next_ < count_) stream_.Seek(next_ * storedSize_);
}

RecordBatch SortedBatches::next(std::uint64_t most) {
  RecordBatch batch;
  most = std::min(most, count_ - next_);
  if (most == 0) return batch;
  if (transposed_) {
    const ByteSpan bytes = transposed_->next(next_, most);
    batch.rows = {bytes.data(), inMemory(recordSize_), bytes.size() / inMemory(recordSize_),
                  bytes.data() + bytes.size()};
    next_ += batch.rows.count;
    if (batch.rows.count != 0) return batch;
  }
  if (stream_.position() != next_ * storedSize_) stream_.Seek(next_ * storedSize_);
  batch.rows = rowsInMemory(most);
  if (batch.rows.count == 0) {
    stream_.Seek(next_ * storedSize_);
    batch.rows = rowsInMemory(most);
  }
  if (batch.rows.count == 0) batch.lost = passLost(most);
  next_ += batch.count();
  return batch;
}

// To put all bytes of a block into their places is the faster way for more than half of them.
void SortedBatches::want(const std::vector<RecordBytes>& bytes) {
  std::uint64_t count = 0;
  for (const RecordBytes& range : bytes) count += range.count;
  transposed_.reset();
  if (recordSize_ == 0 || stream_.merges() || count > recordSize_ / 2) return;
  transposed_.emplace(file_, table_, recordSize_, bytes);
}

RecordRows SortedBatches::rowsInMemory(std::uint64_t most) {
  constexpr std::uint64_t kMostMerged = 1 << 20;  // bytes
  if (!stream_.merges()) {
    const ByteSpan bytes = stream_.nextAtLeast(recordSize_);
    return {bytes.data(), inMemory(recordSize_),
            inMemory(std::min(most, bytes.size() / recordSize_)), bytes.data() + bytes.size()};
  }
  // Of one block, and those whose bytes of invalidation are there, too: all that is read at once is
  // there, or nothing of it.
  const std::uint64_t start = next_ * storedSize_;
  const std::size_t index = table_->find(start);
  const DataSegment& segment = (*table_)[index];
  const DataSegment& beside = table_->invalidation(index);
  std::uint64_t here =
      std::max<std::uint64_t>((segment.start + segment.length - start) / storedSize_, 1);
  if (beside.position != 0) {
    const std::uint64_t before = (start - segment.start) / storedSize_;
    const std::uint64_t stated = beside.length / (recordSize_ - storedSize_);
    here = std::min(here, stated - std::min(stated, before));
    if (here == 0) return {};
  }
  const auto records = static_cast<std::uint32_t>(
      std::min({std::max<std::uint64_t>(kMostMerged / recordSize_, 1), here, most}));
  merged_.resize(inMemory(records * recordSize_));
  const bool isWhole = stream_.Read(merged_.size(), merged_.data(), records) == merged_.size();
  return {merged_.data(), inMemory(recordSize_), isWhole ? records : 0,
          merged_.data() + merged_.size()};
}

// Those of which the damaged block at hand has a part; of one that cannot be read now, likewise.
std::uint64_t SortedBatches::passLost(std::uint64_t most) {
  const std::uint64_t start = next_ * storedSize_;
  const std::size_t first = table_->find(start);
  const std::size_t last = table_->find(start + storedSize_ - 1);
  std::size_t segment = first;
  while (segment < last && !(*table_)[segment].damaged) ++segment;
  if (!(*table_)[segment].damaged) segment = first;
  const std::uint64_t end = (*table_)[segment].start + (*table_)[segment].length;
  return std::clamp<std::uint64_t>((end - start + storedSize_ - 1) / storedSize_, 1, most);
}

}  // namespace tolvex
