// tolvex_mutate SECONDS SEED FILE...: changes files in single places, and in several at once, and
// does with each what the program's commands do, for so long; for 0 seconds, with every change in
// turn. The name "samples" stands for small files of every kind, "recording" for a recording of
// more than a mebibyte, the seed 0 for one by the clock. What fails is printed as the FILE@CHANGES
// that repeats it.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

#include "Mdf4/MdfRecorder.h"
#include "Mdf4/format/WorkSizes.h"
#include "bench/CountedMemory.h"
#include "tests/mutation/Structure.h"
#include "tests/support/RecoveredContent.h"
#include "tests/support/SampleFiles.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfEngine.h"
#ifdef TOLVEX_TEST_COMMANDS
#include "tools/tolvex/Program.h"
#endif

namespace tolvex::test {
namespace {

constexpr std::int64_t kMostMemory = 256 << 20;  // bytes
constexpr int kMostSeconds = 5;                  // of computing, for each command

// What takes the place of up to eight bytes of a file, or its end.
struct Change {
  std::uint64_t position;
  unsigned width = 0;  // bytes; 0: the file ends at the position
  std::uint64_t value = 0;
};

struct Mutation {
  std::vector<Change> changes;
  unsigned steps = 0;  // which sizes the check and the recovery work in

  static Mutation of(const std::string& text) {
    Mutation mutation;
    mutation.steps = static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 10));
    for (std::size_t at = text.find('+'); at != std::string::npos; at = text.find('+', at + 1)) {
      unsigned long long position = 0;
      unsigned long long value = 0;
      unsigned width = 0;
      std::sscanf(text.c_str() + at + 1, "%llu:%u:%llu", &position, &width, &value);
      mutation.changes.push_back({position, width, value});
    }
    return mutation;
  }
  std::string text() const {
    std::string text = std::to_string(steps);
    for (const Change& change : changes) {
      text.append("+").append(std::to_string(change.position));
      text.append(":").append(std::to_string(change.width));
      text.append(":").append(std::to_string(change.value));
    }
    return text;
  }
  // The usual ones, and such that seams lie everywhere.
  WorkSizes sizes() const {
    if (steps % 2 == 0) return {};
    const std::uint64_t size = std::uint64_t{64} << steps;
    return {size, size, 2, 4 * size, 4, 8, 16 * size};
  }
};

struct Subject {
  std::string name;
  Bytes bytes;
  std::vector<Mutation> mutations;
  RecoveredContent content = {};  // of the file as it is, if all of it comes back
};

// All changes of single places, but of long data only those of some hundred of its bytes.
std::vector<Change> changesOf(const Bytes& bytes, std::mt19937& random) {
  constexpr std::uint64_t kWords[] = {0, 1, std::uint64_t{1} << 31, std::uint64_t{1} << 63,
                                      ~std::uint64_t{0}};
  constexpr std::uint64_t kFew = 512;
  std::vector<Change> all;
  for (int i = 0; i < 200; ++i) all.push_back({random() % bytes.size()});
  std::uint64_t dense = kFew;  // up to here every byte is taken
  for (std::uint64_t at = 0; at < bytes.size(); ++at) {
    if (at % 8 == 0 && at + 1 < bytes.size() && bytes[at] == '#' && bytes[at + 1] == '#') {
      all.push_back({at});  // where a block begins
      dense = at + kFew;
    }
    if (at >= dense && random() % (bytes.size() / kFew + 1) != 0) continue;
    all.push_back({at, 1, bytes[at] ^ 0xFFU});
    all.push_back({at, 1, bytes[at] ^ 1U << random() % 8});
    for (const unsigned width : {2U, 4U, 8U}) {
      if (at % width != 0 || at + width > bytes.size()) continue;
      for (const std::uint64_t word : kWords) {
        if (word >> 4 * width >> 4 * width == 0 || word + 1 == 0) all.push_back({at, width, word});
      }
    }
  }
  return all;
}

// Each change alone, and half as many times a few of them together.
std::vector<Mutation> mutationsOf(const Bytes& bytes, std::mt19937& random) {
  const std::vector<Change> changes = changesOf(bytes, random);
  std::vector<Mutation> all;
  for (const Change& change : changes)
    all.push_back({{change}, static_cast<unsigned>(random() % 6)});
  for (std::size_t i = 0; i < changes.size() / 2; ++i) {
    Mutation& several = all.emplace_back();
    several.steps = static_cast<unsigned>(random() % 6);
    for (std::size_t count = 2 + random() % 5; count > 0; --count) {
      several.changes.push_back(changes[random() % changes.size()]);
    }
    // The end of the file comes last.
    std::partition(several.changes.begin(), several.changes.end(),
                   [](const Change& change) { return change.width != 0; });
  }
  return all;
}

