// Few bytes of many records whose blocks are stored column by column.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Mdf4/format/SegmentInflater.h"

namespace tolvex {

// Bytes of a record.
struct RecordBytes {
  std::size_t first = 0;
  std::size_t count = 0;
};

// Goes along the records of a data group and puts the bytes that are wanted into their places,
// where all of a block's would have to be moved else. Borrows the file. Not synchronised.
class TransposedRecords {
 public:
  // Of records of that size, of which only these bytes are looked at.
  TransposedRecords(DirectFile& file, std::shared_ptr<SegmentTable> table, std::uint64_t recordSize,
                    std::vector<RecordBytes> wanted);

  // Records from that one on, at most so many: those at hand that lie in one block which is stored
  // so, one behind the other, of each the wanted bytes. Empty when it is in no such block. They
  // last until the next call.
  ByteSpan next(std::uint64_t record, std::uint64_t most);

 private:
  bool settle(std::size_t index);

  DirectFile& file_;
  std::shared_ptr<SegmentTable> table_;
  SegmentInflater inflater_;
  const std::size_t recordSize_;
  const std::size_t rowsAtOnce_;
  std::vector<RecordBytes> wanted_;
  std::shared_ptr<InflatedBlock> block_;  // of the segment at hand; null: it is stored otherwise
  std::size_t segment_ = ~std::size_t{0};
  std::vector<std::uint8_t> rows_;
};

}  // namespace tolvex
