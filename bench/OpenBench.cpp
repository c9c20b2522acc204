// Opening files of many channels: time and memory per channel.
#include <fmt/format.h>
#include <malloc.h>

#include <memory>
#include <string>
#include <vector>

#include "Mdf4/MdfRecorder.h"
#include "bench/Bench.h"
#include "bench/CountedMemory.h"
#include "bench/Inputs.h"
#include "bench/Recordings.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfColumnReader.h"
#include "tolvex/MdfColumns.h"

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

// ---------------------------------------------------------------------------------------------
// Many small recordings

// A group of 50 channels with 100 records, or frames on two buses, in turns.
void recordOne(const std::string& path, bool isBusLog) {
  constexpr int kChannels = 50;
  MdfRecorder recorder;
  if (recorder.startRecord(path, kStartTimeUs) != 0) return;
  if (isBusLog) {
    const Traffic traffic(2);
    for (std::uint64_t i = 0; i < 1000; ++i) {
      static_cast<void>(recorder.saveCanMessage(Traffic::timeUs(i), traffic.message(i)));
    }
  } else {
    const int group = recorder.addDataGroup("signals");
    static_cast<void>(recorder.addChannel(group, timeChannel()));
    for (int i = 1; i < kChannels; ++i) {
      ChannelInfo channel = float64Channel(fmt::format("Engine.Signal{:02}", i).c_str());
      channel.unit = "km/h";
      channel.comment = "a signal";
      static_cast<void>(recorder.addChannel(group, channel));
    }
    std::vector<double> records(100 * kChannels);
    std::uint64_t taken = 0;
    static_cast<void>(
        recorder.insertRecords(static_cast<std::uint32_t>(group), 100, kChannels * sizeof(double),
                               reinterpret_cast<const std::uint8_t*>(records.data()), taken));
  }
  recorder.stopRecord(kStartTimeUs);
}

void measureSummaries(benchmark::State& state) {
  const test::TempDir folder;
  std::vector<std::string> paths;
  for (std::uint64_t i = 0; i < scaled(1000); ++i) {
    paths.push_back(folder.path(fmt::format("{}.mf4", i)));
    recordOne(paths.back(), i % 2 == 0);
  }
  const auto summarize = [&] {
    std::uint64_t channels = 0;
    for (const std::string& path : paths) {
      tolvex_summary summary = {};
      summary.size = sizeof summary;
      tolvex_summarize_file(path.c_str(), &summary, nullptr, 0);
      channels += summary.channel_count;
    }
    return channels;
  };
  const auto open = [&] {
    std::uint64_t channels = 0;
    for (const std::string& path : paths) {
      MdfColumnReader reader(path);
      if (!reader.open()) continue;
      for (const MdfColumnGroup& group : reader.groups()) channels += group.channels.size();
    }
    return channels;
  };
  compare(
      state, {static_cast<double>(paths.size()), 0, 1}, [&] { return timed(summarize); },
      [&] { return timed(open); });
}

}  // namespace

void addOpenBenches() {
  add("summary of a small recording / opening it for columns", measureSummaries);
  for (const std::uint64_t groups : {10U, 100U, 1000U}) {
    if (groups > scaled(10'000)) continue;
    add(fmt::format("open {} groups of {} channels", groups, kChannelsPerGroup),
        [=](benchmark::State& state) { measure(state, groups); });
  }
}

}  // namespace tolvex::bench
