// Plain functions: the callbacks of a stream of Arrow arrays.
#include <cerrno>
#include <memory>
#include <utility>

#include "Mdf4/plain/ColumnStream.h"
#include "tolvex/MdfColumns.h"

namespace tolvex::plain {
namespace {

// What a stream points to.
struct StreamMemory {
  StreamMemory(std::shared_ptr<OpenRecording> recording, StreamPlan plan)
      : stream(std::move(recording), std::move(plan)) {}

  ColumnStream stream;
  LastError error;
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
    *out = memory.stream.schema().take();
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
      const tolvex_status status = memory.stream.next(batch, memory.error);
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
}  // namespace tolvex::plain

using namespace tolvex::plain;

tolvex_status tolvex_reader_stream(tolvex_reader* reader, int32_t group,
                                   const tolvex_stream_options* options,
                                   struct ArrowArrayStream* stream) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(reader->error, [&]() -> tolvex_status {
    if (stream == nullptr) return reader->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
    tolvex_stream_options given;
    if (!takeOptions(options, given)) {
      return reader->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoSize);
    }
    StreamPlan plan;
    tolvex_status status = TOLVEX_OK;
    if (!planStream(*reader, group, given, plan, status)) return status;
    auto memory = std::make_unique<StreamMemory>(reader->recording, std::move(plan));
    *stream = {getSchema, getNext, getLastError, release, memory.release()};
    return TOLVEX_OK;
  });
}
