#include "Mdf4/model/RecordCursor.h"

namespace tolvex {

std::uint32_t recordSizeOf(const M4CGBlock& group) {
  if ((group.cg_flags & kCgFlagVlsd) != 0) return group.cg_data_bytes;
  const std::uint64_t size = std::uint64_t{group.cg_data_bytes} + group.cg_inval_bytes;
  return size > ~std::uint32_t{0} ? 0 : static_cast<std::uint32_t>(size);
}

std::optional<RecordCursor> RecordCursor::over(const m4DataStream& data, const M4CGBlock& group,
                                               bool columnStorage) {
  RecordCursor records(data, recordSizeOf(group));
  if (columnStorage && group.cg_inval_bytes != 0) {
    if (records.recordSize_ == 0 || records.recordSize_ > kLargestRecord) return std::nullopt;
    records.data_.mergeInvalidation(group.cg_data_bytes, group.cg_inval_bytes);
    records.storedSize_ -= group.cg_inval_bytes;
  }
  return records;
}

}  // namespace tolvex
