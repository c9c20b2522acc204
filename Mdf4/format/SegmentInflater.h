// The bytes of the compressed blocks of a segment table.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "Mdf4/format/BlockInflater.h"
#include "Mdf4/format/SegmentTable.h"

namespace tolvex {

// Inflates blocks within the file's budget and shares those that are in memory. Borrows the file.
class SegmentInflater {
 public:
  explicit SegmentInflater(DirectFile& file) : file_(file) {}

  // Puts the segment's bytes into `block`, in place of another one's: those that are in memory
  // already, or inflated anew, then in the same memory when nobody else uses it. Null when that
  // fails. `forValues`: the file holds them for values to come.
  [[nodiscard]] bool inflate(DataSegment& segment, bool forValues,
                             std::shared_ptr<InflatedBlock>& block) {
    return inflate(segment, forValues, false, block);
  }
  // The same of records of which few bytes are wanted: what is stored column by column stays so.
  [[nodiscard]] bool inflateStored(DataSegment& segment, std::shared_ptr<InflatedBlock>& block) {
    return inflate(segment, false, true, block);
  }

  std::uint64_t heldBytes() const { return inflater_ ? inflater_->heldBytes() : 0; }
  void releaseBuffers() {
    if (inflater_) inflater_->releaseBuffers();
  }

 private:
  [[nodiscard]] bool inflate(DataSegment& segment, bool forValues, bool asStored,
                             std::shared_ptr<InflatedBlock>& block);
  [[nodiscard]] bool inflateNew(DataSegment& segment, bool again, bool asStored,
                                InflatedBlock& out);

  DirectFile& file_;
  std::optional<BlockInflater> inflater_;  // made for the first one
};

}  // namespace tolvex
