// CAN frames of bus logs, merged over all groups.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {
using Lines = std::vector<std::string>;

std::string hex(const Bytes& bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(byte));
    text += digits;
  }
  return text;
}

// Time in nanoseconds, bus channel, identifier ("x" for extended), code, payload, flags.
std::string lineOf(const MdfCanMessage& frame) {
  char head[100];
  std::snprintf(head, sizeof(head), "%lld can%u %x%s [%u] ",
                static_cast<long long>(frame.Timestamp()),
                static_cast<unsigned>(frame.BusChannel()), frame.CanId(),
                frame.ExtendedId() ? "x" : "", static_cast<unsigned>(frame.Dlc()));
  std::string line = head + hex(frame.DataBytes());
  const std::pair<bool, const char*> flags[] = {
      {frame.Dir(), " dir"}, {frame.Srr(), " srr"},          {frame.Edl(), " edl"},
      {frame.Brs(), " brs"}, {frame.Esi(), " esi"},          {frame.WakeUp(), " wakeup"},
      {frame.Rtr(), " rtr"}, {frame.SingleWire(), " single"}};
  for (const auto& [set, name] : flags) line += set ? name : "";
  return line;
}

std::string lineOf(const MdfCanError& error) {
  char head[100];
  std::snprintf(head, sizeof(head), "%lld error can%u %x%s [%u/%u] ",
                static_cast<long long>(error.Timestamp()),
                static_cast<unsigned>(error.BusChannel()), error.MessageId(),
                error.ExtendedId() ? "x" : "", static_cast<unsigned>(error.Dlc()),
                error.DataLength());
  std::string line = head + hex(error.DataBytes()) + (error.Dir() ? " dir" : "");
  const std::pair<std::uint64_t, const char*> values[] = {
      {error.ErrorFlags(), " flags "}, {error.Tec(), " tec "}, {error.Trec(), " trec "}};
  for (const auto& [value, name] : values) line += value == 0 ? "" : name + std::to_string(value);
  return line;
}

// All frames still to come.
Lines rest(MdfReader& reader) {
  Lines lines;
  while (lines.size() < 1000) {
    const MdfFrame frame = reader.getNext();
    if (const auto* message = std::get_if<0>(&frame)) {
      if (*message == nullptr) break;
      lines.push_back(lineOf(**message));
    } else {
      lines.push_back(lineOf(*std::get<1>(frame)));
    }
  }
  return lines;
}

class MdfReaderTest : public testing::Test {
 protected:
  static Lines frames(const FileBuilder& file, bool payloadByDlc = false,
                      bool requireFields = false) {
    MdfReader reader(file.write());
    EXPECT_TRUE(reader.open());
    reader.setPayloadByDlc(payloadByDlc);
    reader.setRequireFields(requireFields);
    return rest(reader);
  }

  // The frame of a file with this one record.
  static std::string frame(const BusLayout& layout, const Bytes& record,
                           bool payloadByDlc = false) {
    FileBuilder file;
    file.busLog(layout, {record});
    const Lines lines = frames(file, payloadByDlc);
    return lines.size() == 1 ? lines[0] : std::to_string(lines.size()) + " frames";
  }

  CapturedDiagnostics diagnostics_;
};

