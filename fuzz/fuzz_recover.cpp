// Recovers the input: what comes back must be sound, hold what the report says, and come back the
// same when it is recovered in its turn.
#include <unistd.h>

#include <filesystem>

#include "fuzz/FuzzInput.h"
#include "tolvex/Mdf4.h"

namespace tolvex::fuzz {
namespace {

// A file that lives in memory until the object goes.
class Output {
 public:
  explicit Output(const char* name)
      : path_("/dev/shm/fuzz-" + std::to_string(::getpid()) + "-" + name) {}
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  ~Output() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Returns whether the file is beyond any doubt.
bool requireSound(const std::string& path, const MdfRecoveryReport& report) {
  const MdfCheckReport check = checkFile(path);
  for (const MdfFinding& finding : check.findings) {
    if (!finding.error) continue;
    std::fprintf(stderr, "%s at %llu: expected %s, found %s\n", finding.what.c_str(),
                 static_cast<unsigned long long>(finding.position), finding.expected.c_str(),
                 finding.found.c_str());
  }
  require(check.failure.empty() && check.errors == 0, "what comes back is sound");
  MdfSigReader reader(path);
  reader.setReadAllGroups(true);
  require(reader.open(), "what comes back can be opened");
  require(reader.getProblems().empty(), "what comes back is whole");
  require(static_cast<std::size_t>(reader.getDGCount()) == report.groups.size(),
          "each group that comes back is reported");
  for (std::size_t i = 0; i < report.groups.size(); ++i) {
    const int dg = static_cast<int>(i);
    MdfGroupInfo group;
    require(reader.getGroupInfo(dg, 0, group), "a group that comes back is there");
    require(group.recordSize == 0 || group.recordCount == report.groups[i].records,
            "a group has the records that are reported");
    require(!group.unsorted, "what comes back is sorted");
  }
  require(MdfReader(path).open(), "what comes back can be opened for its frames");
  return check.warnings == 0;
}

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex;
  using namespace tolvex::fuzz;
  const ByteSpan input(data, size);
  const bool verify = steeringOf(input).flag();
  const MemoryFile file(input);
  const Output once("once");
  const Output twice("twice");

  const MdfRecoveryReport report = recoverFile(file.path(), once.path(), {verify, nullptr});
  if (!report.failure.empty()) {
    require(!std::filesystem::exists(once.path()), "a failure leaves no output");
    return 0;
  }
  const bool doubtless = requireSound(once.path(), report);
  const MdfRecoveryReport again = recoverFile(once.path(), twice.path(), {!verify, nullptr});
  require(again.failure.empty(), "what came back comes back");
  requireSound(twice.path(), again);
  require(again.lossless() || !doubtless, "what came back comes back without a loss");
  if (!doubtless) return 0;
  require(again.groups.size() == report.groups.size(), "what came back has as many groups again");
  for (std::size_t i = 0; i < again.groups.size(); ++i) {
    require(again.groups[i].records == report.groups[i].records &&
                again.groups[i].name == report.groups[i].name,
            "a group that came back comes back as it is");
  }
  return 0;
}