// A recording of everything that a bus log has, and of signals.
Bytes recording() {
  constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds
  const TempDir dir;
  const std::string path = dir.path("log.mf4");
  MdfRecorder recorder;
  if (recorder.startRecord(path, kStart) != 0) throw std::runtime_error(recorder.firstError());
  const int group = recorder.addDataGroup("signals");
  recorder.addChannel(group, timeChannel());
  recorder.addChannel(group, float64Channel("value"));
  MdfCanMessage frame;
  MdfCanError error;
  for (std::uint32_t i = 0; i < 60'000; ++i) {
    frame.MessageId(i % 0x800);
    frame.BusChannel(static_cast<std::uint8_t>(1 + i % 2));
    frame.DataBytes(packed(std::uint64_t{i} * 0x10001));
    recorder.saveCanMessage(kStart + i, frame);
    if (i % 64 == 0) recorder.saveCanError(kStart + i, error);
    const std::unique_ptr<RecordData> data = recorder.createRecordData(group);
    data->setTime(1e-6 * i);
    if (i % 8 == 0) recorder.insertRecord(*data, group);
  }
  recorder.stopRecord(kStart + 70'000);
  return fileBytes(path);
}

// What the process that tries mutations says of itself, to the one that watches it.
struct Progress {
  std::size_t mutation;
  const char* step;
  bool isDone;
};

// One after the other, mutations of a file in memory.
class Trial {
 public:
  Trial(const Subject& subject, const TempDir& dir, Progress& progress)
      : subject_(subject),
        progress_(progress),
        descriptor_(::memfd_create("mutated", MFD_CLOEXEC)),
        path_("/proc/self/fd/" + std::to_string(descriptor_)),
        recovered_(dir.path("recovered.mf4")),
        structure_(subject.bytes) {
    put(0, subject.bytes.data(), subject.bytes.size());
  }

  bool run(std::size_t number) {
    progress_.mutation = number;
    const Mutation& mutation = subject_.mutations[number];
    const std::uint64_t size = subject_.bytes.size();
    for (const Change& change : mutation.changes) {
      if (change.width == 0) {
        if (::ftruncate(descriptor_, static_cast<off_t>(change.position)) != 0) std::abort();
      } else {
        put(change.position, &change.value, change.width);
      }
    }
    failure_.clear();
    sizes_ = mutation.sizes();
    runCommands(number % 4 == 0, keepsMeaning(mutation.changes));
    for (const Change& change : mutation.changes) {
      const std::uint64_t end = change.width == 0 ? size : change.position + change.width;
      put(change.position, subject_.bytes.data() + change.position, end - change.position);
    }
    return failure_.empty();
  }
  const std::string& failure() const { return failure_; }

 private:
  // Whether what comes back must be a part of what was recorded. Where several numbers are wrong,
  // nobody can tell which of the others to believe.
  bool keepsMeaning(const std::vector<Change>& changes) const {
    const Change& first = changes.front();
    Bytes bytes = packed(first.value);
    bytes.resize(first.width);
    return structure_.keepsMeaning(first.position, bytes) &&
           std::all_of(changes.begin() + 1, changes.end(),
                       [](const Change& change) { return change.width == 0; });
  }

  void put(std::uint64_t at, const void* bytes, std::size_t count) const {
    const auto written = ::pwrite(descriptor_, bytes, count, static_cast<off_t>(at));
    if (written != static_cast<ssize_t>(count)) std::abort();
  }

  template <class Work>
  void step(const char* name, Work work) {
    progress_.step = name;
    const ::itimerval time = {{0, 0}, {kMostSeconds, 0}};
    ::setitimer(ITIMER_PROF, &time, nullptr);
    const bench::MemoryCount memory;
    work();
    if (memory.peak() > kMostMemory) failure_ = std::string(name) + ": more than 256 MiB";
  }

  void runCommands(bool verify, bool comparable) {
    step("info and export", [&] { readSignals(); });
    step("cat", [&] { readFrames(); });
#ifdef TOLVEX_TEST_COMMANDS
    step("info", [&] { runCommand({"tolvex", "info", path_}); });
    step("export", [&] { runCommand({"tolvex", "export", path_, "--join", "-o", "/dev/null"}); });
    step("export on a raster", [&] {
      runCommand({"tolvex", "export", path_, "--join", "--raster", "0.01", "--interpolate",
                  "--max-output", "4M", "-o", "/dev/null"});
    });
#endif
    step("doctor", [&] { checkFile(path_, nullptr, sizes_); });
    MdfRecoveryReport report;
    step("recover", [&] { report = recoverFile(path_, recovered_, {verify, nullptr}, sizes_); });
    if (!report.failure.empty()) return;
    step("doctor of what came back", [&] {
      const MdfCheckReport check = checkFile(recovered_);
      failure_ = check.failure;
      if (!MdfSigReader(recovered_).open()) failure_ = "what came back cannot be opened";
      for (const MdfFinding& finding : check.findings) {
        if (!finding.error || !failure_.empty()) continue;
        failure_ = finding.what + " at " + std::to_string(finding.position) + ": expected " +
                   finding.expected + ", found " + finding.found;
      }
    });
    if (!comparable || subject_.content.empty() || !failure_.empty()) return;
    if (!isPart(recoveredContent(recovered_), subject_.content)) {
      failure_ = "what came back is no part of what was recorded";
    }
  }

#ifdef TOLVEX_TEST_COMMANDS
  static void runCommand(std::vector<std::string> arguments) {
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    runProgram(static_cast<int>(arguments.size()), pointers.data());
  }
#endif

  void readSignals() {
    MdfSigReader reader(path_);
    reader.setReadAllGroups(true);
    static_cast<void>(reader.open());
    MdfGroupInfo group;
    for (int dg = 0; dg < reader.getDGCount(); ++dg) {
      for (int cg = 0; reader.getGroupInfo(dg, cg, group); ++cg) {
        reader.readSignalTimeRange(dg, cg);
        if (!group.unsorted) readGroup(reader, dg, cg);
      }
    }
  }

  static void readGroup(MdfSigReader& reader, int dg, int cg) {
    constexpr std::uint64_t kAtOnce = 512;  // records
    std::vector<MdfSigCCInfo> channels;
    for (int cn = 0; cn < reader.getCNCount(dg, cg); ++cn) {
      reader.getCCInfo(dg, cg, cn, channels.emplace_back());
    }
    Bytes records;
    Bytes value;
    std::string text;
    int size = 0;
    const std::uint64_t count = reader.getStoredRecordCount(dg, cg);
    for (std::uint64_t done = 0; done < count && done < 1U << 31; done += kAtOnce) {
      const auto some = static_cast<int>(std::min(kAtOnce, count - done));
      if (!reader.readSignalDataBlock(dg, cg, static_cast<int>(done), some, records, size)) return;
      for (auto at = records.begin(); at != records.end(); at += size) {
        const Bytes record(at, at + size);
        double number = 0;
        for (int cn = 0; const MdfSigCCInfo& channel : channels) {
          channel.convertToPhysical(record, number);
          if (channel.channelType == 1) {
            reader.readValueBytes(dg, cg, cn, record.data(), record.size(), value);
          }
          reader.readText(dg, cg, cn++, record.data(), record.size(), text);
        }
      }
    }
  }

  void readFrames() {
    MdfReader reader(path_);
    static_cast<void>(reader.open());
    reader.setPayloadByDlc(true);
    reader.setRequireFields(true);
    reader.getBusLogGroups();
    for (;;) {
      const MdfFrame frame = reader.getNext();
      const auto* const message = std::get_if<std::shared_ptr<MdfCanMessage>>(&frame);
      if (message != nullptr && *message == nullptr) break;
    }
    reader.getStopTime();
  }

  const Subject& subject_;
  Progress& progress_;
  int descriptor_;
  std::string path_;
  std::string recovered_;
  WorkSizes sizes_;
  std::string failure_;
  const Structure structure_;
};

// Tries the mutations from `first` on, before `last`, and goes on behind one that ends the process.
// Returns how many failed.
unsigned tryAll(const Subject& subject, std::size_t first, std::size_t last) {
  constexpr std::size_t kBatch = 500;  // then a new process, whatever the last one kept
  const TempDir dir;
  auto* const progress = static_cast<Progress*>(
      ::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  unsigned failed = 0;
  std::FILE* report = stdout;
  const auto tell = [&](std::size_t number, const std::string& what) {
    ++failed;
    std::fprintf(report, "%s@%s: %s\n", subject.name.c_str(),
                 subject.mutations[number].text().c_str(), what.c_str());
    std::fflush(report);
  };
  while (first < last) {
    const std::size_t end = std::min(first + kBatch, last);
    *progress = {first, "start", false};
    const pid_t process = ::fork();
    if (process == 0) {
      failed = 0;
      // What commands print is not looked at, and what they complain of no failure.
      report = ::fdopen(::dup(STDOUT_FILENO), "w");
      const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
      ::dup2(nowhere, STDOUT_FILENO);
      ::dup2(nowhere, STDERR_FILENO);
      Trial trial(subject, dir, *progress);
      for (std::size_t number = first; number < end; ++number) {
        if (!trial.run(number)) tell(number, trial.failure());
      }
      progress->isDone = true;
      ::_exit(static_cast<int>(std::min(failed, 90U)));
    }
    int status = 0;
    ::waitpid(process, &status, 0);
    first = end;
    if (progress->isDone) {
      failed += static_cast<unsigned>(WEXITSTATUS(status));
      continue;
    }
    first = progress->mutation + 1;
    const bool late = WIFSIGNALED(status) && WTERMSIG(status) == SIGPROF;
    tell(progress->mutation,
         std::string(progress->step) + (late ? ": more than 5 seconds" : ": died"));
  }
  ::munmap(progress, sizeof(Progress));
  return failed;
}

// What an argument names: a file, or a sample, or all of these; with the change behind "@" alone.
void addSubjects(const std::string& argument, std::vector<Subject>& subjects) {
  const std::string name = argument.substr(0, argument.find('@'));
  std::vector<std::pair<std::string, std::string>> paths;
  const auto samples = sampleFiles();
  for (const auto& [sample, file] : samples) {
    if (name == sample || name == "samples") paths.emplace_back(sample, file.write());
  }
  if (name == "recording") {
    subjects.push_back({name, recording(), {}});
  } else if (paths.empty()) {
    paths.emplace_back(name, name);
  }
  for (const auto& [shown, path] : paths) {
    subjects.push_back({shown, fileBytes(path), {}});
  }
  const TempDir dir;
  for (Subject& subject : subjects) {
    if (!subject.content.empty()) continue;
    const std::string path = dir.path(std::to_string(&subject - subjects.data()));
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(subject.bytes.data()),
               static_cast<std::streamsize>(subject.bytes.size()));
    if (recoverFile(path, path + ".out").lossless()) {
      subject.content = recoveredContent(path + ".out");
    }
  }
  if (name != argument) {
    subjects.back().mutations = {Mutation::of(argument.substr(name.size() + 1))};
  }
}

}  // namespace
}  // namespace tolvex::test

