// Inflating compressed data blocks.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "Mdf4/base/Bytes.h"

namespace tolvex {

class InflateStream;

// No deflate stream of `compressed` bytes inflates to more than this.
constexpr std::uint64_t mostInflated(std::uint64_t compressed) {
  constexpr std::uint64_t kRatio = 1032;
  constexpr std::uint64_t kMost = ~std::uint64_t{0};
  return compressed > kMost / kRatio - 1 ? kMost : (compressed + 1) * kRatio;
}

// Inflates whole zlib streams, keeping its tables from one to the next.
class Inflater {
 public:
  Inflater();
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;
  ~Inflater();

  // The bytes put into `out` when `compressed` is one whole zlib stream that fits into it; nothing
  // for any other. Throws std::bad_alloc, and may then be called again.
  [[nodiscard]] std::optional<std::uint64_t> inflate(ByteSpan compressed, WritableBytes out);

 private:
  std::unique_ptr<InflateStream> stream_;
};

// A byte buffer that grows without clearing, and says so when it cannot.
class ByteBuffer {
 public:
  // Room for `size` bytes, their contents undefined. False when there is no memory.
  [[nodiscard]] bool reserve(std::uint64_t size);
  std::uint8_t* data() { return bytes_.get(); }
  const std::uint8_t* data() const { return bytes_.get(); }
  std::uint64_t size() const { return size_; }
  void release();

 private:
  std::unique_ptr<std::uint8_t[]> bytes_;
  std::uint64_t size_ = 0;
};

}  // namespace tolvex
