// A few pages of a file, kept in memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "Mdf4/base/Bytes.h"

namespace tolvex {

// Holds 64 pages of 4 KiB, each in the one place that its number has, so that walking a tree of
// blocks costs a system call per page, not per block. Takes memory when the first page comes.
class PageCache {
 public:
  static constexpr std::size_t kPageSize = 4096;

  bool has(std::uint64_t number) const {
    return pages_ != nullptr && pages_->numbers[number % kPageCount] == number;
  }
  // The bytes of a cached page; fewer than kPageSize at the end of the file.
  ByteSpan page(std::uint64_t number) const {
    const std::size_t slot = number % kPageCount;
    return {pages_->bytes[slot].data(), pages_->filled[slot]};
  }
  // Where to put the bytes of a page, which is there once it is kept. What had the place is gone.
  WritableBytes room(std::uint64_t number);
  void keep(std::uint64_t number, std::size_t bytes);

  // Drops the pages that hold some of the bytes.
  void forget(std::uint64_t position, std::uint64_t length);
  void clear() { pages_.reset(); }

 private:
  static constexpr std::uint64_t kFree = ~std::uint64_t{0};
  static constexpr std::size_t kPageCount = 64;
  struct Pages {
    std::array<std::uint64_t, kPageCount> numbers;
    std::array<std::size_t, kPageCount> filled;  // bytes
    std::array<std::array<std::uint8_t, kPageSize>, kPageCount> bytes;
  };

  std::unique_ptr<Pages> pages_;
};

}  // namespace tolvex
