#include "bench/Bench.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <vector>

namespace tolvex::bench {
namespace {

constexpr std::uint64_t kQuickPart = 100;
constexpr int kRounds = 15;

bool quickRun = false;

}  // namespace

void setQuick(bool quick) {
  quickRun = quick;
}
bool isQuick() {
  return quickRun;
}
std::uint64_t scaled(std::uint64_t size) {
  return isQuick() ? std::max<std::uint64_t>(1, size / kQuickPart) : size;
}
int rounds() {
  return isQuick() ? 1 : kRounds;
}

std::string_view verdict(double figure, double goal) {
  return figure > goal && !isQuick() ? "  over" : "";
}

double processorSeconds() {
  timespec now = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void compare(benchmark::State& state, const Workload& workload, const Contestant& subject,
             const Contestant& reference) {
  if (subject().result != reference().result) {  // also fills the caches
    fail(state, "the results differ");
  }
  std::vector<double> seconds;
  std::vector<double> referenceSeconds;
  std::vector<double> ratios;
  bool subjectFirst = false;
  for (auto _ : state) {
    subjectFirst = !subjectFirst;
    const Outcome first = subjectFirst ? subject() : reference();
    const Outcome second = subjectFirst ? reference() : subject();
    seconds.push_back(subjectFirst ? first.seconds : second.seconds);
    referenceSeconds.push_back(subjectFirst ? second.seconds : first.seconds);
    ratios.push_back(seconds.back() / referenceSeconds.back());
    state.SetIterationTime(seconds.back());
  }
  if (state.counters.count(kFailed) != 0) return;
  const double nsPerSecond = 1e9 / workload.items;
  showCompared(
      state,
      {median(seconds) * nsPerSecond, median(referenceSeconds) * nsPerSecond, median(ratios)},
      workload.goal, workload.bytes / median(seconds) / 1e6);
}

void showCompared(benchmark::State& state, const Comparison& figures, double goal,
                  double megabytesPerSecond) {
  state.counters["ns"] = figures.ns;
  state.counters["reference_ns"] = figures.referenceNs;
  state.counters["ratio"] = figures.ratio;
  state.counters["goal"] = goal;
  const std::string speed =
      megabytesPerSecond > 0 ? fmt::format("{:8.0f}", megabytesPerSecond) : std::string(8, ' ');
  const std::string factor =
      goal < 1 ? fmt::format("  {:.0f} times as fast", 1 / figures.ratio) : "";
  show(state,
       fmt::format("{:9.1f} {} {:10.1f} {:6.2f} {:5.2f}{}{}", figures.ns, speed,
                   figures.referenceNs, figures.ratio, goal, factor, verdict(figures.ratio, goal)));
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double medianSeconds(benchmark::State& state, const Contestant& subject) {
  subject();
  std::vector<double> seconds;
  for (auto _ : state) {
    seconds.push_back(subject().seconds);
    state.SetIterationTime(seconds.back());
  }
  return median(seconds);
}

void show(benchmark::State& state, std::string_view row) {
  state.SetLabel(std::string(row));
}

void fail(benchmark::State& state, std::string_view what) {
  state.counters[kFailed] = 1;
  state.SetLabel(fmt::format("FAILED: {}", what));
}

void add(const std::string& name, const std::function<void(benchmark::State&)>& bench) {
  benchmark::RegisterBenchmark(name.c_str(), bench)->Iterations(rounds())->UseManualTime();
}

}  // namespace tolvex::bench
