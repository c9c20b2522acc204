#include "Mdf4/base/BitField.h"

namespace tolvex {
namespace {

constexpr std::size_t kWord = sizeof(std::uint64_t);

// The eight bytes at `at`, with zeros for those behind the record.
std::uint64_t wordAt(ByteSpan record, std::size_t at) {
  const std::size_t left = record.size() - at;
  if (left >= kWord) return loadNumber<std::uint64_t>(record.data() + at);
  if (record.size() >= kWord) {
    return loadNumber<std::uint64_t>(record.data() + record.size() - kWord) >> 8 * (kWord - left);
  }
  std::uint64_t word = 0;
  for (std::size_t i = 0; i < left; ++i) word |= std::uint64_t{record[at + i]} << 8 * i;
  return word;
}

}  // namespace

// The field is near the end of the record or beyond it, touches nine bytes, or is big-endian.
std::uint64_t BitField::readInSteps(ByteSpan record) const {
  if (bits_ == 0 || byte_ >= record.size()) return 0;
  const std::size_t at = inMemory(byte_);
  const std::uint64_t word = wordAt(record, at);
  const bool hasNinth = touched_ > kWord && record.size() - at > kWord;
  const std::uint64_t ninth = hasNinth ? record[at + kWord] : 0;
  if (order_ == ByteOrder::Big) {
    const std::uint64_t value = touched_ > kWord
                                    ? swapBytes(word) << (8 - shift_) | ninth >> shift_
                                    : swapBytes(word) >> (kMostBits - 8 * touched_ + shift_);
    return value & mask_;
  }
  std::uint64_t value = word >> shift_;
  if (touched_ > kWord) value |= ninth << (kMostBits - shift_);
  return value & mask_;
}

}  // namespace tolvex
