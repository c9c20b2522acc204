// Small files of every kind, for tests and fuzz targets that change them at random.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/FileBuilder.h"

namespace tolvex::test {

// The same records in every way that a file may store them.
inline constexpr std::uint32_t kRampSize = 11;  // bytes of each record
struct DataForm {
  const char* name;
  Link (*store)(FileBuilder& file);
  bool marked = false;  // with invalidation bytes, one a record, in blocks of their own
};
std::span<const DataForm> dataForms();

// Two data groups of unsorted records, with channel groups of variable-length values.
struct UnsortedForm {
  std::uint8_t idSize = 1;       // bytes of the record ids
  std::uint8_t unfinalized = 0;  // flags of what was never updated: it is then as at the start
  bool listed = false;           // the last one in three data blocks
  std::uint8_t records = 20;     // frames in each
};
FileBuilder unsortedFile(const UnsortedForm& form);

// Each with a name.
std::vector<std::pair<std::string, FileBuilder>> sampleFiles();

}  // namespace tolvex::test
