// A byte buffer that grows without clearing.
#pragma once

#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "Mdf4/base/Bytes.h"

namespace tolvex {

class ByteBuffer {
 public:
  // Room for `size` bytes, their contents undefined. For more than sound files ask for there may be
  // none: false. Else throws std::bad_alloc when there is no memory, and may be called again.
  [[nodiscard]] bool reserve(std::uint64_t size) {
    constexpr std::uint64_t kUsual = std::uint64_t{64} << 20;
    if (size <= size_) return true;
    release();
    if (std::in_range<std::ptrdiff_t>(size)) {
      bytes_.reset(new (std::nothrow) std::uint8_t[inMemory(size)]);
    }
    if (bytes_ != nullptr) {
      size_ = size;
    } else if (size <= kUsual) {
      throw std::bad_alloc();
    }
    return bytes_ != nullptr;
  }
  std::uint8_t* data() { return bytes_.get(); }
  const std::uint8_t* data() const { return bytes_.get(); }
  std::uint64_t size() const { return size_; }
  void release() {
    bytes_.reset();
    size_ = 0;
  }

 private:
  std::unique_ptr<std::uint8_t[]> bytes_;
  std::uint64_t size_ = 0;
};

}  // namespace tolvex
