// A file in memory that can run full.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>

#include "Mdf4/base/System.h"
#include "tests/support/FileBuilder.h"

namespace tolvex::test {

class MemoryFile final : public SystemFile {
 public:
  explicit MemoryFile(Bytes bytes = {}) : bytes_(std::move(bytes)) {}

  const Bytes& bytes() const { return bytes_; }
  std::uint64_t written() const { return written_; }  // bytes, each time they were written
  // From now on only so many bytes can be written.
  void failAfter(std::uint64_t bytes) { room_ = bytes; }

  bool size(std::uint64_t& size) override {
    size = bytes_.size();
    return true;
  }

  ReadResult read(std::uint64_t position, std::span<const WritableBytes> pieces) override {
    std::uint64_t done = 0;
    for (const WritableBytes& piece : pieces) {
      const std::uint64_t at = std::min<std::uint64_t>(position + done, bytes_.size());
      const std::uint64_t count = std::min<std::uint64_t>(piece.size(), bytes_.size() - at);
      std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(at), count, piece.begin());
      done += count;
      if (count < piece.size()) break;
    }
    return {done};
  }

  bool write(std::uint64_t position, std::span<const ByteSpan> pieces) override {
    for (const ByteSpan& piece : pieces) {
      const std::uint64_t count = std::min<std::uint64_t>(piece.size(), room_);
      if (bytes_.size() < position + count) bytes_.resize(inMemory(position + count));
      std::copy_n(piece.begin(), count, bytes_.begin() + static_cast<std::ptrdiff_t>(position));
      position += count;
      room_ -= count;
      written_ += count;
      if (count < piece.size()) return false;
    }
    return true;
  }

  bool close() override { return true; }
  std::string error() const override { return "no room in memory"; }

 private:
  Bytes bytes_;
  std::uint64_t room_ = ~std::uint64_t{0};
  std::uint64_t written_ = 0;
};

}  // namespace tolvex::test
