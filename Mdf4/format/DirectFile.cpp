#include "Mdf4/format/DirectFile.h"

#include <algorithm>
#include <array>
#include <cinttypes>

namespace tolvex {
namespace {

constexpr std::uint64_t kAlignment = 8;

std::uint64_t alignUp(std::uint64_t position) {
  return (position + kAlignment - 1) / kAlignment * kAlignment;
}

}  // namespace

DirectFile::~DirectFile() {
  DirectFile::Close();
}

bool DirectFile::Close() {
  reads_.close();
  const std::unique_ptr<SystemFile> file = std::move(file_);
  resting_ = nullptr;
  inflated_.clear();
  position_ = kNoPosition;
  end_ = 0;
  if (file == nullptr || file->close()) return true;
  noteWriteError([&] { return "closing the file failed: " + file->error(); });
  return false;
}

bool DirectFile::open(const std::string& path, OpenMode mode) {
  Close();
  openError_.clear();
  std::unique_ptr<SystemFile> file;
  RestingFile* resting = nullptr;
  if (mode == OpenMode::Read) {
    auto opened = RestingFile::open(path, openError_);
    resting = opened.get();
    file = std::move(opened);
  } else {
    file = openSystemFile(path, mode, openError_);
  }
  if (file == nullptr) return false;
  if (attach(std::move(file))) {
    resting_ = resting;
    return true;
  }
  openError_ = "its size is unknown";
  return false;
}

bool DirectFile::attach(std::unique_ptr<SystemFile> file) {
  Close();
  std::uint64_t size = 0;
  if (!file->size(size)) return false;
  file_ = std::move(file);
  writeError_.clear();
  reads_.open(*file_, size);
  budget_.open(size);
  position_ = size;
  end_ = size;
  return true;
}

bool DirectFile::ReadAt(std::uint64_t position, std::uint64_t length, void* buffer) {
  const WritableBytes bytes(static_cast<std::uint8_t*>(buffer), inMemory(length));
  bool done = false;
  if (file_ != nullptr && holds(position, length)) {
    position_ = position;
    done = length < PageCache::kPageSize ? reads_.readSmall(position, bytes)
                                         : reads_.read(position, std::span(&bytes, 1)) == length;
  }
  if (!done) {
    printDiagnostic("DirectFile::ReadAt failed\n");
    return false;
  }
  position_ = position + length;
  return true;
}

std::uint64_t DirectFile::readPieces(std::uint64_t position,
                                     std::span<const WritableBytes> pieces) {
  if (file_ == nullptr || position > end_) return 0;
  const std::uint64_t done = reads_.read(position, pieces);
  position_ = position + done;
  return done;
}

bool DirectFile::areZeros(std::uint64_t from, std::uint64_t to) {
  std::array<std::uint8_t, PageCache::kPageSize> bytes;
  to = std::min(to, end_);
  if (from >= to) return true;
  return ReadAt(from, to - from, bytes.data()) &&
         tolvex::areZeros(std::span(bytes).first(inMemory(to - from)));
}

bool DirectFile::WriteAt(std::uint64_t position, std::uint64_t length, const void* data) {
  const ByteSpan bytes(static_cast<const std::uint8_t*>(data), inMemory(length));
  return WriteAt(position, std::span(&bytes, 1));
}

bool DirectFile::WriteAt(std::uint64_t position, std::span<const ByteSpan> pieces) {
  if (file_ == nullptr) return false;
  std::uint64_t length = 0;
  for (const ByteSpan& piece : pieces) length += piece.size();
  reads_.forget(position, length);
  position_ = position;
  if (!file_->write(position, pieces)) {
    noteWriteError([&] {
      return formatText("writing %" PRIu64 " bytes at %" PRIu64 " failed: %s", length, position,
                        file_->error().c_str());
    });
    return false;
  }
  position_ = position + length;
  end_ = std::max(end_, position_);
  return true;
}

std::uint64_t DirectFile::Allocate(std::uint64_t size, bool extend) {
  const std::uint64_t aligned = alignUp(end_);
  const std::uint64_t padding = aligned - end_;
  end_ = aligned + size;
  if (extend) {
    end_ += padding;
    position_ = aligned;
    static_cast<void>(SetEnd(aligned));  // writes there fail likewise, and are reported
  }
  return aligned;
}

bool DirectFile::SetEnd(std::uint64_t position) {
  if (position <= end_) {
    printDiagnostic("DirectFile::SetEnd Not Support, size: %" PRIu64 ", end: %" PRIu64 "\n", end_,
                    position);
    position_ = end_;
    return true;
  }
  end_ = position;
  const std::uint8_t zero = 0;
  if (WriteAt(position - 1, 1, &zero)) return true;
  printDiagnostic("DirectFile::SetEnd: fwrite failed to extend file\n");
  return false;
}

}  // namespace tolvex
