#include "Mdf4/recovery/FileCheckInflate.h"

#include <zlib.h>

#include <algorithm>
#include <cinttypes>
#include <vector>

#include "Mdf4/format/Diagnostics.h"

namespace tolvex {
struct PieceInflater::Stream {
  explicit Stream(std::uint64_t pieceSize) : in(pieceSize), out(pieceSize) {}

  z_stream z = {};
  bool ready = false;
  std::vector<std::uint8_t> in;
  std::vector<std::uint8_t> out;
};

PieceInflater::PieceInflater(DirectFile& file, std::uint64_t pieceSize)
    : file_(file), stream_(std::make_unique<Stream>(pieceSize)) {
  stream_->ready = inflateInit(&stream_->z) == Z_OK;
}

PieceInflater::~PieceInflater() {
  if (stream_->ready) inflateEnd(&stream_->z);
}

std::string PieceInflater::inflate(std::uint64_t position, std::uint64_t length,
                                   std::uint64_t expected, const Piece& piece) {
  z_stream& z = stream_->z;
  if (!stream_->ready || inflateReset(&z) != Z_OK) return "no memory to inflate it";
  z.avail_in = 0;
  std::uint64_t done = 0;
  int result = Z_OK;
  while (result == Z_OK || result == Z_BUF_ERROR) {
    if (z.avail_in == 0 && length != 0) {
      const std::uint64_t next = std::min<std::uint64_t>(length, stream_->in.size());
      if (!file_.holds(position, next)) break;
      if (!file_.ReadAt(position, next, stream_->in.data())) {
        return formatText("unreadable behind %" PRIu64 " bytes", done);
      }
      position += next;
      length -= next;
      z.next_in = stream_->in.data();
      z.avail_in = static_cast<uInt>(next);
    }
    z.next_out = stream_->out.data();
    z.avail_out = static_cast<uInt>(stream_->out.size());
    result = ::inflate(&z, Z_NO_FLUSH);
    const std::uint64_t made = stream_->out.size() - z.avail_out;
    const std::uint64_t wanted = std::min(made, expected - std::min(expected, done));
    if (piece && wanted != 0) piece(ByteSpan(stream_->out.data(), wanted));
    done += made;
    if (done > expected) return formatText("more than %" PRIu64 " bytes", expected);
    if (made == 0 && z.avail_in == 0 && length == 0) break;  // the stream goes on, the block not
  }
  if (result == Z_STREAM_END && done == expected) return "";
  return formatText(
      result == Z_STREAM_END ? "%" PRIu64 " bytes" : "damaged behind %" PRIu64 " bytes", done);
}

}  // namespace tolvex