int main(int argc, char** argv) {
  using namespace tolvex::test;
  if (argc < 4) return 2;
  const double seconds = std::strtod(argv[1], nullptr);
  auto seed = static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, 10));
  if (seed == 0) seed = std::random_device()();
  std::printf("seed %u\n", seed);
  std::fflush(stdout);
  setDiagnosticHandler([](void* /*user*/, const char* /*text*/) {}, nullptr);
  std::vector<Subject> subjects;
  for (int i = 3; i < argc; ++i) addSubjects(argv[i], subjects);
  std::mt19937 random(seed);
  for (Subject& subject : subjects) {
    if (subject.mutations.empty()) subject.mutations = mutationsOf(subject.bytes, random);
    if (seconds > 0) std::shuffle(subject.mutations.begin(), subject.mutations.end(), random);
  }
  // A few of each file in turn, so that all have theirs when the time is over.
  const std::size_t batch = seconds > 0 ? 20 : 1000;
  const auto start = std::chrono::steady_clock::now();
  unsigned failed = 0;
  std::size_t tried = 0;
  for (std::size_t first = 0, before = 1; tried != before; first += batch) {
    before = tried;
    for (const Subject& subject : subjects) {
      const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
      if (first >= subject.mutations.size() || (seconds > 0 && spent.count() > seconds)) continue;
      const std::size_t last = std::min(first + batch, subject.mutations.size());
      failed += tryAll(subject, first, last);
      tried += last - first;
    }
  }
  std::printf("%zu changes, %u failed\n", tried, failed);
  return failed == 0 ? 0 : 1;
}
