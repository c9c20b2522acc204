#include "Mdf4/base/Inflater.h"

#include <algorithm>
#include <limits>
#include <new>

#include "Mdf4/base/InflateStream.h"

namespace tolvex {

Inflater::Inflater() : stream_(std::make_unique<InflateStream>()) {}

Inflater::~Inflater() = default;

std::optional<std::uint64_t> Inflater::inflate(ByteSpan compressed, WritableBytes out) {
  z_stream& z = stream_->z;
  if (inflateReset(&z) != Z_OK) return std::nullopt;
  // zlib counts in 32 bits: longer data are handed over in pieces.
  constexpr std::size_t kPiece = std::numeric_limits<uInt>::max();
  std::uint8_t nothing = 0;
  z.next_in = const_cast<Bytef*>(compressed.data());
  z.next_out = out.empty() ? &nothing : out.data();
  std::size_t inLeft = compressed.size();
  std::size_t outLeft = out.size();
  z.avail_in = 0;
  z.avail_out = 0;
  int result = Z_OK;
  while (result == Z_OK) {
    if (z.avail_in == 0) {
      z.avail_in = static_cast<uInt>(std::min(inLeft, kPiece));
      inLeft -= z.avail_in;
    }
    if (z.avail_out == 0) {
      z.avail_out = static_cast<uInt>(std::min(outLeft, kPiece));
      outLeft -= z.avail_out;
    }
    const bool last = inLeft == 0 && outLeft == 0;
    result = stream_->inflate(last ? Z_FINISH : Z_NO_FLUSH);
  }
  if (result != Z_STREAM_END) return std::nullopt;
  return out.size() - outLeft - z.avail_out;
}

bool ByteBuffer::reserve(std::uint64_t size) {
  if (size <= size_) return true;
  release();
  bytes_.reset(new (std::nothrow) std::uint8_t[size]);
  size_ = bytes_ != nullptr ? size : 0;
  return bytes_ != nullptr;
}

void ByteBuffer::release() {
  bytes_.reset();
  size_ = 0;
}

}  // namespace tolvex
