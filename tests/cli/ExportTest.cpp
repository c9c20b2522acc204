// tolvex export: signals as CSV.
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>

#include "tests/cli/Program.h"

namespace tolvex {
namespace {

using namespace test;

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
                    {.name = "bytes", .dataType = 12, .byteOffset = 67, .bitCount = 24},
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
          {record(0.1, -31, 1, 1.0 / 3, 1ULL << 62, "over thirty-one bytes and one\nline end", 0),
           record(1, 0, 7, std::numeric_limits<double>::quiet_NaN(), ~std::uint64_t{0}, "", 1)})));
  return file;
}

TEST(Export, WritesEveryKindOfChannel) {
  const FileBuilder file = signals();
  const std::string path = file.write();
  const std::string header = "time,speed [km/h],\"mode, now\",ratio,count,label,bytes,index\n";
  const std::string label = "\"over thirty-one bytes and one\nline end\"";
  EXPECT_EQ(runTolvex("export " + path + " --dg 0", 0).out,
            header +
                "0.1,-2.1,\"on, \"\"really\"\"\",0.3333333333333333,"
                "4.611686018427388e+18," +
                label + ",00abff,0\n1,,?,nan,-1,,00abff,1\n");
  EXPECT_EQ(runTolvex("export " + path + " --dg 0 --raw", 0).out,
            header + "0.1,-31,1,0.3333333333333333,4611686018427387904," + label +
                ",00abff,0\n1,,7,nan,18446744073709551615,,00abff,1\n");
  EXPECT_EQ(runTolvex("export " + path + " --dg 0 --channel index --channel ratio", 0).out,
            "time,ratio,index\n0.1,0.3333333333333333,0\n1,nan,1\n");
}

// Spreadsheets run formulas that they find in a text.
TEST(Export, PutsAnApostropheBeforeFormulasWhenAsked) {
  const std::pair<std::string, std::string> cells[] = {
      {"=1+1", "'=1+1"},   {"=1", "'=1"},         {"@SUM(A1)", "'@SUM(A1)"},
      {"+cmd", "'+cmd"},   {"-2+3", "'-2+3"},     {"-1.5e-3", "-1.5e-3"},
      {"+7", "+7"},        {"-.5", "-.5"},        {"-inf", "'-inf"},
      {"-", "'-"},         {"a=1", "a=1"},        {"\tx", "'\tx"},
      {"\rx", "\"'\rx\""}, {"=a,b", "\"'=a,b\""},
  };
  for (const auto& [text, cell] : cells) {
    SCOPED_TRACE(text);
    FileBuilder file;
    Bytes record = packed(-1.5);
    record.insert(record.end(), text.begin(), text.end());
    file.signalGroup({{.name = text,
                       .dataType = 7,
                       .byteOffset = 8,
                       .bitCount = static_cast<std::uint32_t>(8 * text.size())}},
                     {record});
    const std::string command = "export --dg 0 " + file.write();
    EXPECT_EQ(runTolvex(command + " --safe-csv").out, "time," + cell + "\n-1.5," + cell + "\n");
    EXPECT_EQ(runTolvex(command).out.find('\''), std::string::npos);
  }
}

TEST(Export, NumbersTheRecordsOfAGroupWithoutTime) {
  FileBuilder file;
  const Link channel = file.cn({.name = "x"});
  const Link group = file.cg({.channels = {channel}, .records = 3, .dataBytes = 1});
  file.dg({.groups = {group}, .data = file.dt({5, 6, 7})});
  EXPECT_EQ(runTolvex("export " + file.write() + " --dg 0").out, "record,x\n0,5\n1,6\n2,7\n");
}

TEST(Export, WritesAFileForEveryGroupIntoAFolder) {
  FileBuilder file = signals();
  file.signalGroup({{.name = "y", .byteOffset = 8}}, {packed(0.25, std::uint8_t{200})});
  const Link unsorted = file.signalGroup({}, {packed(0.0)});
  file.setByte(file.dataPosition(unsorted), 1);
  const std::string path = file.write();
  const TempDir dir;
  const std::string folder = dir.path("new/folder");
  EXPECT_EQ(runTolvex("export " + path + " -o " + folder, 3, "data group 2 is unsorted").out, "");
  EXPECT_EQ(contentOf(folder + "/dg0_cg0_one_of_each.csv"),
            runTolvex("export " + path + " --dg 0").out);
  EXPECT_EQ(contentOf(folder + "/dg1_cg0_signals.csv"), "time,y\n0.25,200\n");
  EXPECT_FALSE(std::filesystem::exists(folder + "/dg2_cg0_signals.csv"));
  runTolvex("export " + path + " --dg 2", 1);
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
  EXPECT_EQ(runTolvex("export " + file.write() + " --dg 0", 3, "4 of 1000 records").out,
            "time,x\n0,0\n1,1\n2,2\n3,3\n");
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
    runTolvex(command + output, 2, "is the input itself");
  }
  EXPECT_EQ(contentOf(path), before);
}

}  // namespace
}  // namespace tolvex
