// Memory does not grow with the file: while reading but for the table of its data blocks, while
// recording not at all.
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/m4DataStream.h"
#include "bench/Bench.h"
#include "bench/CountedMemory.h"
#include "bench/Inputs.h"
#include "bench/ProgramRuns.h"
#include "bench/Recordings.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfEngine.h"
#include "tolvex/MdfFrameReader.h"

namespace tolvex::bench {
namespace {

constexpr double kGoalPerBlock = 64;           // bytes
constexpr std::uint64_t kBetweenLooks = 1000;  // frames between two looks at the queue

struct Peak {
  std::int64_t bytes = 0;  // the most memory that was held
  std::uint64_t blocks = 0;
  bool complete = false;
};

// The frames that a recording states and has room for; those of a long one take long to read.
std::uint64_t storedFrames(const std::string& path) {
  MdfReader reader(path);
  const std::uint64_t count = reader.open() ? reader.getCanCount() : 0;
  return std::filesystem::file_size(path) > count * kFrameRecordBytes ? count : 0;
}

Peak readFrames(std::uint64_t length) {
  const RecordFile& input = inputs().frames(scaled(1'250'000) * length);
  const MemoryCount count;
  MdfReader reader(input.path);
  std::uint64_t frames = 0;
  if (reader.open()) {
    while (reader.getCanMessage() != nullptr) ++frames;
  }
  return {count.peak(), input.blocks(), frames == input.records};
}

// In batches of 1024 frames, whose columns are the caller's.
Peak readFrameBatches(const RecordFile& input, std::uint64_t blocks) {
  MdfFrameBatch batch;
  const MemoryCount count;
  MdfFrameReader reader(input.path);
  std::uint64_t frames = 0;
  if (reader.open()) {
    while (reader.next(batch, 1024)) frames += batch.count;
  }
  return {count.peak(), blocks, frames == input.records};
}
Peak readSortedBatches(std::uint64_t length) {
  const RecordFile& input = inputs().frames(scaled(1'250'000) * length);
  return readFrameBatches(input, input.blocks());
}
Peak readUnsortedBatches(std::uint64_t length) {
  const RecordFile& input = inputs().unsortedFrames(scaled(750'000) * length);
  return readFrameBatches(input, input.bytes() >> 20);  // of 1 MiB
}

Peak readRecords(std::uint64_t length) {
  const RecordFile& input = inputs().signals(scaled(500'000) * length, 64);
  const MemoryCount count;
  MdfSigReader reader(input.path);
  std::uint64_t records = 0;
  if (reader.open()) {
    constexpr std::uint64_t kPiece = 1024;
    std::vector<std::uint8_t> bytes;
    int recordSize = 0;
    while (records < input.records) {
      const auto piece = static_cast<int>(std::min(kPiece, input.records - records));
      if (!reader.readSignalDataBlock(0, static_cast<int>(records), piece, bytes, recordSize))
        break;
      records += static_cast<std::uint64_t>(piece);
    }
  }
  return {count.peak(), input.blocks(), records == input.records};
}

Peak readCompressed(std::uint64_t length) {
  const CompressedFile& input = inputs().compressed(6 * length, 23, true);
  const MemoryCount count;
  DirectFile file;
  std::uint64_t bytes = 0;
  if (file.open(input.path, OpenMode::Read)) {
    m4DataStream stream(file, input.dataLink);
    while (const std::uint64_t got = stream.next(23).size()) bytes += got;
  }
  return {count.peak(), input.blocks.size(), bytes == input.bytes()};
}

// One channel of 64-byte records in compressed blocks, in pieces. The array is the caller's.
template <bool transposed>
Peak readColumn(std::uint64_t length) {
  const CompressedFile& input = inputs().compressed(6 * length, 64, transposed);
  std::vector<double> values(64 * 1024);
  const MemoryCount count;
  MdfColumnReader reader(input.path);
  std::uint64_t rows = 0;
  if (reader.open()) {
    const std::vector<MdfColumnTarget> wanted = {{1, values.data(), nullptr, true}};
    while (true) {
      const std::int64_t got = reader.read(0, wanted, rows, values.size());
      if (got <= 0) break;
      rows += static_cast<std::uint64_t>(got);
    }
  }
  return {count.peak(), input.blocks.size(), rows * 64 == input.bytes()};
}

// All channels of plain records.
Peak readColumns(std::uint64_t length) {
  constexpr int kChannels = 15;
  const RecordFile& input = inputs().words(scaled(500'000) * length, kChannels);
  std::vector<std::vector<double>> values(kChannels, std::vector<double>(input.records));
  std::vector<MdfColumnTarget> wanted;
  for (std::int32_t i = 0; i < kChannels; ++i) {
    wanted.push_back({i + 1, values[static_cast<std::size_t>(i)].data(), nullptr, true});
  }
  const MemoryCount count;
  MdfColumnReader reader(input.path);
  const bool complete =
      reader.open() && reader.read(0, wanted, 0, input.records) == std::int64_t(input.records);
  return {count.peak(), input.blocks(), complete};
}

// By the program: all columns of plain records as CSV, and frames as text.
Peak exportTable(std::uint64_t length) {
  const RecordFile& input = inputs().words(scaled(100'000) * length, 15);
  const MemoryFile out;
  const MemoryCount count;
  const bool complete = runProgramOn(out, {"export", input.path, "--dg", "0"}) == 0;
  return {count.peak(), input.blocks(), complete};
}

Peak printFrames(std::uint64_t length) {
  const RecordFile& input = inputs().frames(scaled(1'250'000) * length);
  const MemoryFile out;
  const MemoryCount count;
  const bool complete = runProgramOn(out, {"cat", input.path}) == 0;
  return {count.peak(), input.blocks(), complete};
}

// The peak of a recording of so many frames.
Peak record(std::uint64_t frames) {
  const test::TempDir folder;
  const Traffic traffic(1);
  const std::string path = folder.path("frames.mf4");
  const MemoryCount count;
  const std::uint64_t saved = recordFrames(path, traffic, frames);
  return {count.peak(), 0, saved == frames && storedFrames(path) == frames};
}

// As fast as the queue takes them: when it is nearly full, the producer waits.
Peak recordAsync(std::uint64_t frames) {
  const test::TempDir folder;
  const Traffic traffic(1);
  const std::string path = folder.path("frames.mf4");
  const MemoryCount count;
  void* const recorder = createRecorder(true);
  const std::uint64_t enough = getMaxPendingTasks(recorder) - kBetweenLooks;
  startRecord(recorder, path.c_str(), kStartTimeUs);
  std::uint64_t saved = 0;
  for (std::uint64_t i = 0; i < frames; ++i) {
    if (i % kBetweenLooks == 0) {
      while (getPendingTaskCount(recorder) > enough) std::this_thread::yield();
    }
    if (saveCanMessage(recorder, Traffic::timeUs(i), &traffic.message(i)) == 0) ++saved;
  }
  stopRecord(recorder, Traffic::timeUs(frames));
  deleteRecorder(recorder);
  return {count.peak(), 0, saved == frames && storedFrames(path) == frames};
}

void measure(benchmark::State& state, Peak (*read)(std::uint64_t length)) {
  constexpr std::uint64_t kTimes = 4;
  const Peak once = read(1);
  const Peak longer = read(kTimes);
  for (auto _ : state) state.SetIterationTime(0);
  if (!once.complete || !longer.complete) return fail(state, "not all was read");
  const double perBlock = static_cast<double>(longer.bytes - once.bytes) /
                          static_cast<double>(longer.blocks - once.blocks);
  state.counters["bytes_per_block"] = perBlock;
  show(state, fmt::format("{} KiB; {} times the length {} KiB, {:.0f} bytes (goal {}) a block{}",
                          once.bytes / 1024, kTimes, longer.bytes / 1024, perBlock, kGoalPerBlock,
                          verdict(perBlock, kGoalPerBlock)));
}

// Beside the arrays of the caller.
void measureColumns(benchmark::State& state, Peak (*read)(std::uint64_t length)) {
  constexpr std::uint64_t kTimes = 4;
  constexpr double kGoal = 8;  // MiB
  const Peak once = read(1);
  const Peak longer = read(kTimes);
  for (auto _ : state) state.SetIterationTime(0);
  if (!once.complete || !longer.complete) return fail(state, "not all was read");
  const double most = static_cast<double>(longer.bytes) / (1 << 20);
  state.counters["MiB"] = most;
  show(state, fmt::format("{} KiB; {} times the length {} KiB (goal {} MiB){}", once.bytes / 1024,
                          kTimes, longer.bytes / 1024, kGoal, verdict(most, kGoal)));
}

void measureRecording(benchmark::State& state, Peak (*record)(std::uint64_t frames), double goal) {
  const std::uint64_t few = scaled(1'000'000);
  const std::uint64_t many = scaled(50'000'000);
  const Peak once = record(few);
  const Peak longer = record(many);
  for (auto _ : state) state.SetIterationTime(0);
  if (!once.complete || !longer.complete) return fail(state, "not all was recorded");
  const double ratio = static_cast<double>(longer.bytes) / static_cast<double>(once.bytes);
  state.counters["ratio"] = ratio;
  show(state,
       fmt::format("{:.1f} KiB; {} times the length {:.1f} KiB, {:.2f} times (goal {}){}",
                   static_cast<double>(once.bytes) / 1024, many / few,
                   static_cast<double>(longer.bytes) / 1024, ratio, goal, verdict(ratio, goal)));
}

}  // namespace

void addMemoryBenches() {
  add("peak memory: frames", [](benchmark::State& state) { measure(state, readFrames); });
  add("peak memory: frames in batches",
      [](benchmark::State& state) { measureColumns(state, readSortedBatches); });
  add("peak memory: unsorted frames in batches",
      [](benchmark::State& state) { measureColumns(state, readUnsortedBatches); });
  add("peak memory: records", [](benchmark::State& state) { measure(state, readRecords); });
  add("peak memory: transposed records",
      [](benchmark::State& state) { measure(state, readCompressed); });
  add("peak memory: 15 channels",
      [](benchmark::State& state) { measureColumns(state, readColumns); });
  add("peak memory: a column of transposed blocks",
      [](benchmark::State& state) { measureColumns(state, readColumn<true>); });
  add("peak memory: a column of deflated blocks",
      [](benchmark::State& state) { measureColumns(state, readColumn<false>); });
  add("peak memory: export", [](benchmark::State& state) { measureColumns(state, exportTable); });
  add("peak memory: cat", [](benchmark::State& state) { measureColumns(state, printFrames); });
  // The allocator may give a few bytes more than it is asked for, and how full the queue gets at
  // most is not the same every time.
  add("peak memory: recording frames",
      [](benchmark::State& state) { measureRecording(state, record, 1.01); });
  add("peak memory: recording frames, asynchronous",
      [](benchmark::State& state) { measureRecording(state, recordAsync, 1.05); });
}

}  // namespace tolvex::bench
