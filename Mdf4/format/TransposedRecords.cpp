#include "Mdf4/format/TransposedRecords.h"

#include <algorithm>
#include <utility>

#include "Mdf4/format/CompressedData.h"

namespace tolvex {
namespace {

constexpr std::size_t kTile = 64 * 1024;  // bytes of records: they stay in the processor's cache

}  // namespace

TransposedRecords::TransposedRecords(DirectFile& file, std::shared_ptr<SegmentTable> table,
                                     std::uint64_t recordSize, std::vector<RecordBytes> wanted)
    : file_(file),
      table_(std::move(table)),
      inflater_(file),
      recordSize_(inMemory(recordSize)),
      rowsAtOnce_(std::max<std::size_t>(kTile / recordSize_, 1)),
      wanted_(std::move(wanted)) {}

// Whether the block of the segment is stored column by column, of whole records.
bool TransposedRecords::settle(std::size_t index) {
  if (segment_ == index) return block_ != nullptr;
  segment_ = index;
  if (!table_->settle(file_, index)) return false;
  DataSegment& segment = (*table_)[index];
  const std::uint64_t position = segment.position - kBlockHeaderSize;
  BlockHeader header;
  CompressedData data;
  const bool isOurs = segment.type == block_type::kDZ && segment.start % recordSize_ == 0 &&
                      file_.ReadAt(position, kBlockHeaderSize, &header) &&
                      data.read(file_, position, header) && data.isTransposed() &&
                      data.record.dz_zip_parameter == recordSize_;
  if (!isOurs) {
    block_.reset();
    return false;
  }
  return inflater_.inflateStored(segment, block_);
}

ByteSpan TransposedRecords::next(std::uint64_t record, std::uint64_t most) {
  const std::uint64_t offset = record * recordSize_;
  const std::size_t index = table_->find(offset);
  if (index >= table_->count() || !settle(index)) return {};
  const std::size_t rows = inMemory(block_->size) / recordSize_;
  const std::uint64_t passed = (offset - (*table_)[index].start) / recordSize_;
  if (block_->rowBytes != recordSize_ || passed >= rows) return {};
  const std::size_t first = inMemory(passed);
  const auto count =
      static_cast<std::size_t>(std::min<std::uint64_t>({most, rows - first, rowsAtOnce_}));
  rows_.resize(rowsAtOnce_ * recordSize_);
  for (const RecordBytes& range : wanted_) {
    for (std::size_t byte = range.first; byte < range.first + range.count; ++byte) {
      const std::uint8_t* const from = block_->bytes.data() + byte * rows + first;
      std::uint8_t* to = rows_.data() + byte;
      for (std::size_t i = 0; i < count; ++i, to += recordSize_) *to = from[i];
    }
  }
  return {rows_.data(), count * recordSize_};
}

}  // namespace tolvex
