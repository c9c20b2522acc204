// What saving a frame costs the caller of an asynchronous recorder, against the obvious queue.
//
// Latencies are times by the clock, of every single call, the reading of the clock included. The
// recorder and the queue record side by side and take turns in being fed.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include "bench/Bench.h"
#include "bench/Recordings.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::bench {
namespace {

using Nanoseconds = std::uint64_t;

Nanoseconds now() {
  return static_cast<Nanoseconds>(std::chrono::steady_clock::now().time_since_epoch().count());
}

// ---------------------------------------------------------------------------------------------
// The contestants: each saves the frames of the traffic that follow the last.

class RecorderContestant {
 public:
  explicit RecorderContestant(const std::string& path) : recorder_(createRecorder(true)) {
    startRecord(recorder_, path.c_str(), kStartTimeUs);
  }
  RecorderContestant(const RecorderContestant&) = delete;
  RecorderContestant& operator=(const RecorderContestant&) = delete;
  ~RecorderContestant() {
    stopRecord(recorder_, kStartTimeUs);
    deleteRecorder(recorder_);
  }

  void save(const Traffic& traffic) {
    const int result =
        saveCanMessage(recorder_, Traffic::timeUs(offered_), &traffic.message(offered_));
    if (result == 0) ++accepted_;
    ++offered_;
  }
  bool idle() const { return getPendingTaskCount(recorder_) == 0; }
  std::uint64_t accepted() const { return accepted_; }

