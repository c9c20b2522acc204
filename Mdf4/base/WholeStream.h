// Inflating a zlib stream that is in memory as a whole.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>

#include "Mdf4/base/Bytes.h"

namespace tolvex {

// Faster than piece by piece, with the library that is made for it, where the build has that.
class WholeStream {
 public:
  WholeStream();
  WholeStream(const WholeStream&) = delete;
  WholeStream& operator=(const WholeStream&) = delete;
  ~WholeStream();

  // Whether this build has that library.
  static bool isThere();
  // Inflates the stream at the start of `compressed` into `out` and returns how many bytes came out
  // of it. Nothing when it is not whole, has more or there is no memory: going through it piece by
  // piece tells what it is.
  [[nodiscard]] std::optional<std::size_t> inflate(ByteSpan compressed, WritableBytes out);

 private:
  struct State;
  std::unique_ptr<State> state_;  // made for the first one
};

}  // namespace tolvex
