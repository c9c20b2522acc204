// How the commands write their results: whole or not at all, and not without end.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "tests/cli/Program.h"

namespace tolvex {
namespace {

using namespace test;
namespace fs = std::filesystem;

// With 100 records each.
FileBuilder twoGroups() {
  FileBuilder file;
  std::vector<Bytes> records;
  for (std::uint8_t i = 0; i < 100; ++i) {
    records.push_back(packed(i * 1.0, i));
  }
  file.signalGroup({{.name = "x", .byteOffset = 8}}, records);
  file.signalGroup({{.name = "x", .byteOffset = 8}}, records);
  return file;
}

// `blocks` times 4 MiB of zeros in as many times 4 KiB, as records of 16 bytes.
FileBuilder bomb(std::size_t blocks) {
  constexpr std::size_t kBlockBytes = 4 << 20;
  constexpr std::uint32_t kRecordBytes = 16;
  FileBuilder file;
  std::vector<Link> data = {file.dz(Bytes(kBlockBytes))};
  while (data.size() < blocks) {
    data.push_back(file.copy(data[0]));
  }
  file.signalGroup(
      {{.name = "x", .byteOffset = 8}},
      {.name = "bomb", .records = blocks * kBlockBytes / kRecordBytes, .dataBytes = kRecordBytes},
      file.hl(file.dl(data, kBlockBytes)));
  return file;
}

class OutputTest : public testing::Test {
 protected:
  std::set<std::string> names() const {
    std::set<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(dir_.path(""))) {
      names.insert(entry.path().filename());
    }
    return names;
  }
  void put(const std::string& name, const std::string& text) const {
    std::ofstream(dir_.path(name), std::ios::binary) << text;
  }

