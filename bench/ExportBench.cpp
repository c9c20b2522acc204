// The program's tables, against the same text written by hand.
#include <fmt/format.h>

#include <charconv>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench/Bench.h"
#include "bench/Inputs.h"
#include "bench/ProgramRuns.h"
#include "tests/support/FileBuilder.h"

namespace tolvex::bench {
namespace {

constexpr std::size_t kColumns = 15;
constexpr std::uint32_t kRecordSize = 64;
constexpr double kGoal = 1.5;

// Records of a time and channels of 16 bits with linear conversions, and their values.
struct Signals {
  std::string path;
  std::vector<std::vector<double>> columns;  // the time first
};

const Signals& signals(std::uint64_t count) {
  static const test::TempDir folder;
  static std::map<std::uint64_t, Signals> known;
  const auto [entry, isNew] = known.try_emplace(count);
  Signals& result = entry->second;
  if (!isNew) return result;
  test::FileBuilder file;
  std::vector<test::Cn> channels;
  std::vector<double> factors;
  for (std::size_t i = 0; i < kColumns; ++i) {
    factors.push_back(i % 3 == 0 ? 0.1 : i % 3 == 1 ? 0.015625 : 1);
    channels.push_back({.name = fmt::format("signal {}", i),
                        .dataType = 2,
                        .byteOffset = static_cast<std::uint32_t>(sizeof(double) + 2 * i),
                        .bitCount = 16,
                        .conversion = file.cc({.type = 1, .values = {-40, factors[i]}})});
  }
  result.columns.resize(kColumns + 1);
  test::Bytes records(count * kRecordSize);
  for (std::uint64_t record = 0; record < count; ++record) {
    std::uint8_t* const at = records.data() + record * kRecordSize;
    const double time = 0.001 * static_cast<double>(record);
    std::memcpy(at, &time, sizeof time);
    result.columns[0].push_back(time);
    for (std::size_t i = 0; i < kColumns; ++i) {
      const auto raw = static_cast<std::int16_t>(record * (i + 7) % 40'009);
      std::memcpy(at + sizeof time + 2 * i, &raw, sizeof raw);
      result.columns[i + 1].push_back(-40 + factors[i] * raw);
    }
  }
  file.signalGroup(channels, {.name = "signals", .records = count, .dataBytes = kRecordSize},
                   file.dt(records));
  result.path = folder.path(std::to_string(count));
  std::rename(file.write().c_str(), result.path.c_str());
  return result;
}

Outcome writeByHand(const Signals& input, const MemoryFile& out) {
  constexpr std::size_t kBuffer = 64 * 1024;
  constexpr std::size_t kMostPerRow = (kColumns + 1) * 32;
  std::FILE* const file = std::fopen(out.path().c_str(), "wb");
  if (file == nullptr) return {};
  const Outcome outcome = timed([&] {
    std::vector<char> buffer(kBuffer);
    std::string header = "time";
    for (std::size_t i = 0; i < kColumns; ++i) header += fmt::format(",signal {}", i);
    char* at = std::copy(header.begin(), header.end(), buffer.data());
    *at++ = '\n';
    for (std::size_t row = 0; row < input.columns[0].size(); ++row) {
      if (buffer.data() + kBuffer - at < static_cast<std::ptrdiff_t>(kMostPerRow)) {
        std::fwrite(buffer.data(), 1, static_cast<std::size_t>(at - buffer.data()), file);
        at = buffer.data();
      }
      for (const std::vector<double>& column : input.columns) {
        at = std::to_chars(at, at + 32, column[row]).ptr;
        *at++ = ',';
      }
      at[-1] = '\n';
    }
    std::fwrite(buffer.data(), 1, static_cast<std::size_t>(at - buffer.data()), file);
    std::fclose(file);
    return std::uint64_t{0};
  });
  return {outcome.seconds, out.contentSum()};
}

}  // namespace

void addExportBenches() {
  add("export of 15 columns as CSV / to_chars of arrays", [](benchmark::State& state) {
    const std::uint64_t count = scaled(300'000);
    const Signals& input = signals(count);
    const MemoryFile out;
    const Workload workload = {static_cast<double>(count), static_cast<double>(count * kRecordSize),
                               kGoal};
    compare(
        state, workload,
        [&] {
          return runProgramInto(out, {"export", input.path, "--dg", "0"});
        },
        [&] { return writeByHand(input, out); });
  });
}

}  // namespace tolvex::bench
