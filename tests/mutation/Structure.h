// Which changes of a file leave its records what they are.
#pragma once

#include <cstdint>
#include <vector>

#include "tests/support/FileBuilder.h"

namespace tolvex::test {

// The bytes of a file that say how data are found, not what they mean.
class Structure {
 public:
  explicit Structure(const Bytes& file);

  // Whether all records mean the same, as far as they are found, with other bytes at `position`.
  bool keepsMeaning(std::uint64_t position, const Bytes& bytes) const;

 private:
  void add(std::uint64_t block);

  const Bytes& file_;
  std::vector<bool> free_;    // by position
  std::vector<Link> blocks_;  // in file order
};

}  // namespace tolvex::test
