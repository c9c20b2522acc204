// tolvex_kill [RUNS [SEED]]: kills a recording process as often at random moments and recovers what
// it leaves. Run SEED + i records with the seed SEED + i; without SEED it is the clock's.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <random>

#include "tests/kill/MixedRecording.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::test {
namespace {

// What the recording process tells of each write that the system took, in one write to a pipe.
struct Report {
  std::uint64_t file;
  std::uint64_t position;
  std::uint64_t size;
  bool records;  // a block of them
};

[[noreturn]] void recordAndTell(const MixedRecording& recording, const std::string& path,
                                int tell) {
  recording.run(path, observed(openSystemFile, [&](std::size_t file, std::uint64_t position,
                                                   std::span<const ByteSpan> pieces) {
                  Report report = {file, position, 0, false};
                  for (const ByteSpan& piece : pieces) report.size += piece.size();
                  const ByteSpan first = pieces.front();
                  report.records =
                      first.size() > 3 && first[0] == '#' && first[2] == 'D' && first[3] == 'T';
                  if (::write(tell, &report, sizeof report) != sizeof report) ::_exit(1);
                }));
  ::_exit(0);
}

std::string nameOf(const std::string& path, std::uint64_t file) {
  return file == 0 ? path : path.substr(0, path.rfind('.')) + "_" + std::to_string(file) + ".mf4";
}

// Kills one recording. Says how far it had come, and what is wrong with what comes back.
bool kill(std::uint32_t seed) {
  const MixedRecording recording(seed);
  const std::vector<LoggedWrite> log = logOf(recording);
  const RecoveryCheck check(log);
  std::mt19937 random(seed);
  // Most writes describe groups; of two kills one falls between those of records.
  std::size_t reports = 1 + random() % log.size();
  for (const bool anywhere = random() % 2 == 0; !anywhere && reports < log.size(); ++reports) {
    if (log[reports - 1].isA("DT")) break;
  }
  const std::chrono::nanoseconds delay(random() % 200'000);

  const TempDir dir;
  const std::string path = dir.path("log.mf4");
  int ends[2];
  if (::pipe(ends) != 0) throw std::runtime_error("no pipe");
  ::fcntl(ends[1], F_SETPIPE_SZ, 4096);  // so that the recording cannot run far ahead
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("no process");
  if (child == 0) {
    ::close(ends[0]);
    recordAndTell(recording, path, ends[1]);
  }
  ::close(ends[1]);
  std::vector<std::vector<TakenBlock>> taken(1);
  std::size_t read = 0;
  for (Report report; ::read(ends[0], &report, sizeof report) == sizeof report;) {
    taken.resize(std::max(taken.size(), inMemory(report.file + 1)));
    if (report.records) taken[inMemory(report.file)].push_back({report.position, report.size});
    if (++read != reports) continue;
    const auto end = std::chrono::steady_clock::now() + delay;
    while (std::chrono::steady_clock::now() < end) continue;
    ::kill(child, SIGKILL);
  }
  ::close(ends[0]);
  int status = 0;
  ::waitpid(child, &status, 0);

  std::string faults;
  for (std::uint64_t file = 0; std::filesystem::exists(nameOf(path, file)); ++file) {
    taken.resize(std::max(taken.size(), inMemory(file + 1)));
    const std::string found =
        check.faults(nameOf(path, file), taken[inMemory(file)], RecoveryCheck::Allowed::Nothing);
    if (!found.empty()) faults += "\n  file " + std::to_string(file) + ": " + found;
  }
  std::printf("%s, %s after %zu of %zu writes%s\n", recording.description().c_str(),
              WIFSIGNALED(status) ? "killed" : "ended", read, log.size(), faults.c_str());
  return faults.empty();
}

}  // namespace
}  // namespace tolvex::test

int main(int argc, char** argv) {
  const unsigned long runs = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 20;
  const auto seed = static_cast<std::uint32_t>(
      argc > 2 ? std::strtoul(argv[2], nullptr, 10)
               : static_cast<unsigned long>(
                     std::chrono::system_clock::now().time_since_epoch().count()));
  setDiagnosticHandler(nullptr, nullptr);
  unsigned long failed = 0;
  try {
    for (std::uint32_t i = 0; i < runs; ++i) failed += tolvex::test::kill(seed + i) ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  std::printf("%lu kills from seed %u on, %lu failed\n", runs, seed, failed);
  return failed == 0 ? 0 : 1;
}
