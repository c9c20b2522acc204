// tolvex record: logs of can-utils become bus logs that hold the same frames.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/cli/Program.h"

namespace tolvex {
namespace {

using namespace test;
using Lines = std::vector<std::string>;

void writeText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string joinedLines(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += line + '\n';
  }
  return text;
}

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
    ++found;
  }
  return found;
}

// A folder with a log and the measurement file made of it.
class Record : public ::testing::Test {
 protected:
  void writeLog(const Lines& lines) { writeText(log_, joinedLines(lines)); }
  Outcome record(const std::string& options, int exitCode = 0, const std::string& said = "") {
    return runTolvex("record " + log_ + " -o " + output_ + " " + options, exitCode, said);
  }
  static Lines cat(const std::string& path) { return runTolvex("cat " + path, 0).lines(); }
  Lines cat() const { return cat(output_); }
  // Bytes of the record of a group of data frames with up to `payload` bytes.
  static std::uint32_t recordSize(std::uint32_t payload) { return 15 + payload; }
  // The record sizes of the bus-log groups, which stand behind those of start and stop time.
  std::vector<std::uint32_t> recordSizes() const {
    const auto file = nlohmann::json::parse(runTolvex("info " + output_ + " --format json").out);
    std::vector<std::uint32_t> sizes;
    for (const auto& group : file["groups"]) {
      sizes.push_back(group["record_size"]);
    }
    return {sizes.begin() + 2, sizes.end()};
  }
  // Frames 100 us apart, in turn on two channels.
  static Lines manyFrames(unsigned count) {
    Lines lines;
    for (unsigned i = 0; i < count; ++i) {
      char text[80];
      std::snprintf(text, sizeof(text), "(1627274454.%06u) can%u %03X#%08X", 100 * i % 1000000,
                    i % 2, i % 0x800, i);
      lines.emplace_back(text);
      lines.back().replace(1, 10, std::to_string(1627274454 + i / 10000));
    }
    return lines;
  }

  TempDir dir_;
  std::string log_ = dir_.path("drive.log");
  std::string output_ = dir_.path("drive.mf4");
};

// Buses get groups of their own, by which frames of equal time are ordered.
TEST_F(Record, BringsBackTheLoggersFrames) {
  const auto sorted = [](Lines lines) {
    std::ranges::sort(lines);
    return lines;
  };
  const Outcome frames = runTolvex("cat " + realFile("raw-00000005.MF4"));
  writeText(log_, frames.out);
  for (const char* options : {"", "--async --force"}) {
    EXPECT_EQ(record(options, 0, output_ + ": 5477 frames (0 error frames)").out, "");
    EXPECT_EQ(sorted(cat()), sorted(frames.lines())) << options;
  }
}

TEST_F(Record, KeepsEveryKindOfFrame) {
  const std::string bytes64(128, 'A');
  const std::vector<std::pair<std::string, std::string>> logs[] = {
      {{"044#2A366C2BBA", ""},
       {"00000044#", ""},
       {"1FFFFFFF#11", ""},
       {"7FF#R", "7FF#R0"},
       {"00000123#R8", ""},
       {"123#R8_9", ""},
       {"123#1122334455667788_F", ""}},
      {{"123##0", ""},
       {"123##1" + bytes64, ""},
       {"00000123##2AABB", ""},
       {"123##7abcdef", "123##3ABCDEF"},
       {"123##000112233445566778899", "123##0001122334455667788990000"},
       {"123#R8_F", ""},
       {"123#1122334455667788_F", "123#1122334455667788"},
       {"123#1122 T", "123#1122"}},
      {{"20000080#0000000000000000", ""},
       {"20000004#00", ""},
       {"3FFFFFFF#", ""},
       {"21ABCDEF##0" + bytes64, ""},
       {"20ABCDEF##0" + bytes64, ""},
       {"20000001##3AA", "20000001#AA"}},
  };
  for (const auto& frames : logs) {
    Lines lines;
    Lines want;
    for (const auto& [frame, printed] : frames) {
      const std::string start = "(1627274454.00000" + std::to_string(lines.size()) + ") can3 ";
      lines.push_back(start + frame);
      want.push_back(start + (printed.empty() ? frame : printed));
    }
    writeLog(lines);
    for (const char* options : {"--force", "--force --async"}) {
      record(options);
      EXPECT_EQ(cat(), want) << options;
    }
  }
}

