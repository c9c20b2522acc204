// What a recorded file holds, block by block, for tests that look at more than the readers show.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Mdf4/format/BlockRecords.h"
#include "tests/support/FileBuilder.h"

namespace tolvex::test {

inline constexpr char kNoText[] = "(none)";  // stands for an empty reference

struct RecordedConversion {
  int kind = 0;
  std::vector<double> values = {};
  std::vector<std::string> texts = {};

  bool operator==(const RecordedConversion&) const = default;
};

// cn_data_type, cn_byte_offset, cn_bit_offset, cn_bit_count.
using RecordedPlace = std::array<std::uint32_t, 4>;

struct RecordedChannel {
  std::string name;
  std::string unit;
  std::string comment;
  m4CNRecord cn = {};
  std::optional<RecordedConversion> conversion = {};
  std::vector<RecordedChannel> children = {};

  RecordedPlace place() const {
    return {cn.cn_data_type, cn.cn_byte_offset, cn.cn_bit_offset, cn.cn_bit_count};
  }
};

struct RecordedGroup {
  std::string comment;
  std::string acquisitionName;
  m4CGRecord cg = {};
  std::vector<RecordedChannel> channels = {};
  std::vector<std::vector<std::uint64_t>> lists = {};  // of each DL, the bytes of its DT blocks
  std::uint64_t equalLength = 0;                       // that all lists state
  Link lastBlock = 0;
  Bytes bytes = {};  // of all blocks, in order

  std::vector<Bytes> records() const;
  // One line for all but the records: texts, sizes, channels and their conversions.
  std::string description() const;
};

// Reads a file with the library's block loader. Throws when a block is not what a recorder writes.
struct RecordedFile {
  explicit RecordedFile(const std::string& path);

  IdBlock id = {};
  m4HDRecord header = {};
  std::vector<RecordedGroup> groups;
};

}  // namespace tolvex::test
