// What one open file may cost.
#pragma once

#include <cstdint>

#include "Mdf4/base/ProblemLog.h"

namespace tolvex {

// The work and memory that the claims of one open file may cause, in proportion to its size: enough
// for every file that shares blocks in earnest, and a limit for files whose links make a few blocks
// look like billions. Starts anew with each opening; until the first, nothing is left.
//
// Loading: the bytes of every block that is loaded, of compressed ones when they are inflated for
// the first time, and of copies of a text that a list of channels needs. Texts and conversions are
// held once per block, so whatever asks for them again costs nothing.
// Inflating again: the inflated bytes of blocks that values in compressed signal data lead back to
// after they were let go.
//
// Once it is used up, what is asked for counts as absent, and the file's problems say so. Borrows
// the problems.
class LoadBudget {
 public:
  explicit LoadBudget(ProblemLog& problems) : problems_(problems) {}

  void open(std::uint64_t fileSize) {
    load_ = times(fileSize, 16, std::uint64_t{1} << 20);
    again_ = times(fileSize, 1024, std::uint64_t{16} << 30);
  }

  // Take `bytes`; false, with nothing taken and the problem noted, when fewer are left.
  [[nodiscard]] bool takeLoad(std::uint64_t bytes) {
    return take(load_, bytes,
                "the file's links lead to many times the bytes that it has: blocks are left out");
  }
  [[nodiscard]] bool takeAgain(std::uint64_t bytes) {
    return take(
        again_, bytes,
        "the file's values lead to its compressed blocks too many times: values are left out");
  }

 private:
  static std::uint64_t times(std::uint64_t size, std::uint64_t factor, std::uint64_t always) {
    constexpr std::uint64_t kMost = ~std::uint64_t{0};
    return size > (kMost - always) / factor ? kMost : size * factor + always;
  }
  [[nodiscard]] bool take(std::uint64_t& left, std::uint64_t bytes, const char* problem) {
    if (bytes > left) {
      problems_.add(problem);
      return false;
    }
    left -= bytes;
    return true;
  }

  ProblemLog& problems_;
  std::uint64_t load_ = 0;
  std::uint64_t again_ = 0;
};

}  // namespace tolvex
