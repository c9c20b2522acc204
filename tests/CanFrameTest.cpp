// CAN frame objects: identifier, code and payload, flags.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

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
}

TEST(CanMessage, KeepsTheFlagsApart) {
  using M = MdfCanMessage;
  const std::pair<void (M::*)(bool), bool (M::*)() const> flags[] = {
      {&M::Dir, &M::Dir},       {&M::Srr, &M::Srr},
      {&M::Edl, &M::Edl},       {&M::Brs, &M::Brs},
      {&M::Esi, &M::Esi},       {&M::Rtr, &M::Rtr},
      {&M::WakeUp, &M::WakeUp}, {&M::SingleWire, &M::SingleWire}};
  for (const auto& [set, unused] : flags) {
    M message;
    (message.*set)(true);
    for (const auto& [other, get] : flags) EXPECT_EQ((message.*get)(), other == set);
  }
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

}  // namespace
}  // namespace tolvex
