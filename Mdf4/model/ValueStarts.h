// Where values of variable length begin.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "Mdf4/base/Bytes.h"
#include "Mdf4/format/BlockRecords.h"

namespace tolvex {

// Goes along a sequence of values, each a 32-bit length and so many bytes, and keeps some of their
// starts: enough to find any other by a short walk, and never more than a few thousand.
class ValueStarts {
 public:
  // The next bytes of the sequence.
  void take(ByteSpan bytes);
  // Bytes are missing: what follows is not gone along any more.
  void breakOff() { broken_ = true; }

  // The end of the whole values.
  std::uint64_t end() const { return start_; }
  // Bytes that were taken behind them, with the beginning of a value.
  std::uint64_t rest() const { return position_ - start_; }
  bool broken() const { return broken_; }

  // Whether a value in front of end() starts at the offset. `readLength(start, length)` reads the
  // length of the value that starts there. Where that fails, or offsets in no order have cost too
  // many steps, any offset may be one.
  template <class ReadLength>
  bool mayStart(std::uint64_t offset, const ReadLength& readLength) {
    if (offset >= start_) return false;
    if (offset < walked_ || offset - walked_ > stride_) {
      walked_ = std::max(knownStart(offset), offset < walked_ ? 0 : walked_);
    }
    while (walked_ < offset) {
      std::uint32_t length = 0;
      if (steps_ == 0 || !readLength(walked_, length)) return true;
      --steps_;
      walked_ += kValuePrefix + length;
    }
    return walked_ == offset;
  }

 private:
  void beginValue();
  std::uint64_t knownStart(std::uint64_t offset) const;

  std::uint64_t position_ = 0;  // bytes taken
  std::uint64_t start_ = 0;     // of the value that is on its way
  std::uint64_t left_ = 0;      // bytes of it behind its length
  std::array<std::uint8_t, kValuePrefix> length_ = {};
  bool broken_ = false;
  std::vector<std::uint64_t> known_;  // starts, at least stride_ apart
  std::uint64_t stride_ = 256;        // bytes
  std::uint64_t walked_ = 0;          // the start that mayStart came to last
  std::uint64_t steps_ = 1 << 24;     // from value to value that it may still take
};

}  // namespace tolvex
