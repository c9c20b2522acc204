// Bus logs as hardware loggers write them, with logger rules and without.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {
using Lines = std::vector<std::string>;
using Values = std::vector<std::pair<std::string, std::uint64_t>>;

const double kNan = std::nan("");

template <typename Frame>
std::string startOf(const Frame& frame, std::uint32_t id) {
  char text[100];
  std::snprintf(text, sizeof(text), "%lld can%u %x%s [%u]",
                static_cast<long long>(frame.Timestamp()), unsigned{frame.BusChannel()}, id,
                frame.ExtendedId() ? "x" : "", unsigned{frame.Dlc()});
  return text;
}

// Time, bus channel, identifier ("x" for extended), code, then flags or the type of the error.
std::string lineOf(const MdfFrame& frame) {
  if (const auto* const error = std::get_if<1>(&frame)) {
    return startOf(**error, (*error)->MessageId()) + " type " +
           std::to_string(static_cast<unsigned>((*error)->ErrorType())) +
           ((*error)->IsCanFdError() ? " fd" : "");
  }
  const MdfCanMessage& message = *std::get<0>(frame);
  std::string line = startOf(message, message.CanId());
  const std::pair<bool, const char*> flags[] = {
      {message.Dir(), " dir"}, {message.Srr(), " srr"},          {message.Edl(), " edl"},
      {message.Brs(), " brs"}, {message.Esi(), " esi"},          {message.WakeUp(), " wakeup"},
      {message.Rtr(), " rtr"}, {message.SingleWire(), " single"}};
  for (const auto& [set, name] : flags) line += set ? name : "";
  return line;
}

struct Reading {
  Lines frames;
  std::uint64_t stopTime = 0;
  std::size_t problems = 0;
};

Reading read(const FileBuilder& file, bool loggerRules) {
  const CapturedDiagnostics diagnostics;
  MdfReader reader(file.write());
  reader.setLoggerRules(loggerRules);
  EXPECT_TRUE(reader.open());
  Reading reading;
  for (;;) {
    const MdfFrame frame = reader.getNext();
    if (frame.index() == 0 && std::get<0>(frame) == nullptr) break;
    reading.frames.push_back(lineOf(frame));
  }
  reading.stopTime = reader.getStopTime();
  reading.problems = reader.getProblems().size();
  return reading;
}

// The frame of a file with this one record.
std::string frameOf(const BusLayout& layout, const Values& values, bool loggerRules) {
  FileBuilder file;
  file.busLog(layout, {busRecord(layout, 0, values)});
  return read(file, loggerRules).frames.at(0);
}

TEST(LoggerRules, FieldsWithoutBitsAreConstants) {
  const struct {
    const char* field;
    std::vector<double> linear;
    std::uint64_t id;
    const char* on;
    const char* off;
    std::size_t problems = 0;
  } rows[] = {
      {"BusChannel", {7, 5}, 1, "0 can6 1 [0]", "0 can6 1 [0]"},
      {"IDE", {1, 0}, 0x7F, "0 can0 7fx [0]", "0 can0 7f [0]"},
      {"IDE", {0, 0}, 0x800, "0 can0 800 [0]", "0 can0 800 [0]"},
      {"ID", {0x1ABCDEF, 0}, 0, "0 can0 1abcdefx [0]", "0 can0 0 [0]"},
      {"DLC", {3, 0}, 1, "0 can0 1 [3]", "0 can0 1 [0]", 1},  // no payload to go with it
      {"Dir", {1, 0}, 1, "0 can0 1 [0] dir", "0 can0 1 [0]"},
      {"SRR", {0, 0}, 1, "0 can0 1 [0]", "0 can0 1 [0]"},
      // Nothing that the field could hold: as if the channel were not there.
      {"BusChannel", {}, 1, "0 can0 1 [0]", "0 can255 1 [0]"},
      {"BusChannel", {256, 0}, 1, "0 can0 1 [0]", "0 can255 1 [0]", 1},
      {"DLC", {-1, 0}, 1, "0 can0 1 [0]", "0 can0 1 [0]", 1},
      {"ID", {4294967296.0, 0}, 0, "0 can0 0 [0]", "0 can0 0 [0]", 1},
      {"IDE", {kNan, 0}, 0x800, "0 can0 800x [0]", "0 can0 800 [0]", 1},
      {"IDE", {1}, 0x800, "0 can0 800x [0]", "0 can0 800 [0]", 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.field);
    BusLayout layout = {"CAN_DataFrame", 12, {{row.field, 8, 0, 0, 0, row.linear}}};
    if (row.id != 0) layout.fields.push_back({"ID", 8, 0, 32});
    FileBuilder file;
    file.busLog(layout, {busRecord(layout, 0, {{"ID", row.id}})});
    const Reading on = read(file, true);
    EXPECT_EQ(on.frames, Lines{row.on});
    EXPECT_EQ(on.problems, row.problems);
    EXPECT_EQ(read(file, false).frames, Lines{row.off});
  }
  BusLayout flags = {"CAN_DataFrame", 12, {}};
  for (const char* name : {"Dir", "SRR", "EDL", "BRS", "ESI", "WakeUp", "RTR", "SingleWire"}) {
    flags.fields.push_back({name, 8, 0, 0, 0, {1, 0}});
  }
  EXPECT_EQ(frameOf(flags, {}, true), "0 can0 0 [0] dir srr edl brs esi wakeup rtr single");
  EXPECT_EQ(frameOf(flags, {}, false), "0 can0 0 [0]");
}

