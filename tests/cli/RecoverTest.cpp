// tolvex recover: how it is used, and what it says of what comes back.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/cli/Program.h"

namespace tolvex {
namespace {

using namespace test;

class Recover : public testing::Test {
 protected:
  TempDir dir_;
  std::string out_ = dir_.path("out.mf4");
};

TEST_F(Recover, EndsWithTheCodeAndTheWordsForWhatCameBack) {
  const std::string unfinalized = realFile("unfinalized-00000170.MF4");
  const std::string raw = realFile("raw-00000005.MF4");
  const std::string cut = dir_.path("cut.mf4");
  std::filesystem::copy_file(raw, cut);
  std::filesystem::resize_file(cut, 100'000);
  const struct {
    std::string arguments;
    int exitCode;
    std::string said;  // on the standard error
  } cases[] = {
      {unfinalized + " -o " + out_, 0, "\"CAN_DataFrame\": 2010 records"},
      {raw + " --verify -o " + out_, 0, "5477"},
      {cut + " -o " + out_, 3, "lost"},
      {realFile("canmod-gps.dbc") + " -o " + out_, 1, "canmod-gps.dbc"},
      {"no-such-file.mf4 -o " + out_, 1, "no-such-file.mf4: No such file"},
      {raw + " -o /dev/full", 1, "No space left"},
      {raw + " -o " + dir_.path("none/out.mf4"), 1, "No such file"},
      {raw, 2, "-o"},
      {"-o " + out_, 2, "FILE"},
  };
  for (const auto& [arguments, exitCode, said] : cases) {
    SCOPED_TRACE(arguments);
    std::filesystem::remove(out_);
    const Outcome outcome = runTolvex("recover " + arguments);
    EXPECT_EQ(outcome.exitCode, exitCode);
    EXPECT_NE(outcome.err.find(said), std::string::npos) << outcome.err;
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(std::filesystem::exists(out_), exitCode == 0 || exitCode == 3);
    EXPECT_EQ(runTolvex("doctor " + out_).exitCode, std::filesystem::exists(out_) ? 0 : 1);
  }
}

TEST_F(Recover, RefusesToWriteOverItsInputUnderWhateverName) {
  const std::string in = dir_.path("in.mf4");
  std::filesystem::copy_file(realFile("unfinalized-00000170.MF4"), in);
  std::filesystem::create_symlink(in, dir_.path("symbolic"));
  std::filesystem::create_hard_link(in, dir_.path("hard"));
  const std::string before = contentOf(in);
  for (const char* name : {"in.mf4", "symbolic", "hard"}) {
    SCOPED_TRACE(name);
    const Outcome outcome = runTolvex("recover " + in + " -o " + dir_.path(name));
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_NE(outcome.err.find("is the input itself"), std::string::npos) << outcome.err;
    EXPECT_TRUE(contentOf(in) == before);
  }
}

TEST_F(Recover, SaysOfEmptyGroupsOnlyHowManyThereAre) {
  FileBuilder file;
  const auto empty = [&] { file.signalGroup({}, {.name = "empty", .dataBytes = 8}, 0); };
  empty();
  file.signalGroup({}, {packed(0.0), packed(1.0)});
  empty();
  const std::string in = file.write();
  EXPECT_EQ(runTolvex("recover " + in + " -o " + out_, 0).err,
            "tolvex: " + in + ": data group 1, channel group 0 \"signals\": 2 records\ntolvex: " +
                in + ": 2 channel groups without records\n");
}

TEST_F(Recover, BringsBackWhatAnExportOfTheFileHas) {
  const std::string in = realFile("unfinalized-00000002.MF4");
  runTolvex("recover " + in + " -o " + out_, 0);
  const std::string channels = " --channel 'CAN_DataFrame.*'";
  const Outcome direct = runTolvex("export " + in + channels, 0, "an unfinalized recording");
  EXPECT_EQ(direct.lines().size(), 9601U);
  EXPECT_TRUE(direct.out == runTolvex("export " + out_ + channels, 0).out);
}

}  // namespace
}  // namespace tolvex
