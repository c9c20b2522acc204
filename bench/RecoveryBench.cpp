// Recovering and checking large files, against copying them.
#include <fmt/format.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "Mdf4/MdfRecorder.h"
#include "bench/Bench.h"
#include "bench/CountedMemory.h"
#include "bench/Recordings.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/Mdf4.h"

namespace tolvex::bench {
namespace {

using test::Bytes;
using test::FileBuilder;
using test::Link;
using test::packed;

constexpr std::uint8_t kBuses = 4;
constexpr double kGoalSpeed = 2;        // times as long as copying
constexpr double kGoalPeakTimes = 1.1;  // times the peak of a short file

// A recording of four buses whose process went away.
std::string killedRecording(const test::TempDir& folder, std::uint64_t frames) {
  std::string path = folder.path(fmt::format("killed-{}.mf4", frames));
  const Traffic traffic(kBuses);
  MdfRecorder recorder;
  if (recorder.startRecord(path, kStartTimeUs) != 0)
    throw std::runtime_error(recorder.firstError());
  for (std::uint64_t i = 0; i < frames; ++i) {
    recorder.saveCanMessage(Traffic::timeUs(i), traffic.message(i));
  }
  return path;
}

// What a logger leaves that lost its power: records of two groups with their ids, and the payloads
// as records of a third.
std::string loggerFile(const test::TempDir& folder, std::uint64_t frames) {
  test::Header header;
  header.id = "UnFinMF ";
  FileBuilder file(header);
  constexpr std::uint8_t kFrameId = 1;
  constexpr std::uint8_t kValueId = 2;
  const Link values = file.cg({.flags = 1, .recordId = kValueId});
  const Link time = file.cn({.name = "t", .type = 2, .sync = 1, .dataType = 4, .bitCount = 64});
  const Link id = file.cn({.name = "ID", .byteOffset = 8, .bitCount = 32});
  const Link payload = file.cn({.name = "DataBytes",
                                .type = 1,
                                .dataType = 10,
                                .byteOffset = 12,
                                .bitCount = 64,
                                .data = values});
  const Link group = file.cg(
      {.name = "frames", .channels = {time, id, payload}, .dataBytes = 20, .recordId = kFrameId});
  Bytes records;
  for (std::uint64_t i = 0; i < frames; ++i) {
    const double seconds = static_cast<double>(i) * 1e-5;
    const Bytes record = packed(kFrameId, seconds, static_cast<std::uint32_t>(i), i * 12, kValueId,
                                std::uint32_t{8}, i * 0x0101);
    records.insert(records.end(), record.begin(), record.end());
  }
  file.setU64(56, std::uint64_t{0x25} << 32);  // counts, last length and value bytes are missing
  const Link data = file.dt(records);
  file.dg({.groups = {group, values}, .data = data, .recordIdSize = 1});
  std::string path = folder.path(fmt::format("logger-{}.mf4", frames));
  std::filesystem::copy_file(file.write(), path);
  return path;
}

std::uint64_t recoveredRecords(const std::string& input, const std::string& output) {
  std::uint64_t records = 0;
  for (const MdfRecoveredGroup& group : recoverFile(input, output).groups) records += group.records;
  return records;
}

// As cp does without the help of the file system.
bool copyByHand(const std::string& input, const std::string& output) {
  constexpr std::size_t kPiece = 1 << 20;
  std::vector<std::uint8_t> piece(kPiece);
  std::FILE* const in = std::fopen(input.c_str(), "rb");
  PlainFile out(output);
  bool copied = in != nullptr;
  if (copied) std::setvbuf(in, nullptr, _IONBF, 0);
  while (copied) {
    const std::size_t got = std::fread(piece.data(), 1, piece.size(), in);
    if (got == 0) break;
    copied = out.write(piece.data(), got);
  }
  if (in != nullptr) std::fclose(in);
  return copied;
}

using MakeFile = std::string (*)(const test::TempDir& folder, std::uint64_t frames);

void measureSpeed(benchmark::State& state, MakeFile make) {
  const test::TempDir folder;
  const std::uint64_t frames = scaled(4'000'000);
  const std::string input = make(folder, frames);
  const std::string output = folder.path("output.mf4");
  const std::uint64_t records = recoveredRecords(input, output);
  const Workload workload = {static_cast<double>(records),
                             static_cast<double>(std::filesystem::file_size(input)), kGoalSpeed};
  compare(
      state, workload,
      [&] {
        removeFile(output);
        return timed([&] { return recoveredRecords(input, output); });
      },
      [&] {
        removeFile(output);
        return timed([&] { return copyByHand(input, output) ? records : 0; });
      });
}

void measureCheck(benchmark::State& state) {
  const test::TempDir folder;
  const Traffic traffic(kBuses);
  const std::string path = folder.path("frames.mf4");
  const std::uint64_t frames = recordFrames(path, traffic, scaled(4'000'000));
  const double bytes = static_cast<double>(std::filesystem::file_size(path));
  std::uint64_t findings = 0;
  const double seconds = medianSeconds(
      state, [&] { return timed([&] { return findings += checkFile(path).findings.size(); }); });
  if (findings != 0) return fail(state, "a sound recording has findings");
  show(state, fmt::format("{:>9.1f} {:>8.0f}", 1e9 * seconds / static_cast<double>(frames),
                          1e-6 * bytes / seconds));
}

std::int64_t peakOf(const std::string& input, bool check) {
  const MemoryCount count;
  if (check) {
    static_cast<void>(checkFile(input));
  } else {
    static_cast<void>(recoverFile(input, input + ".recovered"));
  }
  return count.peak();
}

void measureMemory(benchmark::State& state, MakeFile make, bool check) {
  const test::TempDir folder;
  constexpr std::uint64_t kTimes = 8;
  const std::uint64_t frames = scaled(1'000'000);
  const std::int64_t once = peakOf(make(folder, frames), check);
  const std::int64_t longer = peakOf(make(folder, kTimes * frames), check);
  for (auto _ : state) state.SetIterationTime(0);
  const double ratio = static_cast<double>(longer) / static_cast<double>(once);
  show(state,
       fmt::format("{} KiB; {} times the length {} KiB, {:.2f} times (goal {}){}", once / 1024,
                   kTimes, longer / 1024, ratio, kGoalPeakTimes, verdict(ratio, kGoalPeakTimes)));
}

}  // namespace

void addRecoveryBenches() {
  add("recover: killed recording / copy",
      [](benchmark::State& state) { measureSpeed(state, killedRecording); });
  add("recover: logger file, unsorted / copy",
      [](benchmark::State& state) { measureSpeed(state, loggerFile); });
  add("check: finished recording", measureCheck);
  add("peak memory: recover, killed recording",
      [](benchmark::State& state) { measureMemory(state, killedRecording, false); });
  add("peak memory: recover, logger file",
      [](benchmark::State& state) { measureMemory(state, loggerFile, false); });
  add("peak memory: check, killed recording",
      [](benchmark::State& state) { measureMemory(state, killedRecording, true); });
}

}  // namespace tolvex::bench
