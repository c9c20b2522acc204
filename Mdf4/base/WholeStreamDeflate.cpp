// With libdeflate.
#include <libdeflate.h>

#include "Mdf4/base/WholeStream.h"

namespace tolvex {

struct WholeStream::State {
  State() = default;
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State() { libdeflate_free_decompressor(decompressor); }

  libdeflate_decompressor* decompressor = libdeflate_alloc_decompressor();
};

WholeStream::WholeStream() = default;
WholeStream::~WholeStream() = default;

bool WholeStream::isThere() {
  return true;
}

std::optional<std::size_t> WholeStream::inflate(ByteSpan compressed, WritableBytes out) {
  if (state_ == nullptr) state_ = std::make_unique<State>();
  if (state_->decompressor == nullptr) return std::nullopt;
  std::size_t used = 0;
  std::size_t made = 0;
  const libdeflate_result result =
      libdeflate_zlib_decompress_ex(state_->decompressor, compressed.data(), compressed.size(),
                                    out.data(), out.size(), &used, &made);
  return result == LIBDEFLATE_SUCCESS ? std::optional(made) : std::nullopt;
}

}  // namespace tolvex
