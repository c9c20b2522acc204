// The records of a recovered file, to compare with those of another one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/support/FileBuilder.h"

namespace tolvex::test {

struct RecoveredRecord {
  Bytes bytes;
  std::map<std::uint64_t, Bytes> values = {};  // of variable length, by where their offsets are
};

struct RecoveredGroup {
  std::uint64_t dataBytes = 0;                     // of a record; invalidation bytes follow them
  std::map<std::uint64_t, unsigned> offsets = {};  // of values: where and how many bytes
  std::vector<RecoveredRecord> records = {};

  // Whether it may be what came back of a record of this group: values and invalidation bytes may
  // be lost alone.
  bool mayBe(RecoveredRecord part, RecoveredRecord record) const;
  // Whether `part` is this group without some of its records.
  bool mayBe(const RecoveredGroup& part) const;
};

using RecoveredContent = std::vector<RecoveredGroup>;

// Read by hand.
RecoveredContent recoveredContent(const std::string& path);

// Whether each group of `part` may be another one of `whole`, in whatever order.
bool isPart(const RecoveredContent& part, const RecoveredContent& whole);

// The first error that a check finds, or why it failed; "" for a sound file.
std::string firstError(const std::string& path);

std::size_t count(const RecoveredContent& groups);  // of records

}  // namespace tolvex::test
