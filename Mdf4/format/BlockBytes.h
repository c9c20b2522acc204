// The bytes of one data block, whatever its kind.
#pragma once

#include <cstdint>
#include <optional>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/ListedBlocks.h"
#include "Mdf4/format/m4DataStream.h"

namespace tolvex {

// Reads a block from front to back. Borrows the file.
class BlockBytes {
 public:
  // No compressed block that inflates to more is taken for one.
  static constexpr std::uint64_t kLargestInflated = std::uint64_t{64} << 20;

  BlockBytes(DirectFile& file, const ListedBlock& block);
  // So many bytes that stand there as they are.
  BlockBytes(DirectFile& file, std::uint64_t position, std::uint64_t bytes)
      : file_(file), position_(position), left_(bytes) {}

  std::uint64_t left() const { return left_; }
  // The next `bytes`, at most left(). False when they cannot be read or inflated.
  [[nodiscard]] bool read(std::uint64_t bytes, std::uint8_t* to);
  // The next bytes, up to `bytes`, that can be read; returns how many.
  [[nodiscard]] std::uint64_t readSome(std::uint64_t bytes, std::uint8_t* to);
  // Passes over the unreadable bytes that come next; returns how many. 0: there is no way on.
  [[nodiscard]] std::uint64_t passUnreadable();
  // Passes over bytes without a look; not in a compressed block.
  void pass(std::uint64_t bytes);
  bool canPass() const { return !inflated_; }

 private:
  DirectFile& file_;
  std::uint64_t position_ = 0;
  std::uint64_t left_ = 0;
  std::optional<m4DataStream> inflated_;
};

// The same of a block in column storage and the one beside it: records of `dataBytes` with their
// `invalBytes` behind them.
class RecordBytes {
 public:
  RecordBytes(DirectFile& file, const ListedBlock& block, std::uint32_t dataBytes,
              std::uint32_t invalBytes);

  std::uint64_t left() const;
  // As those of BlockBytes; of a block in column storage whole records.
  [[nodiscard]] std::uint64_t readSome(std::uint64_t bytes, std::uint8_t* to);
  [[nodiscard]] std::uint64_t passUnreadable();
  // Whether invalidation bytes that should be there are not; they are read as 0.
  bool lostInvalidation() const { return lostInvalidation_; }

 private:
  void readInvalidation(std::uint8_t* to);
  void passInvalidation();

  BlockBytes data_;
  std::optional<BlockBytes> invalidation_;
  std::uint32_t dataBytes_;
  std::uint32_t invalBytes_;  // 0: nothing is merged
  bool lostInvalidation_ = false;
};

}  // namespace tolvex
