#include "Mdf4/format/BlockInflater.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <limits>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/base/InflateStream.h"
#include "Mdf4/base/Transposition.h"

namespace tolvex {
namespace {

// zlib counts in 32 bits.
constexpr std::uint64_t kMostAtOnce = std::numeric_limits<uInt>::max();
// Compressed bytes that are held in memory for the sake of speed.
constexpr std::uint64_t kMostWhole = std::uint64_t{8} << 20;

}  // namespace

std::string Inflation::fault(std::uint64_t expected) const {
  switch (end) {
    case Whole:
      return bytes == expected ? "" : formatText("%" PRIu64 " bytes", bytes);
    case TooLong:
      return formatText("more than %" PRIu64 " bytes", expected);
    case Unreadable:
      return formatText("unreadable behind %" PRIu64 " bytes", bytes);
    case NoMemory:
      return "more than fits into memory";
    case Damaged:
      break;
  }
  return formatText("damaged behind %" PRIu64 " bytes", bytes);
}

BlockInflater::BlockInflater(DirectFile& file, std::uint64_t pieceSize)
    : file_(file), pieceSize_(std::min(pieceSize, kMostAtOnce)) {}

BlockInflater::~BlockInflater() = default;

void BlockInflater::releaseBuffers() {
  for (ByteBuffer* const buffer : {&in_, &out_, &columns_}) buffer->release();
}

Inflation BlockInflater::inflate(std::uint64_t position, std::uint64_t length,
                                 std::uint64_t expected, const Piece& piece) {
  if (!out_.reserve(pieceSize_)) return {Inflation::NoMemory};
  return run(position, length, expected, {out_.data(), inMemory(pieceSize_)}, &piece);
}

Inflation BlockInflater::inflateRows(const CompressedData& data, std::uint64_t bytes,
                                     ByteBuffer& rows) {
  if (!data.isTransposed()) return inflateStored(data, bytes, rows);
  if (!rows.reserve(bytes)) return {Inflation::NoMemory};
  const Inflation result = inflateStored(data, bytes, columns_);
  if (result.end == Inflation::Whole) {
    undoTransposition({columns_.data(), inMemory(result.bytes)}, data.record.dz_zip_parameter,
                      {rows.data(), inMemory(result.bytes)});
  }
  return result;
}

Inflation BlockInflater::inflateStored(const CompressedData& data, std::uint64_t bytes,
                                       ByteBuffer& stored) {
  if (!stored.reserve(bytes)) return {Inflation::NoMemory};
  const WritableBytes out = {stored.data(), inMemory(bytes)};
  const std::uint64_t length = data.record.dz_data_length;
  if (WholeStream::isThere() && length <= kMostWhole && file_.holds(data.position, length) &&
      in_.reserve(length) && file_.ReadAt(data.position, length, in_.data())) {
    if (const auto made = whole_.inflate({in_.data(), inMemory(length)}, out)) {
      return {Inflation::Whole, *made};
    }
  }
  return run(data.position, length, bytes, out, nullptr);
}

// What comes out goes into `out`, with `piece` again and again from its start.
Inflation BlockInflater::run(std::uint64_t position, std::uint64_t length, std::uint64_t expected,
                             WritableBytes out, const Piece* piece) {
  if (stream_ == nullptr) stream_ = std::make_unique<InflateStream>();
  if (!in_.reserve(std::min(length, pieceSize_))) return {Inflation::NoMemory};
  z_stream& z = stream_->z;
  inflateReset(&z);
  z.avail_in = 0;
  std::array<std::uint8_t, 1> beyond;  // a byte that has no place left, and is one too many
  std::uint64_t done = 0;
  int result = Z_OK;
  while (result == Z_OK || result == Z_BUF_ERROR) {
    if (z.avail_in == 0 && length != 0) {
      const std::uint64_t next = std::min(length, pieceSize_);
      if (!file_.holds(position, next)) break;
      if (!file_.ReadAt(position, next, in_.data())) return {Inflation::Unreadable, done};
      position += next;
      length -= next;
      z.next_in = in_.data();
      z.avail_in = static_cast<uInt>(next);
    }
    WritableBytes room =
        out.subspan(piece != nullptr ? 0 : inMemory(std::min<std::uint64_t>(done, out.size())));
    if (room.empty()) room = beyond;
    room = room.first(inMemory(std::min<std::uint64_t>(room.size(), kMostAtOnce)));
    z.next_out = room.data();
    z.avail_out = static_cast<uInt>(room.size());
    result = stream_->inflate(Z_NO_FLUSH);
    const std::uint64_t made = room.size() - z.avail_out;
    const std::uint64_t wanted = std::min(made, expected - std::min(expected, done));
    if (piece != nullptr && *piece && wanted != 0) (*piece)(room.first(inMemory(wanted)));
    done += made;
    if (done > expected) return {Inflation::TooLong, done};
    if (made == 0 && z.avail_in == 0 && length == 0) break;  // the stream goes on, the block not
  }
  return {result == Z_STREAM_END ? Inflation::Whole : Inflation::Damaged, done};
}

}  // namespace tolvex
