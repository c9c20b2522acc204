// Runs a scenario again and again, each time with another of its allocations failing.
#pragma once

#include <cstdint>
#include <functional>

namespace tolvex::test {

// One allocation with new that fails, on whichever thread; alone, or with all that follow.
class AllocationFault {
 public:
  AllocationFault(std::uint64_t number, bool lasting) : number_(number), lasting_(lasting) {}

  // Runs `work` while allocations are counted and fail. What `work` does for the test alone belongs
  // into a SoundMemory. One fault at a time.
  void strike(const std::function<void()>& work);
  // Whether `work` came to the allocation that fails.
  bool met() const { return met_; }
  bool lasting() const { return lasting_; }

 private:
  const std::uint64_t number_;  // of the allocation within strike, from 1
  const bool lasting_;
  bool met_ = false;
};

// While one lives, this thread's allocations neither count nor fail.
class SoundMemory {
 public:
  SoundMemory();
  ~SoundMemory();
  SoundMemory(const SoundMemory&) = delete;
  SoundMemory& operator=(const SoundMemory&) = delete;
};

// Runs `scenario` with its first allocation failing, its second, and so on until it no longer comes
// to the one that fails; first with single failures, then with lasting ones. Ends at the first
// run with a failed expectation.
void forEveryAllocation(const std::function<void(AllocationFault& fault)>& scenario);

}  // namespace tolvex::test
