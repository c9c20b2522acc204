// How the program is used, how it fails, and what it says of a file.
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <set>

#include "tests/cli/Program.h"

namespace tolvex {
namespace {

using namespace test;

TEST(Program, EndsWithTheCodeAndTheWordsForWhatHappened) {
  const std::string raw = realFile("raw-00000005.MF4");
  const std::string decoded = realFile("decoded-00000005.mf4");
  const struct {
    std::string arguments;
    int exitCode;
    std::string said;  // on the standard error
  } cases[] = {
      {"--version", 0, ""},
      {"-V", 0, ""},
      {"help", 0, ""},
      {"help cat", 0, ""},
      {"--help", 0, ""},
      {"cat --help", 0, ""},
      {"", 2, "info, cat, export, doctor or recover"},
      {"dance", 2, "no command \"dance\"\n"},
      {"inof", 2, "no command \"inof\"; did you mean info?"},
      {"exp", 2, "did you mean export?"},
      {"help ct", 2, "did you mean cat?"},
      {"info", 2, "FILE"},
      {"cat " + raw + " --format xml", 2, "candump,csv,ndjson"},
      {"cat " + raw + " --start nan", 2, "--start"},
      {"export " + decoded, 2, "-o"},
      {"export " + decoded + " --cg 0", 2, "--dg"},
      {"export " + decoded + " --dg -1", 2, "--dg"},
      {"info no-such-file.mf4", 1, "no-such-file.mf4: No such file"},
      {"info " + realFile("canmod-gps.dbc"), 1, "expected \"MDF     \", found \"VERSION \""},
      {"cat " + raw + " --end 2021-13-01", 2, "neither seconds nor a date: 2021-13-01"},
      {"cat " + raw + " --id 0x20000000", 2, "no identifier: 0x20000000"},
      {"info /dev/stdin < /dev/null", 1, "identification"},
      {"info /dev/stdin < " + raw, 0, ""},
      {"--version; } | { '" TOLVEX_PROGRAM "' info /dev/stdin", 1, "/dev/stdin: is a pipe"},
      {"--version; } | { '" TOLVEX_PROGRAM "' doctor /dev/stdin", 1, "/dev/stdin: is a pipe"},
      {"export " + decoded + " --dg 9", 1, "no data group 9"},
      {"export " + decoded + " --dg 0 --channel Nope", 1, "no channel \"Nope\""},
      {"cat " + decoded, 0, "no CAN frames"},
      {"cat " + raw + " > /dev/full", 1, "standard output: No space left"},
      {"info " + raw + " > /dev/full", 1, "standard output: No space left"},
      {"--version > /dev/full", 1, "standard output: No space left"},
      {"export " + decoded + " --dg 8 -o /dev/full", 1, "/dev/full: No space left"},
      {"export " + decoded + " -o " + raw, 1, raw},
  };
  for (const auto& [arguments, exitCode, said] : cases) {
    const Outcome outcome = runTolvex(arguments, exitCode, said);
    EXPECT_EQ(outcome.err.empty(), said.empty()) << outcome.err;
    EXPECT_EQ(outcome.out.empty(), !said.empty()) << outcome.out;
  }
}

TEST(Program, HelpsOnEightyColumns) {
  const Outcome help = runTolvex("help", 0);
  std::size_t commands = 0;
  for (const std::string& line : help.lines()) {
    EXPECT_LE(line.size(), 80U) << line;
    std::smatch match;
    if (!std::regex_match(line, match, std::regex("  ([a-z]+)  .*"))) continue;
    ++commands;
    const std::string command = match[1];
    const Outcome own = runTolvex(command + " --help", 0);
    EXPECT_EQ(runTolvex("help " + command, 0).out, own.out);
    EXPECT_NE(own.out.find("Usage: tolvex " + command + " "), std::string::npos) << own.out;
    for (const std::string& ownLine : own.lines()) EXPECT_LE(ownLine.size(), 80U) << ownLine;
  }
  EXPECT_EQ(commands, 7U) << help.out;
}

// The options of each command, and those that the README has behind its name.
TEST(Program, HasTheOptionsThatTheReadmeNames) {
  const auto optionsIn = [](const std::string& text, const std::string& pattern) {
    std::set<std::string> options;
    const std::regex option(pattern);
    for (std::sregex_iterator it(text.begin(), text.end(), option), end; it != end; ++it) {
      options.insert((*it)[1]);
    }
    options.erase("--help");
    options.erase("--output");  // -o
    return options;
  };
  const std::string readme = contentOf(TOLVEX_TEST_DATA "/../../README.md");
  const std::regex synopsis("\n    tolvex ([a-z]+)([^\n]*(\n     [^\n]*)*)");
  std::size_t commands = 0;
  for (std::sregex_iterator it(readme.begin(), readme.end(), synopsis), end; it != end; ++it) {
    const std::string command = (*it)[1];
    const std::string help = runTolvex(command + " --help", 0).out;
    EXPECT_EQ(optionsIn((*it)[2], "(--[a-z-]+)"), optionsIn(help, "\n  (?:-[a-zA-Z],)?(--[a-z-]+)"))
        << command;
    ++commands;
  }
  EXPECT_EQ(commands, 6U);
}

#ifdef TOLVEX_FAILING_MEMORY
// The first allocations come before main.
TEST(Program, SaysThatThereIsNoMemory) {
  ::setenv("LD_PRELOAD", TOLVEX_FAILING_MEMORY, 1);
  for (int number = 1; number < 200; number += number < 100 ? 4 : 25) {
    ::setenv("TOLVEX_FAILING_ALLOCATION", std::to_string(number).c_str(), 1);
    const Outcome outcome = runTolvex("info " + realFile("raw-00000005.MF4"));
    EXPECT_EQ(outcome.exitCode, 1) << number;
    EXPECT_EQ(outcome.err, "tolvex: out of memory\n") << number;
  }
  ::unsetenv("TOLVEX_FAILING_ALLOCATION");
  ::unsetenv("LD_PRELOAD");
}
#endif

TEST(Program, TakesAClosedPipeForANormalEnd) {
  const std::string file = realFile("raw-00000005.MF4");
  const TempDir dir;
  const std::string code = dir.path("code");
  const Outcome outcome =
      runTolvex("cat " + file + " --format ndjson; echo $? > " + code + "; } | { head -n 1");
  EXPECT_EQ(contentOf(code), "0\n");
  EXPECT_EQ(outcome.lines().size(), 1U);
  EXPECT_EQ(outcome.err, "");
}

}  // namespace
}  // namespace tolvex
