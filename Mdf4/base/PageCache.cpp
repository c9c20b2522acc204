#include "Mdf4/base/PageCache.h"

namespace tolvex {

WritableBytes PageCache::room(std::uint64_t number) {
  if (pages_ == nullptr) {
    pages_ = std::make_unique_for_overwrite<Pages>();
    pages_->numbers.fill(kFree);
  }
  const std::size_t slot = number % kPageCount;
  pages_->numbers[slot] = kFree;
  return pages_->bytes[slot];
}

void PageCache::keep(std::uint64_t number, std::size_t bytes) {
  const std::size_t slot = number % kPageCount;
  pages_->numbers[slot] = number;
  pages_->filled[slot] = bytes;
}

void PageCache::forget(std::uint64_t position, std::uint64_t length) {
  if (pages_ == nullptr || length == 0) return;
  const std::uint64_t first = position / kPageSize;
  const std::uint64_t last = (position + length - 1) / kPageSize;
  for (std::uint64_t& number : pages_->numbers) {
    if (number >= first && number <= last) number = kFree;
  }
}

}  // namespace tolvex
