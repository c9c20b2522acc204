// What the commands say of a disk that fails, with the reads of the program's process failing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "tests/cli/Program.h"

namespace tolvex::test {
namespace {

TEST(FailingReadsOfCommands, AreToldWithPositionAndTheSystemsWords) {
#ifdef TOLVEX_SANITIZED
  GTEST_SKIP() << "the sanitizers replace the same calls";
#endif
  const TempDir dir;
  const std::string log = dir.path("in.log");
  {
    std::ofstream lines(log);
    for (int i = 0; i < 4000; ++i) {
      lines << "(" << 1'700'000'000 + i << ".000000) can0 123#" << 10'000'000 + i << '\n';
    }
  }
  const std::string in = dir.path("in.mf4");
  const std::string out = dir.path("out.mf4");
  ASSERT_EQ(runTolvex("record " + log + " -o " + in).exitCode, 0);
  const Outcome before = runTolvex("cat " + in);
  const std::vector<std::string> lines = before.lines();  // in order
  const struct {
    const char* faults;
    std::string arguments;
    int exitCode;
    const char* said;  // on the standard error
  } cases[] = {
      {"0+512", "info " + in, 1, "identification at 0: reading 64 bytes at 0 failed: Input/output"},
      {"1024+512", "info " + in, 3, "at 1024 failed: Input/output error"},
      {"40960+4096", "cat " + in, 3, "at 40960 failed: Input/output error"},
      {"40960+4096", "export " + in + " --dg 2", 3, "at 40960 failed: Input/output error"},
      {"40960+4096", "doctor " + in, 1, "40960: reading 4096 bytes failed: Input/output error"},
      {"40960+4096", "recover --force " + in + " -o " + out, 3,
       "reading 4096 bytes at 40960 failed: Input/output error"},
      {"0+1000000", "recover --force " + in + " -o " + out, 1, "at 64 failed: Input/output error"},
      {"5-0", "recover --force " + in + " -o " + out, 0, ""},
      {"5-1000000", "cat " + in, 3, "failed: Input/output error"},
  };
  for (const auto& [faults, arguments, exitCode, said] : cases) {
    SCOPED_TRACE(std::string(faults) + ": " + arguments);
    ::setenv("TOLVEX_FAILING_READS", (std::string(faults) + ' ' + in).c_str(), 1);
    ::setenv("LD_PRELOAD", TOLVEX_FAILING_READS_MODULE, 1);
    const Outcome outcome = runTolvex(arguments, exitCode, said);
    ::unsetenv("LD_PRELOAD");
    if (exitCode == 0) {
      EXPECT_EQ(runTolvex("cat " + out).out, before.out);
    } else if (arguments.starts_with("cat")) {
      EXPECT_LT(outcome.lines().size(), lines.size());
      EXPECT_TRUE(std::ranges::includes(lines, outcome.lines()));
    }
  }
}

}  // namespace
}  // namespace tolvex::test
