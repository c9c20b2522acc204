#include "bench/CountedMemory.h"

#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

bool isCounting = false;
std::atomic<std::int64_t> heldBytes = 0;
std::atomic<std::int64_t> peakBytes = 0;

std::int64_t chunkSize(void* memory) {
  return static_cast<std::int64_t>(malloc_usable_size(memory) + sizeof(std::size_t));
}

void count(std::int64_t more) {
  const std::int64_t held = heldBytes.fetch_add(more, std::memory_order_relaxed) + more;
  std::int64_t peak = peakBytes.load(std::memory_order_relaxed);
  while (held > peak && !peakBytes.compare_exchange_weak(peak, held, std::memory_order_relaxed)) {
  }
}

}  // namespace

// NOLINTBEGIN(cppcoreguidelines-no-malloc): this is where memory comes from.
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  void* const memory = std::malloc(size);
  if (memory != nullptr && isCounting) count(chunkSize(memory));
  return memory;
}

void* operator new(std::size_t size) {
  void* const memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  if (isCounting && memory != nullptr) count(-chunkSize(memory));
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  operator delete(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc)

namespace tolvex::bench {

MemoryCount::MemoryCount() {
  heldBytes = 0;
  peakBytes = 0;
  isCounting = true;
}
MemoryCount::~MemoryCount() {
  isCounting = false;
}

std::int64_t MemoryCount::held() const {
  return heldBytes;
}
std::int64_t MemoryCount::peak() const {
  return peakBytes;
}

}  // namespace tolvex::bench
