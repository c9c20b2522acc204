#include "Mdf4/format/MDF4File.h"

#include <cinttypes>
#include <string_view>

#include "Mdf4/base/Diagnostics.h"

namespace tolvex {
namespace {

// Bytes of a file as they may be shown.
std::string printable(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) text += c >= 0x20 && c < 0x7F ? c : '.';
  return text;
}

}  // namespace

bool MDF4File::Open(const std::string& path, bool update) {
  Close();
  error_.clear();
  if (!open(path, update ? OpenMode::Update : OpenMode::Read)) {
    error_ = openError();
    return false;
  }
  if (readIdentification() && readHeader()) return true;
  Close();
  return false;
}

bool MDF4File::Close() {
  header_.reset();
  return DirectFile::Close();
}

bool MDF4File::isUnfinished() const {
  return std::string_view(id_.id_file, sizeof id_.id_file) == kUnfinalizedFileId;
}

bool MDF4File::readIdentification() {
  id_ = {};
  if (end() < kIdBlockSize) {
    error_ = formatText("identification at 0: expected %" PRIu64 " bytes, the file has %" PRIu64,
                        kIdBlockSize, end());
    return false;
  }
  if (!ReadAt(0, kIdBlockSize, &id_)) {
    error_ = "identification at 0: " + reads().error();
    return false;
  }
  const std::string_view fileId(id_.id_file, sizeof id_.id_file);
  if (isUnfinished() && !acceptsUnfinished_) {
    error_ = formatText(
        "identification at 0: expected \"MDF     \", found \"UnFinMF \": an unfinalized recording, "
        "left by its logger before it was finished (flags 0x%04X at 60); tolvex recover makes a "
        "finished file of it",
        unsigned{id_.id_unfin_flags});
    return false;
  }
  if (fileId != kFileId && !isUnfinished()) {
    error_ = formatText("identification at 0: expected \"MDF     \", found \"%s\"",
                        printable(fileId).c_str());
    return false;
  }
  if (id_.id_ver < kOldestVersion) {
    error_ = formatText("version number at 28: expected at least %u, found %u",
                        unsigned{kOldestVersion}, unsigned{id_.id_ver});
    return false;
  }
  return true;
}

bool MDF4File::readHeader() {
  BlockHeader header;
  if (!ReadAt(kHeaderBlockPosition, kBlockHeaderSize, &header)) {
    error_ = reads().error().empty()
                 ? formatText("header block at %" PRIu64 ": the file ends at %" PRIu64,
                              kHeaderBlockPosition, end())
                 : formatText("header block at %" PRIu64 ": %s", kHeaderBlockPosition,
                              reads().error().c_str());
    return false;
  }
  if (header.marker != kBlockMarker || header.type != block_type::kHD) {
    const std::string_view found(reinterpret_cast<const char*>(&header), 4);
    error_ = formatText("header block at %" PRIu64 ": expected \"##HD\", found \"%s\"",
                        kHeaderBlockPosition, printable(found).c_str());
    return false;
  }
  header_ = std::make_unique<M4HDBlock>();
  if (header_->load(*this, kHeaderBlockPosition, header)) return true;
  error_ =
      problems().texts().empty() ? "header block at 64: cannot be read" : problems().texts().back();
  return false;
}

}  // namespace tolvex
