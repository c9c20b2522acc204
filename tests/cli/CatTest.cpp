// tolvex cat on files of every kind of frame.
#include <gtest/gtest.h>

#include "tests/cli/Program.h"

namespace tolvex {
namespace {

using namespace test;
using Lines = std::vector<std::string>;

constexpr std::uint64_t kStartNs = 1'627'274'454'000'000'000;

// A data group of long frames and one of errors, with times that interleave.
FileBuilder mixedBusLog() {
  FileBuilder file({.startTimeNs = kStartNs});
  const BusLayout data = dataFrames(64);
  file.busLog(
      data,
      {busRecord(data, -0.5, {{"BusChannel", 1}, {"ID", 0x123}, {"DLC", 3}}, {0xAB, 0xCD, 0xEF}),
       busRecord(data, 0.1234565, {{"BusChannel", 2}, {"ID", 0x80000123}, {"DLC", 0}}),
       busRecord(data, 1.5, {{"BusChannel", 1}, {"ID", 0x7FF}, {"DLC", 5}, {"RTR", 1}}),
       busRecord(data, 3,
                 {{"BusChannel", 1},
                  {"ID", 0x1ABCDEF},
                  {"IDE", 1},
                  {"DLC", 9},
                  {"EDL", 1},
                  {"BRS", 1},
                  {"ESI", 1},
                  {"Dir", 1}},
                 {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12})});
  const BusLayout errors = errorFrames();
  file.busLog(
      errors,
      {busRecord(
          errors, 2,
          {{"BusChannel", 1}, {"ID", 0x12}, {"ErrorFlags", 5}, {"DLC", 2}, {"TEC", 7}, {"TREC", 9}},
          {0x55, 0x66})});
  return file;
}

TEST(Cat, PrintsEveryKindOfFrameInTimeOrder) {
  const FileBuilder file = mixedBusLog();
  EXPECT_EQ(runTolvex("cat " + file.write(), 0).lines(),
            (Lines{"(1627274453.500000) can0 123#ABCDEF", "(1627274454.123457) can1 00000123#",
                   "(1627274455.500000) can0 7FF#R5", "(1627274456.000000) can0 20000012#5566",
                   "(1627274457.000000) can0 01ABCDEF##30102030405060708090A0B0C"}));
}

TEST(Cat, StartIsIncludedAndEndIsNot) {
  const FileBuilder file = mixedBusLog();
  const std::string path = file.write();
  const std::pair<const char*, std::size_t> windows[] = {
      {"--start 1.5 --end 3", 2}, {"--start -0.5 --end 0", 1}, {"--end -0.5", 0}, {"--start 3", 1}};
  for (const auto& [window, count] : windows) {
    const Outcome outcome = runTolvex("cat " + path + " " + window, 0);
    EXPECT_EQ(outcome.lines().size(), count) << window;
    EXPECT_EQ(outcome.err.empty(), count > 0) << outcome.err;
  }
  runTolvex("cat " + path + " --start 10 --end 20", 0,
            "no frames in that time; the recording has them from -0.500000 to 3.000000 s");
}

TEST(Cat, CarriesEveryFieldInCsvAndNdjson) {
  const FileBuilder file = mixedBusLog();
  const std::string path = file.write();
  const Lines csv = runTolvex("cat " + path + " --format csv --start 2").lines();
  EXPECT_EQ(
      csv,
      (Lines{"time_ns,time,channel,type,id,extended,fd,brs,esi,dir,srr,rtr,wake_up,single_wire,"
             "dlc,length,data,record,bit_position,error_type,error_flags,tec,rec,"
             "time_offset_brs,time_offset_crc_del,crc,btr_ext_cfg",
             "2000000000,1627274456.000000000,0,error,18,0,0,,,rx,,,,,2,2,5566,,,,5,7,9,0,0,0,0",
             "3000000000,1627274457.000000000,0,data,28036591,1,1,1,1,tx,0,0,0,0,9,12,"
             "0102030405060708090A0B0C,3,0,0,,,,0,0,0,0"}));
  const Lines json = runTolvex("cat " + path + " --format ndjson --start 2 --end 3").lines();
  EXPECT_EQ(json,
            (Lines{R"({"time_ns":2000000000,"time":1627274456.000000000,"channel":0,)"
                   R"("type":"error","id":18,"extended":false,"fd":false,"brs":null,"esi":null,)"
                   R"("dir":"rx","srr":null,"rtr":null,"wake_up":null,"single_wire":null,)"
                   R"("dlc":2,"length":2,"data":"5566","record":null,"bit_position":null,)"
                   R"("error_type":null,"error_flags":5,"tec":7,"rec":9,"time_offset_brs":0,)"
                   R"("time_offset_crc_del":0,"crc":0,"btr_ext_cfg":0})"}));
}

// A frame's code alone says nothing of its payload: zeros would read like a payload of zeros.
TEST(Cat, PrintsFramesWithoutTheirLostPayloads) {
  BusLayout withoutPayload = dataFrames();
  std::erase_if(withoutPayload.fields, [](const BusField& f) { return f.name == "DataBytes"; });
  FileBuilder channelLost;
  channelLost.busLog(withoutPayload,
                     {busRecord(withoutPayload, 0, {{"BusChannel", 1}, {"ID", 1}, {"DLC", 8}}),
                      busRecord(withoutPayload, 1, {{"BusChannel", 1}, {"ID", 2}, {"DLC", 0}}),
                      busRecord(withoutPayload, 2, {{"BusChannel", 1}, {"ID", 3}, {"RTR", 1}})});
  // Values: 2 bytes at 0; beyond the end.
  const BusLayout outside = loggerFrames();
  FileBuilder valueLost;
  valueLost.busLog(
      outside,
      {busRecord(outside, 0, {{"BusChannel", 1}, {"ID", 1}, {"DLC", 2}}, packed(std::uint64_t{0})),
       busRecord(outside, 1e9, {{"BusChannel", 1}, {"ID", 2}, {"DLC", 9}, {"EDL", 1}},
                 packed(std::uint64_t{99}))},
      valueLost.sd(packed(std::uint32_t{2}, std::uint16_t{0xBBAA})));
  const struct {
    const char* name;
    const FileBuilder& file;
    const char* said;
    Lines candump;
    Lines csv;     // what stands from the code to the data
    Lines ndjson;  //
  } cases[] = {
      {"no channel",
       channelLost,
       "1 of 3 frames have lost",
       {"(0.000000) can0 001#", "(1.000000) can0 002#", "(2.000000) can0 003#R0"},
       {",8,8,,0,", ",0,0,,1,", ",0,0,,2,"},
       {R"("dlc":8,"length":8,"data":null)", R"("dlc":0,"length":0,"data":"")",
        R"("dlc":0,"length":0,"data":"")"}},
      {"no value",
       valueLost,
       "1 of 2 frames have lost",
       {"(0.000000) can0 001#AABB", "(1.000000) can0 002##0"},
       {",2,2,AABB,0,", ",9,12,,1,"},
       {R"("dlc":2,"length":2,"data":"AABB")", R"("dlc":9,"length":12,"data":null)"}},
  };
  for (const auto& [name, file, said, candump, csv, ndjson] : cases) {
    SCOPED_TRACE(name);
    const std::string command = "cat " + file.write();
    EXPECT_EQ(runTolvex(command, 3, said).lines(), candump);
    const Lines rows = runTolvex(command + " --format csv", 3, "data group 0").lines();
    const Lines objects = runTolvex(command + " --format ndjson", 3, "data group 0").lines();
    ASSERT_EQ(rows.size(), csv.size() + 1);
    ASSERT_EQ(objects.size(), ndjson.size());
    for (std::size_t i = 0; i < csv.size(); ++i) {
      EXPECT_NE(rows[i + 1].find(csv[i]), std::string::npos) << rows[i + 1];
      EXPECT_NE(objects[i].find(ndjson[i]), std::string::npos) << objects[i];
    }
  }
}

// Errors as common loggers write them, and LIN frames beside them.
TEST(Cat, ShowsErrorsByTheirTypeAndNamesWhatItLeavesOut) {
  const BusLayout errors = typedErrors();
  FileBuilder file;
  std::vector<Bytes> records;
  for (std::uint64_t type = 0; type < 7; ++type) {
    records.push_back(busRecord(errors, 0, {{"BusChannel", 2}, {"ErrorType", type}}));
  }
  file.busLog(errors, records);
  BusLayout lin = errors;
  lin.group = "LIN_Frame";
  lin.groupBus = 3;
  file.busLog(lin, records);
  file.busLog(lin, 0, 0);
  const std::string path = file.write();
  const Outcome candump = runTolvex("cat " + path);
  Lines want;
  for (const char* frame :
       {"00#", "08#0000010000000000", "08#0000020000000000", "08#0000040000000000",
        "08#0000000800000000", "20#0000000000000000", "00#"}) {
    want.push_back("(0.000000) can1 200000" + std::string(frame));
  }
  EXPECT_EQ(candump.lines(), want);
  EXPECT_EQ(candump.exitCode, 0);
  EXPECT_EQ(candump.err,
            "tolvex: " + path + ": LIN_Frame: 7 records are no CAN data, remote or error frames\n");
  const Lines csv = runTolvex("cat --format csv " + path).lines();
  EXPECT_EQ(csv.at(1), "0,0.000000000,1,error,0,0,0,,,rx,,,,,0,0,,,,,0,0,0,0,0,0,0");
  EXPECT_EQ(csv.at(5), "0,0.000000000,1,error,0,0,0,,,rx,,,,,0,0,,,,4,0,0,0,0,0,0,0");
}

// Seconds since the start or since 1970, and dates, on the clock of the file and on others. The
// file's clocks are two hours ahead of UTC.
TEST(Cat, TakesTimesInEveryForm) {
  FileBuilder file(
      {.startTimeNs = kStartNs, .zoneMinutes = 60, .daylightMinutes = 60, .timeFlags = 2});
  const BusLayout layout = dataFrames();
  std::vector<Bytes> records;
  for (std::uint64_t i = 0; i < 100; ++i) {
    records.push_back(busRecord(layout, 0.25 * static_cast<double>(i), {{"ID", i}}));
  }
  file.busLog(layout, records);
  const std::string command = "cat " + file.write() + " --format csv";
  const char* const cases[] = {
      "--start 2 --end 3",
      "--start 1627274456 --end 1627274457.000000000",
      "--start 2021-07-26T04:40:56Z --end 2021-07-26T04:40:57.0Z",
      "--start '2021-07-26 04:40:56' --end 2021-07-26T06:40:57+02:00",
      "--time utc --start 2021-07-26T04:40:56 --end 2021-07-26T05:40:57+0100",
      "--time local --start 2021-07-26T06:40:56 --end 1627281657",
      "--start 1.750000001 --end 2.750000001",
  };
  for (const char* const window : cases) {
    const Lines lines = runTolvex(command + " " + window, 0).lines();
    ASSERT_EQ(lines.size(), 5U) << window;
    const bool isLocal = std::string(window).starts_with("--time local");
    EXPECT_EQ(lines[1].substr(0, 33),
              isLocal ? "2000000000,1627281656.000000000,2" : "2000000000,1627274456.000000000,2")
        << window;
  }
}

TEST(Cat, PrintsTheFramesThatAreChosen) {
  const FileBuilder file = mixedBusLog();
  const std::string path = file.write();
  const struct {
    const char* options;
    std::size_t frames;
    const char* said;
  } cases[] = {
      {"--id 0x123", 2, ""},
      {"--id 291,0x7ff --bus 1", 2, ""},
      {"--bus can1", 1, ""},
      {"--bus 1 --bus 2 --start 0 --end 2", 2, ""},
      {"--id 0x124", 0, "no such frames\n"},
      {"--id 0x123 --start 1 --end 2", 0, "no such frames in that time"},
      {"--id 0x123 --start 4", 0, "no frames in that time; the recording has them from -0.5"},
  };
  for (const auto& [options, frames, said] : cases) {
    const Outcome outcome = runTolvex("cat " + path + " " + options, 0, said);
    EXPECT_EQ(outcome.lines().size(), frames) << options;
    EXPECT_EQ(outcome.err.empty(), frames > 0) << outcome.err;
  }
  const TempDir folder;
  const std::string log = folder.path("frames.log");
  runTolvex("cat " + path + " -o " + log, 0);
  runTolvex("cat " + path + " --id 0x7FF -o " + log, 2, "exists; --force overwrites it");
  EXPECT_EQ(runTolvex("info " + path + " > /dev/null; cat " + log).lines().size(), 5U);
}

TEST(Cat, PrintsWhatALoggerDidNotFinish) {
  const Outcome outcome = runTolvex("cat " + realFile("unfinalized-00000002.MF4"), 0,
                                    "an unfinalized recording (flags 0x0025 at 60): taken for");
  EXPECT_EQ(outcome.lines().size(), 9600U);
}

TEST(Cat, SaysHowManyPromisedFramesAreMissing) {
  FileBuilder file;
  const BusLayout layout = dataFrames();
  const Bytes record = busRecord(layout, 0, {{"ID", 1}});
  file.busLog(layout, 5, file.dt(joined({record, record, record})));
  EXPECT_EQ(runTolvex("cat " + file.write(), 3, "3 of 5 frames").lines().size(), 3U);
}

}  // namespace
}  // namespace tolvex
