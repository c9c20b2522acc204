// Writes a sequence of bytes into data blocks.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Mdf4/base/Bytes.h"
#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/WorkSizes.h"

namespace tolvex {

// Gathers bytes into blocks at the end of a file and lists the blocks. Borrows the file. After a
// write failed, whatever follows fails as well.
class DataWriter {
 public:
  // Blocks of kind `type` that hold about `sizes.block` bytes, and only whole units of `unit`.
  DataWriter(DirectFile& file, std::uint16_t type, std::uint64_t unit, const WorkSizes& sizes);

  // Where to put the next `bytes`, which count from commit on.
  std::uint8_t* room(std::uint64_t bytes);
  [[nodiscard]] bool commit(std::uint64_t bytes);
  [[nodiscard]] bool append(ByteSpan bytes);
  // Drops the bytes that were committed last: at most rest() of them.
  void takeBack(std::uint64_t bytes) { used_ -= bytes; }
  // Bytes committed so far that are no whole unit.
  std::uint64_t rest() const { return used_ % unit_; }

  // Writes what is gathered and the last list. Nothing may follow.
  [[nodiscard]] bool finish();

  std::uint64_t size() const { return written_ + used_; }  // bytes
  std::uint64_t units() const { return size() / unit_; }
  // From now on a checksum of what is written is kept.
  void keepChecksum() { hasChecksum_ = true; }
  // CRC-32 of the written bytes.
  std::uint32_t checksum() const { return checksum_; }
  // After finish: the position of the one block or of the first list; 0 without bytes.
  std::uint64_t link() const { return link_; }

  // Reads bytes again, written or gathered. False when they are not all there.
  [[nodiscard]] bool read(std::uint64_t offset, WritableBytes bytes) const;
  // Puts others in the place of bytes that are there.
  [[nodiscard]] bool overwrite(std::uint64_t offset, ByteSpan bytes);

 private:
  struct Block {
    std::uint64_t offset;  // of its first byte in the sequence
    std::uint64_t position;
  };

  [[nodiscard]] bool overwriteByte(std::uint64_t offset, std::uint8_t byte);
  const Block& blockAt(std::uint64_t offset) const;
  [[nodiscard]] bool writeBlock(std::uint64_t bytes);
  [[nodiscard]] bool writeList();

  DirectFile& file_;
  const std::uint16_t type_;
  const std::uint64_t unit_;
  const std::uint64_t blockBytes_;
  const std::size_t blocksPerList_;
  std::unique_ptr<std::uint8_t[]> buffer_;
  std::uint64_t capacity_ = 0;
  std::uint64_t used_ = 0;
  std::uint64_t written_ = 0;
  bool hasChecksum_ = false;
  std::uint32_t checksum_ = 0;
  std::vector<Block> blocks_;  // all: a few bytes for each MiB
  std::size_t listed_ = 0;     // of them
  std::uint64_t link_ = 0;
  std::uint64_t lastList_ = 0;
  bool failed_ = false;
};

}  // namespace tolvex
