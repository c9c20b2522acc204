// Plain functions: CAN frames.
#include <algorithm>
#include <cinttypes>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/plain/FrameArrays.h"
#include "Mdf4/plain/FrameStream.h"
#include "tolvex/MdfColumnReader.h"
#include "tolvex/MdfColumns.h"
#include "tolvex/MdfFrameReader.h"

struct tolvex_frames {
  std::vector<std::string> paths;
  std::unique_ptr<tolvex::MdfFrameReader> reader;  // null: no file is open
  tolvex::MdfFrameBatch batch;
  std::size_t taken = 0;  // of the batch's frames, by the caller
  tolvex::plain::LastError error;
  tolvex::plain::TextList problems;
  tolvex::plain::TextList notices;
};

namespace tolvex::plain {
namespace {

static_assert(sizeof(tolvex_frame_error) == sizeof(MdfFrameError));
static_assert(kIsDense<MdfFrameError>);
static_assert(offsetof(tolvex_frame_error, data_length) == offsetof(MdfFrameError, dataLength));
static_assert(offsetof(tolvex_frame_error, rec) == offsetof(MdfFrameError, rec));
static_assert(TOLVEX_FRAME_FD_ERROR == static_cast<int>(MdfFrameKind::FdError));
static_assert(TOLVEX_FRAME_PAYLOAD_MISSING == MdfFrameFlag::kPayloadMissing);
static_assert(TOLVEX_FRAME_TRANSMITTED == MdfFrameFlag::kTransmitted);

void forgetBatch(tolvex_frames& frames) {
  frames.batch.count = 0;
  frames.taken = 0;
}

void close(tolvex_frames& frames) {
  forgetBatch(frames);
  frames.reader = nullptr;
  frames.paths.clear();
  frames.problems = {};
  frames.notices = {};
}

tolvex_status open(tolvex_frames& frames, std::vector<std::string> paths) {
  close(frames);
  auto reader = std::make_unique<MdfFrameReader>(paths);
  if (!reader->open()) return failed(frames.error, reader->error(), TOLVEX_ERROR_FILE);
  frames.paths = std::move(paths);
  frames.reader = std::move(reader);
  return TOLVEX_OK;
}

// Calls `work` when a file is open.
template <class Work>
tolvex_status withReader(tolvex_frames* frames, Work work) {
  if (frames == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(frames->error, [&]() -> tolvex_status {
    if (frames->reader != nullptr) return work(*frames->reader);
    return frames->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNotOpen);
  });
}

// What the reader says: once it has failed, that stays.
tolvex_status statusOf(tolvex_frames& frames, const MdfFrameReader& reader) {
  return reader.error().empty() ? tolvex_status{TOLVEX_OK}
                                : failed(frames.error, reader.error(), TOLVEX_ERROR_FILE);
}

tolvex_status filled(tolvex_frames& frames, bool isFilled) {
  return isFilled ? tolvex_status{TOLVEX_OK}
                  : frames.error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoSize);
}

tolvex_status takeFilter(tolvex_frames& frames, const tolvex_frame_filter* filter,
                         MdfFrameFilter& taken) {
  tolvex_frame_filter given;
  if (!takeOptions(filter, given)) {
    return frames.error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoSize);
  }
  if ((given.ids == nullptr && given.id_count != 0) ||
      (given.buses == nullptr && given.bus_count != 0)) {
    return frames.error.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
  }
  taken.ids.assign(given.ids, given.ids + given.id_count);
  taken.buses.assign(given.buses, given.buses + given.bus_count);
  if (given.has_start != 0) taken.startNs = given.start_ns;
  if (given.has_end != 0) taken.endNs = given.end_ns;
  return TOLVEX_OK;
}

// Takes the next frames, at most `most`, into the batch, unless it has frames that were not taken.
// False when there are none, or none could be read.
bool fetch(tolvex_frames& frames, MdfFrameReader& reader, std::size_t most) {
  if (frames.taken < frames.batch.count) return true;
  frames.taken = 0;
  return reader.next(frames.batch, most);
}

// Makes the first frame that was not taken the first one of the batch.
void dropTaken(tolvex_frames& frames) {
  MdfFrameBatch& batch = frames.batch;
  const std::size_t taken = std::exchange(frames.taken, 0);
  if (taken == 0) return;
  const auto moveUp = [&](auto& column, std::size_t count) {
    const auto first = column.begin() + static_cast<std::ptrdiff_t>(taken);
    std::copy_n(first, count, column.begin());
  };
  batch.count -= taken;
  moveUp(batch.timeNs, batch.count);
  moveUp(batch.id, batch.count);
  moveUp(batch.bus, batch.count);
  moveUp(batch.flags, batch.count);
  moveUp(batch.direction, batch.count);
  moveUp(batch.kind, batch.count);
  moveUp(batch.dlc, batch.count);
  moveUp(batch.record, batch.count);
  moveUp(batch.offsets, batch.count + 1);
  const std::int64_t start = batch.offsets[0];
  for (std::size_t i = 0; i <= batch.count; ++i) batch.offsets[i] -= start;
  std::copy_n(batch.bytes.data() + start, batch.offsets[batch.count], batch.bytes.data());
  const auto errors = std::ranges::lower_bound(batch.errorRows, taken);
  const auto gone = errors - batch.errorRows.begin();
  batch.errorRows.erase(batch.errorRows.begin(), errors);
  batch.errors.erase(batch.errors.begin(), batch.errors.begin() + gone);
  for (std::size_t& row : batch.errorRows) row -= taken;
}

