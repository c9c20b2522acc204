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
                "4611686018427387904," +
                label + ",0x00abff,0\n1,,?,nan,18446744073709551615,,0x00abff,1\n");
  EXPECT_EQ(runTolvex("export " + path + " --dg 0 --raw", 0).out,
            header + "0.1,-31,1,0.3333333333333333,4611686018427387904," + label +
                ",0x00abff,0\n1,,7,nan,18446744073709551615,,0x00abff,1\n");
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
  const Link broken = file.signalGroup({}, {packed(0.0)});
  file.setByte(file.dataPosition(broken), 9);  // no size of record ids
  const std::string path = file.write();
  const TempDir dir;
  const std::string folder = dir.path("new/folder");
  EXPECT_EQ(runTolvex("export " + path + " -o " + folder, 3,
                      "data group 2 channel group 0: 0 of 1 records could be read")
                .out,
            "");
  EXPECT_EQ(contentOf(folder + "/dg0_cg0_one_of_each.csv"),
            runTolvex("export " + path + " --dg 0").out);
  EXPECT_EQ(contentOf(folder + "/dg1_cg0_signals.csv"), "time,y\n0.25,200\n");
  EXPECT_EQ(contentOf(folder + "/dg2_cg0_signals.csv"), "time\n");
  runTolvex("export " + path, 2, "--join makes them one");
}

Cn number(const std::string& name, std::uint32_t byte, std::vector<Link> children = {}) {
  return {.name = name, .byteOffset = byte, .children = std::move(children)};
}

// A structure, an array of two by three, and a channel of a kind that nobody knows.
TEST(Export, WritesMembersAsColumnsAndNamesWhatHasNoValues) {
  FileBuilder file;
  const Link members = file.chain({file.cn(number("lo", 8)), file.cn(number("hi", 9))});
  const Link array =
      file.block("CA", {0},
                 packed(std::uint8_t{0}, std::uint8_t{0}, std::uint16_t{2}, std::uint32_t{0},
                        std::int32_t{1}, std::uint32_t{0}, std::uint64_t{2}, std::uint64_t{3}));
  Cn pair = number("pair", 8, {members});
  pair.dataType = 10;
  pair.bitCount = 16;
  Cn odd = number("odd", 8);
  odd.type = 77;
  file.signalGroup({pair, number("map", 8, {array}), odd}, {packed(0.5, 1, std::uint16_t{0x0605})});
  const std::string path = file.write();
  const std::string said = "data group 0 channel group 0: odd has no values: channels of type 77";
  const std::string all = "export " + path;
  const Outcome outcome = runTolvex(all, 0, said);
  EXPECT_EQ(outcome.out,
            "time,pair,pair.lo,pair.hi,map[0][0],map[0][1],map[0][2],map[1][0],map[1][1],map[1][2],"
            "odd\n0.5,0x0100,1,0,1,0,0,0,5,6,\n");
  EXPECT_EQ(outcome.err.find(said), outcome.err.rfind(said));
  const std::pair<const char*, const char*> selections[] = {
      {"'pair.*'", "time,pair.lo,pair.hi\n0.5,1,0\n"},
      {"'map[?][2]' --channel pair", "time,pair,map[0][2],map[1][2]\n0.5,0x0100,0,6\n"},
      {"'*o*'", nullptr},
      {"time", "time\n0.5\n"},
      {"'*[1][2]'", "time,map[1][2]\n0.5,6\n"}};
  for (const auto& [channel, csv] : selections) {
    const Outcome some = runTolvex(all + " --channel " + channel, 0, csv == nullptr ? said : "");
    EXPECT_EQ(some.out, csv == nullptr ? "time,pair.lo,odd\n0.5,1,\n" : csv);
  }
  runTolvex(all + " --channel 'map[2][*'", 1, "no channel \"map[2][*\"");
}

// The times of x are 0.5, 1 and 2.25 s, those of y 1 and 3 s; one record of y has none.
FileBuilder twoRates(std::int64_t startNs = 1'600'000'000'000'000'000) {
  FileBuilder file({.startTimeNs = static_cast<std::uint64_t>(startNs)});
  const Link unit = file.tx("V");
  const Link states = file.cc(
      {.type = 7, .values = {7}, .refs = {file.tx("on"), file.cc({.type = 1, .values = {0, 1}})}});
  file.signalGroup(
      {{.name = "x", .byteOffset = 8, .unit = unit},
       {.name = "s", .byteOffset = 8, .conversion = states}},
      {packed(0.5, std::uint8_t{1}), packed(1.0, std::uint8_t{2}), packed(2.25, std::uint8_t{7})});
  file.signalGroup({{.name = "x", .dataType = 2, .byteOffset = 8}},
                   {packed(1.0, std::int8_t{-1}),
                    packed(std::numeric_limits<double>::infinity(), std::int8_t{0}),
                    packed(3.0, std::int8_t{-4})});
  return file;
}

