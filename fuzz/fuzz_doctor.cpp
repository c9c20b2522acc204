// Checks the input and holds the report against itself and against what the readers make of the
// file.
#include <algorithm>

#include "fuzz/FuzzInput.h"
#include "tolvex/Mdf4.h"

namespace tolvex::fuzz {
namespace {

constexpr std::size_t kMostFindings = 1000;

void checkReport(const MdfCheckReport& report, std::uint64_t size) {
  require(report.failure.empty(), "a file that opens can be checked");
  require(report.findings.size() ==
              std::min<std::uint64_t>(kMostFindings, report.errors + report.warnings),
          "the first 1000 findings are kept");
  std::uint64_t errors = 0;
  for (const MdfFinding& finding : report.findings) {
    require(!finding.what.empty(), "a finding says what is meant");
    require(!finding.expected.empty() || !finding.found.empty(), "a finding says why");
    require(finding.position <= size, "a finding lies in the file");
    errors += finding.error ? 1 : 0;
  }
  require(report.findings.size() == kMostFindings || errors == report.errors, "errors are counted");
  require(errors <= report.errors, "errors are counted");
}

// What nothing is wrong with can be opened, and its groups hold what they state.
void checkReaders(const std::string& path) {
  MdfSigReader reader(path);
  reader.setReadAllGroups(true);
  require(reader.open(), "a sound file opens");
  for (int dg = 0, dgs = reader.getDGCount(); dg < dgs; ++dg) {
    MdfGroupInfo group;
    for (int cg = 0; reader.getGroupInfo(dg, cg, group); ++cg) {
      require(group.unsorted || group.recordSize == 0 ||
                  reader.getStoredRecordCount(dg, cg) >= group.recordCount,
              "a sound group holds its records");
    }
  }
}

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex;
  using namespace tolvex::fuzz;
  const ByteSpan input(data, size);
  Numbers steering = steeringOf(input);
  const WorkSizes sizes = workSizesFrom(steering);
  const MemoryFile file(input);
  std::uint64_t last = 0;
  const MdfCheckReport report = checkFile(
      file.path(),
      [&](std::uint64_t done, std::uint64_t total) {
        require(total == size && last <= done && done <= total, "progress goes on to the end");
        last = done;
      },
      sizes);
  checkReport(report, size);
  if (report.errors == 0) checkReaders(file.path());
  return 0;
}
