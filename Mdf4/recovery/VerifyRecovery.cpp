#include "Mdf4/recovery/VerifyRecovery.h"

#include <zlib.h>

#include <cinttypes>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/MDF4File.h"
#include "Mdf4/format/m4DataStream.h"

namespace tolvex {

std::string verifyRecovery(const std::string& path, const std::vector<GroupChecksum>& written,
                           const MdfProgress& progress) {
  const MdfCheckReport check = checkFile(path, progress);
  if (!check.failure.empty()) return "the result cannot be read again: " + check.failure;
  for (const MdfFinding& finding : check.findings) {
    if (!finding.error) continue;
    return formatText("the result is faulty: %" PRIu64 ": %s: expected %s, found %s",
                      finding.position, finding.what.c_str(), finding.expected.c_str(),
                      finding.found.c_str());
  }
  MDF4File file;
  if (!file.Open(path, false)) return "the result cannot be opened again";
  std::uint64_t total = 0;
  for (const GroupChecksum& group : written) total += group.bytes;
  std::uint64_t done = 0;
  for (const GroupChecksum& group : written) {
    m4DataStream stream(file, group.dataLink);
    std::uint32_t checksum = 0;
    std::uint64_t bytes = 0;
    constexpr std::uint64_t kPiece = 1 << 16;
    for (ByteSpan piece = stream.next(kPiece); !piece.empty(); piece = stream.next(kPiece)) {
      checksum = static_cast<std::uint32_t>(crc32_z(checksum, piece.data(), piece.size()));
      bytes += piece.size();
      done += piece.size();
      if (progress) progress(done, total);
    }
    if (bytes != group.bytes || checksum != group.checksum) {
      return formatText("the result is faulty: data at %" PRIu64 ": other bytes than were written",
                        group.dataLink);
    }
  }
  return {};
}

}  // namespace tolvex
