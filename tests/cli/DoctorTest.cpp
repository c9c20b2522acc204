// What the doctor says of a file, and how it ends.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/cli/Program.h"

namespace tolvex {
namespace {

using namespace test;
using Json = nlohmann::ordered_json;

TEST(Doctor, SaysWhereWhatIsWrong) {
  FileBuilder file;
  file.setLink(64, 5, file.md("\x1b[2J"));
  const std::string warning = "Warning: 192: MD block: text: expected XML, found \"\\x1B[2J\"\n";
  const Outcome warned = runTolvex("doctor " + file.write());
  EXPECT_EQ(warned.exitCode, 0) << "a warning alone is no failure";
  EXPECT_EQ(warned.out + warned.err, warning);

  file.dg({.recordIdSize = 3});
  const std::string path = file.write();
  const Outcome failed = runTolvex("doctor " + path);
  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_EQ(failed.out, "");
  EXPECT_EQ(failed.err, warning +
                            "Error: 256: DG block: dg_rec_id_size: expected 0, 1, 2, 4 or 8, "
                            "found 3\n");
  const Outcome json = runTolvex("doctor --format json " + path);
  EXPECT_EQ(json.exitCode, 1);
  EXPECT_EQ(json.err, "");
  EXPECT_EQ(Json::parse(json.out)["findings"][1].dump(),
            R"({"severity":"error","position":256,"what":"DG block: dg_rec_id_size",)"
            R"("expected":"0, 1, 2, 4 or 8","found":"3"})");
}

TEST(Doctor, SaysWhatItCannotCheckOrList) {
  FileBuilder file;
  for (int i = 0; i < 1200; ++i) file.dg({.recordIdSize = 3});
  const std::pair<std::string, std::string> rows[] = {
      {"no-such-file.mf4", "tolvex: no-such-file.mf4: No such file or directory\n"},
      {realFile("canmod-gps.dbc"), "id_file: expected \"MDF     \", found \"VERSION \"\n"},
      {file.write(), "found 3\nand 200 more: 1200 errors and 0 warnings in all\n"},
      {realFile("raw-00000005.MF4") + " --format json > /dev/full", "No space left on device\n"},
  };
  for (const auto& [arguments, said] : rows) {
    const Outcome outcome = runTolvex("doctor " + arguments);
    EXPECT_EQ(outcome.exitCode, 1) << arguments;
    EXPECT_TRUE(outcome.err.ends_with(said)) << outcome.err;
  }
}

}  // namespace
}  // namespace tolvex