  TempDir dir_;
  const FileBuilder groups_ = twoGroups();
  const std::string raw_ = realFile("raw-00000005.MF4");
  const std::string unfinalized_ = realFile("unfinalized-00000170.MF4");
};

TEST_F(OutputTest, RecoverLeavesFilesThatLookLikeItsOwnAlone) {
  const std::string in = dir_.path("drive.mf4.recovering");
  fs::copy_file(unfinalized_, in);
  const std::string before = contentOf(in);
  runTolvex("recover " + in + " -o " + dir_.path("drive.mf4"), 0);
  EXPECT_EQ(contentOf(in), before);
  put("none.mf4.recovering", "a stranger's");
  runTolvex("recover " + dir_.path("none") + " -o " + dir_.path("none.mf4"), 1, "No such file");
  EXPECT_EQ(contentOf(dir_.path("none.mf4.recovering")), "a stranger's");
  runTolvex("doctor " + dir_.path("drive.mf4"), 0);
}

TEST_F(OutputTest, RecoverKeepsThePermissionsOfItsInput) {
  const std::string in = dir_.path("in.mf4");
  const std::string out = dir_.path("out.mf4");
  fs::copy_file(unfinalized_, in);
  for (const mode_t mode : {0600U, 0664U}) {
    ::chmod(in.c_str(), mode);
    runTolvex("recover --force " + in + " -o " + out, 0);
    struct stat status = {};
    ::stat(out.c_str(), &status);
    EXPECT_EQ(status.st_mode & 0777U, mode);
  }
}

TEST_F(OutputTest, WritesThroughLinksAndIntoWhatIsNoFile) {
  const std::string input = groups_.write();
  const std::string csv = runTolvex("export " + input + " --dg 0", 0).out;
  const std::string recovered = dir_.path("recovered.mf4");
  runTolvex("recover " + raw_ + " -o " + recovered, 0);
  const std::string dg = "export " + input + " --dg 0 -o ";
  EXPECT_EQ(runTolvex(dg + "/dev/stdout", 0).out, csv);
  EXPECT_EQ(runTolvex(dg + "/dev/stdout | cat", 0).out, csv);
  EXPECT_EQ(runTolvex(dg + "/dev/null", 0).out, "");
  EXPECT_EQ(runTolvex("recover " + raw_ + " -o /dev/stdout", 0).out.size(),
            contentOf(recovered).size());
  const std::string pipe = dir_.path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(runTolvex(dg + pipe + " & cat " + pipe, 0).out, csv);
  EXPECT_TRUE(fs::is_fifo(pipe));
  put("target", "old");
  fs::create_symlink("target", dir_.path("link"));
  runTolvex(dg + dir_.path("link --force"), 0);
  EXPECT_TRUE(fs::is_symlink(dir_.path("link")));
  EXPECT_EQ(contentOf(dir_.path("target")), csv);
  runTolvex(dg + dir_.path(""), 1, "Is a directory");
  runTolvex("recover " + raw_ + " -o " + dir_.path(""), 1, "Is a directory");
}

TEST_F(OutputTest, OverwritesNothingUnlessItIsForced) {
  const std::string input = groups_.write();
  const std::string folder = dir_.path("folder");
  const std::string name = "folder/dg1_cg0_signals.csv";
  const std::pair<std::string, std::string> cases[] = {
      {"export " + input + " --dg 0 -o " + dir_.path("out"), "out"},
      {"export " + input + " -o " + folder, name},
      {"recover " + raw_ + " -o " + dir_.path("out"), "out"},
      {"record /dev/null -o " + dir_.path("out"), "out"}};
  fs::create_directory(folder);
  for (const auto& [arguments, file] : cases) {
    put(file, "old");
    const std::set<std::string> before = names();
    runTolvex(arguments, 2, dir_.path(file) + ": exists; --force overwrites it");
    EXPECT_EQ(contentOf(dir_.path(file)), "old");
    EXPECT_EQ(names(), before);
    if (arguments.starts_with("record")) continue;
    runTolvex(arguments + " --force", 0);
    EXPECT_NE(contentOf(dir_.path(file)), "old");
    fs::remove_all(folder);
    fs::create_directory(folder);
  }
  for (const std::string& arguments : {"recover " + raw_, std::string("record /dev/null")}) {
    runTolvex(arguments + " -o -", 2, "standard output");
  }
  EXPECT_EQ(runTolvex("export " + input + " --dg 0 -o -", 0).out,
            runTolvex("export " + input + " --dg 0", 0).out);
}

// A disk that is full, and a limit that the result exceeds.
TEST_F(OutputTest, LeavesEverythingAsItWasWhenAResultCannotBeWritten) {
  const std::string input = groups_.write();
  fs::create_directory(dir_.path("folder"));
  const std::string first = "folder/dg0_cg0_signals.csv";
  for (const char* name : {"out", first.c_str()}) {
    put(name, "old");
  }
  const std::set<std::string> before = names();
  const struct {
    std::string arguments;
    std::string limit;  // bytes, less than the result has
  } cases[] = {{"recover --force " + raw_ + " -o " + dir_.path("out"), "20k"},
               {"recover --verify " + unfinalized_ + " -o " + dir_.path("new"), "1000"},
               {"export --force " + input + " --dg 0 -o " + dir_.path("out"), "500"},
               {"export --force " + input + " -o " + dir_.path("folder"), "1000"}};
  for (const auto& [arguments, limit] : cases) {
    runTolvex(arguments + " --max-output " + limit, 1, "--max-output");
    EXPECT_EQ(names(), before);
    runTolvexWithin("-f 1", arguments, 1, "File too large");
    EXPECT_EQ(names(), before);
    EXPECT_EQ(contentOf(dir_.path("out")), "old");
    EXPECT_EQ(contentOf(dir_.path(first)), "old");
  }
}

TEST_F(OutputTest, CountsAllThatACommandWritesAgainstItsLimit) {
  const std::string input = groups_.write();
  const std::string csv = runTolvex("export " + input + " --dg 0", 0).out;
  const std::string lines = runTolvex("cat " + raw_, 0).out;
  const std::pair<std::string, std::size_t> results[] = {
      {"export " + input + " --dg 0", csv.size()},
      {"export --force " + input + " --dg 0 -o " + dir_.path("out"), csv.size()},
      {"export --force " + input + " -o " + dir_.path("folder"), 2 * csv.size()},
      {"cat " + raw_, lines.size()}};
  for (const auto& [arguments, size] : results) {
    const auto limited = [&command = arguments](std::size_t bytes) {
      return command + " --max-output " + std::to_string(bytes);
    };
    runTolvex(limited(size), 0);
    runTolvex(limited(0), 0);
    runTolvex(limited(size - 1), 1, std::to_string(size - 1) + " bytes");
  }
}

#ifndef TOLVEX_SANITIZED
TEST_F(OutputTest, HoldsALongNameOnceHoweverManyHaveIt) {
  constexpr std::size_t kMany = 500;
  FileBuilder file;
  const Link name = file.tx(std::string(1 << 20, 'n'));
  const Cn channel = {.name = "x", .byteOffset = 8};
  for (std::size_t i = 0; i < kMany; ++i) {
    file.signalGroup(std::vector<Cn>(i == 0 ? kMany : 1, channel), {.name = "g"}, 0);
  }
  for (const Link block : file.blocks()) {
    if (file.isA(block, "CN") || file.isA(block, "CG")) file.setLink(block, 2, name);
  }
  const std::string path = file.write();
  const auto run = [](const std::string& arguments, int exitCode, const std::string& said = "") {
    runTolvexWithin("-v 307200", arguments, exitCode, said);
  };
  run("info " + path, 0);
  run("info --format json " + path, 0);
  run("export --max-output 1 --dg 0 " + path, 1, "limit of 1 bytes");
  run("export --max-output 1 -o " + dir_.path("out") + ' ' + path, 1, "limit of 1 bytes");
}
#endif

TEST_F(OutputTest, OfTwoRecoveriesIntoOneFileTheLastWins) {
  const std::string out = dir_.path("out.mf4");
  std::set<std::string> results;
  for (const std::string& input : {raw_, unfinalized_}) {
    runTolvex("recover --force " + input + " -o " + out, 0);
    results.insert(runTolvex("cat " + out, 0).out);
  }
  for (int i = 0; i < 10; ++i) {
    RunningTolvex first({"recover", raw_, "-o", out, "--force"});
    RunningTolvex second({"recover", unfinalized_, "-o", out, "--force"});
    EXPECT_EQ(first.wait().exitCode, 0);
    EXPECT_EQ(second.wait().exitCode, 0);
    EXPECT_TRUE(results.contains(runTolvex("cat " + out, 0).out));
    runTolvex("doctor " + out, 0);
    EXPECT_EQ(names(), std::set<std::string>{"out.mf4"});
  }
}

// In the middle of a result that would be very large.
TEST_F(OutputTest, RemovesWhatItBeganWhenASignalEndsIt) {
  const FileBuilder file = bomb(4096);
  const std::string input = file.write();
  const std::vector<std::string> commands[] = {
      {"recover", input, "--force", "-o", dir_.path("out"), "--max-output", "0"},
      {"export", input, "--force", "--dg", "0", "-o", dir_.path("out"), "--max-output", "0"},
      {"export", input, "-o", dir_.path("folder"), "--max-output", "0"}};
  fs::create_directory(dir_.path("folder"));
  put("out", "old");
  const std::set<std::string> before = names();
  for (const auto& command : commands) {
    for (const int signal : {SIGINT, SIGTERM}) {
      SCOPED_TRACE(testing::Message() << command[0] << ", signal " << signal);
      RunningTolvex running(command);
      const auto isWriting = [&] {
        for (const auto& entry : fs::recursive_directory_iterator(dir_.path(""))) {
          std::error_code error;
          if (entry.path().extension() == ".part" && entry.file_size(error) > 1 << 20) {
            return true;
          }
        }
        return false;
      };
      while (!isWriting() && !running.hasEnded()) {
        std::this_thread::yield();
      }
      running.send(signal);
      EXPECT_EQ(running.wait().exitCode, -1);
      EXPECT_EQ(names(), before);
      EXPECT_EQ(contentOf(dir_.path("out")), "old");
    }
  }
}

}  // namespace
}  // namespace tolvex