 private:
  void* recorder_;
  std::uint64_t offered_ = 0;
  std::uint64_t accepted_ = 0;
};

// A deque of allocated records under a mutex, and a thread that takes them one by one.
class QueueContestant {
 public:
  QueueContestant(const std::string& path, bool prints)
      : prints_(prints), file_(path), block_(file_), worker_([this] { work(); }) {}
  QueueContestant(const QueueContestant&) = delete;
  QueueContestant& operator=(const QueueContestant&) = delete;
  ~QueueContestant() {
    {
      const std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    filled_.notify_one();
    worker_.join();
    block_.flush();
  }

  void save(const Traffic& traffic) {
    auto record =
        std::make_unique<FrameRecord>(traffic.frame(accepted_), Traffic::timeUs(accepted_));
    std::size_t pending = 0;
    {
      const std::lock_guard lock(mutex_);
      records_.push_back(std::move(record));
      pending = records_.size();
    }
    filled_.notify_one();
    ++accepted_;
    if (prints_)
      std::printf("[info] count: %d, residue: %zu\n", static_cast<int>(accepted_), pending);
  }
  bool idle() {
    const std::lock_guard lock(mutex_);
    return records_.empty();
  }

 private:
  void work() {
    for (;;) {
      std::unique_ptr<FrameRecord> record;
      {
        std::unique_lock lock(mutex_);
        filled_.wait(lock, [this] { return stopping_ || !records_.empty(); });
        if (records_.empty()) return;
        record = std::move(records_.front());
        records_.pop_front();
      }
      block_.append(record->bytes.data());
    }
  }

  const bool prints_;
  std::uint64_t accepted_ = 0;
  PlainFile file_;
  PlainBlocks<kFrameRecordBytes> block_;
  std::mutex mutex_;
  std::condition_variable filled_;
  std::deque<std::unique_ptr<FrameRecord>> records_;  // guarded by mutex_
  bool stopping_ = false;                             // guarded by mutex_
  std::thread worker_;
};

// ---------------------------------------------------------------------------------------------
// Feeding one of them

// A frame after the other, in bursts that no queue is too short for; in between, which is not
// measured, the queue runs empty.
template <class To>
void feedInBursts(To& to, const Traffic& traffic, std::vector<Nanoseconds>& latencies) {
  constexpr std::size_t kBurst = 8000;
  for (std::size_t at = 0; at < latencies.size();) {
    const std::size_t end = std::min(at + kBurst, latencies.size());
    Nanoseconds before = now();
    for (; at < end; ++at) {
      to.save(traffic);
      const Nanoseconds after = now();
      latencies[at] = after - before;
      before = after;
    }
    while (!to.idle()) std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
}

// A frame every 10 microseconds, waiting without sleep.
template <class To>
void feedPaced(To& to, const Traffic& traffic, std::vector<Nanoseconds>& latencies) {
  constexpr Nanoseconds kPeriod = 10'000;
  Nanoseconds due = now();
  for (Nanoseconds& latency : latencies) {
    due += kPeriod;
    Nanoseconds before = now();
    while (before < due) before = now();
    to.save(traffic);
    latency = now() - before;
  }
}

// ---------------------------------------------------------------------------------------------
// Measuring both

enum class Pace : std::uint8_t { Bursts, Paced };

struct Measured {
  Comparison middle;  // 50th percentile
  Comparison slow;    // 99th percentile
  std::uint64_t offered = 0;
  std::uint64_t accepted = 0;
  std::uint64_t readBack = 0;
  bool sameFrames = false;  // those that were read back are those that were offered
};

double percentile(std::vector<Nanoseconds>& latencies, std::size_t percent) {
  const auto at =
      latencies.begin() + static_cast<std::ptrdiff_t>((latencies.size() - 1) * percent / 100);
  std::nth_element(latencies.begin(), at, latencies.end());
  return static_cast<double>(*at);
}

struct Turns {
  std::vector<double> ns;
  std::vector<double> referenceNs;
  std::vector<double> ratios;

  void add(std::vector<Nanoseconds>& latencies, std::vector<Nanoseconds>& referenceLatencies,
           std::size_t percent) {
    ns.push_back(percentile(latencies, percent));
    referenceNs.push_back(percentile(referenceLatencies, percent));
    ratios.push_back(ns.back() / referenceNs.back());
  }
  Comparison compared() const { return {median(ns), median(referenceNs), median(ratios)}; }
};

// A million frames; a fifth of them when each is printed.
Measured measureLatencies(Pace pace, bool prints) {
  const std::uint64_t turns = static_cast<std::uint64_t>(rounds());
  const std::uint64_t frames = scaled(prints ? 200'000 : 1'000'000);
  const std::uint64_t perTurn = (frames + turns - 1) / turns;
  const test::TempDir folder;
  const std::string path = folder.path("frames.mf4");
  const Traffic traffic(1);
  Measured result;
  result.offered = turns * perTurn;
  {
    RecorderContestant recorder(path);
    QueueContestant queue(folder.path("plain"), prints);
    const auto feed = [&](auto& to, std::vector<Nanoseconds>& latencies) {
      pace == Pace::Paced ? feedPaced(to, traffic, latencies)
                          : feedInBursts(to, traffic, latencies);
    };
    std::vector<Nanoseconds> latencies(perTurn);
    std::vector<Nanoseconds> queueLatencies(perTurn);
    Turns middle;
    Turns slow;
    for (std::uint64_t turn = 0; turn < turns; ++turn) {
      if (turn % 2 == 0) feed(recorder, latencies);
      feed(queue, queueLatencies);
      if (turn % 2 == 1) feed(recorder, latencies);
      middle.add(latencies, queueLatencies, 50);
      slow.add(latencies, queueLatencies, 99);
    }
    result.middle = middle.compared();
    result.slow = slow.compared();
    result.accepted = recorder.accepted();
  }
  const FrameCount read = readBack(path);
  result.readBack = read.frames;
  result.sameFrames = read == traffic.first(result.offered);
  return result;
}

// ---------------------------------------------------------------------------------------------
// With diagnostics: in a process of its own, whose library still prints them, into a file.

constexpr const char* kPrintingArgument = "--measure-printing";
constexpr std::uint64_t kShortestLine = 20;

struct MeasuredPrinting {
  Measured bursts;
  Measured paced;
};
static_assert(std::is_trivially_copyable_v<MeasuredPrinting>);  // crosses processes as bytes

std::optional<MeasuredPrinting> measureInOwnProcess() {
  const test::TempDir folder;
  const std::string resultPath = folder.path("result");
  const std::string printedPath = folder.path("printed");
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string command = fmt::format("'{}' {} '{}' {} >'{}'", program, kPrintingArgument,
                                          resultPath, isQuick() ? 1 : 0, printedPath);
  if (std::system(command.c_str()) != 0) return {};
  MeasuredPrinting result;
  std::ifstream in(resultPath, std::ios::binary);
  if (!in.read(reinterpret_cast<char*>(&result), sizeof result)) return {};
  const std::uint64_t lines = 2 * (result.bursts.offered + result.paced.offered);
  if (std::filesystem::file_size(printedPath) < lines * kShortestLine) return {};
  return result;
}

// ---------------------------------------------------------------------------------------------
// Rows. Each measurement is made for the first of its rows.

const Measured& measured(Pace pace, bool prints) {
  static std::array<std::optional<Measured>, 4> all;
  const auto at = [&](Pace of) -> std::optional<Measured>& {
    return all[(of == Pace::Paced ? 2U : 0U) + (prints ? 1U : 0U)];
  };
  if (!at(pace) && prints) {
    const MeasuredPrinting both = measureInOwnProcess().value_or(MeasuredPrinting{});
    at(Pace::Bursts) = both.bursts;
    at(Pace::Paced) = both.paced;
  } else if (!at(pace)) {
    at(pace) = measureLatencies(pace, prints);
  }
  return *at(pace);
}

void addRows(Pace pace, bool prints, double goal) {
  const std::string name =
      fmt::format("async saveCanMessage{}{}", pace == Pace::Paced ? " every 10 us" : " in bursts",
                  prints ? ", printing" : "");
  const auto addRow = [&](std::string_view percentile, Comparison Measured::*figures) {
    add(fmt::format("{}: {} / queue", name, percentile), [=](benchmark::State& state) {
      const Measured& result = measured(pace, prints);
      for (auto _ : state) state.SetIterationTime(0);
      if (result.accepted == 0) return fail(state, "nothing was recorded");
      if (result.readBack != result.accepted) return fail(state, "frames are missing");
      if (pace == Pace::Bursts && result.accepted != result.offered) {
        return fail(state, "a burst was not taken whole");
      }
      showCompared(state, result.*figures, goal);
    });
  };
  addRow("p50", &Measured::middle);
  addRow("p99", &Measured::slow);
  if (pace != Pace::Paced || prints) return;
  add(fmt::format("{}: frames kept", name), [=](benchmark::State& state) {
    const Measured& result = measured(pace, prints);
    for (auto _ : state) state.SetIterationTime(0);
    const std::uint64_t lost = result.offered - result.readBack;
    if (lost == 0 && !result.sameFrames) return fail(state, "other frames are read back");
    state.counters["lost"] = static_cast<double>(lost);
    show(state, fmt::format("{} of {}{}", result.readBack, result.offered,
                            verdict(static_cast<double>(lost), 0)));
  });
}

}  // namespace

bool isPrintingRun(int argc, char** argv) {
  return argc == 4 && std::string_view(argv[1]) == kPrintingArgument;
}

int runPrinting(char** argv) {
  setQuick(std::string_view(argv[3]) == "1");
  const MeasuredPrinting result = {measureLatencies(Pace::Bursts, true),
                                   measureLatencies(Pace::Paced, true)};
  std::ofstream out(argv[2], std::ios::binary);
  out.write(reinterpret_cast<const char*>(&result), sizeof result);
  return out.flush() ? 0 : 1;
}

void addAsyncBenches() {
  for (const Pace pace : {Pace::Bursts, Pace::Paced}) addRows(pace, false, 2);
  for (const Pace pace : {Pace::Bursts, Pace::Paced}) addRows(pace, true, 1.5);
}

}  // namespace tolvex::bench