TEST_F(MdfReaderTest, AppliesFieldsInTheOrderOfTheirNames) {
  const auto data = [](const std::vector<std::pair<std::string, std::uint64_t>>& fields) {
    return frame(dataFrames(), busRecord(dataFrames(), 0, fields)).substr(0, 19);
  };
  EXPECT_EQ(data({{"BusChannel", 3}, {"ID", 0x7FF}, {"IDE", 1}}), "0 can2 7ffx [8] 000");
  EXPECT_EQ(data({{"BusChannel", 3}, {"ID", 0x800}, {"IDE", 0}}), "0 can2 800 [8] 0000");
  EXPECT_EQ(data({{"BusChannel", 0}}), "0 can255 0 [8] 0000");
  // Bits 5 and 6 of the flags byte mean WakeUp and SingleWire to who writes them.
  for (const auto& [flags, name] : {std::pair{0x20, " single"}, {0x40, " wakeup"}, {0x02, ""}}) {
    const Bytes record = busRecord(dataFrames(), 0, {{"Flags", flags}});
    EXPECT_EQ(frame(dataFrames(), record), "0 can255 0 [8] 0000000000000000" + std::string(name));
  }
  // Without IDE a large identifier is an extended one; "REC" is a receive counter too.
  BusLayout layout = dataFrames();
  layout.fields = {{"ID", 8, 0, 32}, {"id", 12, 0, 8}, {"DLC", 13, 0, 8}};
  EXPECT_EQ(frame(layout, busRecord(layout, 0, {{"ID", 0x800}, {"id", 1}, {"DLC", 2}})),
            "0 can0 800x [2] 0000");
  EXPECT_EQ(frame(layout, busRecord(layout, 0, {{"DLC", 16}})), "0 can0 0 [0] ") << "no such code";
  layout.group = "Bus 1: CAN_FdErrorFrame";
  layout.fields = {{"REC", 8, 0, 8}};
  EXPECT_EQ(frame(layout, busRecord(layout, 0, {{"REC", 5}})), "0 error can0 0 [0/0]  trec 5");
}

TEST_F(MdfReaderTest, TakesTheBusChannelFromAConstant) {
  FileBuilder file;
  BusLayout layout = dataFrames();
  layout.fields = {{"BusChannel", 8, 0, 0}};
  file.busLog(layout, {busRecord(layout, 0, {})});
  EXPECT_EQ(frames(file), Lines{"0 can255 0 [0] "});
  const Link channel = file.firstOf("CN");
  file.setLink(channel, 4, file.cc({.type = 1, .values = {7, 0}}));
  EXPECT_EQ(frames(file), Lines{"0 can6 0 [0] "});
}

TEST_F(MdfReaderTest, MergesGroupsByTime) {
  const auto data = [](double time) {
    return busRecord(dataFrames(), time, {{"ID", 1}, {"DLC", 8}});
  };
  const auto error = [](double time) { return busRecord(errorFrames(), time, {{"ID", 2}}); };
  const auto remote = [](double time) {
    return busRecord(remoteFrames(), time, {{"ID", 3}, {"DLC", 4}, {"BusChannel", 1}});
  };
  FileBuilder file;
  file.signalGroup({{.name = "v"}}, {packed(0.5)});
  file.busLog(dataFrames(), {data(-1), data(3), data(5), data(0.0000000026)});
  file.busLog(errorFrames(), {error(2), error(4)});
  file.busLog(remoteFrames(), {remote(2.5), remote(6)});
  file.busLog(dataFrames(), 0, 0);
  MdfReader reader(file.write());
  ASSERT_TRUE(reader.open());
  EXPECT_EQ(reader.getCanCount(), 8U);

  const char* payload = "0000000000000000";
  const Lines want = {"-1000000000 can255 1 [8] " + std::string(payload),
                      "2000000000 error can255 2 [0/0] " + std::string(payload),
                      "2500000000 can0 3 [4]  rtr",
                      "3000000000 can255 1 [8] " + std::string(payload),
                      "4000000000 error can255 2 [0/0] " + std::string(payload),
                      "5000000000 can255 1 [8] " + std::string(payload),
                      "3 can255 1 [8] " + std::string(payload),
                      "6000000000 can0 3 [4]  rtr"};
  MdfReader copy(reader);
  std::vector<std::uint64_t> indices;
  for (std::size_t i = 0; i < want.size(); ++i) {
    if (i == 4) {
      copy = reader;
      EXPECT_EQ(rest(copy), Lines(want.begin() + 4, want.end())) << "a copy goes on by itself";
    }
    const MdfFrame frame = reader.getNext();
    if (const auto* message = std::get_if<0>(&frame)) {
      ASSERT_NE(*message, nullptr) << i;
      EXPECT_EQ(lineOf(**message), want[i]);
      indices.push_back((*message)->DataIndex());
    } else {
      EXPECT_EQ(lineOf(*std::get<1>(frame)), want[i]);
    }
  }
  EXPECT_EQ(indices, (std::vector<std::uint64_t>{0, 0, 1, 2, 3, 1})) << "within each group";
  EXPECT_TRUE(rest(reader).empty());
  EXPECT_EQ(MdfReader::getSignedTimestampNsFromVariant(reader.getNext()), 0);
}

