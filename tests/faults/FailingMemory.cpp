#include "tests/faults/FailingMemory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>

namespace {

constexpr std::uint64_t kNone = 0;

std::atomic<bool> isCounting = false;
std::atomic<std::uint64_t> allocations = 0;
std::atomic<std::uint64_t> failing = kNone;  // its number
std::atomic<bool> isLasting = false;
thread_local bool isSound = false;

bool fails() {
  if (!isCounting.load(std::memory_order_relaxed) || isSound) return false;
  const std::uint64_t number = allocations.fetch_add(1, std::memory_order_relaxed) + 1;
  return number == failing || (isLasting && number > failing);
}

// NOLINTBEGIN(cppcoreguidelines-no-malloc): this is where memory comes from.
void* memoryOrNull(std::size_t size) {
  return fails() ? nullptr : std::malloc(size != 0 ? size : 1);
}

void* memoryOrNull(std::size_t size, std::align_val_t alignment) {
  const auto unit = static_cast<std::size_t>(alignment);
  return fails() ? nullptr : std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
}

void* orThrow(void* memory) {
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void release(void* memory) {
  std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc)

}  // namespace

// All forms, since a sanitizer's own do not call each other.
void* operator new(std::size_t size) {
  return orThrow(memoryOrNull(size));
}
void* operator new[](std::size_t size) {
  return orThrow(memoryOrNull(size));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return memoryOrNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return memoryOrNull(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  return orThrow(memoryOrNull(size, alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return orThrow(memoryOrNull(size, alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return memoryOrNull(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return memoryOrNull(size, alignment);
}
void operator delete(void* memory) noexcept {
  release(memory);
}
void operator delete[](void* memory) noexcept {
  release(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  release(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  release(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  release(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  release(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
  release(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
  release(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  release(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
  release(memory);
}
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
  release(memory);
}
void operator delete[](void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
  release(memory);
}

namespace tolvex::test {

void AllocationFault::strike(const std::function<void()>& work) {
  struct Counting {
    ~Counting() { isCounting = false; }
  };
  allocations = 0;
  failing = number_;
  isLasting = lasting_;
  {
    const Counting counting;
    isCounting = true;
    work();
  }
  met_ = allocations >= number_;
}

SoundMemory::SoundMemory() {
  isSound = true;
}
SoundMemory::~SoundMemory() {
  isSound = false;
}

void forEveryAllocation(const std::function<void(AllocationFault& fault)>& scenario) {
  for (const bool lasting : {false, true}) {
    bool met = true;
    for (std::uint64_t number = 1; met && !testing::Test::HasFailure(); ++number) {
      SCOPED_TRACE("allocation " + std::to_string(number) +
                   (lasting ? " and all that follow fail" : " fails"));
      AllocationFault fault(number, lasting);
      try {
        scenario(fault);
      } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
      }
      met = fault.met();
    }
  }
}

}  // namespace tolvex::test
