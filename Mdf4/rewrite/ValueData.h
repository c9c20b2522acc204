// The variable-length values of one channel in a recovered file.
#pragma once

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "Mdf4/base/Bytes.h"
#include "Mdf4/model/ValueStarts.h"
#include "Mdf4/rewrite/DataWriter.h"
#include "Mdf4/rewrite/FoundData.h"

namespace tolvex {

// A value is a 32-bit length and so many bytes; a record names it by its offset. Values are taken
// over with the blocks that they lie in, or one by one.
//
// What is written is a sequence of whole values. Where the input's sequence breaks off or loses its
// way, everything from there on becomes one value that nobody names; those that records find in it
// are added once more behind it. Borrows the files.
class ValueData {
 public:
  ValueData(DirectFile& out, const WorkSizes& sizes);

  // Copies all blocks of the input's signal data. False when a write fails.
  [[nodiscard]] bool copy(DirectFile& in, const FoundData& run);
  // Where the value lies that had this offset in the input; nothing when it is not whole.
  [[nodiscard]] std::optional<std::uint64_t> find(std::uint64_t offset);
  // The bytes of the input's signal data that are lost. More when `openEnd`, for want of a length.
  std::uint64_t lostBytes() const { return lostBytes_; }
  bool openEnd() const { return openEnd_; }

  // Adds a value with its length in front and gives its offset.
  std::uint64_t add(ByteSpan value);
  // The offset of a value without bytes.
  std::uint64_t empty();

  DataWriter& writer() { return writer_; }

 private:
  struct Lost {
    std::uint64_t start;  // in the input's signal data
    std::uint64_t end;
    std::uint64_t before;  // bytes lost up to `end`
  };

  void lose(std::uint64_t start, std::uint64_t bytes);
  [[nodiscard]] bool coverRest();
  [[nodiscard]] std::optional<std::uint64_t> addAgain(std::uint64_t offset, std::uint64_t size);

  const std::uint64_t pieceSize_;
  DataWriter writer_;
  std::vector<Lost> lost_;  // in ascending order
  std::uint64_t lostBytes_ = 0;
  bool openEnd_ = false;
  std::optional<std::uint64_t> empty_;
  ValueStarts starts_;
  std::uint64_t copied_ = 0;           // bytes that came with their blocks
  std::vector<std::uint64_t> covers_;  // offsets of lengths that cover what is no sequence
  std::unordered_map<std::uint64_t, std::uint64_t>
      again_;                   // offsets of values that were added again
  std::uint64_t copyable_ = 0;  // bytes that may still be
};

}  // namespace tolvex
