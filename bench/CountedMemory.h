// Counts what the program allocates with new.
#pragma once

#include <cstdint>

namespace tolvex::bench {

// While one lives, counts the memory that is allocated and freed, with the allocator's overhead.
// Only one may live at a time; it begins and ends while the program has one thread.
class MemoryCount {
 public:
  MemoryCount();
  MemoryCount(const MemoryCount&) = delete;
  MemoryCount& operator=(const MemoryCount&) = delete;
  ~MemoryCount();

  std::int64_t held() const;  // bytes more than at the start
  std::int64_t peak() const;  // the most that were
};

}  // namespace tolvex::bench
