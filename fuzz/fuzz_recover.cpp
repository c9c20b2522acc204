// Recovers the input: what comes back must be sound, hold what the report says, and come back the
// same when it is recovered in its turn.
#include <memory>
#include <string>
#include <utility>

#include "Mdf4/recovery/Recovery.h"
#include "fuzz/FuzzInput.h"
#include "tolvex/Mdf4.h"

namespace tolvex::fuzz {
namespace {

MdfRecoveryReport recover(const MemoryFile& input, const MemoryFile& output, bool verify,
                          const WorkSizes& sizes) {
  std::string error;
  std::unique_ptr<SystemFile> in = openSystemFile(input.path(), OpenMode::Read, error);
  std::unique_ptr<SystemFile> out = openSystemFile(output.path(), OpenMode::Create, error);
  require(in != nullptr && out != nullptr, "files in memory open");
  RecoveryResult result = recoverBetween(std::move(in), std::move(out), {verify, nullptr}, sizes);
  if (verify && result.report.failure.empty()) {
    require(verifyRecovery(output.path(), result.checksums, nullptr).empty(),
            "what comes back is what was written");
  }
  return std::move(result.report);
}

// Returns whether the file is beyond any doubt.
bool requireSound(const std::string& path, const MdfRecoveryReport& report) {
  const MdfCheckReport check = checkFile(path);
  for (const MdfFinding& finding : check.findings) {
    if (finding.error) tell(finding);
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
  Numbers steering = steeringOf(input);
  const bool verify = steering.flag();
  const bool twice = steering.flag();
  const WorkSizes sizes = workSizesFrom(steering);
  const MemoryFile file(input);
  const MemoryFile once({});
  const MemoryFile second({});

  const MdfRecoveryReport report = recover(file, once, verify, sizes);
  if (!report.failure.empty()) return 0;
  const bool doubtless = requireSound(once.path(), report);
  if (!twice) return 0;
  const MdfRecoveryReport again = recover(once, second, !verify, {});
  require(again.failure.empty(), "what came back comes back");
  requireSound(second.path(), again);
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