// The first frames of the batch.
tolvex_frame_batch describe(const MdfFrameBatch& batch, std::size_t count) {
  tolvex_frame_batch described = {};
  described.count = count;
  described.times = batch.timeNs.data();
  described.ids = batch.id.data();
  described.buses = batch.bus.data();
  described.flags = batch.flags.data();
  described.directions = batch.direction.data();
  described.kinds = batch.kind.data();
  described.dlcs = batch.dlc.data();
  described.rows = batch.record.data();
  described.offsets = batch.offsets.data();
  described.payloads = batch.bytes.data();
  described.error_frames = batch.errorRows.data();
  described.errors = reinterpret_cast<const tolvex_frame_error*>(batch.errors.data());
  const auto behind = std::ranges::lower_bound(batch.errorRows, count);
  described.error_count = static_cast<std::uint64_t>(behind - batch.errorRows.begin());
  described.error_size = sizeof(MdfFrameError);
  return described;
}

}  // namespace
}  // namespace tolvex::plain

using namespace tolvex::plain;

tolvex_status tolvex_frames_new(tolvex_frames** frames) {
  if (frames == nullptr) return TOLVEX_ERROR_ARGUMENT;
  *frames = new (std::nothrow) tolvex_frames;
  return *frames != nullptr ? TOLVEX_OK : TOLVEX_ERROR_MEMORY;
}

void tolvex_frames_free(tolvex_frames* frames) {
  delete frames;
}

tolvex_status tolvex_frames_open(tolvex_frames* frames, const char* const* paths, size_t count) {
  if (frames == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(frames->error, [&]() -> tolvex_status {
    std::vector<std::string> taken;
    if (takePaths(paths, count, taken)) return open(*frames, std::move(taken));
    close(*frames);
    return frames->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoPath);
  });
}

tolvex_status tolvex_frames_open_parts(tolvex_frames* frames, const char* path) {
  if (frames == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(frames->error, [&]() -> tolvex_status {
    if (path != nullptr) return open(*frames, tolvex::mdfPartsOf(path));
    close(*frames);
    return frames->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoPath);
  });
}

void tolvex_frames_close(tolvex_frames* frames) {
  if (frames != nullptr) close(*frames);
}

const char* tolvex_frames_error(const tolvex_frames* frames) {
  return frames == nullptr ? "" : frames->error.text();
}

tolvex_status tolvex_frames_problems(tolvex_frames* frames, const char* const** texts,
                                     size_t* count) {
  return withReader(frames, [&](const tolvex::MdfFrameReader& reader) {
    return TextList::hand(frames->problems, reader.problems(), frames->error, texts, count);
  });
}

tolvex_status tolvex_frames_notices(tolvex_frames* frames, const char* const** texts,
                                    size_t* count) {
  return withReader(frames, [&](const tolvex::MdfFrameReader& reader) {
    return TextList::hand(frames->notices, reader.notices(), frames->error, texts, count);
  });
}

tolvex_status tolvex_frames_log(tolvex_frames* frames, tolvex_frame_log* description) {
  return withReader(frames, [&](const tolvex::MdfFrameReader& reader) {
    tolvex_frame_log described = {};
    described.start_time_ns = reader.startTimeNs();
    described.start_is_local = reader.startIsLocal() ? 1 : 0;
    described.utc_offset_minutes = reader.utcOffsetMinutes();
    described.group_count = reader.groups().size();
    return filled(*frames, fill(description, described));
  });
}

tolvex_status tolvex_frames_group(tolvex_frames* frames, uint64_t index,
                                  tolvex_frame_group* group) {
  return withReader(frames, [&](const tolvex::MdfFrameReader& reader) -> tolvex_status {
    if (index >= reader.groups().size()) {
      return frames->error.set(TOLVEX_ERROR_ARGUMENT,
                               tolvex::formatText("there is no group %" PRIu64, index));
    }
    const tolvex::MdfFrameGroup& found = reader.groups()[static_cast<std::size_t>(index)];
    tolvex_frame_group described = {};
    described.name = found.name.c_str();
    described.stated_rows = found.statedRecords;
    described.file = found.file;
    described.data_group = found.dataGroup;
    described.channel_group = found.channelGroup;
    described.is_read = found.isRead ? 1 : 0;
    return filled(*frames, fill(group, described));
  });
}

