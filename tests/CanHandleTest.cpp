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

// What the getters of numbers answer.
std::vector<std::uint64_t> numbers(const void* handle) {
  return {MdfCanMessageGetMessageId(handle),   MdfCanMessageGetCanId(handle),
          MdfCanMessageGetDlc(handle),         MdfCanMessageGetDataLength(handle),
          MdfCanMessageGetDataIndex(handle),   MdfCanMessageGetBusChannel(handle),
          MdfCanMessageGetBitPosition(handle), MdfCanMessageGetErrorType(handle)};
}

void setNumbers(void* handle) {
  MdfCanMessageSetMessageId(handle, 0x80000123);
  MdfCanMessageSetDlc(handle, 9);
  MdfCanMessageSetDataIndex(handle, 1ULL << 40);
  MdfCanMessageSetBusChannel(handle, 0xF1);
  MdfCanMessageSetBitPosition(handle, 0xF2);
  MdfCanMessageSetErrorType(handle, 0xF3);
}

TEST_F(CanHandle, SetsEachFieldAlone) {
  for (const auto& [changed, set] : kFlags) {
    set(handle(), true);
    for (const auto& [get, unused] : kFlags) EXPECT_EQ(get(handle()), get == changed);
    set(handle(), false);
  }
  for (const auto& [get, set] : kFlags) set(handle(), true);
  for (const auto& [get, set] : kFlags) EXPECT_TRUE(get(handle()));
  setNumbers(handle());
  EXPECT_EQ(numbers(handle()),
            (std::vector<std::uint64_t>{0x80000123, 0x123, 9, 12, 1ULL << 40, 0xF1, 0xF2, 0xF3}));
  EXPECT_EQ(MdfCanMessageSetDlc(handle(), 16), -1);
  MdfCanMessageSetDataLength(handle(), 64);
  EXPECT_EQ(MdfCanMessageGetDlc(handle()), 15);
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
}

TEST(CanHandles, NullMeansNoMessage) {
  MdfCanMessageUnInit(MdfCanMessageInit());
  MdfCanMessageUnInit(nullptr);
  EXPECT_EQ(MdfCanMessageSetDlc(nullptr, 3), -1);
  setNumbers(nullptr);
  MdfCanMessageSetDataLength(nullptr, 1);
  EXPECT_EQ(numbers(nullptr), std::vector<std::uint64_t>(8, 0));
  Bytes bytes(8, 0xEE);
  MdfCanMessageSetDataBytes(nullptr, bytes.data(), 8);
  EXPECT_EQ(MdfCanMessageGetDataBytes(nullptr, bytes.data()), 0U);
  EXPECT_EQ(bytes, Bytes(8, 0xEE));
  for (const auto& [get, set] : kFlags) {
    set(nullptr, true);
    EXPECT_FALSE(get(nullptr));
  }
}

}  // namespace
}  // namespace tolvex