TEST(Export, JoinsAndResamplesGroupsByTime) {
  const FileBuilder file = twoRates();
  const std::string command = "export " + file.write() + ' ';
  const std::string lost = "1 records have no time";
  const struct {
    std::string options;
    int exitCode;
    std::string want;
  } cases[] = {
      {"--join", 3, "time [s],dg0_cg0.x [V],s,dg1_cg0.x\n0.5,1,1,\n1,2,2,-1\n2.25,7,on,\n3,,,-4\n"},
      {"--join --raster 1", 3,
       "time [s],dg0_cg0.x [V],s,dg1_cg0.x\n1,2,2,-1\n2,2,2,-1\n3,7,on,-4\n"},
      {"--join --raster 0.5 --interpolate --channel x", 3,
       "time [s],dg0_cg0.x [V],dg1_cg0.x\n0.5,1,\n1,2,-1\n1.5,4,-1.75\n2,6,-2.5\n2.5,7,-3.25\n"
       "3,7,-4\n"},
      {"--dg 0 --raster 1 --time iso --channel s", 0,
       "time,s\n2020-09-13T12:26:41.000000000Z,2\n2020-09-13T12:26:42.000000000Z,2\n"},
      {"--dg 0 --time absolute --channel s", 0,
       "time,s\n1600000000.500000000,1\n1600000001.000000000,2\n1600000002.250000000,on\n"},
      {"--dg 1 --time iso", 0,
       "time,x\n2020-09-13T12:26:41.000000000Z,-1\n,0\n2020-09-13T12:26:43.000000000Z,-4\n"},
      {"--dg 1", 0, "time,x\n1,-1\ninf,0\n3,-4\n"},
      {"--dg 0 --start 1 --end 2.25 --channel x", 0, "time,x [V]\n1,2\n"},
      {"--dg 1 --start=-5 --end 2020-09-13T12:26:43.000000001Z", 0, "time,x\n1,-1\n3,-4\n"},
      {"--join --start 1600000001.1 --channel x", 0,
       "time [s],dg0_cg0.x [V],dg1_cg0.x\n2.25,7,\n3,,-4\n"},
      {"--dg 0 --raster 0.5 --start 1.1 --end 2.5 --channel x", 0, "time,x [V]\n1.5,2\n2,2\n"},
  };
  for (const auto& [options, exitCode, want] : cases) {
    EXPECT_EQ(runTolvex(command + options, exitCode, exitCode == 3 ? lost : "").out, want)
        << options;
  }
  for (const char* options : {"--dg 0", "--dg 0 --raster 0.1", "--join"}) {
    runTolvex(command + options + " --start 10", 0,
              "no records in that time; the recording has them from 0.500000 to");
  }
  runTolvex(command + "--dg 0 --end never", 2, "neither seconds nor a date");
  runTolvex(command + "--interpolate", 2, "--raster");
  for (const char* raster : {"0", "-1", "nan", "1e-10", "1e10", "x"}) {
    runTolvex(command + "--join --raster=" + raster, 2, "--raster: a raster has");
  }
}

// Also where a record comes far later than its time, as clocks that were set back have it.
TEST(Export, FindsARangeOfTimesWhereverItIs) {
  constexpr int kLate = 45'000;
  std::vector<Bytes> records;
  for (int i = 0; i < 50'000; ++i) {
    records.push_back(packed(i == kLate ? 19.9995 : i / 1000.0, std::uint8_t(i % 100)));
  }
  FileBuilder file;
  file.signalGroup({{.name = "x", .byteOffset = 8}}, records);
  const std::string path = file.write();
  EXPECT_EQ(runTolvex("export " + path + " --start 19.999 --end 20.001", 0).out,
            "time,x\n19.999,99\n20,0\n19.9995,0\n");
  const std::string told = runTolvex("export " + path + " --start 60", 0).err;
  EXPECT_NE(told.find("from 0.000000 to 49.999000 s"), std::string::npos) << told;
}

TEST(Export, RefusesARasterOfBillionsOfRows) {
  FileBuilder file;
  file.signalGroup({}, {packed(0.0), packed(1e9)});
  const TempDir dir;
  const std::string out = dir.path("out.csv");
  runTolvex("export " + file.write() + " --dg 0 --raster 1e-3 -o " + out, 1,
            "a raster of 0.001 s has more than 1000000000 rows here");
  EXPECT_FALSE(std::filesystem::exists(out));
}

TEST(Export, ReadsSeveralFilesAsOne) {
  const TempDir dir;
  const std::string first = dir.path("drive.mf4");
  for (int i = 10; i >= 0; --i) {
    FileBuilder file({.startTimeNs = 1'000'000'000 * static_cast<std::uint64_t>(i)});
    file.signalGroup({{.name = "x", .byteOffset = 8}}, {packed(0.5, static_cast<std::uint8_t>(i))});
    const std::string path = i == 0 ? first : dir.path("drive_" + std::to_string(i) + ".mf4");
    std::filesystem::copy_file(file.write(), path);
  }
  std::string want = "time [s],x\n";
  for (int i = 0; i <= 10; ++i) {
    want += std::to_string(i) + ".5," + std::to_string(i) + '\n';
  }
  const std::string third = dir.path("drive_3.mf4");
  EXPECT_EQ(runTolvex("export --parts " + first, 0).out, want);
  EXPECT_EQ(runTolvex("export " + third + ' ' + first, 0).out, "time [s],x\n0.5,0\n3.5,3\n");
  runTolvex("export --parts " + third + ' ' + first, 2, "named alone");
  runTolvex("export " + first + ' ' + dir.path("none"), 1, "none: No such file");
  runTolvex("export --dg 0 " + first + ' ' + third + " -o " + third, 2, "is the input itself");
}

// As a recorder leaves it that is killed: it writes the number of records last.
TEST(Export, TakesUnfinishedFilesForWhatIsThere) {
  FileBuilder file;
  file.signalGroup({{.name = "x", .byteOffset = 8}}, {.name = "g", .records = 0, .dataBytes = 9},
                   file.dt(joined({packed(0.5, std::uint8_t{1}), packed(1.5, std::uint8_t{2})})));
  EXPECT_EQ(runTolvex("export " + file.write(), 0, "was not finished").out,
            "time,x\n0.5,1\n1.5,2\n");
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
