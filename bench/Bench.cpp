#include "bench/Bench.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <vector>

namespace tolvex::bench {
namespace {

constexpr std::uint64_t kQuickPart = 100;
constexpr int kRounds = 15;

bool isQuick = false;

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

void setQuick(bool quick) {
  isQuick = quick;
}
std::uint64_t scaled(std::uint64_t size) {
  return isQuick ? std::max<std::uint64_t>(1, size / kQuickPart) : size;
}
int rounds() {
  return isQuick ? 1 : kRounds;
}

std::string_view verdict(double figure, double goal) {
  return figure > goal && !isQuick ? "  over" : "";
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
  const double ns = median(seconds) / workload.items * 1e9;
  const double referenceNs = median(referenceSeconds) / workload.items * 1e9;
  const double ratio = median(ratios);
  state.counters["ns"] = ns;
  state.counters["reference_ns"] = referenceNs;
  state.counters["ratio"] = ratio;
  state.counters["goal"] = workload.goal;
  if (state.counters.count(kFailed) != 0) return;
  show(state, fmt::format("{:9.1f} {:8.0f} {:10.1f} {:6.2f} {:5.2f}{}", ns,
                          workload.bytes / median(seconds) / 1e6, referenceNs, ratio, workload.goal,
                          verdict(ratio, workload.goal)));
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
