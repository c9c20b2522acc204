#include "Mdf4/format/DirectFile.h"

#include <algorithm>
#include <cinttypes>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/base/SectorReader.h"

namespace tolvex {
namespace {

constexpr std::size_t kMaxProblems = 100;
constexpr std::uint64_t kAlignment = 8;

std::uint64_t alignUp(std::uint64_t position) {
  return (position + kAlignment - 1) / kAlignment * kAlignment;
}

}  // namespace

DirectFile::DirectFile() = default;

DirectFile::~DirectFile() {
  DirectFile::Close();
}

bool DirectFile::Close() {
  const std::unique_ptr<SystemFile> file = std::move(file_);
  pages_.reset();
  sectors_.reset();
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
  std::unique_ptr<SystemFile> file = openSystemFile(path, mode, openError_);
  if (file == nullptr) return false;
  if (attach(std::move(file))) return true;
  openError_ = "its size is unknown";
  return false;
}

bool DirectFile::attach(std::unique_ptr<SystemFile> file) {
  Close();
  std::uint64_t size = 0;
  if (!file->size(size)) return false;
  file_ = std::move(file);
  writeError_.clear();
  readError_.clear();
  lastFailedRead_ = kNoPosition;
  openedSize_ = size;
  position_ = size;
  end_ = size;
  budget_ = LoadBudget(size);
  return true;
}

void DirectFile::readBySectors() {
  sectors_ = std::make_unique<SectorReader>();
}

ByteRange DirectFile::nextUnreadable(std::uint64_t from, std::uint64_t end) const {
  return sectors_ == nullptr ? ByteRange{end, end} : sectors_->nextUnreadable(from, end);
}

std::string DirectFile::unreadableReason() const {
  return systemErrorText(sectors_ == nullptr ? 0 : sectors_->error());
}

bool DirectFile::ReadAt(std::uint64_t position, std::uint64_t length, void* buffer) {
  const WritableBytes bytes(static_cast<std::uint8_t*>(buffer), length);
  bool done = false;
  if (file_ != nullptr && holds(position, length)) {
    position_ = position;
    done = length < kPageSize ? readSmall(position, bytes)
                              : read(position, std::span(&bytes, 1)) == length;
  }
  if (!done) {
    printDiagnostic("DirectFile::ReadAt failed\n");
    return false;
  }
  position_ = position + length;
  return true;
}

ReadResult DirectFile::readRaw(std::uint64_t position, std::span<const WritableBytes> pieces) {
  return sectors_ == nullptr ? file_->read(position, pieces)
                             : sectors_->read(*file_, position, pieces);
}

// Reads from the system. Returns the bytes read; fewer than asked for without a note at the end of
// the file.
std::uint64_t DirectFile::read(std::uint64_t position, std::span<const WritableBytes> pieces) {
  const ReadResult result = readRaw(position, pieces);
  std::uint64_t length = 0;
  for (const WritableBytes& piece : pieces) length += piece.size();
  if (result.error != 0) {
    noteFailedRead(position + result.bytes, length - result.bytes, systemErrorText(result.error));
  } else if (result.bytes < promised(position, length)) {
    noteFailedRead(position + result.bytes, length - result.bytes,
                   formatText("the file ends earlier than its size of %" PRIu64
                              " bytes, when it was opened, promised",
                              openedSize_));
  }
  return result.bytes;
}

// How many of the bytes the file had when it was opened.
std::uint64_t DirectFile::promised(std::uint64_t position, std::uint64_t length) const {
  return position < openedSize_ ? std::min(length, openedSize_ - position) : 0;
}

void DirectFile::noteFailedRead(std::uint64_t position, std::uint64_t length,
                                const std::string& why) {
  ++failedReads_;
  if (std::exchange(lastFailedRead_, position) == position) return;  // another attempt
  std::string text = formatText("reading %" PRIu64 " bytes at %" PRIu64 " failed: %s", length,
                                position, why.c_str());
  if (!readError_.empty()) {
    report(std::move(text));
    return;
  }
  readError_ = text;
  problems_.push_back(std::move(text));  // however many there are already
}

bool DirectFile::readSmall(std::uint64_t position, WritableBytes bytes) {
  if (pages_ == nullptr) {
    pages_ = std::make_unique_for_overwrite<Pages>();
    pages_->numbers.fill(kNoPosition);
  }
  std::uint64_t done = 0;
  while (done < bytes.size()) {
    const std::uint64_t number = (position + done) / kPageSize;
    const std::uint64_t offset = (position + done) % kPageSize;
    const std::size_t slot = number % kPageCount;
    if (pages_->numbers[slot] != number && !loadPage(slot, number)) {
      // What is wanted of the page may be sound all the same.
      const WritableBytes part =
          bytes.subspan(done, std::min(bytes.size() - done, kPageSize - offset));
      if (read(position + done, std::span(&part, 1)) != part.size()) return false;
      done += part.size();
      continue;
    }
    if (pages_->filled[slot] <= offset) return false;
    const std::uint64_t count = std::min(bytes.size() - done, pages_->filled[slot] - offset);
    std::copy_n(pages_->bytes[slot].data() + offset, count, bytes.data() + done);
    done += count;
  }
  return true;
}

// A page is kept only when all of it could be read that the file has.
bool DirectFile::loadPage(std::size_t slot, std::uint64_t number) {
  const std::uint64_t start = number * kPageSize;
  const WritableBytes page = pages_->bytes[slot];
  if (!nextUnreadable(start, start + kPageSize).empty()) return false;
  const ReadResult result = readRaw(start, std::span(&page, 1));
  const bool whole = result.error == 0 && result.bytes >= promised(start, kPageSize);
  pages_->numbers[slot] = whole ? number : kNoPosition;
  pages_->filled[slot] = static_cast<std::uint32_t>(result.bytes);
  return whole;
}

std::uint64_t DirectFile::readPieces(std::uint64_t position,
                                     std::span<const WritableBytes> pieces) {
  if (file_ == nullptr || position > end_) return 0;
  const std::uint64_t done = read(position, pieces);
  position_ = position + done;
  return done;
}

bool DirectFile::WriteAt(std::uint64_t position, std::uint64_t length, const void* data) {
  const ByteSpan bytes(static_cast<const std::uint8_t*>(data), length);
  return WriteAt(position, std::span(&bytes, 1));
}

bool DirectFile::WriteAt(std::uint64_t position, std::span<const ByteSpan> pieces) {
  if (file_ == nullptr) return false;
  std::uint64_t length = 0;
  for (const ByteSpan& piece : pieces) length += piece.size();
  forgetPages(position, length);
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

void DirectFile::forgetPages(std::uint64_t position, std::uint64_t length) {
  if (pages_ == nullptr || length == 0) return;
  const std::uint64_t first = position / kPageSize;
  const std::uint64_t last = (position + length - 1) / kPageSize;
  for (std::uint64_t& number : pages_->numbers) {
    if (number >= first && number <= last) number = kNoPosition;
  }
}

std::uint64_t DirectFile::Allocate(std::uint64_t size, bool extend) {
  const std::uint64_t aligned = alignUp(end_);
  const std::uint64_t padding = aligned - end_;
  end_ = aligned + size;
  if (extend) {
    end_ += padding;
    position_ = aligned;
    SetEnd(aligned);
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

void DirectFile::report(std::string problem) {
  if (problems_.size() >= kMaxProblems) return;
  if (std::find(problems_.begin(), problems_.end(), problem) != problems_.end()) return;
  problems_.push_back(std::move(problem));
}

bool DirectFile::chargeLoad(std::uint64_t bytes) {
  if (budget_.takeLoad(bytes)) return true;
  report("the file's links lead to many times the bytes that it has: blocks are left out");
  return false;
}

bool DirectFile::chargeAgain(std::uint64_t bytes) {
  if (budget_.takeAgain(bytes)) return true;
  report("the file's values lead to its compressed blocks too many times: values are left out");
  return false;
}

}  // namespace tolvex
