#include "Mdf4/plain/ArrowStream.h"

#include <cerrno>
#include <utility>

namespace tolvex::plain {
namespace {

// What a stream points to.
struct StreamMemory {
  std::unique_ptr<ArrowSource> source;
  LastError error = {};
  bool hasError = false;
  tolvex_status status = TOLVEX_OK;  // of the last batch: a failure ends the stream
};

StreamMemory& memoryOf(ArrowArrayStream* stream) {
  return *static_cast<StreamMemory*>(stream->private_data);
}

int errorNumber(tolvex_status status) {
  switch (status) {
    case TOLVEX_OK:
      return 0;
    case TOLVEX_ERROR_MEMORY:
      return ENOMEM;
    default:
      return EIO;
  }
}

int getSchema(ArrowArrayStream* stream, ArrowSchema* out) {
  StreamMemory& memory = memoryOf(stream);
  const tolvex_status status = guarded(memory.error, [&]() -> tolvex_status {
    *out = memory.source->schema().take();
    return TOLVEX_OK;
  });
  memory.hasError = status != TOLVEX_OK;
  return errorNumber(status);
}

int getNext(ArrowArrayStream* stream, ArrowArray* out) {
  StreamMemory& memory = memoryOf(stream);
  if (memory.status == TOLVEX_OK) {
    memory.status = guarded(memory.error, [&]() -> tolvex_status {
      ArrowOwner<ArrowArray> batch;
      const tolvex_status status = memory.source->next(batch, memory.error);
      if (status == TOLVEX_OK) *out = batch.take();
      return status;
    });
  }
  memory.hasError = memory.status != TOLVEX_OK;
  return errorNumber(memory.status);
}

const char* getLastError(ArrowArrayStream* stream) {
  const StreamMemory& memory = memoryOf(stream);
  return memory.hasError ? memory.error.text() : nullptr;
}

void release(ArrowArrayStream* stream) {
  delete &memoryOf(stream);
  stream->release = nullptr;
}

}  // namespace

ArrowArrayStream makeStream(std::unique_ptr<ArrowSource> source) {
  auto memory = std::make_unique<StreamMemory>(StreamMemory{std::move(source)});
  return {getSchema, getNext, getLastError, release, memory.release()};
}

}  // namespace tolvex::plain
