// Memory that the system gives on one thread while another one writes to it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Mdf4/base/System.h"

namespace tolvex {

// Arrays of a caller's that fill up side by side. New memory is cleared by the system when it is
// touched first, which takes about as long as decoding what goes there: here another thread has it
// touched, a bounded way ahead, so that what is never filled is not taken either.
class MemoryAhead {
 public:
  struct Array {
    void* begin;
    std::size_t rowBytes;
  };

  // `rows` of each array are there to be filled.
  MemoryAhead(std::vector<Array> arrays, std::uint64_t rows)
      : arrays_(std::move(arrays)), rows_(rows) {
    try {
      thread_ = std::thread([this] { run(); });
    } catch (const std::system_error&) {
      // There are no more threads: the memory comes when it is touched.
    }
  }
  MemoryAhead(const MemoryAhead&) = delete;
  MemoryAhead& operator=(const MemoryAhead&) = delete;
  ~MemoryAhead() {
    tell(kAll);
    if (thread_.joinable()) thread_.join();
  }

  // How many rows are filled. The other thread is woken once for many.
  void setFilled(std::uint64_t rows) {
    const auto parts = static_cast<std::size_t>(rows / kAtOnce);
    if (parts != filledParts_) tell(parts);
  }

 private:
  static constexpr std::size_t kAtOnce = 1 << 16;  // rows: a part
  static constexpr std::size_t kAhead = 8;         // parts
  static constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

  void tell(std::size_t parts) {
    filledParts_ = parts;
    filledParts_.notify_one();
  }

  void run() {
    for (std::size_t part = 0; part < rows_ / kAtOnce; ++part) {
      std::size_t filled = filledParts_;
      while (filled != kAll && part > filled + kAhead) {
        filledParts_.wait(filled);
        filled = filledParts_;
      }
      if (filled == kAll) return;
      for (const Array& array : arrays_) {
        const std::size_t bytes = kAtOnce * array.rowBytes;
        auto* const begin = static_cast<std::uint8_t*>(array.begin);
        if (!populateMemory({begin + part * bytes, bytes})) return;
      }
    }
  }

  const std::vector<Array> arrays_;
  const std::uint64_t rows_;
  std::atomic<std::size_t> filledParts_ = 0;
  std::thread thread_;
};

}  // namespace tolvex
