// Recordings of a hardware logger, read by the library and by hand.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/Diagnostics.h"
#include "tests/support/HandReader.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

std::string data(const char* name) {
  return std::string(TOLVEX_TEST_DATA "/") + name;
}

class RealFiles : public testing::Test {
 protected:
  CapturedDiagnostics diagnostics_;
};

TEST_F(RealFiles, LoggerFramesAreThoseReadByHand) {
  std::vector<HandFrame> byHand = readFramesByHand(data("raw-00000005.MF4"));
  ASSERT_EQ(byHand.size(), 5477U);
  MdfReader reader(data("raw-00000005.MF4"));
  ASSERT_TRUE(reader.open());
  EXPECT_EQ(reader.getCanCount(), 5477U);
  double last = 0;
  for (std::size_t i = 0; i < byHand.size(); ++i) {
    SCOPED_TRACE(i);
    const HandFrame& want = byHand[i];
    const auto frame = reader.getCanMessage();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->Timestamp(), static_cast<std::uint64_t>(std::llround(want.seconds * 1e9)));
    EXPECT_EQ(frame->CanId(), want.id);
    EXPECT_EQ(frame->ExtendedId(), want.extended);
    EXPECT_EQ(frame->BusChannel(), want.busChannel - 1);
    EXPECT_EQ(frame->Dlc(), want.dlc);
    EXPECT_EQ(frame->DataBytes(), want.payload);
    EXPECT_EQ(frame->Dir(), want.dir);
    EXPECT_EQ(frame->Edl(), want.edl);
    EXPECT_EQ(frame->Brs(), want.brs);
    EXPECT_EQ(frame->Esi(), want.esi);
    EXPECT_EQ(frame->DataIndex(), i);
    last = want.seconds;
  }
  EXPECT_EQ(reader.getCanMessage(), nullptr);
  EXPECT_EQ(reader.getCanError(), nullptr);
  EXPECT_EQ(reader.getStopTime(), static_cast<std::uint64_t>(last * 1e9));
  EXPECT_TRUE(reader.getProblems().empty());
}

// Another program decoded the same drive: one group for each message, named after its identifier.
TEST_F(RealFiles, FramesHoldTheSignalsOfTheDecodedFile) {
  std::map<std::uint32_t, std::vector<std::shared_ptr<MdfCanMessage>>> frames;
  MdfReader raw(data("raw-00000005.MF4"));
  ASSERT_TRUE(raw.open());
  for (const auto& frame : raw.getCanMessages(6000)) frames[frame->CanId()].push_back(frame);
  std::map<std::uint32_t, DbcMessage> messages;
  for (const DbcMessage& message : readDbc(data("canmod-gps.dbc"))) messages[message.id] = message;

  MdfSigReader decoded(data("decoded-00000005.mf4"));
  ASSERT_TRUE(decoded.open());
  ASSERT_EQ(decoded.getDGCount(), 9);
  MdfColumnReader columns(data("decoded-00000005.mf4"));
  ASSERT_TRUE(columns.open());
  int values = 0;
  for (int dg = 0; dg < 9; ++dg) {
    unsigned id = 0;
    ASSERT_EQ(std::sscanf(decoded.getCGName(dg, 0).c_str(), "CAN2 message ID=0x%x", &id), 1);
    SCOPED_TRACE(decoded.getCGName(dg, 0));
    const auto& ofMessage = frames[id];
    const auto& dbc = messages.at(id).signals;
    ASSERT_EQ(static_cast<std::size_t>(decoded.getRecordCount(dg, 0)), ofMessage.size());
    ASSERT_EQ(static_cast<std::size_t>(decoded.getCNCount(dg, 0)), dbc.size() + 1);
    MdfSigCCInfo time;
    ASSERT_TRUE(decoded.getTimeCCInfo(dg, 0, time));
    std::vector<MdfSigCCInfo> infos(dbc.size());
    std::vector<DbcSignal> signals;
    for (int cn = 1; cn <= static_cast<int>(dbc.size()); ++cn) {
      ASSERT_TRUE(decoded.getCCInfo(dg, 0, cn, infos[static_cast<std::size_t>(cn) - 1]));
      const auto found = std::find_if(dbc.begin(), dbc.end(), [&](const DbcSignal& signal) {
        return signal.name == decoded.getCNName(dg, 0, cn);
      });
      ASSERT_NE(found, dbc.end());
      signals.push_back(*found);
    }
    std::vector<std::int64_t> times(ofMessage.size());
    EXPECT_EQ(columns.readNanoseconds(dg, 0, ~std::uint64_t{0}, times.data()),
              std::ssize(ofMessage));
    std::vector<std::vector<double>> physical(signals.size(), std::vector<double>(times.size()));
    for (std::size_t i = 0; i < signals.size(); ++i) {
      const auto channel = static_cast<std::int32_t>(i + 1);
      EXPECT_EQ(columns.read(dg, {{channel, physical[i].data(), nullptr, true}}, 0, times.size()),
                std::ssize(times));
    }
    for (std::size_t row = 0; row < ofMessage.size(); ++row) {
      const auto& frame = ofMessage[row];
      const auto record = decoded.readSignalData(dg);
      ASSERT_NE(record, nullptr);
      double value = 0;
      ASSERT_TRUE(time.convertToPhysical(record->data, value));
      EXPECT_EQ(static_cast<std::uint64_t>(std::llround(value * 1e9)), frame->Timestamp());
      EXPECT_EQ(static_cast<std::uint64_t>(times[row] - columns.info().startTimeNs),
                frame->Timestamp());
      for (std::size_t i = 0; i < signals.size(); ++i, ++values) {
        ASSERT_TRUE(infos[i].convertToPhysical(record->data, value));
        EXPECT_EQ(value, signals[i].decode(frame->DataBytes())) << signals[i].name;
        EXPECT_EQ(physical[i][row], value) << signals[i].name;
      }
    }
  }
  EXPECT_EQ(values, 32938);
}

}  // namespace
}  // namespace tolvex::test
