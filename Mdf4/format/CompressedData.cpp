#include "Mdf4/format/CompressedData.h"

#include <algorithm>

namespace tolvex {

bool CompressedData::read(DirectFile& file, std::uint64_t block, const BlockHeader& header) {
  if (!header.dataLength(dataBytes)) return false;
  const std::uint64_t at = block + kBlockHeaderSize + header.linkCount * kLinkSize;
  position = at + sizeof record;
  return file.ReadAt(at, sizeof record, &record);
}

std::optional<CompressedData::Fault> CompressedData::faultFor(std::uint64_t bytes,
                                                              const DirectFile& file) const {
  const std::uint64_t length = record.dz_data_length;
  if (!hasRecord()) return Fault{"bytes in its record", sizeof record, dataBytes};
  if (dataBytes - sizeof record < length) {
    return Fault{"compressed bytes", length, dataBytes - sizeof record};
  }
  if (!file.holds(position, length)) {
    return Fault{"bytes up to the end of the file", length,
                 file.end() - std::min(file.end(), position)};
  }
  if (!mayGive(bytes)) {
    return Fault{"at most this many inflated bytes", mostInflated(length), bytes};
  }
  return std::nullopt;
}

}  // namespace tolvex
