// Plain functions: streams that capsules of Python hold.
#include <atomic>
#include <new>

#include "tolvex/MdfColumns.h"

namespace {

using PointerOf = void* (*)(void* capsule, const char* name);

std::atomic<PointerOf> pointerOf = nullptr;  // the interpreter's, of which a process has one

}  // namespace

struct ArrowArrayStream* tolvex_capsule_stream(PointerOf pointer_of) {
  pointerOf = pointer_of;
  return new (std::nothrow) ArrowArrayStream();
}

void tolvex_capsule_free(void* capsule) {
  const PointerOf find = pointerOf;
  if (capsule == nullptr || find == nullptr) return;
  auto* const stream = static_cast<ArrowArrayStream*>(find(capsule, "arrow_array_stream"));
  if (stream == nullptr) return;
  if (stream->release != nullptr) stream->release(stream);
  delete stream;
}