TEST_F(MdfReaderTest, SetsFramesOfTheOtherKindAside) {
  FileBuilder file;
  std::vector<Bytes> data;
  for (const double time : {1, 2, 5, 6}) {
    data.push_back(busRecord(dataFrames(), time, {}));
  }
  file.busLog(dataFrames(), data);
  file.busLog(errorFrames(), {busRecord(errorFrames(), 3, {}), busRecord(errorFrames(), 4, {})});
  const std::string path = file.write();
  const auto seconds = [](const auto& frame) {
    return frame == nullptr ? 0 : frame->Timestamp() / 1'000'000'000;
  };

  MdfReader reader(path);
  ASSERT_TRUE(reader.open());
  EXPECT_EQ(reader.getCanMessages(0).size(), 0U);
  EXPECT_EQ(reader.getCanMessages(10).size(), 2U) << "ends at the error";
  EXPECT_EQ(seconds(reader.getCanError()), 3U);
  EXPECT_EQ(seconds(reader.getCanError()), 4U);
  EXPECT_EQ(seconds(reader.getCanError()), 0U) << "sets message 5 aside";
  EXPECT_EQ(seconds(reader.getCanMessage()), 5U);
  EXPECT_EQ(seconds(reader.getCanMessage()), 6U);
  EXPECT_EQ(seconds(reader.getCanMessage()), 0U);

  MdfReader hasty(path);
  ASSERT_TRUE(hasty.open());
  EXPECT_EQ(hasty.getCanMessages(2).size(), 2U);
  EXPECT_EQ(seconds(hasty.getCanMessage()), 0U) << "error 3";
  EXPECT_EQ(seconds(hasty.getCanMessage()), 0U) << "error 4 replaces it";
  EXPECT_EQ(seconds(hasty.getCanMessage()), 5U);
  EXPECT_EQ(seconds(hasty.getCanError()), 4U);
}

TEST_F(MdfReaderTest, TakesTimesThatDoNotConvertFromTheFirstEightBytes) {
  const double notANumber = std::numeric_limits<double>::quiet_NaN();
  const double infinite = std::numeric_limits<double>::infinity();
  const auto bits = [](double value) {
    return static_cast<long long>(std::bit_cast<std::uint64_t>(value));
  };
  const struct {
    double time;
    Cc conversion;
    long long want;
  } rows[] = {{2.6e-9, {}, 3},
              {-1e-9, {}, -1},
              {notANumber, {}, bits(notANumber)},
              {infinite, {}, bits(infinite)},
              {1e300, {}, bits(1e300)},
              {7.0, {.type = 1, .values = {0, 1e-9}}, 7},
              {7.0, {.type = 1, .values = {1}}, bits(7.0)},
              {7.0, {.type = 2, .values = {0, 1, 0, 0, 0, 0}}, bits(7.0)}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.time);
    FileBuilder file;
    const Link group = file.busLog(dataFrames(), {busRecord(dataFrames(), row.time, {})});
    file.setLink(file.link(file.link(group, 1), 1), 4, file.cc(row.conversion));
    EXPECT_EQ(frames(file).at(0), std::to_string(row.want) + " can255 0 [8] 0000000000000000");
  }

  // No time channel; records of 8 and of 4 bytes.
  for (const auto& [size, want] : {std::pair{8U, "258 can0 2 [0] "}, {4U, "0 can0 2 [0] "}}) {
    FileBuilder file;
    const Link id = file.cn({.name = "CAN_DataFrame.ID", .bitCount = 8});
    const Link parent = file.cn({.name = "CAN_DataFrame", .children = {id}});
    file.dg({.groups = {file.cg({.channels = {parent}, .records = 1, .dataBytes = size})},
             .data = file.dt({2, 1, 0, 0, 0, 0, 0, 0})});
    EXPECT_EQ(frames(file).at(0), want);
  }
}

