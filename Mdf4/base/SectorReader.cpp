#include "Mdf4/base/SectorReader.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tolvex {
namespace {

constexpr std::uint64_t kSector = 512;
constexpr std::size_t kMostRanges = 32 << 10;

ReadResult readTwice(SystemFile& file, std::uint64_t position, WritableBytes bytes) {
  const ReadResult first = file.read(position, std::span(&bytes, 1));
  if (first.error == 0) return first;
  const WritableBytes rest = bytes.subspan(inMemory(first.bytes));
  const ReadResult second = file.read(position + first.bytes, std::span(&rest, 1));
  return {first.bytes + second.bytes, second.error};
}

}  // namespace

ByteRange SectorReader::nextUnreadable(std::uint64_t from, std::uint64_t end) const {
  auto range = unreadable_.upper_bound(from);
  if (range != unreadable_.begin() && std::prev(range)->second > from) --range;
  if (range == unreadable_.end() || range->first >= end) return {end, end};
  return {std::max(range->first, from), std::min(range->second, end)};
}

ReadResult SectorReader::read(SystemFile& file, std::uint64_t position,
                              std::span<const WritableBytes> pieces) {
  std::uint64_t length = 0;
  for (const WritableBytes& piece : pieces) length += piece.size();
  if (nextUnreadable(position, position + length).empty()) {
    const ReadResult whole = file.read(position, pieces);
    if (whole.error == 0) return whole;
  }
  ReadResult result;
  for (const WritableBytes& piece : pieces) {
    const ReadResult part = readPiece(file, position, piece);
    position += piece.size();
    if (result.error != 0) continue;
    result.bytes += part.bytes;
    result.error = part.error;
    if (part.error == 0 && part.bytes < piece.size()) break;
  }
  return result;
}

ReadResult SectorReader::readPiece(SystemFile& file, std::uint64_t position, WritableBytes piece) {
  const std::uint64_t end = position + piece.size();
  for (std::uint64_t at = position; at < end;) {
    const ByteRange known = nextUnreadable(at, end);
    const WritableBytes sound = piece.subspan(inMemory(at - position), inMemory(known.start - at));
    const ReadResult got = sound.empty() ? ReadResult{} : readTwice(file, at, sound);
    const bool ended = got.error == 0
                           ? got.bytes < sound.size()
                           : !readSectors(file, at + got.bytes, sound.subspan(inMemory(got.bytes)));
    if (ended) {
      // Nothing unreadable stands behind the end of the file.
      const ByteRange first = nextUnreadable(position, end);
      return first.empty() ? ReadResult{at + got.bytes - position, 0}
                           : ReadResult{first.start - position, error_};
    }
    at = known.end;
  }
  const ByteRange first = nextUnreadable(position, end);
  return {first.start - position, first.empty() ? 0 : error_};
}

// False when the file ends.
bool SectorReader::readSectors(SystemFile& file, std::uint64_t position, WritableBytes bytes) {
  while (!bytes.empty()) {
    const std::uint64_t sector = position / kSector * kSector;
    const std::size_t length =
        inMemory(std::min<std::uint64_t>(bytes.size(), sector + kSector - position));
    const ReadResult got = readTwice(file, position, bytes.first(length));
    if (got.error == 0 && got.bytes < length) return false;
    if (got.error != 0) {
      error_ = got.error;
      add(sector, sector + kSector);
    }
    position += length;
    bytes = bytes.subspan(length);
  }
  return true;
}

void SectorReader::add(std::uint64_t start, std::uint64_t end) {
  start = start / unit_ * unit_;
  end = (end + unit_ - 1) / unit_ * unit_;
  auto at = unreadable_.upper_bound(start);
  if (at != unreadable_.begin() && std::prev(at)->second >= start) --at;
  while (at != unreadable_.end() && at->first <= end) {
    start = std::min(start, at->first);
    end = std::max(end, at->second);
    at = unreadable_.erase(at);
  }
  unreadable_.emplace_hint(at, start, end);
  if (unreadable_.size() <= kMostRanges) return;
  unit_ *= 2;
  for (const auto& [from, to] : std::exchange(unreadable_, {})) add(from, to);
}

}  // namespace tolvex
