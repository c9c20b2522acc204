// CAN frame objects: identifier, code and payload, flags, and their packing into records.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "Mdf4/Record.h"
#include "Mdf4/can/BusLogLayout.h"
#include "tolvex/Mdf4.h"

namespace tolvex {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(CanMessage, KeepsTheExtendedFlagInTheIdentifier) {
  MdfCanMessage message;
  const std::pair<std::uint32_t, std::uint32_t> rows[] = {
      {0x800, 0x80000800}, {0x7FF, 0x7FF}, {0x80000001, 0x80000001}};
  for (const auto& [given, stored] : rows) {
    message.MessageId(given);
    EXPECT_EQ(message.MessageId(), stored);
    EXPECT_EQ(message.CanId(), stored & 0x7FFFFFFF);
    EXPECT_EQ(message.ExtendedId(), stored >> 31 != 0);
  }
  message.ExtendedId(false);
  EXPECT_EQ(message.MessageId(), 1U);
}

TEST(CanMessage, TakesTheSmallestCodeThatHoldsALength) {
  const struct {
    std::uint32_t length, dlc, size;
  } rows[] = {{0, 0, 0},    {8, 8, 8},    {9, 9, 12},   {12, 9, 12},  {13, 10, 16},
              {17, 11, 20}, {24, 12, 24}, {25, 13, 32}, {33, 14, 48}, {49, 15, 64},
              {64, 15, 64}, {65, 8, 8},   {~0U, 8, 8}};
  for (const auto& [length, dlc, size] : rows) {
    SCOPED_TRACE(length);
    MdfCanMessage message;
    message.DataLength(length);
    EXPECT_EQ(message.Dlc(), dlc);
    EXPECT_EQ(message.DataLength(), size);
    EXPECT_EQ(message.DataBytes(), Bytes(size, 0));
  }
  EXPECT_EQ(MdfCanMessage::DlcToLength(16), 0U);
}

TEST(CanMessage, KeepsCodeAndPayloadInStep) {
  MdfCanMessage message;
  message.DataBytes({1, 2, 3});
  EXPECT_TRUE(message.Dlc(2));
  EXPECT_TRUE(message.Dlc(4));
  EXPECT_FALSE(message.Dlc(16));
  EXPECT_EQ(message.Dlc(), 4);
  EXPECT_EQ(message.DataBytes(), (Bytes{1, 2, 0, 0}));

  message.DataBytes(Bytes(10, 0xAA));
  message.DataBytes(message.DataBytes());  // its own payload, already of a code's length
  Bytes filled(10, 0xAA);
  filled.resize(12);
  EXPECT_EQ(message.DataBytes(), filled);
  message.DataBytes(Bytes(65, 0xBB));
  EXPECT_EQ(message.DataBytes(), Bytes(8, 0xBB));
  message.DataBytes(Bytes(9, 0xCC).data(), 9);
  EXPECT_EQ(message.DataBytes(),
            (Bytes{0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC, 0, 0, 0}));
  message.DataBytes(nullptr, 0);
  EXPECT_TRUE(message.DataBytes().empty());
}

template <class Frame>
void expectMovesToLeaveNoPayload() {
  Frame source;
  source.DataBytes(Bytes{1, 2, 3});
  Frame built(std::move(source));
  EXPECT_TRUE(source.DataBytes().empty());  // NOLINT(bugprone-use-after-move)
  Frame assigned;
  assigned.DataBytes(Bytes{4});
  assigned = std::move(built);
  EXPECT_TRUE(built.DataBytes().empty());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(assigned.DataBytes(), (Bytes{1, 2, 3}));
}

TEST(CanFrames, HandOverTheirPayloadWhenMoved) {
  expectMovesToLeaveNoPayload<MdfCanMessage>();
  expectMovesToLeaveNoPayload<MdfCanError>();
}

TEST(CanMessage, ResetKeepsTheTime) {
  MdfCanMessage message;
  message.Timestamp(5);
  message.MessageId(0x123);
  message.DataBytes({1, 2});
  message.Rtr(true);
  message.Reset();
  EXPECT_EQ(message.Timestamp(), 5U);
  EXPECT_EQ(message.MessageId(), 0U);
  EXPECT_EQ(message.Dlc(), 0);
  EXPECT_TRUE(message.DataBytes().empty());
  EXPECT_FALSE(message.Rtr());
}

// ---------------------------------------------------------------------------------------------
// Packing

constexpr std::uint8_t kUntouched = 0xEE;

RecordData recordOf(std::uint32_t size, std::uint8_t before = kUntouched) {
  ChannelInfo bytes;
  bytes.name = "bytes";
  bytes.byteCount = size;
  const auto layout = std::make_shared<RecordLayout>();
  layout->add(bytes);
  RecordData record(layout);
  std::fill_n(record.data(), size, before);
  return record;
}

Bytes contents(const RecordData& record) {
  return {record.data(), record.data() + record.size()};
}

// The bytes of a record in which nothing but the `fields`, behind the time, was touched.
Bytes packed(const Bytes& fields, std::uint32_t size) {
  Bytes record(size, kUntouched);
  std::copy(fields.begin(), fields.end(), record.begin() + 8);
  return record;
}

Bytes joined(Bytes bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
  return bytes;
}

const Bytes kTwelve = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

// Every field is set, most to values too large for their place in one record or another.
MdfCanMessage fullMessage() {
  MdfCanMessage message;
  message.BusChannel(0x35);
  message.MessageId(0x92345678);
  message.DataBytes(kTwelve);
  message.Dir(true);
  message.Edl(true);
  message.WakeUp(true);
  message.TimeOffsetBRS(0x01020304);
  message.TimeOffsetCRCDel(0x05060708);
  message.Crc(0x3ABCDE);
  message.BtrExtCfg(0x1122334455667788);
  return message;
}

MdfCanError fullError() {
  MdfCanError error;
  error.BusChannel(0x35);
  error.MessageId(0x92345678);
  error.ExtendedId(true);
  error.ErrorFlags(0x1234ABCD);
  error.Dir(true);
  error.Dlc(0xF9);
  error.DataLength(0x10C);
  error.DataBytes(kTwelve);
  error.Tec(0x11);
  error.Trec(0x22);
  error.TimeOffsetBRS(0xFFFFFFFF01020304);
  error.TimeOffsetCRCDel(0xFFFFFFFF05060708);
  error.Crc(0x3ABCDE);
  error.BtrExtCfg(0x1122334455667788);
  return error;
}

// Payload and bit timing of a CAN FD error frame, which take its bytes from 41 on.
const Bytes kFdTail =
    joined(joined(kTwelve, Bytes(52, 0)), {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11});

TEST(CanMessage, PacksEachLayout) {
  const Bytes header = {0x35, 9, 0x25, 0x78, 0x56, 0x34, 0x92};
  const Bytes fdError = {0x35, 0x78, 0x56, 0x34, 1,    9, 12, 0xEE, 0,    0,    0xEE,
                         4,    3,    2,    1,    8,    7, 6,  5,    0xDE, 0xBC, 0xFA,
                         0xEE, 0xEE, 0xEE, 0xEE, 0x25, 0, 0,  0,    0,    0,    0};
  const struct {
    const char* name;
    MessageType type;
    std::uint32_t size;
    unsigned dataBytes;
    Bytes want;
  } rows[] = {
      {"8 bytes", MessageType::DataFrame, 23, 8, joined(header, {1, 2, 3, 4, 5, 6, 7, 8})},
      {"12 bytes", MessageType::DataFrame, 27, 12, joined(header, kTwelve)},
      {"64 bytes", MessageType::DataFrame, 79, 64, joined(joined(header, kTwelve), Bytes(52, 0))},
      {"header only", MessageType::HeaderOnlyFrame, 15, 8, header},
      {"error",
       MessageType::ErrorFrame,
       30,
       8,
       {0x35, 0x78, 0x56, 0x34, 0x92, 0x25, 0x80, 9, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}},
      {"CAN FD error", MessageType::FdErrorFrame, 120, 64, joined(fdError, kFdTail)},
      {"channel and direction", MessageType::ChannelDirFrame, 9, 8, {0x51}},
  };
  for (const auto& row : rows) {
    RecordData record = recordOf(row.size);
    EXPECT_TRUE(fullMessage().ToRaw(row.type, record, row.dataBytes, false)) << row.name;
    EXPECT_EQ(contents(record), packed(row.want, row.size)) << row.name;
  }
}

TEST(CanError, PacksEachLayout) {
  RecordData classic = recordOf(30);
  EXPECT_TRUE(fullError().ToRaw(classic, 0, false));
  EXPECT_EQ(contents(classic), packed({0x35, 0x78, 0x56, 0x34, 0x92, 0xCD, 0x80, 9, 0x11, 0x22,  //
                                       1, 2, 3, 4, 5, 6, 7, 8},
                                      30));

  // 0x1ABCDE with its 21 bits turned around is 0x0F67AB.
  const Bytes fields = {0x35, 0x78, 0x56, 0x34, 1,    9, 12, 0xEE, 0x11, 0x22, 0xEE,
                        4,    3,    2,    1,    8,    7, 6,  5,    0xAB, 0x67, 0xEF,
                        0xEE, 0xEE, 0xEE, 0xEE, 0xCD, 0, 0,  0,    0,    0,    0};
  RecordData fd = recordOf(120);
  EXPECT_TRUE(fullError().ToRaw(fd, 0, true));
  EXPECT_EQ(contents(fd), packed(joined(fields, kFdTail), 120));

  MdfCanError error;
  error.Crc(1);
  RecordData first = recordOf(113, 0);
  EXPECT_TRUE(error.ToRaw(first, 0, true));
  Bytes want(113);
  want[29] = 0x10;  // bit 236
  EXPECT_EQ(contents(first), want);
}

TEST(CanFrames, FillTheRecordBeyondAShortPayload) {
  MdfCanMessage message;
  MdfCanError error;
  for (const Bytes& payload : {Bytes{}, Bytes{7}, Bytes(7, 7), Bytes(8, 7), Bytes(48, 7)}) {
    SCOPED_TRACE(payload.size());
    message.DataBytes(payload);
    error.DataBytes(payload);
    Bytes eight = payload;
    eight.resize(8);
    Bytes sixtyFour = payload;
    sixtyFour.resize(64);
    const auto expectTail = [](const RecordData& record, std::size_t at, const Bytes& want) {
      const Bytes all = contents(record);
      const auto begin = all.begin() + static_cast<std::ptrdiff_t>(at);
      EXPECT_EQ(Bytes(begin, begin + static_cast<std::ptrdiff_t>(want.size())), want);
    };
    RecordData data = recordOf(23);
    EXPECT_TRUE(message.ToRaw(MessageType::DataFrame, data, 8, true));
    expectTail(data, 15, eight);
    RecordData longData = recordOf(79);
    EXPECT_TRUE(message.ToRaw(MessageType::DataFrame, longData, 64, false));
    expectTail(longData, 15, sixtyFour);
    RecordData classic = recordOf(26);
    EXPECT_TRUE(error.ToRaw(classic, 0, false));
    expectTail(classic, 18, eight);
    RecordData fd = recordOf(113);
    EXPECT_TRUE(error.ToRaw(fd, 0, true));
    expectTail(fd, 41, sixtyFour);
  }
}

TEST(CanMessage, PacksOnlyIntoARecordOfTheRightSize) {
  const auto data = MessageType::DataFrame;
  const struct {
    MessageType type;
    std::uint32_t size;
    unsigned dataBytes;
    bool fixedEight, fits;
  } rows[] = {
      {data, 23, 8, false, true},
      {data, 22, 8, false, false},
      {data, 24, 8, false, false},
      {data, 23, 0, false, true},
      {data, 79, 64, false, true},
      {data, 78, 64, false, false},
      {data, 115, 100, false, true},
      {data, 14, ~0U, false, false},
      {data, 23, 8, true, true},
      {data, 23, 3, true, true},
      {data, 23, 64, true, false},
      {data, 79, 64, true, false},
      {MessageType::HeaderOnlyFrame, 15, 8, false, true},
      {MessageType::HeaderOnlyFrame, 14, 8, false, false},
      {MessageType::HeaderOnlyFrame, 16, 8, false, false},
      {MessageType::ErrorFrame, 26, 8, false, true},
      {MessageType::ErrorFrame, 25, 8, false, false},
      {MessageType::FdErrorFrame, 113, 8, false, true},
      {MessageType::FdErrorFrame, 112, 64, false, false},
      {MessageType::ChannelDirFrame, 9, 8, false, true},
      {MessageType::ChannelDirFrame, 8, 8, false, false},
      {MessageType::ChannelDirFrame, 10, 8, false, false},
      {static_cast<MessageType>(5), 113, 8, false, false},
      {static_cast<MessageType>(255), 23, 8, false, false},
      {data, 0, 8, false, false},
  };
  for (const auto& [type, size, dataBytes, fixedEight, fits] : rows) {
    SCOPED_TRACE(testing::Message() << "type " << static_cast<int>(type) << ", " << size
                                    << " bytes for " << dataBytes);
    RecordData record = recordOf(size);
    EXPECT_EQ(fullMessage().ToRaw(type, record, dataBytes, fixedEight), fits);
    EXPECT_EQ(contents(record) != Bytes(size, kUntouched), fits);
  }
  RecordData record = recordOf(23);
  const RecordData taken = std::move(record);
  EXPECT_FALSE(fullMessage().ToRaw(data, record, 8, false));  // NOLINT(bugprone-use-after-move)
}

TEST(CanError, PacksOnlyIntoARecordThatIsLargeEnough) {
  const struct {
    std::uint32_t size;
    bool canFd, fits;
  } rows[] = {{25, false, false}, {26, false, true},  {113, false, true},
              {26, true, false},  {112, true, false}, {113, true, true}};
  for (const auto& [size, canFd, fits] : rows) {
    RecordData record = recordOf(size);
    EXPECT_EQ(fullError().ToRaw(record, 64, canFd), fits) << size;
    EXPECT_EQ(contents(record) != Bytes(size, kUntouched), fits) << size;
  }
  RecordData record = recordOf(113);
  const RecordData taken = std::move(record);
  EXPECT_FALSE(fullError().ToRaw(record, 64, true));  // NOLINT(bugprone-use-after-move)
}

}  // namespace
}  // namespace tolvex
