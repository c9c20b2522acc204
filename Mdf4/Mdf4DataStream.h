// The records of one data group on their way into the file.
#pragma once

#include <cstdint>
#include <memory>

#include "Mdf4/Mdf4File.h"
#include "Mdf4/format/m4DataStream.h"

namespace tolvex {

// Appends records to data blocks of equal length, in lists of five. Every full block is handed to
// the system at once. Borrows the file.
class Mdf4DataStream : public m4DataStream {
 public:
  static constexpr std::uint32_t kBlocksPerList = 5;

  // Writes the first list, of blocks of `capacity` bytes, at the end of the file and links it from
  // the data group. Null, with the group as it was, when a write fails or there is no memory.
  static std::unique_ptr<Mdf4DataStream> create(DirectFile& file, CustomDGBlock& group,
                                                std::uint64_t capacity);

  // Writes what is left. False when something is lost; savedBytes tells how much is not.
  bool flush() { return finish(false); }

 private:
  using m4DataStream::m4DataStream;
};

}  // namespace tolvex