TEST_F(Record, TakesTimesChannelsAndDirectionsAsTheyStand) {
  // The second frame is older than the start, the third ends in a carriage return, the last line
  // has no end.
  writeText(log_,
            "(100.5) can0 001#\n"
            "(99.25)   vcan254 002# T \n\n"
            "(101.0000014) bus 003# R\r\n"
            "(102.0000016) vcan0 004#");
  record("--channel bus=7", 0, "can0 and vcan0 both become bus channel 0");
  EXPECT_EQ(cat(), (Lines{"(99.250000) can254 002#", "(100.500000) can0 001#",
                          "(101.000001) can7 003#", "(102.000002) can0 004#"}));
  const Lines csv = runTolvex("cat " + output_ + " --format csv").lines();
  ASSERT_EQ(csv.size(), 5U);
  EXPECT_NE(csv[1].find("-1250000000,99.250000000,254,data,2,0,0,0,0,tx"), std::string::npos);
  EXPECT_NE(csv[2].find("0,100.500000000,0,data,1,0,0,0,0,rx"), std::string::npos);
}

TEST_F(Record, ReportsMalformedLinesAndGoesOn) {
  const std::pair<const char*, const char*> malformed[] = {
      {"can0  123   [2]  11 22", "expected a time such as (1436509052.249713), found \"can0"},
      {"(1) can0 123#", "a time such as"},
      {"(-1.5) can0 123#", "a time such as"},
      {"(99999999999.0) can0 123#", "a time before the year 2262"},
      {"(1.5) can0", "an interface and its frame, found \"can0\""},
      {"(1.5) can0 1234#", "an identifier of 3 or 8 hexadecimal digits"},
      {"(1.5) can0 800#", "an identifier up to 7FF"},
      {"(1.5) can0 80000000#", "an identifier up to 1FFFFFFF"},
      {"(1.5) can0 123#1", "two hexadecimal digits for each byte, found \"1\""},
      {"(1.5) can0 123#112233445566778899", "at most 8 bytes of data, found \"99\""},
      {"(1.5) can0 123#1122334455667788_8", "a data length code from 9 to F"},
      {"(1.5) can0 123#11223344556677_9", "the end of the line, found \"_9\""},
      {"(1.5) can0 123#R9", "a length up to 8"},
      {"(1.5) can0 123##", "a hexadecimal digit of flags, found the end of the line"},
      {"(1.5) can0 20000080#R", "the end of the line, found \"R\""},
      {"(1.5) can0 123#11 \x1b[2J", "the end of the line, found \"\\x1B[2J\""},
      {"(1.5) slcan 123#11", "or --channel NAME=N, found \"slcan\""},
      {"(1.5) can255 123#11", "a number up to 254"},
  };
  Lines lines = {"(1.000000) can0 001#"};
  for (const auto& [line, said] : malformed) {
    lines.emplace_back(line);
  }
  lines.push_back("(1.500000) can0 123##0" + std::string(130, 'A'));
  lines.push_back("(1.500000) can0 " + std::string(1'000'000, 'A'));
  lines.emplace_back("(2.000000) can0 002#");
  writeLog(lines);
  const Outcome outcome =
      record("", 3, "2 frames (0 error frames), 1.000 s, 1 file; lost: 20 malformed lines\n");
  EXPECT_EQ(cat(), (Lines{lines.front(), lines.back()}));
  for (std::size_t i = 0; i < std::size(malformed); ++i) {
    const std::size_t at = outcome.err.find(log_ + ": line " + std::to_string(i + 2) + ": ");
    ASSERT_NE(at, std::string::npos) << malformed[i].first;
    const std::string said = outcome.err.substr(at, outcome.err.find('\n', at) - at);
    EXPECT_NE(said.find(malformed[i].second), std::string::npos) << said;
  }
}

