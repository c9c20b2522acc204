// Columns in the memory of their user, against loops by hand that fill the same arrays.
#include <fmt/format.h>
#include <zlib.h>

#include <bit>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "Mdf4/base/Bytes.h"
#include "bench/Bench.h"
#include "bench/CountedMemory.h"
#include "bench/Inputs.h"
#include "tolvex/MdfColumnReader.h"

namespace tolvex::bench {
namespace {

constexpr std::uint64_t kRecords = 2'000'000;
constexpr std::size_t kPieceBytes = 64 * 1024;
constexpr int kWords = 15;  // channels of the wide records
constexpr int kFields = 8;  // of the packed ones

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// The arrays of a group's channels.
using Arrays = std::vector<std::vector<double>>;

std::uint64_t checksumOf(const Arrays& arrays) {
  std::uint64_t sum = 0;
  for (const std::vector<double>& values : arrays) {
    sum = sum * 31 + checksum(reinterpret_cast<const std::uint8_t*>(values.data()),
                              values.size() * sizeof(double));
  }
  return sum;
}

// Channels 1 and up of the first group, all of their records.
Outcome readColumns(MdfColumnReader& reader, Arrays& arrays, unsigned threads = 1,
                    double (*clock)() = processorSeconds) {
  std::vector<MdfColumnTarget> targets;
  for (std::size_t i = 0; i < arrays.size(); ++i) {
    targets.push_back({static_cast<std::int32_t>(i + 1), arrays[i].data(), nullptr, true});
  }
  MdfReadOptions options;
  options.threads = threads;
  const Outcome outcome = timed(
      [&] {
        const std::int64_t read = reader.read(0, targets, 0, arrays[0].size(), options);
        return static_cast<std::uint64_t>(read);
      },
      clock);
  return {outcome.seconds, outcome.result == arrays[0].size() ? checksumOf(arrays) : 0};
}

// The records back to back, read piece by piece; `take(records, first)` stores them.
template <class Take>
Outcome readByHand(const RecordFile& input, Arrays& arrays, Take take) {
  const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(input.plainPath.c_str(), "rb"));
  if (file == nullptr) return {};
  std::vector<std::uint8_t> piece(kPieceBytes / input.recordSize * input.recordSize);
  const Outcome outcome = timed([&] {
    std::uint64_t done = 0;
    while (const std::size_t got = std::fread(piece.data(), 1, piece.size(), file.get())) {
      const std::size_t records = got / input.recordSize;
      take(std::span(piece).first(records * input.recordSize), done);
      done += records;
    }
    return done;
  });
  return {outcome.seconds, outcome.result == input.records ? checksumOf(arrays) : 0};
}

template <class Take>
void compareWithHand(benchmark::State& state, const RecordFile& input, int columns, double goal,
                     Take take) {
  MdfColumnReader reader(input.path);
  if (!reader.open()) return fail(state, reader.error());
  Arrays arrays(static_cast<std::size_t>(columns), std::vector<double>(input.records));
  const Workload workload = {static_cast<double>(input.records), static_cast<double>(input.bytes()),
                             goal};
  compare(
      state, workload, [&] { return readColumns(reader, arrays); },
      [&] {
        return readByHand(input, arrays,
                          [&](std::span<const std::uint8_t> records, std::uint64_t first) {
                            take(arrays, records, first);
                          });
      });
}

void measureOne(benchmark::State& state) {
  const RecordFile& input = inputs().signals(scaled(kRecords), 64);
  compareWithHand(state, input, 1, 1.3,
                  [](Arrays& arrays, std::span<const std::uint8_t> records, std::uint64_t first) {
                    double* out = arrays[0].data() + first;
                    for (std::size_t at = 0; at < records.size(); at += 64) {
                      *out++ = loadNumber<std::uint16_t>(records.data() + at + 8);
                    }
                  });
}

void measureWords(benchmark::State& state) {
  const RecordFile& input = inputs().words(scaled(kRecords), kWords);
  compareWithHand(state, input, kWords, 1.3,
                  [](Arrays& arrays, std::span<const std::uint8_t> records, std::uint64_t first) {
                    for (std::size_t column = 0; column < arrays.size(); ++column) {
                      const double factor = Inputs::factorOf(column);
                      const double offset = Inputs::offsetOf(column);
                      double* out = arrays[column].data() + first;
                      const std::uint8_t* field = records.data() + 8 + 2 * column;
                      for (std::size_t at = 0; at < records.size(); at += 64) {
                        *out++ = loadNumber<std::uint16_t>(field + at) * factor + offset;
                      }
                    }
                  });
}

void measurePacked(benchmark::State& state) {
  const RecordFile& input = inputs().packedFields(scaled(kRecords), kFields);
  compareWithHand(state, input, kFields, 1.5,
                  [&](Arrays& arrays, std::span<const std::uint8_t> records, std::uint64_t first) {
                    for (std::size_t column = 0; column < arrays.size(); ++column) {
                      const double factor = Inputs::factorOf(column);
                      const double offset = Inputs::offsetOf(column);
                      double* out = arrays[column].data() + first;
                      const std::size_t byte = 8 + column * 12 / 8;
                      const unsigned shift = column % 2 == 0 ? 4 : 0;
                      for (std::size_t at = byte; at < records.size(); at += input.recordSize) {
                        const auto word = loadNumber<std::uint16_t>(records.data() + at);
                        const unsigned field = __builtin_bswap16(word) >> shift & 0xFFF;
                        *out++ = field * factor + offset;
                      }
                    }
                  });
}

// What zlib takes to inflate the same blocks from memory.
Outcome inflateAll(const CompressedFile& input, std::vector<std::uint8_t>& inflated) {
  return timed([&] {
    std::uint64_t bytes = 0;
    for (const test::Bytes& block : input.blocks) {
      uLongf size = inflated.size();
      if (uncompress(inflated.data(), &size, block.data(), block.size()) != Z_OK) return bytes;
      bytes += size;
    }
    return bytes;
  });
}

void measureCompressed(benchmark::State& state, bool transposed) {
  const CompressedFile& input = inputs().compressed(6, 64, transposed);
  MdfColumnReader reader(input.path);
  if (!reader.open()) return fail(state, reader.error());
  Arrays arrays(1, std::vector<double>(input.bytes() / 64));
  std::vector<std::uint8_t> inflated(input.blockBytes);
  const auto bytes = static_cast<double>(input.bytes());
  const Workload workload = {bytes / 64, bytes, transposed ? 0.6 : 0.65};
  compare(
      state, workload,
      [&] {
        const Outcome outcome = readColumns(reader, arrays);
        return Outcome{outcome.seconds, outcome.result == 0 ? 0 : input.bytes()};
      },
      [&] { return inflateAll(input, inflated); });
}

// By the clock: what counts is when it is done.
void measureThreads(benchmark::State& state) {
  const RecordFile& input = inputs().words(scaled(kRecords), kWords);
  MdfColumnReader reader(input.path);
  if (!reader.open()) return fail(state, reader.error());
  Arrays arrays(kWords, std::vector<double>(input.records));
  const auto clock = [] {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count();
  };
  const auto run = [&](unsigned threads) { return readColumns(reader, arrays, threads, clock); };
  const Workload workload = {static_cast<double>(input.records), static_cast<double>(input.bytes()),
                             0.6};
  compare(
      state, workload, [&] { return run(2); }, [&] { return run(1); });
}

}  // namespace

void addColumnBenches() {
  add("a uint16 of 64-byte records to float64 / by hand", measureOne);
  add("15 linear channels of 64-byte records / by hand", measureWords);
  add("8 big-endian fields of 12 bits / by hand", measurePacked);
  add("a column of transposed blocks / zlib's inflate",
      [](benchmark::State& state) { measureCompressed(state, true); });
  add("a column of deflated blocks / zlib's inflate",
      [](benchmark::State& state) { measureCompressed(state, false); });
  add("15 channels with 2 threads / with one", measureThreads);
}

}  // namespace tolvex::bench
