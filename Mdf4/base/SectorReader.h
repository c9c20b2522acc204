// Reads everything readable from a file on a damaged medium.
#pragma once

#include <cstdint>
#include <map>
#include <span>

#include "Mdf4/base/Bytes.h"
#include "Mdf4/base/System.h"

namespace tolvex {

// Tries again what the system refuses, then sector by sector, and remembers which sectors could
// not be read: these are not read again. However many they are, they take a few MiB and four
// attempts each at most; where they are too many, neighbours count as one, with what lies between.
class SectorReader {
 public:
  // As SystemFile::read, up to the first unreadable byte. What can be read behind it is there, too.
  [[nodiscard]] ReadResult read(SystemFile& file, std::uint64_t position,
                                std::span<const WritableBytes> pieces);
  ByteRange nextUnreadable(std::uint64_t from, std::uint64_t end) const;
  int error() const { return error_; }  // of the last attempt that failed

 private:
  [[nodiscard]] ReadResult readPiece(SystemFile& file, std::uint64_t position, WritableBytes piece);
  [[nodiscard]] bool readSectors(SystemFile& file, std::uint64_t position, WritableBytes bytes);
  void add(std::uint64_t start, std::uint64_t end);

  std::map<std::uint64_t, std::uint64_t> unreadable_;  // start to end, none touching another
  std::uint64_t unit_ = 512;                           // that starts and ends are multiples of
  int error_ = 0;
};

}  // namespace tolvex