TEST_F(Record, MakesRoomForTheLongestFrame) {
  const std::string error = "(1.000000) can0 20000001##0" + std::string(128, 'A');
  const std::string classic = "(1.000001) can0 001#1122";
  const std::string fd = "(1.000002) can0 001##0" + std::string(40, '1');
  writeLog({classic});
  record("");
  EXPECT_EQ(recordSizes(), (std::vector{recordSize(8)}));
  writeLog({error, classic, fd});
  record("--force");
  EXPECT_EQ(recordSizes().back(), recordSize(20));
  const std::string stream = "record -o " + output_ + " --force";
  runTolvex("--version > /dev/null; cat " + log_ + " | '" TOLVEX_PROGRAM "' " + stream, 0);
  EXPECT_EQ(recordSizes().back(), recordSize(64));
  EXPECT_EQ(cat(), (Lines{error, classic, fd}));

  record("--force --max-data-length 12", 3, "lost: 1 frame cut to fit the records");
  EXPECT_EQ(recordSizes().back(), recordSize(12));
  EXPECT_EQ(cat().back(), "(1.000002) can0 001##0" + std::string(24, '1'));
}

TEST_F(Record, SplitsIntoFilesThatTogetherHoldAllFrames) {
  const Lines lines = manyFrames(30000);
  writeLog(lines);
  const auto following = [&](unsigned number) {
    return dir_.path("drive_" + std::to_string(number) + ".mf4");
  };
  for (const char* options : {"", "--async"}) {
    const Outcome outcome = record(std::string("--split-size 128k ") + options);
    Lines frames = cat();
    unsigned files = 1;
    for (; std::filesystem::exists(following(files)); ++files) {
      const Lines more = cat(following(files));
      frames.insert(frames.end(), more.begin(), more.end());
      std::filesystem::remove(following(files));
    }
    std::filesystem::remove(output_);
    EXPECT_GT(files, 3U);
    EXPECT_NE(outcome.err.find(", " + std::to_string(files) + " files\n"), std::string::npos)
        << outcome.err;
    EXPECT_TRUE(frames == lines) << options;
  }
}

TEST_F(Record, OverwritesOnlyWhenTold) {
  writeLog({"(1.000000) can0 001#"});
  writeText(output_, "precious");
  record("", 2, output_ + ": exists; --force");
  EXPECT_EQ(contentOf(output_), "precious");
  record("--force");
  EXPECT_EQ(cat().size(), 1U);

  std::filesystem::remove(output_);
  const std::string following = dir_.path("drive_7.mf4");
  for (const char* name : {"drive_7.mf4", "drive_07.mf4", "drive_x.mf4", "drive_7.mf4x"}) {
    writeText(dir_.path(name), "precious");
  }
  record("--split-size 1M", 2, following + ": exists; --force");
  EXPECT_FALSE(std::filesystem::exists(output_));
  std::filesystem::remove(following);
  record("--split-size 1M");
}

TEST_F(Record, LeavesAFileThatAppearsWhereASplitWouldGo) {
  const Lines lines = manyFrames(9000);
  RunningTolvex program({"record", "--split-size", "100k", "-o", output_});
  program.feed(lines.front() + '\n');
  while (!std::filesystem::exists(output_) || std::filesystem::file_size(output_) == 0) {
    std::this_thread::yield();
  }
  const std::string following = dir_.path("drive_1.mf4");
  writeText(following, "precious");
  program.feed(joinedLines({lines.begin() + 1, lines.end()}));
  program.send(SIGINT);
  const Outcome outcome = program.wait();
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_EQ(count(outcome.err, following + ": exists"), 1U) << outcome.err;
  EXPECT_EQ(contentOf(following), "precious");
  EXPECT_EQ(cat(), lines);
}

TEST_F(Record, SaysThatASplitSizeIsLessThanAFileReserves) {
  writeLog(manyFrames(100));
  const std::string said = "--split-size 1000 is less than the 23776 bytes";
  EXPECT_EQ(count(record("--split-size 1000", 0, said).err, said), 1U);
  EXPECT_EQ(count(record("--split-size 23776 --force").err, "is less than"), 0U);
}

TEST_F(Record, LeavesAFileToTheRecorderThatHasIt) {
  writeLog({"(1.000000) can0 001#"});
  RunningTolvex first({"record", "-o", output_});
  first.feed("(1.000000) can0 002#\n");
  while (!std::filesystem::exists(output_) || std::filesystem::file_size(output_) == 0) {
    std::this_thread::yield();
  }
  record("--force", 1, output_ + ": locked by another recorder or program");
  first.send(SIGINT);
  EXPECT_EQ(first.wait().exitCode, 0);
  EXPECT_EQ(cat(), Lines{"(1.000000) can0 002#"});
  record("--force --flush-interval 0.001");
  EXPECT_EQ(cat(), Lines{"(1.000000) can0 001#"});
}

