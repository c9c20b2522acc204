#include "Mdf4/model/ValueStarts.h"

#include <algorithm>
#include <iterator>

namespace tolvex {

void ValueStarts::take(ByteSpan bytes) {
  if (broken_) return;
  while (!bytes.empty()) {
    const std::uint64_t have = position_ - start_;
    std::uint64_t count = 0;
    if (have < kValuePrefix) {
      if (have == 0) beginValue();
      count = std::min<std::uint64_t>(kValuePrefix - have, bytes.size());
      std::copy_n(bytes.begin(), count, length_.begin() + static_cast<std::ptrdiff_t>(have));
      if (have + count == kValuePrefix) left_ = loadNumber<std::uint32_t>(length_.data());
    } else {
      count = std::min<std::uint64_t>(left_, bytes.size());
      left_ -= count;
    }
    position_ += count;
    steps_ += count;
    bytes = bytes.subspan(inMemory(count));
    if (position_ - start_ >= kValuePrefix && left_ == 0) start_ = position_;
  }
}

// Keeps the start of the value that begins, when the one kept before is far enough.
void ValueStarts::beginValue() {
  constexpr std::size_t kMost = 8192;
  if (!known_.empty() && start_ - known_.back() < stride_) return;
  known_.push_back(start_);
  if (known_.size() < kMost) return;
  stride_ *= 2;
  std::size_t kept = 1;
  for (const std::uint64_t start : known_) {
    if (start - known_[kept - 1] >= stride_) known_[kept++] = start;
  }
  known_.resize(kept);
}

// The last start that is known in front of the offset, or there.
std::uint64_t ValueStarts::knownStart(std::uint64_t offset) const {
  const auto after = std::ranges::upper_bound(known_, offset);
  return after == known_.begin() ? 0 : *std::prev(after);
}

}  // namespace tolvex
