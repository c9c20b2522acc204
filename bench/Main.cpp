// tolvex_bench [--quick] [--benchmark_...]: one table of all workloads, each beside its reference.
#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "bench/Bench.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::bench {
namespace {

std::string processor() {
  std::ifstream in("/proc/cpuinfo");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
  }
  return "unknown processor";
}

#if defined(__clang__)
constexpr const char* kCompiler = __VERSION__;
#else
constexpr const char* kCompiler = "GCC " __VERSION__;
#endif

class Table final : public benchmark::BenchmarkReporter {
 public:
  bool failed() const { return failed_; }

  bool ReportContext(const Context& context) override {
    fmt::print("{} x {}; {}; {}; load {:.1f}; processor time, p50 and p99 by the clock\n",
               context.cpu_info.num_cpus, processor(), kCompiler, TOLVEX_BUILD_TYPE,
               context.cpu_info.load_avg.empty() ? 0.0 : context.cpu_info.load_avg.front());
    fmt::print("{:<52} {:>9} {:>8} {:>10} {:>6} {:>5}\n", "", "ns/item", "MB/s", "reference",
               "ratio", "goal");
    return true;
  }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      failed_ |= run.counters.count(kFailed) != 0;
      fmt::print("{:<52} {}\n", run.run_name.function_name, run.report_label);
    }
    std::fflush(stdout);
  }

 private:
  bool failed_ = false;
};

}  // namespace
}  // namespace tolvex::bench

int main(int argc, char** argv) {
  using namespace tolvex::bench;
  if (isPrintingRun(argc, argv)) return runPrinting(argv);
  char** const end = std::remove_if(argv + 1, argv + argc, [](const char* argument) {
    return std::string(argument) == "--quick";
  });
  setQuick(end != argv + argc);
  argc = static_cast<int>(end - argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;

  setDiagnosticHandler(nullptr, nullptr);
  addFrameBenches();
  addFrameBatchBenches();
  addRecordBenches();
  addCompressionBenches();
  addColumnBenches();
  addOpenBenches();
  addRecordingBenches();
  addAsyncBenches();
  addPeerBenches();
  addRecoveryBenches();
#ifdef TOLVEX_BENCH_PROGRAM
  addExportBenches();
  addCatBenches();
#endif
  addMemoryBenches();
  Table table;
  benchmark::RunSpecifiedBenchmarks(&table);
  return table.failed() ? 1 : 0;
}