TEST_F(MdfReaderTest, StopsAtTheLatestLastRecordCutToNanoseconds) {
  FileBuilder file;
  MdfReader none(file.write());
  EXPECT_EQ(none.getCanMessage(), nullptr) << "before open";
  const auto stopTime = [&] {
    MdfReader reader(file.write());
    EXPECT_TRUE(reader.open());
    const std::uint64_t time = reader.getStopTime();
    EXPECT_EQ(rest(reader).size(), reader.getCanCount()) << "asking does not disturb reading";
    return time;
  };
  EXPECT_EQ(stopTime(), 0U);
  const auto data = [](double time) { return busRecord(dataFrames(), time, {}); };
  file.busLog(dataFrames(), {data(1), data(4.9e-9)});
  EXPECT_EQ(frames(file).at(1).substr(0, 2), "5 ");
  EXPECT_EQ(stopTime(), 4U);
  file.busLog(errorFrames(), {busRecord(errorFrames(), 2.5, {})});
  EXPECT_EQ(stopTime(), 2'500'000'000U);
}

TEST_F(MdfReaderTest, ReadsPayloadsOutsideTheRecords) {
  const BusLayout layout = loggerFrames();
  const std::vector<Bytes> payloads = {{1, 2, 3}, {}, {9, 8, 7, 6, 5, 4, 3, 2}};
  Bytes stored;
  std::vector<Bytes> records;
  for (const Bytes& payload : payloads) {
    records.push_back(busRecord(layout, 1e9 * static_cast<double>(records.size()),
                                {{"BusChannel", 2},
                                 {"ID", 0x1ABCDEF},
                                 {"IDE", 1},
                                 {"DLC", payload.size()},
                                 {"DataBytes", stored.size()}}));
    stored = joined({stored, packed(static_cast<std::uint32_t>(payload.size())), payload});
  }
  records.push_back(busRecord(layout, 3e9, {{"DLC", 2}, {"DataBytes", 5000}, {"Dir", 1}}));
  const Lines want = {"0 can1 1abcdefx [3] 010203", "1000000000 can1 1abcdefx [0] ",
                      "2000000000 can1 1abcdefx [8] 0908070605040302",
                      "3000000000 can255 0 [2] 0000 dir"};
  const Bytes first(stored.begin(), stored.begin() + 13);  // ends inside the last entry's length
  const Bytes second(stored.begin() + 13, stored.end());
  FileBuilder file;
  file.busLog(layout, records, file.dl({file.dz(first, "SD"), file.dz(second, "SD", 1, 2)}, 13));
  EXPECT_EQ(frames(file), want);
  EXPECT_EQ(frames(file, true), want);
}

TEST_F(MdfReaderTest, ReadsWhatIsThereOfTheLastRecord) {
  FileBuilder file;
  const Bytes record = busRecord(dataFrames(), 1, {{"BusChannel", 1}, {"ID", 0x55}});
  Bytes cut = record;
  cut.resize(12);
  file.busLog(dataFrames(), 1, file.dt(joined({record, cut})));
  EXPECT_EQ(frames(file, true), (Lines(2, "1000000000 can0 55 [0] ")));
}

TEST_F(MdfReaderTest, BusChannelsWithoutFieldsGiveBareFramesUnlessFieldsAreRequired) {
  FileBuilder file;
  const Link bus = file.si(2, 2);
  file.signalGroup({{.name = "speed", .byteOffset = 8, .source = bus},
                    {.name = "torque", .byteOffset = 8, .source = bus}},
                   {packed(1.0, std::uint8_t{5})});
  file.busLog(dataFrames(), {busRecord(dataFrames(), 2, {{"DLC", 1}})});
  EXPECT_EQ(frames(file).size(), 3U) << "one for each channel and record";
  EXPECT_EQ(frames(file)[0], "1000000000 can0 0 [0] ");
  EXPECT_EQ(frames(file, true, true), Lines{"2000000000 can255 0 [1] 00"});
  MdfReader reader(file.write());
  ASSERT_TRUE(reader.open());
  EXPECT_EQ(reader.getCanCount(), 3U);
}

}  // namespace
}  // namespace tolvex::test
