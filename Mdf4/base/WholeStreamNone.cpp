// Without the library for it.
#include "Mdf4/base/WholeStream.h"

namespace tolvex {

struct WholeStream::State {};

WholeStream::WholeStream() = default;
WholeStream::~WholeStream() = default;

bool WholeStream::isThere() {
  return false;
}

std::optional<std::size_t> WholeStream::inflate(ByteSpan, WritableBytes) {
  return std::nullopt;
}

}  // namespace tolvex
