// A zlib stream whose memory comes from operator new, as all memory of the library.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <new>

namespace tolvex {

// Ready to inflate. Throws std::bad_alloc, which zlib would report later, like damaged data.
class InflateStream {
 public:
  InflateStream() {
    z.zalloc = [](void* /*user*/, uInt items, uInt size) {
      return ::operator new (std::size_t{items} * size, std::nothrow);
    };
    z.zfree = [](void* /*user*/, void* memory) { ::operator delete(memory); };
    check(inflateInit(&z));
  }
  InflateStream(const InflateStream&) = delete;
  InflateStream& operator=(const InflateStream&) = delete;
  ~InflateStream() { inflateEnd(&z); }

  // The next step of z's input and output, as zlib's function of that name.
  [[nodiscard]] int inflate(int flush) { return check(::inflate(&z, flush)); }

  z_stream z = {};

 private:
  static int check(int result) {
    if (result == Z_MEM_ERROR) throw std::bad_alloc();
    return result;
  }
};

}  // namespace tolvex
