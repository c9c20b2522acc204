#include "Mdf4/format/PieceInflater.h"

#include <algorithm>
#include <cinttypes>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/base/InflateStream.h"

namespace tolvex {

struct PieceInflater::Stream : InflateStream {
  explicit Stream(std::uint64_t pieceSize)
      : in(new std::uint8_t[pieceSize]), out(new std::uint8_t[pieceSize]) {}

  std::unique_ptr<std::uint8_t[]> in;
  std::unique_ptr<std::uint8_t[]> out;
};

PieceInflater::PieceInflater(DirectFile& file, std::uint64_t pieceSize)
    : file_(file), pieceSize_(pieceSize) {}

PieceInflater::~PieceInflater() = default;

std::string PieceInflater::inflate(std::uint64_t position, std::uint64_t length,
                                   std::uint64_t expected, const Piece& piece) {
  if (stream_ == nullptr) stream_ = std::make_unique<Stream>(pieceSize_);
  z_stream& z = stream_->z;
  inflateReset(&z);
  z.avail_in = 0;
  std::uint64_t done = 0;
  int result = Z_OK;
  while (result == Z_OK || result == Z_BUF_ERROR) {
    if (z.avail_in == 0 && length != 0) {
      const std::uint64_t next = std::min<std::uint64_t>(length, pieceSize_);
      if (!file_.holds(position, next)) break;
      if (!file_.ReadAt(position, next, stream_->in.get())) {
        return formatText("unreadable behind %" PRIu64 " bytes", done);
      }
      position += next;
      length -= next;
      z.next_in = stream_->in.get();
      z.avail_in = static_cast<uInt>(next);
    }
    z.next_out = stream_->out.get();
    z.avail_out = static_cast<uInt>(pieceSize_);
    result = stream_->inflate(Z_NO_FLUSH);
    const std::uint64_t made = pieceSize_ - z.avail_out;
    const std::uint64_t wanted = std::min(made, expected - std::min(expected, done));
    if (piece && wanted != 0) piece(ByteSpan(stream_->out.get(), wanted));
    done += made;
    if (done > expected) return formatText("more than %" PRIu64 " bytes", expected);
    if (made == 0 && z.avail_in == 0 && length == 0) break;  // the stream goes on, the block not
  }
  if (result == Z_STREAM_END && done == expected) return "";
  return formatText(
      result == Z_STREAM_END ? "%" PRIu64 " bytes" : "damaged behind %" PRIu64 " bytes", done);
}

}  // namespace tolvex
