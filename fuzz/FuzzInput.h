// What the fuzz targets share: an input as a file, and as numbers.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "Mdf4/base/Bytes.h"
#include "Mdf4/format/WorkSizes.h"
#include "tolvex/Mdf4.h"

namespace tolvex::fuzz {

// Ends the run as a find when an answer is wrong.
void require(bool right, const char* claim);
// Prints a finding that should not be.
void tell(const MdfFinding& finding);

// An input as a file that opens by its path and never touches the disk.
class MemoryFile {
 public:
  explicit MemoryFile(ByteSpan bytes);
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  ~MemoryFile();

  const std::string& path() const { return path_; }

 private:
  int descriptor_;
  std::string path_;
};

// Bytes taken apart from front to back; behind their end everything is 0.
class Numbers {
 public:
  explicit Numbers(ByteSpan bytes) : rest_(bytes) {}

  template <class Number>
  Number next() {
    Number number{};
    const ByteSpan bytes = take(sizeof number);
    if (!bytes.empty()) std::memcpy(&number, bytes.data(), bytes.size());
    return number;
  }
  bool flag() { return (next<std::uint8_t>() & 1) != 0; }
  // The next `count` bytes, or those that are left.
  ByteSpan take(std::size_t count) {
    const ByteSpan bytes = rest_.first(std::min(count, rest_.size()));
    rest_ = rest_.subspan(bytes.size());
    return bytes;
  }
  // The bytes up to the next NUL, which is skipped.
  std::string text();
  ByteSpan rest() const { return rest_; }

 private:
  ByteSpan rest_;
};

// Where a measurement file carries the numbers that steer a target: bytes of the identification
// block that no reader looks at. So inputs are plain files, and plain files are inputs.
inline constexpr std::size_t kSteeringOffset = 30;
inline constexpr std::size_t kSteeringSize = 30;
Numbers steeringOf(ByteSpan file);

// Steps of check and recovery as the next number says: the usual ones, or so small that small files
// reach every seam between them.
WorkSizes workSizesFrom(Numbers& steering);

}  // namespace tolvex::fuzz