TEST(LoggerRules, TimesMayBeIntegersAndCountInTheirUnit) {
  constexpr double kLate = 140'737'488'355'329;  // 2^47 + 1
  const struct {
    BusField time;
    double factor;
    const char* unit;
    double raw;
    std::uint64_t on;
    std::uint64_t off;
    std::uint8_t flags = 0;
  } rows[] = {
      {{"", 9, 0, 48}, 1e-6, "s", 1'234'567, 1'234'567'000, 1'234'567'000},
      {{"", 0, 0, 48}, 1e-6, "s", kLate, 140'737'488'355'329'000, 140'737'488'355'329'008},
      {{"", 0, 3, 48}, 1e-6, "s", 5, 5'000, 5'000},
      {{"", 0, 0, 16, 3}, 1e-3, "s", 0xFEFF, ~std::uint64_t{1'999'999}, ~std::uint64_t{1'999'999}},
      {{"", 0, 0, 48}, 1 / 3e6, "s", 3, 1'000, 1'000},
      {{"", 0, 0, 48}, 1, "us", 5, 5'000, 5'000'000'000},
      {{"", 0, 0, 64, 4}, 1, "ns", 5, 5, 5'000'000'000},
      {{"", 0, 0, 48}, 1, "", 5, 5'000'000'000, 5'000'000'000},
      {{"", 0, 0, 48}, 1e9, "s", 0x10000000000, 0x10000000000, 0x10000000000},  // beyond 64 bits
      {{"", 0, 0, 48}, 1e-6, "s", 3, 3'000, 3, 2},  // marked as an invalid sample by its own bit 0
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.on));
    BusLayout layout = {"CAN_DataFrame", 16, {{"ID", 8, 0, 8}}};
    layout.timeFactor = row.factor;
    layout.timeUnit = row.unit;
    layout.time = row.time;
    FileBuilder file;
    const Link group = file.busLog(layout, {busRecord(layout, row.raw, {})});
    const Link time = file.link(file.link(group, 1), 1);
    file.setByte(file.dataPosition(time) + 12, row.flags);
    for (const bool rules : {true, false}) {
      const Reading reading = read(file, rules);
      const auto ns = static_cast<std::int64_t>(rules ? row.on : row.off);
      ASSERT_EQ(reading.frames.size(), 1U);
      EXPECT_EQ(reading.frames[0].substr(0, reading.frames[0].find(' ')), std::to_string(ns));
      EXPECT_EQ(reading.stopTime, rules ? row.on : row.off);
    }
  }
}

TEST(LoggerRules, TheGroupsSourceNamesTheBus) {
  const struct {
    const char* group;
    std::uint8_t bus;
    Lines on;
  } rows[] = {
      {"CAN_RemoteFrame", 2, {"1000000000 can0 12 [5] rtr"}},
      {"CAN_RemoteFrame", 0, {"1000000000 can0 12 [5] rtr"}},
      {"CAN_DataFrame_Fd", 2, {"1000000000 can0 12 [5]"}},
      {"CAN_DataFrame_Fd", 3, {}},
      {"CAN_OverloadFrame", 2, {}},
      {"LIN_Frame", 3, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.group);
    BusLayout layout = remoteFrames();
    layout.group = row.group;
    layout.namedSource = false;
    layout.groupBus = row.bus;
    FileBuilder file;
    const Bytes record = busRecord(layout, 1, {{"ID", 0x12}, {"DLC", 5}, {"BusChannel", 1}});
    const Link group = file.link(file.busLog(layout, {record}), 1);
    file.setLink(file.link(group, 1), 3, file.si(2, 2));  // the time's own
    EXPECT_EQ(read(file, true).frames, row.on);
    EXPECT_EQ(read(file, false).frames.size(), 1U) << "the time, for its source";
  }
}

TEST(LoggerRules, IdentifiersAndPayloadsAreReadAsMeant) {
  BusLayout plain = {"CAN_ErrorFrame", 16, {{"ID", 8, 0, 32}}};
  EXPECT_EQ(frameOf(plain, {{"ID", 0x80000012}}, true), "0 can0 12x [0] type 0");
  EXPECT_EQ(frameOf(plain, {{"ID", 0x80000012}}, false), "0 can0 80000012 [0] type 0");
  EXPECT_EQ(frameOf(errorFrames(), {{"ID", 0x12}, {"IDE", 1}}, true), "0 can255 12x [0] type 0");
  plain.group = "CAN_DataFrame";
  plain.fields[0].dataType = 1;  // big-endian
  EXPECT_EQ(frameOf(plain, {{"ID", 0x12030000}}, true), "0 can0 312 [0]");
  EXPECT_EQ(frameOf(plain, {{"ID", 0x12030000}}, false), "0 can0 12030000x [0]");
  const Bytes motorola = busRecord(plain, 0, {{"ID", 0x4062}});  // 0x312 << 5 in two bytes
  plain.fields[0] = {"ID", 8, 5, 11, 1};
  FileBuilder file;
  file.busLog(plain, {motorola});
  EXPECT_EQ(read(file, true).frames.at(0), "0 can0 312 [0]");
  EXPECT_EQ(frameOf(dataFrames(), {{"DLC", 3}}, true), "0 can255 0 [3]");
}

TEST(LoggerRules, ErrorsAreOfTheTypeThatTheyName) {
  const BusLayout errors = typedErrors();
  EXPECT_EQ(frameOf(errors, {{"ErrorType", 5}}, true), "0 can255 0 [0] type 5");
  EXPECT_EQ(frameOf(errors, {{"ErrorType", 5}}, false), "0 can255 0 [0] type 0");
}

}  // namespace
}  // namespace tolvex::test
