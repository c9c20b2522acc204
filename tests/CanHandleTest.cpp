// CAN frame handles: the plain functions.
#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

#include "tolvex/Mdf4.h"
#include "tolvex/MdfEngine.h"

namespace tolvex {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Freed whole at the end, as MdfCanMessageUnInit leaves the payload behind.
class CanHandle : public testing::Test {
 protected:
  void* handle() const { return message_.get(); }

  Bytes payload() const {
    Bytes bytes(64, 0xEE);
    bytes.resize(MdfCanMessageGetDataBytes(handle(), bytes.data()));
    return bytes;
  }

 private:
  std::unique_ptr<MdfCanMessage> message_{static_cast<MdfCanMessage*>(MdfCanMessageInit())};
};

using GetByte = std::uint8_t (*)(const void*);
using SetByte = void (*)(void*, std::uint8_t);
constexpr std::pair<GetByte, SetByte> kBytes[] = {
    {MdfCanMessageGetBusChannel, MdfCanMessageSetBusChannel},
    {MdfCanMessageGetBitPosition, MdfCanMessageSetBitPosition},
    {MdfCanMessageGetErrorType, MdfCanMessageSetErrorType},
};

using GetFlag = bool (*)(const void*);
using SetFlag = void (*)(void*, bool);
constexpr std::pair<GetFlag, SetFlag> kFlags[] = {
    {MdfCanMessageGetExtendedId, MdfCanMessageSetExtendedId},
    {MdfCanMessageGetDir, MdfCanMessageSetDir},
    {MdfCanMessageGetSrr, MdfCanMessageSetSrr},
    {MdfCanMessageGetEdl, MdfCanMessageSetEdl},
    {MdfCanMessageGetBrs, MdfCanMessageSetBrs},
    {MdfCanMessageGetEsi, MdfCanMessageSetEsi},
    {MdfCanMessageGetRtr, MdfCanMessageSetRtr},
    {MdfCanMessageGetWakeUp, MdfCanMessageSetWakeUp},
    {MdfCanMessageGetSingleWire, MdfCanMessageSetSingleWire},
};

// What all getters answer, the payload's bytes aside.
std::vector<std::uint64_t> answers(const void* handle) {
  std::vector<std::uint64_t> all = {MdfCanMessageGetMessageId(handle),
                                    MdfCanMessageGetCanId(handle),
                                    MdfCanMessageGetDlc(handle),
                                    MdfCanMessageGetDataLength(handle),
                                    MdfCanMessageGetDataBytes(handle, nullptr),
                                    MdfCanMessageGetDataIndex(handle)};
  for (const auto& [get, set] : kBytes) all.push_back(get(handle));
  for (const auto& [get, set] : kFlags) all.push_back(get(handle));
  return all;
}

const std::vector<std::uint64_t> kAllZero(6 + std::size(kBytes) + std::size(kFlags), 0);

TEST_F(CanHandle, SetsEachFieldAlone) {
  for (const auto& [changed, set] : kFlags) {
    set(handle(), true);
    for (const auto& [get, unused] : kFlags) EXPECT_EQ(get(handle()), get == changed);
    set(handle(), false);
  }
  std::uint8_t value = 0xF0;
  for (const auto& [get, set] : kBytes) set(handle(), ++value);
  MdfCanMessageSetDataIndex(handle(), 1ULL << 40);
  value = 0xF0;
  for (const auto& [get, set] : kBytes) EXPECT_EQ(get(handle()), ++value);
  EXPECT_EQ(MdfCanMessageGetDataIndex(handle()), 1ULL << 40);

  for (const auto& [get, set] : kFlags) set(handle(), true);
  const auto* message = static_cast<const MdfCanMessage*>(handle());
  for (const auto& [get, set] : kFlags) EXPECT_TRUE(get(handle()));
  EXPECT_TRUE(message->ExtendedId() && message->Rtr() && message->SingleWire());
  EXPECT_EQ(message->ErrorType(), static_cast<CanErrorType>(0xF3));
}

TEST_F(CanHandle, RefusesACodeAbove15) {
  EXPECT_EQ(MdfCanMessageSetDlc(handle(), 15), 0);
  EXPECT_EQ(MdfCanMessageGetDataBytes(handle(), nullptr), 64U);
  EXPECT_EQ(MdfCanMessageSetDlc(handle(), 16), -1);
  EXPECT_EQ(MdfCanMessageGetDlc(handle()), 15);
  MdfCanMessageSetDataLength(handle(), 9);
  EXPECT_EQ(MdfCanMessageGetDlc(handle()), 9);
  EXPECT_EQ(MdfCanMessageGetDataLength(handle()), 12U);
}

TEST_F(CanHandle, CopiesThePayloadInAndOut) {
  const Bytes nine(9, 0xAA);
  MdfCanMessageSetDataBytes(handle(), nine.data(), 9);
  Bytes twelve = nine;
  twelve.resize(12);
  EXPECT_EQ(payload(), twelve);
  MdfCanMessageSetDataBytes(handle(), nullptr, 5);
  EXPECT_EQ(payload(), twelve);
  MdfCanMessageSetDataBytes(handle(), nullptr, 0);
  EXPECT_EQ(payload(), Bytes());
  EXPECT_EQ(MdfCanMessageGetDlc(handle()), 0);
  MdfCanMessageSetDataBytes(handle(), Bytes(65, 0xBB).data(), 65);
  EXPECT_EQ(payload(), Bytes(8, 0xBB));
  MdfCanMessageSetDataBytes(handle(), nine.data(), 0);
  EXPECT_EQ(payload(), Bytes());
}

TEST(CanHandles, NullMeansNoMessage) {
  MdfCanMessageUnInit(MdfCanMessageInit());
  MdfCanMessageUnInit(nullptr);
  EXPECT_EQ(answers(nullptr), kAllZero);
  Bytes bytes(8, 0xEE);
  EXPECT_EQ(MdfCanMessageGetDataBytes(nullptr, bytes.data()), 0U);
  EXPECT_EQ(bytes, Bytes(8, 0xEE));

  EXPECT_EQ(MdfCanMessageSetDlc(nullptr, 3), -1);
  MdfCanMessageSetMessageId(nullptr, 1);
  MdfCanMessageSetDataLength(nullptr, 1);
  MdfCanMessageSetDataBytes(nullptr, bytes.data(), 8);
  MdfCanMessageSetDataIndex(nullptr, 1);
  for (const auto& [get, set] : kBytes) set(nullptr, 1);
  for (const auto& [get, set] : kFlags) set(nullptr, true);
}

}  // namespace
}  // namespace tolvex
