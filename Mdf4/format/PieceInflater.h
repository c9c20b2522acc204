// Inflating what stands in a file, to see that it can be done.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Mdf4/format/DirectFile.h"

namespace tolvex {

// Inflates zlib streams piece by piece, so that it needs the same memory for all of them. Borrows
// the file.
class PieceInflater {
 public:
  using Piece = std::function<void(ByteSpan)>;

  PieceInflater(DirectFile& file, std::uint64_t pieceSize);
  ~PieceInflater();

  // Inflates `length` bytes of the file at `position` and hands on what comes out, in order and not
  // more than `expected` bytes. "" when that is one whole stream of exactly `expected` bytes, else
  // what it is.
  [[nodiscard]] std::string inflate(std::uint64_t position, std::uint64_t length,
                                    std::uint64_t expected, const Piece& piece = nullptr);

 private:
  struct Stream;
  DirectFile& file_;
  const std::uint64_t pieceSize_;
  std::unique_ptr<Stream> stream_;  // made for the first one
};

}  // namespace tolvex
