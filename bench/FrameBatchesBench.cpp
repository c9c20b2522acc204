// Frames in batches of columns, against loops by hand over the same bytes into the same columns.
#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Mdf4/base/Bytes.h"
#include "bench/Bench.h"
#include "bench/Inputs.h"
#include "tolvex/MdfColumns.h"
#include "tolvex/MdfFrameReader.h"

namespace tolvex::bench {
namespace {

constexpr std::size_t kBatch = 64 * 1024;  // frames
constexpr std::int64_t kNoStart = 0;       // of the recordings here, since 1970

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// Something of every column, so that none is left out.
std::uint64_t sumOf(const MdfFrameBatch& batch) {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < batch.count; i += 97) {
    const auto start = static_cast<std::size_t>(batch.offsets[i]);
    const auto length = static_cast<std::size_t>(batch.offsets[i + 1]) - start;
    sum = sum * 31 + static_cast<std::uint64_t>(batch.timeNs[i]) + batch.id[i] + batch.bus[i] +
          batch.flags[i] + batch.direction[i] + batch.kind[i] + batch.dlc[i] + batch.record[i];
    for (std::size_t k = 0; k < length; ++k) sum = sum * 3 + batch.bytes[start + k];
  }
  return sum + batch.count;
}

void makeRoom(MdfFrameBatch& batch) {
  batch.timeNs.resize(kBatch);
  batch.id.resize(kBatch);
  batch.bus.resize(kBatch);
  batch.flags.resize(kBatch);
  batch.direction.resize(kBatch);
  batch.kind.resize(kBatch);
  batch.dlc.resize(kBatch);
  batch.record.resize(kBatch);
  batch.offsets.resize(kBatch + 1);
  batch.bytes.resize(kBatch * 64);
}

// Opening included; `atOnce` frames to a batch, which has room for kBatch.
Outcome readBatches(const std::string& path, std::size_t atOnce = kBatch) {
  MdfFrameBatch batch;
  makeRoom(batch);
  std::uint64_t sum = 0;
  double seconds = 0;
  MdfFrameReader reader(path);
  const Outcome opened = timed([&] { return std::uint64_t{reader.open()}; });
  seconds += opened.seconds;
  for (bool more = opened.result != 0; more;) {
    const Outcome read = timed([&] { return std::uint64_t{reader.next(batch, atOnce)}; });
    seconds += read.seconds;
    more = read.result != 0;
    if (more) sum = sum * 7 + sumOf(batch);
  }
  return {seconds, sum};
}

// Fills batches from pieces of a file, `parse(batch, bytes, size)` at a time, which gives the bytes
// that it went over: whole records, as many as the batch has room for.
template <class Parse>
Outcome readByHand(const std::string& path, Parse parse) {
  const File file(std::fopen(path.c_str(), "rb"));
  if (file == nullptr) return {};
  MdfFrameBatch batch;
  makeRoom(batch);
  std::vector<std::uint8_t> buffer(64 * 1024);
  std::uint64_t sum = 0;
  double seconds = 0;
  std::size_t filled = 0;
  std::size_t at = 0;
  for (bool more = true; more;) {
    batch.count = 0;
    batch.offsets[0] = 0;
    const Outcome outcome = timed([&] {
      while (batch.count < kBatch) {
        at += parse(batch, buffer.data() + at, filled - at);
        if (batch.count == kBatch) break;
        filled -= at;
        std::memmove(buffer.data(), buffer.data() + at, filled);
        at = 0;
        const std::size_t got =
            std::fread(buffer.data() + filled, 1, buffer.size() - filled, file.get());
        if (got == 0) break;
        filled += got;
      }
      return std::uint64_t{batch.count};
    });
    seconds += outcome.seconds;
    more = batch.count != 0;
    if (more) sum = sum * 7 + sumOf(batch);
  }
  return {seconds, sum};
}

// Records as the library lays them out: 23 bytes, the payload in them.
class PlainParser {
 public:
  std::size_t operator()(MdfFrameBatch& batch, const std::uint8_t* bytes, std::size_t size) {
    constexpr std::size_t kSize = 23;
    const std::size_t count = std::min(size / kSize, kBatch - batch.count);
    for (std::size_t i = batch.count; i < batch.count + count; ++i, bytes += kSize) {
      batch.timeNs[i] = kNoStart + static_cast<std::int64_t>(loadNumber<double>(bytes) * 1e9 + 0.5);
      batch.bus[i] = bytes[8];
      const std::uint8_t dlc = std::min<std::uint8_t>(bytes[9], 8);
      batch.dlc[i] = dlc;
      const std::uint8_t flags = bytes[10];
      const auto id = loadNumber<std::uint32_t>(bytes + 11);
      batch.flags[i] = static_cast<std::uint16_t>(flags | (id >> 31) << 8);
      batch.direction[i] = flags & 1;
      batch.kind[i] = flags >> 7;
      batch.id[i] = id & 0x7FFFFFFF;
      batch.record[i] = record_++;
      const std::int64_t start = batch.offsets[i];
      std::memcpy(batch.bytes.data() + start, bytes + 15, 8);
      batch.offsets[i + 1] = start + dlc;
    }
    batch.count += count;
    return count * kSize;
  }

