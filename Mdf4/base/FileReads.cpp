#include "Mdf4/base/FileReads.h"

#include <algorithm>
#include <cinttypes>
#include <utility>

#include "Mdf4/base/Diagnostics.h"

namespace tolvex {

void FileReads::open(SystemFile& file, std::uint64_t size) {
  file_ = &file;
  size_ = size;
  error_.clear();
  lastFailure_ = kNoPosition;
}

void FileReads::close() {
  file_ = nullptr;
  pages_.clear();
  sectors_.reset();
}

ByteRange FileReads::nextUnreadable(std::uint64_t from, std::uint64_t end) const {
  return sectors_ == nullptr ? ByteRange{end, end} : sectors_->nextUnreadable(from, end);
}

std::string FileReads::unreadableReason() const {
  return systemErrorText(sectors_ == nullptr ? 0 : sectors_->error());
}

ReadResult FileReads::readRaw(std::uint64_t position, std::span<const WritableBytes> pieces) {
  return sectors_ == nullptr ? file_->read(position, pieces)
                             : sectors_->read(*file_, position, pieces);
}

std::uint64_t FileReads::read(std::uint64_t position, std::span<const WritableBytes> pieces) {
  const ReadResult result = readRaw(position, pieces);
  std::uint64_t length = 0;
  for (const WritableBytes& piece : pieces) length += piece.size();
  if (result.error != 0) {
    noteFailure(position + result.bytes, length - result.bytes, systemErrorText(result.error));
  } else if (result.bytes < promised(position, length)) {
    noteFailure(position + result.bytes, length - result.bytes,
                formatText("the file ends earlier than its size of %" PRIu64
                           " bytes, when it was opened, promised",
                           size_));
  }
  return result.bytes;
}

// How many of the bytes the file had when it was opened.
std::uint64_t FileReads::promised(std::uint64_t position, std::uint64_t length) const {
  return position < size_ ? std::min(length, size_ - position) : 0;
}

void FileReads::noteFailure(std::uint64_t position, std::uint64_t length, const std::string& why) {
  ++failures_;
  if (std::exchange(lastFailure_, position) == position) return;  // another attempt
  std::string text = formatText("reading %" PRIu64 " bytes at %" PRIu64 " failed: %s", length,
                                position, why.c_str());
  if (!error_.empty()) {
    problems_.add(std::move(text));
    return;
  }
  error_ = text;
  problems_.keep(std::move(text));
}

bool FileReads::readSmall(std::uint64_t position, WritableBytes bytes) {
  while (!bytes.empty()) {
    const std::uint64_t number = position / PageCache::kPageSize;
    const std::size_t offset = position % PageCache::kPageSize;
    std::size_t count = std::min(bytes.size(), PageCache::kPageSize - offset);
    const WritableBytes part = bytes.first(count);
    if (pages_.has(number) || loadPage(number)) {
      const ByteSpan page = pages_.page(number);
      if (page.size() <= offset) return false;
      count = std::min(count, page.size() - offset);
      std::copy_n(page.begin() + static_cast<std::ptrdiff_t>(offset), count, part.begin());
    } else if (read(position, std::span(&part, 1)) != count) {
      return false;
    }  // else what is wanted of the page is sound all the same
    position += count;
    bytes = bytes.subspan(count);
  }
  return true;
}

// A page is kept only when all of it could be read that the file has.
bool FileReads::loadPage(std::uint64_t number) {
  const std::uint64_t start = number * PageCache::kPageSize;
  if (!nextUnreadable(start, start + PageCache::kPageSize).empty()) return false;
  const WritableBytes page = pages_.room(number);
  const ReadResult result = readRaw(start, std::span(&page, 1));
  if (result.error != 0 || result.bytes < promised(start, PageCache::kPageSize)) return false;
  pages_.keep(number, inMemory(result.bytes));
  return true;
}

}  // namespace tolvex
