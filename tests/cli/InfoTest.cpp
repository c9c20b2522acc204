// tolvex info: what it says of a file, and of several.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/cli/Program.h"

namespace tolvex {
namespace {

using namespace test;
using Json = nlohmann::ordered_json;

bool holds(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(Info, DescribesAFileInJson) {
  const std::string decoded = realFile("decoded-00000005.mf4");
  Json file = Json::parse(runTolvex("info " + decoded + " --format json", 0).out);
  ASSERT_EQ(file["groups"].size(), 9U);
  Json group = file["groups"][2];
  for (const char* const name : {"file", "groups", "files"}) file.erase(name);
  EXPECT_EQ(file.dump(),
            R"({"size":285112,"version":"4.11","program":"amdf700d",)"
            R"("start_time_ns":1627274454000000000,"first_time_ns":1627276799721150000,)"
            R"("last_time_ns":1627276844313200000,"first_time_s":2345.72115,)"
            R"("last_time_s":2390.3132,"buses":[],"notices":[]})");
  EXPECT_EQ(group["channels"][2].dump(),
            R"({"cn":2,"name":"Latitude","unit":"deg","comment":"Latitude","channel_type":0,)"
            R"("sync_type":0,"data_type":4,"byte_offset":9,"bit_offset":0,"bit_count":64,)"
            R"("conversion_type":0,"parent":null,"shape":[],"type":"float64",)"
            R"("raw_type":"float64","fault":null,"source":""})");
  group.erase("channels");
  EXPECT_EQ(group.dump(), R"({"dg":2,"cg":0,"name":"CAN2 message ID=0x3 from 0x3","records":41,)"
                          R"("record_size":26,"unsorted":false,"duration_s":41.98239999999987,)"
                          R"("stated_records":41,"first_time_ns":1627276800470800000,)"
                          R"("last_time_ns":1627276842453200000,"first_time_s":2346.4708,)"
                          R"("last_time_s":2388.4532,)"
                          R"("comment":"CAN2 - message \"gnss_pos\" 0x3 from 0x3","source":""})");
}

TEST(Info, DescribesAFileOnOneScreen) {
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
                "  first    2021-07-26T04:40:54.75Z, 0.500000 s\n"
                "  last     2021-07-26T04:40:56.25Z, 2.000000 s\n"
                "  groups   1\n"
                "\n"
                "dg 0 cg 0  signals\n"
                "  2 records of 12 bytes, 1.500 s\n"
                "  NAME           UNIT  TYPE                   BITS  CONVERSION\n"
                "  time                 float 64, master time  64\n"
                "  Geschw\xC3\xB6hnlich  km/h  int 16 BE              16    linear conversion\n"
                "  bad\xEF\xBF\xBD                 string                 16\n");
  const Json json = Json::parse(runTolvex("info " + path + " --format json", 0).out);
  EXPECT_EQ(json["groups"][0]["duration_s"], 1.5);
}

// On bus 1 a standard frame of 2 bytes at 0, 1 and 3 s and an extended one of none, on bus 2 an FD
// frame that switches the rate, and an error.
FileBuilder busLog() {
  FileBuilder file;
  const BusLayout data = dataFrames(64);
  const auto standard = [&](double time) {
    return busRecord(data, time, {{"BusChannel", 1}, {"ID", 0x123}, {"DLC", 2}}, {1, 2});
  };
  file.busLog(
      data,
      {standard(0), standard(1),
       busRecord(data, 2, {{"BusChannel", 1}, {"ID", 0x1234567}, {"IDE", 1}, {"DLC", 0}}),
       busRecord(data, 2, {{"BusChannel", 2}, {"ID", 0x7FF}, {"DLC", 9}, {"EDL", 1}, {"BRS", 1}},
                 Bytes(12)),
       standard(3)});
  const BusLayout errors = errorFrames();
  file.busLog(errors, {busRecord(errors, 3, {{"BusChannel", 2}, {"ID", 0x12}})});
  return file;
}

TEST(Info, CountsTheFramesOfEachBus) {
  const FileBuilder file = busLog();
  const std::string command = "info " + file.write() + " --bit-rate 1000 --data-bit-rate 2000";
  // 3 * 63 + 67 bits in 3 s; 30 bits, 128 of double speed, and an error frame of 17 in 1 s.
  const std::string text = runTolvex(command, 0).out;
  EXPECT_TRUE(holds(text,
                    "\nbus 1\n  4 frames, 1.0 per second, load 8.5 %\n"
                    "  ID        FRAMES  PER SECOND  BYTES  KIND\n"
                    "  123       3       0.667       2\n"
                    "  01234567  1                   0\n"
                    "\nbus 2\n  1 frames and 1 error frames, 1.0 per second, load 11.1 %\n"
                    "  ID   FRAMES  PER SECOND  BYTES  KIND\n"
                    "  7FF  1                   12     FD\n"))
      << text;
  const Json buses = Json::parse(runTolvex(command + " --format json", 0).out)["buses"];
  ASSERT_EQ(buses.size(), 2U);
  EXPECT_EQ(buses[0]["ids"][0].dump(),
            R"({"id":291,"extended":false,"frames":3,"remote_frames":0,"fd_frames":0,)"
            R"("fewest_bytes":2,"most_bytes":2,"first_time_s":0.0,"last_time_s":3.0,)"
            R"("frames_per_s":0.6666666666666666})");
  EXPECT_NEAR(buses[1]["load"].get<double>(), 0.111, 1e-12);
}

// A device's texts, who wrote the file, and a recording that says less than it holds.
TEST(Info, TellsWhereAFileIsFromAndWhatItIsTakenFor) {
  FileBuilder file({.startTimeNs = 2'000'000'000, .timeFlags = 1});
  constexpr Link kHeader = 64;
  file.setLink(kHeader, 5,
               file.md("<HDcomment><TX> on\nice </TX><common_properties><tree name='Device'>"
                       "<e name='serial'>3BA</e><e name='none'/></tree></common_properties>"
                       "</HDcomment>"));
  file.setLink(kHeader, 1,
               file.block("FH",
                          {0, file.md("<FHcomment><TX>made</TX><tool_id>T</tool_id>"
                                      "<tool_version>1.0</tool_version></FHcomment>")},
                          packed(std::uint64_t{3'500'000'000}, std::uint64_t{0})));
  file.setLink(
      kHeader, 3,
      file.block("AT", {0, file.tx("in.dbc"), file.tx("text/plain"), 0},
                 packed(std::uint64_t{3}, std::uint64_t{0}, std::uint64_t{0}, std::uint64_t{500},
                        std::uint64_t{3}, std::uint16_t{1}, std::uint8_t{2})));
  file.setLink(kHeader, 4,
               file.block("EV", {0, 0, 0, file.tx("brake"), 0},
                          packed(std::uint32_t{0x04000106}, std::uint32_t{0}, std::uint32_t{0},
                                 std::uint32_t{0}, std::int64_t{1500}, 1e-3)));
  const Link pair = file.chain({file.cn({.name = "lo", .byteOffset = 8})});
  file.signalGroup({{.name = "pair", .dataType = 10, .byteOffset = 8, .children = {pair}},
                    {.name = "odd", .type = 77, .byteOffset = 8},
                    {.name = "x", .byteOffset = 8}},
                   {.name = "g", .records = 0, .dataBytes = 9},
                   file.dt(joined({packed(0.5, std::uint8_t{1}), packed(1.5, std::uint8_t{2})})));
  const std::string command = "info " + file.write();
  const std::string text = runTolvex(command, 0, "was not finished").out;
  for (const char* const part :
       {"  start    1970-01-01T00:00:02\n", "  first    1970-01-01T00:00:02.5, 0.500000 s\n",
        "  comment  on\\nice\n", "  note     a recording that was not finished: ",
        "\nproperties\n  Device.serial: 3BA\n\nhistory\n",
        "  1970-01-01T00:00:03.5Z  T 1.0                made\n",
        "  in.dbc  text/plain  500    3 bytes, compressed\n",
        "  1.500000 s  marker  user   brake\n",
        "  2 records of 9 bytes, 1.000 s; the file states 0\n", "  pair.lo        uint 8",
        "  odd has no values: channels of type 77"}) {
    EXPECT_TRUE(holds(text, part)) << part << text;
  }
  EXPECT_FALSE(holds(text, "none")) << text;
  const Json json = Json::parse(runTolvex(command + " --format json", 0).out);
  const Json& channels = json["groups"][0]["channels"];
  EXPECT_EQ(channels[2]["name"], "pair.lo");
  EXPECT_EQ(channels[2]["parent"], 1);
  EXPECT_TRUE(channels[2]["cn"].is_null());
  EXPECT_EQ(channels[3]["fault"], "channels of type 77 are not supported");
  EXPECT_EQ(channels[4]["cn"], 3);
  EXPECT_EQ(json["groups"][0]["records"], 2);
  const Json& described = json["files"][0];
  EXPECT_EQ(described["start_is_local"], true);
  EXPECT_EQ(described["properties"].size(), 2U);
  EXPECT_EQ(described["history"][0]["tool_version"], "1.0");
  EXPECT_EQ(described["attachments"][0]["stored_size"], 3);
  EXPECT_EQ(described["events"][0]["type_text"], "marker");
  EXPECT_EQ(described["notices"], json["notices"]);
}

// The first time that there is does not begin a second.
TEST(Info, TellsAnyStartTime) {
  FileBuilder file({.startTimeNs = std::uint64_t{1} << 63});
  file.signalGroup({{.name = "x", .byteOffset = 8}}, {packed(0.25, std::uint8_t{7})});
  const std::string text = runTolvex("info " + file.write(), 0).out;
  EXPECT_TRUE(holds(text, "1677-09-21T00:12:43.145224192Z")) << text;
}

TEST(Info, ReadsSeveralFilesAsOne) {
  const TempDir dir;
  const std::string first = dir.path("a.mf4");
  const std::string second = dir.path("a_1.mf4");
  for (const std::uint64_t start : {std::uint64_t{1}, std::uint64_t{0}}) {
    FileBuilder file({.startTimeNs = start * 1'000'000'000});
    file.signalGroup({{.name = "x", .byteOffset = 8}}, {packed(0.25, std::uint8_t{7})});
    std::filesystem::copy_file(file.write(), start == 0 ? first : second);
  }
  const std::string text = runTolvex("info --parts " + first, 0).out;
  EXPECT_TRUE(text.starts_with(first + "\n  size ") && holds(text, "\n\n" + second + "\n  size "))
      << text;
  EXPECT_TRUE(holds(text,
                    "\n2 files as one recording\n"
                    "  first    1970-01-01T00:00:00.25Z, 0.250000 s\n"
                    "  last     1970-01-01T00:00:01.25Z, 1.250000 s\n"
                    "  groups   1\n\ndg 0 cg 0  signals\n  2 records of 9 bytes, 1.000 s\n"))
      << text;
  const Json json = Json::parse(runTolvex("info --format json " + second + ' ' + first, 0).out);
  EXPECT_EQ(json["files"].size(), 2U);
  EXPECT_EQ(json["last_time_s"], 1.25);
  runTolvex("info " + first + ' ' + dir.path("none"), 1, "none: No such file");
}

}  // namespace
}  // namespace tolvex
