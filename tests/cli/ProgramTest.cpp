// How the program is used, how it fails, and what it says of a file.
#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <regex>

#include "tests/cli/Program.h"

namespace tolvex {
namespace {

using namespace test;
using Json = nlohmann::ordered_json;

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
      {"info " + realFile("unfinalized-00000170.MF4"), 1, "unfinalized recording"},
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

TEST(Program, DescribesAFileInJson) {
  const std::string decoded = realFile("decoded-00000005.mf4");
  Json file = Json::parse(runTolvex("info " + decoded + " --format json", 0).out);
  ASSERT_EQ(file["groups"].size(), 9U);
  Json group = file["groups"][2];
  file.erase("file");
  file.erase("groups");
  EXPECT_EQ(file.dump(), R"({"size":285112,"version":"4.11","program":"amdf700d",)"
                         R"("start_time_ns":1627274454000000000})");
  EXPECT_EQ(group["channels"][2].dump(),
            R"({"cn":2,"name":"Latitude","unit":"deg","comment":"Latitude","channel_type":0,)"
            R"("sync_type":0,"data_type":4,"byte_offset":9,"bit_offset":0,"bit_count":64,)"
            R"("conversion_type":0})");
  group.erase("channels");
  EXPECT_EQ(group.dump(), R"({"dg":2,"cg":0,"name":"CAN2 message ID=0x3 from 0x3","records":41,)"
                          R"("record_size":26,"unsorted":false,"duration_s":41.98239999999987})");
}

TEST(Program, DescribesAFileOnOneScreen) {
  FileBuilder file({.program = "my\x1b[2J", .startTimeNs = 1'627'274'454'250'000'000});
  file.signalGroup({{.name = "Geschw\xC3\xB6hnlich",
                     .dataType = 3,
                     .byteOffset = 8,
                     .bitCount = 16,
                     .conversion = file.cc({.type = 1, .values = {0, 2}}),
                     .unit = file.tx("km/h")},
                    {.name = "bad\xFF", .dataType = 6, .byteOffset = 10, .bitCount = 16}},
                   {packed(0.5, std::uint32_t{0}), packed(2.0, std::uint32_t{0})});
  const std::string path = file.write();
  EXPECT_EQ(runTolvex("info " + path, 0).out,
            path +
                "\n"
                "  size     " +
                std::to_string(file.size()) +
                " bytes\n"
                "  version  4.10\n"
                "  program  my\\x1B[2J\n"
                "  start    2021-07-26T04:40:54.25Z\n"
                "  groups   1\n"
                "\n"
                "dg 0 cg 0  signals\n"
                "  2 records of 12 bytes, 1.500 s\n"
                "  NAME           UNIT  TYPE                   BITS  CONVERSION\n"
                "  time                 float 64, master time  64\n"
                "  Geschw\xC3\xB6hnlich  km/h  int 16 BE              16    linear conversion\n"
                "  bad\\xFF              string                 16\n");
  const Json json = Json::parse(runTolvex("info " + path + " --format json", 0).out);
  EXPECT_EQ(json["groups"][0]["duration_s"], 1.5);
}

}  // namespace
}  // namespace tolvex