 private:
  std::uint64_t record_ = 0;
};

// Records as a common hardware logger packs them, behind ids of a byte: frames of 22 bytes, each in
// front of its payload.
class LoggerParser {
 public:
  std::size_t operator()(MdfFrameBatch& batch, const std::uint8_t* bytes, std::size_t size) {
    constexpr std::size_t kFrame = 1 + 22;
    constexpr std::size_t kValue = 1 + 4;
    std::size_t at = 0;
    while (batch.count < kBatch) {
      if (size - at < kFrame + kValue) break;
      const std::uint8_t* const record = bytes + at + 1;
      const auto length = loadNumber<std::uint32_t>(record + 22 + 1);
      if (bytes[at] != kFrameRecordId || record[22] != kValueRecordId ||
          size - at - kFrame - kValue < length) {
        break;
      }
      const std::size_t i = batch.count++;
      batch.timeNs[i] = kNoStart + static_cast<std::int64_t>(loadNumber<double>(record) + 0.5);
      const auto id = loadNumber<std::uint32_t>(record + 8);
      batch.id[i] = id >> 3;
      batch.bus[i] = id >> 1 & 3;
      const unsigned direction = record[12] & 1U;
      const unsigned marks = record[13];
      batch.flags[i] = static_cast<std::uint16_t>((id & 1) << 8 | direction | (marks & 1) << 2 |
                                                  (marks & 2) << 2 | (marks & 4) << 2);
      batch.direction[i] = static_cast<std::uint8_t>(direction);
      batch.kind[i] = 0;
      batch.dlc[i] = static_cast<std::uint8_t>(marks >> 4);
      batch.record[i] = record_++;
      const std::int64_t start = batch.offsets[i];
      std::memcpy(batch.bytes.data() + start, record + 22 + kValue, length);
      batch.offsets[i + 1] = start + length;
      at += kFrame + kValue + length;
    }
    return at;
  }

 private:
  std::uint64_t record_ = 0;
};

template <class Parser>
void measure(benchmark::State& state, const RecordFile& input) {
  const Workload workload = {static_cast<double>(input.records), static_cast<double>(input.bytes()),
                             1.5};
  compare(
      state, workload, [&] { return readBatches(input.path); },
      [&] { return readByHand(input.plainPath, Parser()); });
}

// ---------------------------------------------------------------------------------------------
// Into arrays that are new, as those of a caller who keeps all frames.

// Memory of the system's, in whole pages; larger ones if it likes, when `huge`.
template <class Value>
class Array {
 public:
  Array(std::size_t count, bool huge) : bytes_(count * sizeof(Value)) {
    void* const place =
        mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (place == MAP_FAILED) throw std::bad_alloc();
    if (huge) madvise(place, bytes_, MADV_HUGEPAGE);
    values_ = static_cast<Value*>(place);
  }
  ~Array() { munmap(values_, bytes_); }
  Array(const Array&) = delete;
  Array& operator=(const Array&) = delete;

  operator Value*() const { return values_; }  // NOLINT(google-explicit-constructor): in calls

 private:
  std::size_t bytes_;
  Value* values_;
};

Outcome readArrays(const std::string& path, std::size_t count, bool huge) {
  const Array<std::int64_t> times(count, huge);
  const Array<std::uint32_t> ids(count, huge);
  const Array<std::uint16_t> buses(count, huge);
  const Array<std::uint16_t> flags(count, huge);
  const Array<std::uint8_t> dlcs(count, huge);
  const Array<std::uint8_t> kinds(count, huge);
  const Array<std::uint64_t> rows(count, huge);
  const Array<std::int64_t> offsets(count + 1, huge);
  const Array<std::uint8_t> payloads(count * 8, huge);
  const tolvex_frame_arrays arrays = {sizeof arrays, count,    times,     ids,  buses,
                                      flags,         dlcs,     kinds,     rows, offsets,
                                      nullptr,       payloads, count * 8, 0,    0};
  tolvex_frames* frames = nullptr;
  tolvex_frames_new(&frames);
  std::uint64_t read = 0;
  const char* const name = path.c_str();
  const Outcome outcome = timed([&] {
    tolvex_frames_open(frames, &name, 1);
    tolvex_frames_read(frames, &arrays, &read);
    return read;
  });
  tolvex_frames_free(frames);
  MdfFrameBatch batch;
  batch.count = static_cast<std::size_t>(read);
  batch.timeNs.assign(times + 0, times + read);
  batch.id.assign(ids + 0, ids + read);
  batch.bus.assign(buses + 0, buses + read);
  batch.flags.assign(flags + 0, flags + read);
  batch.direction.resize(batch.count);
  for (std::size_t i = 0; i < batch.count; ++i) {
    batch.direction[i] = static_cast<std::uint8_t>(batch.flags[i] & MdfFrameFlag::kTransmitted);
  }
  batch.kind.assign(kinds + 0, kinds + read);
  batch.dlc.assign(dlcs + 0, dlcs + read);
  batch.record.assign(rows + 0, rows + read);
  batch.offsets.assign(offsets + 0, offsets + read + 1);
  batch.bytes.assign(payloads + 0, payloads + batch.offsets.back());
  return {outcome.seconds, sumOf(batch)};
}

void measureArrays(benchmark::State& state, bool huge) {
  const RecordFile& input = inputs().frames(scaled(5'000'000));
  const Workload workload = {static_cast<double>(input.records), static_cast<double>(input.bytes()),
                             1.1};
  compare(
      state, workload, [&] { return readArrays(input.path, input.records, huge); },
      [&] { return readBatches(input.path, input.records); });
}

}  // namespace

void addFrameBatchBenches() {
  add("frames of 23 bytes to columns / loop by hand", [](benchmark::State& state) {
    measure<PlainParser>(state, inputs().frames(scaled(5'000'000)));
  });
  add("frames of 23 bytes to new arrays / to a batch of all",
      [](benchmark::State& state) { measureArrays(state, false); });
  add("frames of 23 bytes to new arrays, huge pages / to a batch of all",
      [](benchmark::State& state) { measureArrays(state, true); });
  add("unsorted frames to columns / loop by hand", [](benchmark::State& state) {
    measure<LoggerParser>(state, inputs().unsortedFrames(scaled(3'000'000)));
  });
}

}  // namespace tolvex::bench
