// Memory while reading does not grow with the file, but for the table of its data blocks.
#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/m4DataStream.h"
#include "bench/Bench.h"
#include "bench/CountedMemory.h"
#include "bench/Inputs.h"
#include "tolvex/Mdf4.h"

namespace tolvex::bench {
namespace {

constexpr double kGoalPerBlock = 64;  // bytes

struct Peak {
  std::int64_t bytes = 0;  // the most memory that was held
  std::uint64_t blocks = 0;
  bool complete = false;
};

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

}  // namespace

void addMemoryBenches() {
  add("peak memory: frames", [](benchmark::State& state) { measure(state, readFrames); });
  add("peak memory: records", [](benchmark::State& state) { measure(state, readRecords); });
  add("peak memory: transposed records",
      [](benchmark::State& state) { measure(state, readCompressed); });
}

}  // namespace tolvex::bench
