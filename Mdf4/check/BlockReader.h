// How the bytes of data blocks get to the checks that look at them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "Mdf4/base/ByteBuffer.h"
#include "Mdf4/check/BlockCheck.h"
#include "Mdf4/format/BlockInflater.h"
#include "Mdf4/format/CompressedData.h"
#include "Mdf4/format/WorkSizes.h"

namespace tolvex {

// One data block, as it takes part in the sequence behind a data link.
struct StoredPart {
  std::uint64_t position = 0;  // of its data in the file, or of their compressed form
  std::uint64_t length = 0;    // bytes in the sequence
  std::optional<CompressedData> zip = {};

  std::uint64_t stored() const { return zip ? zip->record.dz_data_length : length; }
};

// Takes in the sequence of bytes behind one data link, block by block.
class ByteSink {
 public:
  virtual ~ByteSink() = default;

  // Whether bytes are wanted; else those of plain blocks are not even read.
  virtual bool wantsBytes() const { return false; }
  virtual void begin(const StoredPart& /*part*/) {}
  // The next bytes; `position` is where they stand in the file, or their compressed block's data.
  virtual void bytes(ByteSpan /*piece*/, std::uint64_t /*position*/) {}
  // The next bytes are not handed on: not wanted, damaged or too many to be put in order.
  virtual void skip(std::uint64_t /*length*/) {}
  // `complete`: nothing is known to be missing.
  virtual void end(bool /*complete*/) {}
};

// Reads and inflates data blocks with the same few buffers for all of them. What may be inflated is
// bounded by the file's size. Borrows the walk.
class BlockReader {
 public:
  // `progress` is told of bytes of the file, as they are done with.
  BlockReader(BlockCheck& walk, const WorkSizes& sizes,
              std::function<void(std::uint64_t)> progress);

  // Hands the block's bytes to the sink, and enters what is wrong with them. False when there was.
  [[nodiscard]] bool deliver(const FoundBlock& block, const StoredPart& part, ByteSink& sink);
  // The whole of a compressed block in order, for values: those used last are held by the file.
  // Null when it is damaged, is too large to be held or too much was inflated already.
  std::shared_ptr<const InflatedBlock> inflate(const StoredPart& part);
  // False for blocks that inflate never gives.
  bool canBeHeld(const StoredPart& part) const { return part.length <= sizes_.held; }

 private:
  bool deliverPlain(const StoredPart& part, ByteSink& sink);
  bool deliverInflated(const FoundBlock& block, const StoredPart& part, ByteSink& sink);
  bool charge(std::uint64_t bytes);

  BlockCheck& walk_;
  const WorkSizes sizes_;
  std::function<void(std::uint64_t)> progress_;
  BlockInflater inflater_;
  BlockInflater lookUps_;  // while the other one is at work
  ByteBuffer buffer_;
  ByteBuffer rows_;
  std::uint64_t budget_;  // bytes that may still be inflated
  bool toldOfBudget_ = false;
};

}  // namespace tolvex
