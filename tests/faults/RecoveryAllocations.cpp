// The check and the recovery of files while allocations fail: each gives what it gives else, or
// says that it failed.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <iterator>
#include <string>

#include "Mdf4/MdfRecorder.h"
#include "tests/faults/FailingMemory.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/SampleFiles.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

// A recording as it is when its process is killed: a full block in a list, which nothing counts.
void killRecording(const std::string& path) {
  constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds
  const TempDir dir;
  MdfRecorder recorder;
  ASSERT_EQ(recorder.startRecord(dir.path("log"), kStart), 0);
  MdfCanMessage frame;
  for (std::uint32_t i = 0; i < 600; ++i) {
    frame.MessageId(i);
    recorder.saveCanMessage(kStart + i, frame);
  }
  std::filesystem::copy_file(dir.path("log"), path);
}

std::string textOf(const MdfCheckReport& report) {
  std::string text = std::to_string(report.errors) + ", " + std::to_string(report.warnings);
  for (const MdfFinding& finding : report.findings) {
    text += (finding.error ? "\nerror at " : "\nwarning at ") + std::to_string(finding.position) +
            ": " + finding.what + ": " + finding.expected + ", " + finding.found;
  }
  return text;
}

std::string textOf(const MdfRecoveryReport& report) {
  std::string text;
  const auto add = [&text](const auto& of) {
    for (const std::string& loss : of.losses) text += "\nlost: " + loss;
    for (const std::string& repair : of.repairs) text += "\nrepaired: " + repair;
  };
  add(report);
  for (const MdfRecoveredGroup& group : report.groups) {
    text += "\n" + group.name + ": " + std::to_string(group.records) + " records, " +
            std::to_string(group.lostRecords) + " lost, " + std::to_string(group.foundBlocks);
    add(group);
  }
  return text;
}

// Stands for all of a file's bytes but the time in its history; "" without a file.
std::string digestOf(const std::string& path) {
  std::string bytes = contentOf(path);
  if (bytes.empty()) return {};
  bytes.replace(bytes.rfind("##FH") + 40, 8, 8, '\0');
  return std::to_string(std::hash<std::string>()(bytes));
}

struct Answer {
  std::string failure;
  std::string text;
};

class RecoveryAllocations : public testing::Test {
 protected:
  RecoveryAllocations() {
    killRecording(dir_.path("killed"));
    for (const auto& [name, file] : sampleFiles()) {
      std::filesystem::copy_file(file.write(), dir_.path(name));
    }
  }

  // Asks the same of every file, each time with another allocation failing: the answer is what it
  // is else, or that there is no memory.
  template <class Ask>
  void sweep(Ask ask) {
    for (const char* const name : {"killed", "unsorted-unfinalized", "values", "data-ld"}) {
      SCOPED_TRACE(name);
      const std::string path = dir_.path(name);
      AllocationFault none(~std::uint64_t{0}, false);
      const Answer want = ask(path, none);
      ASSERT_EQ(want.failure, "");
      forEveryAllocation([&](AllocationFault& fault) {
        const Answer answer = ask(path, fault);
        if (answer.failure.empty()) {
          EXPECT_EQ(answer.text, want.text);
        } else {
          EXPECT_TRUE(fault.met() && answer.failure.ends_with("out of memory")) << answer.failure;
        }
      });
    }
  }

  const CapturedDiagnostics diagnostics_;
  const TempDir dir_;
};

TEST_F(RecoveryAllocations, ACheckIsWholeOrFails) {
  sweep([](const std::string& path, AllocationFault& fault) {
    MdfCheckReport report;
    fault.strike([&] { report = checkFile(path); });
    return Answer{report.failure, textOf(report)};
  });
}

TEST_F(RecoveryAllocations, ARecoveryIsWholeOrLeavesNothing) {
  const TempDir dir;
  const std::string result = dir.path("result");
  sweep([&](const std::string& path, AllocationFault& fault) {
    std::filesystem::remove(result);
    MdfRecoverOptions options;
    options.verify = true;
    MdfRecoveryReport report;
    fault.strike([&] { report = recoverFile(path, result, options); });
    EXPECT_EQ(report.failure.empty(), std::filesystem::exists(result));
    EXPECT_EQ(report.failure.empty(), !std::filesystem::is_empty(dir.path("")));
    return Answer{report.failure, digestOf(result) + textOf(report)};
  });
}

}  // namespace
}  // namespace tolvex::test
