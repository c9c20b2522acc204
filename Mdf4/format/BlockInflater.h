// Inflating what stands in a file.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Mdf4/base/ByteBuffer.h"
#include "Mdf4/base/WholeStream.h"
#include "Mdf4/format/CompressedData.h"
#include "Mdf4/format/DirectFile.h"

namespace tolvex {

class InflateStream;

// What became of a zlib stream.
struct Inflation {
  enum End : std::uint8_t { Whole, TooLong, Damaged, Unreadable, NoMemory };

  End end = Whole;
  std::uint64_t bytes = 0;  // that came out

  // "" when these were `expected` bytes, else what they are.
  std::string fault(std::uint64_t expected) const;
};

// Inflates zlib streams of one file, with the same tables and buffers for all of them. They are
// read piece by piece, however long they are. Borrows the file.
class BlockInflater {
 public:
  using Piece = std::function<void(ByteSpan)>;

  BlockInflater(DirectFile& file, std::uint64_t pieceSize);
  BlockInflater(const BlockInflater&) = delete;
  BlockInflater& operator=(const BlockInflater&) = delete;
  ~BlockInflater();

  // Inflates `length` bytes of the file at `position` and hands on what comes out, in order and not
  // more than `expected` bytes.
  [[nodiscard]] Inflation inflate(std::uint64_t position, std::uint64_t length,
                                  std::uint64_t expected, const Piece& piece = nullptr);
  // Puts the data of a block that gives at most `bytes` into `rows`, a transposition undone.
  [[nodiscard]] Inflation inflateRows(const CompressedData& data, std::uint64_t bytes,
                                      ByteBuffer& rows);
  // The same as they are stored: with a transposition, column by column.
  [[nodiscard]] Inflation inflateStored(const CompressedData& data, std::uint64_t bytes,
                                        ByteBuffer& stored);

  std::uint64_t heldBytes() const { return in_.size() + out_.size() + columns_.size(); }
  void releaseBuffers();

 private:
  [[nodiscard]] Inflation run(std::uint64_t position, std::uint64_t length, std::uint64_t expected,
                              WritableBytes out, const Piece* piece);

  DirectFile& file_;
  const std::uint64_t pieceSize_;
  std::unique_ptr<InflateStream> stream_;  // made for the first one
  WholeStream whole_;
  ByteBuffer in_;
  ByteBuffer out_;
  ByteBuffer columns_;
};

}  // namespace tolvex