TEST_F(Record, NeverWritesIntoItsInput) {
  const Lines lines = {"(1.000000) can0 001#"};
  writeLog(lines);
  std::filesystem::create_hard_link(log_, dir_.path("hard"));
  std::filesystem::create_symlink(log_, dir_.path("soft.mf4"));
  std::filesystem::create_symlink(log_, dir_.path("split_1.mf4"));
  const std::string commands[] = {
      "record " + log_ + " --force -o " + log_,
      "record " + log_ + " --force -o " + dir_.path("hard"),
      "record --force -o " + dir_.path("soft.mf4") + " < " + log_,
      "record " + log_ + " --force --split-size 1M -o " + dir_.path("split.mf4"),
  };
  for (const std::string& command : commands) {
    runTolvex(command, 2, "is the input itself");
  }
  EXPECT_EQ(contentOf(log_), joinedLines(lines));
}

TEST_F(Record, FailsWithTheCodeAndTheWordsForWhatHappened) {
  writeLog({"(1.000000) can0 001#"});
  const struct {
    std::string arguments;
    int exitCode;
    std::string said;
  } cases[] = {
      {log_, 2, "--output is required"},
      {"-o x.mf4 --max-data-length 65", 2, "--max-data-length"},
      {"-o x.mf4 --split-size 5parsec", 2, "--split-size"},
      {"-o x.mf4 --flush-interval -1", 2, "--flush-interval"},
      {"-o x.mf4 --channel can0", 2, "--channel"},
      {"-o x.mf4 --channel can0=255", 2, "--channel"},
      {log_ + " --split-size 1M -o " + dir_.path("dir.old/log"), 2, "has no extension"},
      {"no-such.log -o " + output_, 1, "no-such.log: No such file"},
      {dir_.path("") + " -o " + output_, 1, "Is a directory"},
      {log_ + " -o " + dir_.path("no/such.mf4"), 1, "No such file"},
      {log_ + " --force -o /dev/null", 2, "no regular file"},
      {"- -o " + output_ + " < /dev/null", 1, "standard input: no frames"},
      {realFile("raw-00000005.MF4") + " -o " + output_, 1, "no frames"},
  };
  for (const auto& [arguments, exitCode, said] : cases) {
    EXPECT_EQ(runTolvex("record " + arguments, exitCode, said).out, "");
  }
  EXPECT_FALSE(std::filesystem::exists(output_));
  writeText(output_, "precious");
  runTolvex("record --force -o " + output_ + " < /dev/null", 1);
  EXPECT_EQ(contentOf(output_), "precious");
}

TEST_F(Record, DropsNothingThoughTheQueueIsShort) {
  writeLog(manyFrames(300000));
  record("--async");
  EXPECT_TRUE(runTolvex("cat " + output_).out == contentOf(log_));
}

TEST_F(Record, SaysWhatAFullDiskCost) {
  writeLog(manyFrames(20000));
  for (const char* options : {"", " --async"}) {
    const Outcome outcome =
        runTolvex("--version > /dev/null; ulimit -f 200; '" TOLVEX_PROGRAM "' record " + log_ +
                      " --force -o " + output_ + options,
                  3);
    const std::size_t kept = cat().size();
    EXPECT_GT(kept, 0U);
    const std::string frames = std::to_string(kept) + " frames (0 error frames)";
    const std::string lost = "lost: " + std::to_string(20000 - kept) + " frames not written";
    for (const std::string& said : {std::string("File too large"), frames, lost}) {
      EXPECT_EQ(count(outcome.err, said), 1U) << said << outcome.err;
    }
  }
}

// The file's tree is written with the first frame, long before a pipe or a block is full. What the
// program has not read yet when the signal comes is recorded as well, as the pipe's other end may
// have got the same signal and still hands over what it holds.
TEST_F(Record, CompletesTheFileWhenItIsStopped) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    std::filesystem::remove(output_);
    RunningTolvex program({"record", "-o", output_});
    program.feed("(1.000000) can0 001#\n");
    while (!std::filesystem::exists(output_) || std::filesystem::file_size(output_) == 0) {
      std::this_thread::yield();
    }
    program.feed("(2.000000) can0 002#\n(3.000000) can0 00");
    program.send(signal);
    const Outcome outcome = program.wait();
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(cat(), (Lines{"(1.000000) can0 001#", "(2.000000) can0 002#"}));
  }
}

}  // namespace
}  // namespace tolvex
