// CAN frame objects: identifier, code and payload, flags, and their packing into records.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "Mdf4/Record.h"
#include "Mdf4/model/BusLogLayout.h"
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

  message.Timestamp(5);
  message.Rtr(true);
  message.DataBytes({1, 2});
  message.Reset();
  EXPECT_EQ(message.Timestamp(), 5U) << "all but the time";
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

TEST(CanFrames, PackOnlyIntoARecordOfTheRightSize) {
  using enum MessageType;
  const struct {
    MessageType type;
    unsigned dataBytes;
    std::vector<std::uint32_t> fits, doesNot;
    bool fixedEight = false;
  } rows[] = {
      {DataFrame, 8, {23}, {0, 22, 24}},
      {DataFrame, 0, {23}, {15}},
      {DataFrame, 64, {79}, {78, 80}},
      {DataFrame, 100, {115}, {79}},
      {DataFrame, ~0U, {}, {14}},
      {DataFrame, 3, {23}, {18}, true},
      {DataFrame, 64, {}, {23, 79}, true},
      {HeaderOnlyFrame, 8, {15}, {14, 16}},
      {ErrorFrame, 8, {26, 113}, {25}},
      {FdErrorFrame, 64, {113, 114}, {112}},
      {ChannelDirFrame, 8, {9}, {8, 10}},
      {static_cast<MessageType>(5), 8, {}, {9, 23, 113}},
      {static_cast<MessageType>(255), 8, {}, {23}},
  };
  for (const auto& row : rows) {
    const auto expectFit = [&](std::uint32_t size, bool fits) {
      SCOPED_TRACE(testing::Message() << "type " << static_cast<int>(row.type) << ", " << size
                                      << " bytes for " << row.dataBytes);
      RecordData record = recordOf(size);
      EXPECT_EQ(fullMessage().ToRaw(row.type, record, row.dataBytes, row.fixedEight), fits);
      EXPECT_EQ(contents(record) != Bytes(size, kUntouched), fits);
      if (row.type != ErrorFrame && row.type != FdErrorFrame) return;
      RecordData error = recordOf(size);
      EXPECT_EQ(fullError().ToRaw(error, 64, row.type == FdErrorFrame), fits);
      EXPECT_EQ(contents(error) != Bytes(size, kUntouched), fits);
    };
    for (const std::uint32_t size : row.fits) expectFit(size, true);
    for (const std::uint32_t size : row.doesNot) expectFit(size, false);
  }
  RecordData record = recordOf(113);
  const RecordData taken = std::move(record);
  EXPECT_FALSE(
      fullMessage().ToRaw(DataFrame, record, 8, false));  // NOLINT(bugprone-use-after-move)
  EXPECT_FALSE(fullError().ToRaw(record, 64, true));
}

}  // namespace
}  // namespace tolvex
