// Plain functions: recording of frames by column.
#include <string>
#include <utility>

#include "Mdf4/MdfRecorder.h"
#include "Mdf4/can/FramesToSave.h"
#include "Mdf4/plain/Plain.h"
#include "tolvex/MdfColumns.h"

using namespace tolvex::plain;

tolvex_status tolvex_save_frames(void* recorder, const tolvex_frame_batch* frames, uint64_t* saved,
                                 char* error, size_t error_size) {
  return ErrorText(error, error_size).of([&](LastError& failure) -> tolvex_status {
    tolvex_frame_batch batch;
    if (!take(frames, batch)) return failure.setFixed(TOLVEX_ERROR_ARGUMENT, kNoSize);
    if (recorder == nullptr || saved == nullptr) {
      return failure.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
    }
    *saved = 0;
    tolvex::SavedFrames done;
    const tolvex_status status = guarded(failure, [&]() -> tolvex_status {
      static_cast<tolvex::MdfRecorder*>(recorder)->saveFrames(tolvex::FramesToSave(batch), done);
      return TOLVEX_OK;
    });
    *saved = done.count;
    if (status != TOLVEX_OK || done.count == batch.count) return status;
    if (!done.refusal.empty()) return failure.set(TOLVEX_ERROR_ARGUMENT, std::move(done.refusal));
    if (done.failure.empty()) done.failure = "the frames could not be recorded";
    return failure.set(TOLVEX_ERROR_OTHER, std::move(done.failure));
  });
}
