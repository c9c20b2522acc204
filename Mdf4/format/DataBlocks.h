// Blocks of raw bytes (records, signal values, invalidation bytes) and the lists that name them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

#include "Mdf4/format/m4Block.h"

namespace tolvex {

// A data block: its whole data section is one byte buffer. For writing, the buffer has a capacity
// that is filled bit by bit, and the block moves from place to place in the file.
class M4DataBlock : public m4Block {
 public:
  explicit M4DataBlock(std::uint16_t type) : m4Block(type) {}

  std::uint64_t extraSize() const override { return size_; }
  const void* extraData(unsigned index, std::uint64_t& size) const override;
  [[nodiscard]] bool readData(std::uint64_t position, std::uint64_t length) override;

  virtual void setDataSize(std::uint64_t bytes) { size_ = bytes; }  // filled bytes
  virtual std::uint64_t capacity() const { return capacity_; }
  virtual void setCapacity(std::uint64_t bytes) { capacity_ = bytes; }  // allocates nothing
  // Resizes the buffer. On failure the block has none, and the result is false.
  [[nodiscard]] virtual bool reallocate(std::uint64_t bytes);
  // Writes the contents at the old place, if there is one and they are not there yet; then starts
  // empty at the end of `file`, where capacity + 24 bytes are reserved. Returns the new position,
  // or 0, with everything as it was, when the write fails.
  [[nodiscard]] virtual std::uint64_t place(DirectFile& file);
  // Writes the contents at the block's place, unless they are there.
  [[nodiscard]] bool writeOut();

  // Copies as many leading bytes as fit; without `data`, zeros. Returns how many.
  std::uint64_t append(const std::uint8_t* data, std::uint64_t bytes) {
    const std::size_t count = inMemory(std::min(bytes, room()));
    if (data != nullptr) {
      copyRecord(end(), data, count);
    } else {
      std::memset(end(), 0, count);
    }
    size_ += count;
    written_ &= count == 0;
    return count;
  }
  // Where the next bytes belong, room() of them, and their appending once they are there, to
  // contents that are not written yet.
  std::uint8_t* end() { return buffer_.get() + kBlockHeaderSize + size_; }
  void appendInPlace(std::uint64_t bytes) { size_ += bytes; }
  // Drops the bytes that were appended last.
  void takeBack(std::uint64_t bytes) {
    size_ -= bytes;
    written_ = false;
  }
  std::uint64_t room() const { return capacity_ - size_; }
  ByteSpan data() const { return {bytes(), inMemory(size_)}; }

 private:
  std::uint8_t* bytes() const { return buffer_ ? buffer_.get() + kBlockHeaderSize : nullptr; }

  std::unique_ptr<std::uint8_t[]> buffer_;  // room for the header, so that one piece is written
  std::uint64_t size_ = 0;
  std::uint64_t capacity_ = 0;
  bool written_ = false;  // the file holds the contents
};

template <std::uint16_t Type>
class M4TypedDataBlock : public M4DataBlock {
 public:
  static constexpr std::uint16_t kType = Type;

  M4TypedDataBlock() : M4DataBlock(Type) {}
};
using M4DTBlock = M4TypedDataBlock<block_type::kDT>;
using M4SDBlock = M4TypedDataBlock<block_type::kSD>;
using M4RDBlock = M4TypedDataBlock<block_type::kRD>;
using M4DVBlock = M4TypedDataBlock<block_type::kDV>;
using M4DIBlock = M4TypedDataBlock<block_type::kDI>;
using M4RVBlock = M4TypedDataBlock<block_type::kRV>;
using M4RIBlock = M4TypedDataBlock<block_type::kRI>;

// A list of data blocks. For writing it has a capacity, the most blocks that one list may name;
// a full list is followed by the next.
class M4DLBlock : public m4BlockImpl<m4DLRecord, std::uint64_t, block_type::kDL> {
 public:
  M4DLBlock() : M4DLBlock(0, 0) {}
  // For writing blocks of `equalLength` data bytes each, the last excepted.
  M4DLBlock(std::uint32_t capacity, std::uint64_t equalLength);

  bool full() const { return dl_count >= capacity_; }
  void add(std::uint64_t dataPosition);
  void removeLast();
  // Saves the list with its last block named behind the others, but not counted: readers pass it
  // over. False when the write fails.
  [[nodiscard]] bool saveWithLastUncounted();
  // Reserves room for a full list at the end of `file` and fills it with this one, so that a full
  // disk cannot keep its entries out later. Returns the position, or 0 when the write fails.
  [[nodiscard]] std::uint64_t place(DirectFile& file);
  // Saves this list with a link to a new one behind it, and becomes that one. Returns the new
  // list's position, or 0, with this list as it was, when a write fails.
  [[nodiscard]] std::uint64_t moveOn();

 private:
  std::uint32_t capacity_ = 0;
};

// A list of data blocks with the blocks of their invalidation bytes (column storage).
class M4LDBlock : public m4BlockImpl<m4LDRecord, std::uint64_t, block_type::kLD> {
 public:
  M4LDBlock() : M4LDBlock(0, false) {}
  M4LDBlock(std::uint32_t capacity, bool invalidation);

  bool full() const { return ld_count >= capacity_; }
  bool hasInvalidation() const { return (ld_flags & kLdFlagInvalidation) != 0; }
  // Invalidation links stand behind the room for `capacity` data links.
  void add(std::uint64_t dataPosition, std::uint64_t invalidationPosition);
  void removeLast();
  [[nodiscard]] std::uint64_t place(DirectFile& file);
  [[nodiscard]] std::uint64_t moveOn();

 private:
  std::uint32_t capacity_ = 0;
};

}  // namespace tolvex
