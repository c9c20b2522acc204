// Opening files of many channels: time and memory per channel.
#include <fmt/format.h>
#include <malloc.h>

#include <memory>

#include "bench/Bench.h"
#include "bench/CountedMemory.h"
#include "bench/Inputs.h"
#include "tolvex/Mdf4.h"

namespace tolvex::bench {
namespace {

constexpr std::uint64_t kChannelsPerGroup = 100;
constexpr double kGoalMicroseconds = 5;
constexpr double kGoalBytes = 1536;

bool listsAll(MdfSigReader& reader, std::uint64_t groups) {
  const int lastGroup = static_cast<int>(groups) - 1;
  const int lastChannel = kChannelsPerGroup;  // the first one is the time
  MdfSigCCInfo info;
  double value = 0;
  std::string text;
  return reader.getDGCount() == lastGroup + 1 &&
         reader.getCCInfo(lastGroup, 0, lastChannel, info) && info.unit == "km/h" &&
         info.applyConversion(10, value, text) && value == -39;
}

void measure(benchmark::State& state, std::uint64_t groups) {
  const std::string& path = inputs().channels(groups, kChannelsPerGroup);
  const auto channels = static_cast<double>(groups * kChannelsPerGroup);
  std::unique_ptr<MdfSigReader> reader;
  std::int64_t held = 0;
  {
    const MemoryCount count;
    reader = std::make_unique<MdfSigReader>(path);
    static_cast<void>(reader->open());
    held = count.held();
  }
  if (!listsAll(*reader, groups)) fail(state, "the channels are not all there");
  const double seconds = medianSeconds(state, [&] {
    reader = std::make_unique<MdfSigReader>(path);
    malloc_trim(0);  // every opening starts with fresh memory, as a program's first one does
    return timed([&] { return std::uint64_t{reader->open()}; });
  });
  if (state.counters.count(kFailed) != 0) return;
  const double microseconds = seconds / channels * 1e6;
  const double bytes = static_cast<double>(held) / channels;
  state.counters["us"] = microseconds;
  state.counters["bytes"] = bytes;
  show(state, fmt::format("{:.2f} us (goal {}){}, {:.0f} bytes (goal {}){} a channel", microseconds,
                          kGoalMicroseconds, verdict(microseconds, kGoalMicroseconds), bytes,
                          kGoalBytes, verdict(bytes, kGoalBytes)));
}

}  // namespace

void addOpenBenches() {
  for (const std::uint64_t groups : {10U, 100U, 1000U}) {
    if (groups > scaled(10'000)) continue;
    add(fmt::format("open {} groups of {} channels", groups, kChannelsPerGroup),
        [=](benchmark::State& state) { measure(state, groups); });
  }
}

}  // namespace tolvex::bench
