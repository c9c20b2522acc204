// A file whose reading fails: takes the place of the system's call in this process, so that all
// that lies above it is tested as it is. As a module of its own it does so in any program.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tolvex::test {

// While one lives, reads of the file are counted, and fail as it was told. One at a time.
class FailingReads {
 public:
  enum class Fault : std::uint8_t {
    Error,        // EIO
    Interrupted,  // EINTR
    Short,        // a few bytes
    End,          // none, as at the end of the file
  };

  explicit FailingReads(std::string path);
  ~FailingReads();
  FailingReads(const FailingReads&) = delete;
  FailingReads& operator=(const FailingReads&) = delete;

  // Reads are numbered from 0: the one with that number fails, and so many behind it.
  void fail(std::uint64_t number, Fault fault, std::uint64_t more = 0);
  void failFrom(std::uint64_t number, Fault fault) { fail(number, fault, ~std::uint64_t{0}); }
  // Only every so many of these fail.
  void setPeriod(std::uint64_t period) { period_ = period; }
  // Reads end in front of these bytes, and fail there with EIO.
  void damage(std::uint64_t position, std::uint64_t bytes) {
    damaged_.push_back({position, bytes});
  }
  // From now on they count from 0 again, and all succeed.
  void clear();

  std::uint64_t reads() const { return reads_; }
  std::uint64_t failures() const { return failures_; }

 private:
  friend struct FailingReadsHook;

  const std::string path_;
  std::uint64_t reads_ = 0;
  std::uint64_t failures_ = 0;
  std::uint64_t first_ = ~std::uint64_t{0};
  std::uint64_t more_ = 0;
  std::uint64_t period_ = 1;
  Fault fault_ = Fault::Error;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> damaged_;
};

}  // namespace tolvex::test
