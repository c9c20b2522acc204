// What the benches share: measuring a case beside its reference, and the rows of the table.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tolvex::bench {

// A quick run uses small inputs and one round: it shows that the benches work, not how fast.
void setQuick(bool quick);
bool isQuick();
std::uint64_t scaled(std::uint64_t size);  // `size`, or a small part of it in a quick run
int rounds();
// What follows a figure above its goal; nothing in a quick run.
std::string_view verdict(double figure, double goal);

struct Outcome {
  double seconds = 0;
  std::uint64_t result = 0;  // what the work found out, to compare
};

// Seconds that this thread has had a processor. Files come from the page cache, so nothing waits,
// and what other programs do in between does not count.
double processorSeconds();

// Runs `work`, which returns its result.
template <class Work>
Outcome timed(Work work, double (*clock)() = processorSeconds) {
  const double start = clock();
  const std::uint64_t result = work();
  return {clock() - start, result};
}

// Runs one contestant once; inside, only what is measured is `timed`.
using Contestant = std::function<Outcome()>;

struct Workload {
  double items = 0;
  double bytes = 0;
  double goal = 0;  // the most that the case may take, as a multiple of its reference
};

// Measures the case and its reference in turns, since the machine's speed changes under them, and
// shows the medians: times, and the ratio within each turn. Both must have the same result.
void compare(benchmark::State& state, const Workload& workload, const Contestant& subject,
             const Contestant& reference);

// Figures beside those of a reference: the medians, and the median of the ratios.
struct Comparison {
  double ns = 0;
  double referenceNs = 0;
  double ratio = 0;
};
void showCompared(benchmark::State& state, const Comparison& figures, double goal,
                  double megabytesPerSecond = 0);

double median(std::vector<double> values);
// The middle one of `count` measurements.
double medianSeconds(benchmark::State& state, const Contestant& subject);

// The row's text behind its name.
void show(benchmark::State& state, std::string_view row);
// Shows what is wrong instead; the program then fails.
void fail(benchmark::State& state, std::string_view what);
inline constexpr const char* kFailed = "failed";  // the counter that marks such a row

// A bench that does its work once per round of `state`, with the times that it sets.
void add(const std::string& name, const std::function<void(benchmark::State&)>& bench);

// One per subject.
void addFrameBenches();
void addFrameBatchBenches();
void addRecordBenches();
void addCompressionBenches();
void addColumnBenches();
void addOpenBenches();
void addMemoryBenches();
void addRecordingBenches();
void addAsyncBenches();
void addPeerBenches();
void addRecoveryBenches();
#ifdef TOLVEX_BENCH_PROGRAM
void addExportBenches();
void addCatBenches();
#endif

// The part of the asynchronous benches that a process of its own runs.
bool isPrintingRun(int argc, char** argv);
int runPrinting(char** argv);

}  // namespace tolvex::bench
