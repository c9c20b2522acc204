// What a compressed data block says of its data, and what of that can be.
#pragma once

#include <cstdint>
#include <optional>

#include "Mdf4/format/BlockRecords.h"
#include "Mdf4/format/DirectFile.h"

namespace tolvex {

// No deflate stream of `compressed` bytes inflates to more than this.
constexpr std::uint64_t mostInflated(std::uint64_t compressed) {
  constexpr std::uint64_t kRatio = 1032;
  constexpr std::uint64_t kMost = ~std::uint64_t{0};
  return compressed > kMost / kRatio - 1 ? kMost : (compressed + 1) * kRatio;
}

// The record of a DZ block, and where its zlib stream stands.
struct CompressedData {
  struct Fault {
    const char* what;
    std::uint64_t expected;
    std::uint64_t found;
  };

  m4DZRecord record = {};
  std::uint64_t position = 0;   // of the stream in the file
  std::uint64_t dataBytes = 0;  // that the block has for record and stream

  // Reads the record of the block at `block`; what it says may still be wrong. False when the file
  // does not hold it or cannot be read.
  [[nodiscard]] bool read(DirectFile& file, std::uint64_t block, const BlockHeader& header);

  bool isTransposed() const { return record.dz_zip_type == kZipTransposeDeflate; }
  bool hasRecord() const { return dataBytes >= sizeof record; }
  bool mayGive(std::uint64_t bytes) const { return bytes <= mostInflated(record.dz_data_length); }
  // What keeps so many bytes from coming out of it.
  std::optional<Fault> faultFor(std::uint64_t bytes, const DirectFile& file) const;
};

}  // namespace tolvex