tolvex_status tolvex_frames_time_range(tolvex_frames* frames, int64_t* first, int64_t* last) {
  return withReader(frames, [&](tolvex::MdfFrameReader& reader) -> tolvex_status {
    if (first == nullptr || last == nullptr) {
      return frames->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
    }
    std::int64_t from = 0;
    std::int64_t to = 0;
    const bool hasFrames = reader.timeRange(from, to);
    forgetBatch(*frames);
    reader.select({});
    const tolvex_status status = statusOf(*frames, reader);
    if (status != TOLVEX_OK) return status;
    *first = hasFrames ? from : TOLVEX_NO_TIME;
    *last = hasFrames ? to : TOLVEX_NO_TIME;
    return TOLVEX_OK;
  });
}

tolvex_status tolvex_frames_select(tolvex_frames* frames, const tolvex_frame_filter* filter) {
  return withReader(frames, [&](tolvex::MdfFrameReader& reader) -> tolvex_status {
    tolvex::MdfFrameFilter wanted;
    const tolvex_status status = takeFilter(*frames, filter, wanted);
    if (status != TOLVEX_OK) return status;
    forgetBatch(*frames);
    reader.select(wanted);
    return statusOf(*frames, reader);
  });
}

tolvex_status tolvex_frames_next(tolvex_frames* frames, size_t most, tolvex_frame_batch* batch) {
  return withReader(frames, [&](tolvex::MdfFrameReader& reader) -> tolvex_status {
    tolvex_frame_batch sized;
    if (!take(batch, sized)) return frames->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoSize);
    if (!fetch(*frames, reader, most)) {
      const tolvex_status status = statusOf(*frames, reader);
      if (status != TOLVEX_OK) return status;
    }
    dropTaken(*frames);
    frames->taken = std::min(most, frames->batch.count);
    return filled(*frames, fill(batch, describe(frames->batch, frames->taken)));
  });
}

tolvex_status tolvex_frames_read(tolvex_frames* frames, const tolvex_frame_arrays* arrays,
                                 uint64_t* read) {
  return withReader(frames, [&](tolvex::MdfFrameReader& reader) -> tolvex_status {
    constexpr std::uint64_t kAtOnce = 4096;  // frames that stay in a cache until they are copied
    tolvex_frame_arrays to;
    if (!take(arrays, to)) return frames->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoSize);
    const bool tellsPlaces = to.offsets != nullptr || to.lengths != nullptr;
    if (read == nullptr || tellsPlaces != (to.payloads != nullptr)) {
      return frames->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
    }
    FrameArrays copy(to);
    while (copy.count() < to.room) {
      const std::uint64_t most = std::min(to.room - copy.count(), kAtOnce);
      if (!fetch(*frames, reader, static_cast<std::size_t>(most))) break;
      const std::size_t taken = copy.append(frames->batch, frames->taken);
      frames->taken += taken;
      if (frames->taken < frames->batch.count) break;
    }
    if (copy.count() == 0 && to.room != 0) {
      const tolvex_status status = statusOf(*frames, reader);
      if (status != TOLVEX_OK) return status;
      if (frames->taken < frames->batch.count) {
        return frames->error.setFixed(TOLVEX_ERROR_ARGUMENT, "there is no room for a payload");
      }
    }
    *read = copy.count();
    return TOLVEX_OK;
  });
}

tolvex_status tolvex_frames_stream(tolvex_frames* frames, const tolvex_frame_filter* filter,
                                   uint64_t batch_rows, struct ArrowArrayStream* stream) {
  return withReader(frames, [&](const tolvex::MdfFrameReader&) -> tolvex_status {
    constexpr std::uint64_t kUsual = 1 << 16;
    constexpr std::uint64_t kMost = 1 << 24;
    if (stream == nullptr) return frames->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
    tolvex::MdfFrameFilter wanted;
    const tolvex_status status = takeFilter(*frames, filter, wanted);
    if (status != TOLVEX_OK) return status;
    tolvex::MdfFrameReader reader(frames->paths);
    if (!reader.open()) return failed(frames->error, reader.error(), TOLVEX_ERROR_FILE);
    reader.select(wanted);
    if (!reader.error().empty()) return failed(frames->error, reader.error(), TOLVEX_ERROR_FILE);
    const auto rows = batch_rows == 0 ? kUsual : std::min(batch_rows, kMost);
    *stream = makeStream(
        std::make_unique<FrameStream>(std::move(reader), static_cast<std::size_t>(rows)));
    return TOLVEX_OK;
  });
}
