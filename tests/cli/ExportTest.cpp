// tolvex export: signals as CSV.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <sstream>

#include "tests/cli/Program.h"
#include "tests/support/HandReader.h"

namespace tolvex {
namespace {

using namespace test;
using Lines = std::vector<std::string>;

std::vector<std::string> cellsOf(const std::string& line) {
  std::vector<std::string> cells;
  std::istringstream text(line);
  for (std::string cell; std::getline(text, cell, ',');) {
    cells.push_back(cell);
  }
  return cells;
}

// One channel of each kind; two records, in the second of which "speed" is invalid.
FileBuilder signals() {
  FileBuilder file;
  const Link texts = file.cc({.type = 7,
                              .values = {0, 1},
                              .refs = {file.tx("off"), file.tx("on, \"really\""), file.tx("?")}});
  file.signalGroup({{.name = "speed",
                     .dataType = 2,
                     .byteOffset = 8,
                     .bitCount = 16,
                     .flags = 2,
                     .conversion = file.cc({.type = 1, .values = {1, 0.1}}),
                     .unit = file.tx("km/h")},
                    {.name = "mode, now", .byteOffset = 10, .conversion = texts},
                    {.name = "ratio", .dataType = 4, .byteOffset = 11, .bitCount = 64},
                    {.name = "count", .byteOffset = 19, .bitCount = 64},
                    {.name = "label", .dataType = 7, .byteOffset = 27, .bitCount = 320},
                    {.name = "bytes", .dataType = 10, .byteOffset = 67, .bitCount = 24},
                    {.name = "index", .type = 6, .bitCount = 0}},
                   {.name = "one/of each", .records = 2, .dataBytes = 70, .invalBytes = 1}, 0);
  const auto record = [](double time, std::int16_t speed, std::uint8_t mode, double ratio,
                         std::uint64_t count, std::string label, std::uint8_t invalid) {
    label.resize(40);
    return joined({packed(time, speed, mode, ratio, count),
                   Bytes(label.begin(), label.end()),
                   {0x00, 0xAB, 0xFF, invalid}});
  };
  const Link dg = file.firstOf("DG");
  file.setLink(
      dg, 2,
      file.dt(joined(
          {record(0.1, -30, 1, 1.0 / 3, 1ULL << 62, "over thirty-one bytes, one\nline end", 0),
           record(1, 0, 7, std::numeric_limits<double>::quiet_NaN(), ~std::uint64_t{0}, "", 1)})));
  return file;
}

TEST(Export, WritesEveryKindOfChannel) {
  const FileBuilder file = signals();
  const std::string path = file.write();
  const std::string header = "time,speed [km/h],\"mode, now\",ratio,count,label,bytes,index\n";
  const std::string label = "\"over thirty-one bytes, one\nline end\"";
  const Outcome physical = runTolvex("export " + path + " --dg 0");
  EXPECT_EQ(physical.exitCode, 0) << physical.err;
  EXPECT_EQ(physical.out, header +
                              "0.1,-2,\"on, \"\"really\"\"\",0.3333333333333333,"
                              "4.611686018427388e+18," +
                              label + ",00abff,0\n1,,?,nan,-1,,00abff,1\n");
  const Outcome raw = runTolvex("export " + path + " --dg 0 --raw");
  EXPECT_EQ(raw.out, header + "0.1,-30,1,0.3333333333333333,4611686018427387904," + label +
                         ",00abff,0\n1,,7,nan,18446744073709551615,,00abff,1\n");
  const Outcome chosen = runTolvex("export " + path + " --dg 0 --channel index --channel ratio");
  EXPECT_EQ(chosen.out, "time,ratio,index\n0.1,0.3333333333333333,0\n1,nan,1\n");
}

TEST(Export, NumbersTheRecordsOfAGroupWithoutTime) {
  FileBuilder file;
  const Link channel = file.cn({.name = "x"});
  const Link group = file.cg({.channels = {channel}, .records = 3, .dataBytes = 1});
  file.dg({.groups = {group}, .data = file.dt({5, 6, 7})});
  EXPECT_EQ(runTolvex("export " + file.write() + " --dg 0").out, "record,x\n0,5\n1,6\n2,7\n");
}

// The decoded file's signals are those that the DBC file finds in the raw file's frames.
TEST(Export, NumbersReadBackAsTheSignalsOfTheRawFrames) {
  std::vector<HandFrame> frames = readFramesByHand(realFile("raw-00000005.MF4"));
  std::erase_if(frames, [](const HandFrame& frame) { return frame.id != 9; });
  const std::vector<DbcMessage> messages = readDbc(realFile("canmod-gps.dbc"));
  const auto message = std::ranges::find(messages, 9U, &DbcMessage::id);
  ASSERT_NE(message, messages.end());
  const Outcome outcome = runTolvex("export " + realFile("decoded-00000005.mf4") + " --dg 8");
  const Lines lines = outcome.lines();
  ASSERT_EQ(lines.size(), frames.size() + 1);
  const Lines header = cellsOf(lines[0]);
  ASSERT_EQ(header.size(), message->signals.size() + 1);
  EXPECT_EQ(header[0], "time [s]");
  for (std::size_t row = 0; row < frames.size(); ++row) {
    const Lines cells = cellsOf(lines[row + 1]);
    ASSERT_EQ(cells.size(), header.size());
    for (std::size_t i = 1; i < cells.size(); ++i) {
      const std::string name = header[i].substr(0, header[i].find(" ["));
      const auto signal = std::ranges::find(message->signals, name, &DbcSignal::name);
      ASSERT_NE(signal, message->signals.end()) << name;
      EXPECT_EQ(std::strtod(cells[i].c_str(), nullptr), signal->decode(frames[row].payload))
          << lines[row + 1];
    }
  }
}

TEST(Export, WritesAFileForEveryGroupIntoAFolder) {
  FileBuilder file = signals();
  file.signalGroup({{.name = "y", .byteOffset = 8}}, {packed(0.25, std::uint8_t{200})});
  const Link unsorted = file.signalGroup({}, {packed(0.0)});
  file.setByte(file.dataPosition(unsorted), 1);
  const std::string path = file.write();
  const TempDir dir;
  const std::string folder = dir.path("new/folder");
  const Outcome outcome = runTolvex("export " + path + " -o " + folder);
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_EQ(outcome.out, "");
  EXPECT_NE(outcome.err.find("data group 2 is unsorted"), std::string::npos) << outcome.err;
  EXPECT_EQ(contentOf(folder + "/dg0_cg0_one_of_each.csv"),
            runTolvex("export " + path + " --dg 0").out);
  EXPECT_EQ(contentOf(folder + "/dg1_cg0_signals.csv"), "time,y\n0.25,200\n");
  EXPECT_FALSE(std::filesystem::exists(folder + "/dg2_cg0_signals.csv"));
  EXPECT_EQ(runTolvex("export " + path + " --dg 2").exitCode, 1);
}

TEST(Export, KeepsTheReadableRecordsOfACutGroup) {
  FileBuilder file;
  Bytes records;
  for (std::uint8_t i = 0; i < 5; ++i) {
    const Bytes record = packed(i * 1.0, i);
    records.insert(records.end(), record.begin(), record.end());
  }
  records.resize(records.size() - 1);
  file.signalGroup({{.name = "x", .byteOffset = 8}},
                   {.name = "cut", .records = 1000, .dataBytes = 9}, file.dt(records));
  const Outcome outcome = runTolvex("export " + file.write() + " --dg 0");
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_EQ(outcome.out, "time,x\n0,0\n1,1\n2,2\n3,3\n");
  EXPECT_NE(outcome.err.find("4 of 1000 records"), std::string::npos) << outcome.err;
}

TEST(Export, NeverWritesIntoItsInput) {
  const FileBuilder file = signals();
  const std::string path = file.write();
  const std::string before = contentOf(path);
  const TempDir dir;
  std::filesystem::create_symlink(path, dir.path("soft"));
  std::filesystem::create_hard_link(path, dir.path("hard"));
  const std::string command = "export " + path + " --dg 0 -o ";
  for (const std::string& output : {path, dir.path("soft"), dir.path("hard")}) {
    const Outcome outcome = runTolvex(command + output);
    EXPECT_EQ(outcome.exitCode, 2) << output;
    EXPECT_NE(outcome.err.find("is the input itself"), std::string::npos) << outcome.err;
  }
  EXPECT_EQ(contentOf(path), before);
}

}  // namespace
}  // namespace tolvex
