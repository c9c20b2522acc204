// Recording through the plain functions, and random recordings held against a simple model.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Mdf4/MdfRecorder.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/RecordedFile.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::test {
namespace {

constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds
constexpr int kFirst = 2;  // a file begins with two groups of the recorder's own

template <auto release>
struct Releaser {
  void operator()(void* handle) const { release(handle); }
};
using Record = std::unique_ptr<void, Releaser<freeRecord>>;
using FormulaHandle = std::unique_ptr<void, Releaser<freeFormula>>;

class MdfEngineTest : public testing::Test {
 protected:
  void TearDown() override {
    deleteRecorder(recorder_);
    recorderSettings.splitSize = 0;
  }

  void start() { ASSERT_EQ(startRecord(recorder_, path_.c_str(), kStart), 0); }
  RecordedFile finish() {
    stopRecord(recorder_, kStart + 1);
    return RecordedFile(path_);
  }

  CapturedDiagnostics diagnostics_;
  TempDir dir_;
  std::string path_ = dir_.path("log.mf4");
  void* recorder_ = createRecorder(false);
};

template <class... Results>
void expectRefused(const char* of, Results... results) {
  int row = 0;
  for (const int result : {results...}) EXPECT_EQ(result, -1) << of << " " << row++;
}

TEST_F(MdfEngineTest, NullAndOtherWrongArgumentsAreRefused) {
  start();
  ASSERT_EQ(addDataGroup(recorder_, nullptr), 0);
  const Record handle(allocRecord(recorder_, 0));
  const FormulaHandle linear(allocFormula(1));
  void* const null = nullptr;
  void* const r = recorder_;
  void* const record = handle.get();
  void* const f = linear.get();
  const std::uint8_t bytes[16] = {};
  char text[8] = {};
  expectRefused("recorder", setParameter(null, 0, 0, bytes), setParameter(r, 0, -1, bytes),
                setParameter(r, 0, 1, null), startRecord(null, path_.c_str(), 0),
                startRecord(r, nullptr, 0), getRecorderError(null, text, 8),
                getRecorderError(r, nullptr, 8), getRecorderError(r, text, -1));
  expectRefused("frames", createBusLogConfiguration(null, 0, 8), createBusLogConfiguration(r, 1, 8),
                saveCanMessage(null, 0, bytes), saveCanMessage(r, 0, null),
                saveCanError(null, 0, bytes), saveCanError(r, 0, null),
                saveCanErrorFromCanError(null, 0, bytes), saveCanErrorFromCanError(r, 0, null));
  expectRefused("groups and records", addDataGroup(null, "a"), addChannelToDG(null, 0, bytes),
                addChannelToDG(r, 0, null), fillRecordData(null, "a", 1, bytes),
                fillRecordData(record, nullptr, 0, bytes), fillRecordData(record, "a", -1, bytes),
                fillRecordData(record, "a", 1, null), insertRecordToDG(null, 0, record),
                insertRecordToDG(r, 0, null), insertData(null, record), insertData(r, null),
                insertDataToDG(null, 0, 1, bytes), insertDataToDG(r, 0, -1, bytes),
                insertDataToDG(r, 0, 1, null), insertDataToDG(r, 1, 1, bytes));
  for (void* const wrong : {null, r}) {  // a group without channels has no size that is right
    EXPECT_EQ(insertRecordsToDG(wrong, 0, 1, 8, bytes), -1);
  }
  EXPECT_EQ(insertRecordsToDG(r, 0, 1, 0, bytes), -1);
  EXPECT_EQ(insertRecordsToDG(r, 0, 1, 1, null), -1);
  expectRefused("formulas", setChannelParameter(null, 0, 1, bytes), setChannelFormula(null, f),
                setFormulaParam(null, 8, bytes), setFormulaParam(f, -8, bytes),
                setFormulaParam(f, 8, null), addFormulaParamN2N(null, 1, 2),
                addFormulaParamN2T(null, 1, "a"), addFormulaParamN2T(f, 1, nullptr),
                addFormulaParamR2N(null, 1, 2, 3), addFormulaParamR2T(null, 1, 2, "a"),
                addFormulaParamR2T(f, 1, 2, nullptr), setFormulaParamDefault(null, 8, bytes),
                setFormulaParamDefault(f, 8, bytes));
  EXPECT_EQ(setParameter(r, 5, 0, bytes), 0) << "an unknown parameter";
  EXPECT_EQ(allocRecord(null, 0), nullptr);
  EXPECT_EQ(allocRecord(r, 1), nullptr);
  deleteRecorder(null);
  setStartTime(null, 1);
  stopRecord(null, 1);
  resetRecordData(null);
  freeRecord(null);
  freeChannel(null);
  freeFormula(null);
  EXPECT_EQ(getPendingTaskCount(null) + getMaxPendingTasks(null) + getLostRecordCount(null), 0U);
}

TEST_F(MdfEngineTest, SetsEachFieldOfAChannel) {
  start();
  const std::unique_ptr<void, Releaser<freeChannel>> channel(allocChannel());
  const double limits[] = {-2.5, 7};
  const std::uint32_t byteCount = 2;
  const std::uint64_t mask = 0x7F8;
  const std::uint8_t codes[] = {2, 1, 3, 1};
  const std::tuple<int, int, const void*> fields[] = {
      {0, 1, &codes[0]},  {1, 1, &codes[1]},  {2, 0, "name"},    {3, 0, "unit"},
      {4, 8, &limits[0]}, {5, 8, &limits[1]}, {6, 1, &codes[2]}, {7, 4, &byteCount},
      {8, 0, "comment"},  {9, 1, &codes[3]},  {10, 8, &mask}};
  for (const auto& [id, size, data] : fields) {
    EXPECT_EQ(setChannelParameter(channel.get(), id, size, data), 0) << id;
  }
  EXPECT_EQ(setChannelParameter(channel.get(), 11, 1, codes), -1);
  EXPECT_EQ(setChannelParameter(channel.get(), -1, 1, codes), -1);
  EXPECT_EQ(setChannelParameter(channel.get(), 2, -1, "a"), -1);
  EXPECT_EQ(setChannelParameter(channel.get(), 2, 1, nullptr), -1);
  EXPECT_EQ(addDataGroup(recorder_, "group"), 0);
  EXPECT_EQ(addChannelToDG(recorder_, 0, channel.get()), 0);
  EXPECT_EQ(addChannelToDG(recorder_, 1, channel.get()), -1);
  const Record record(allocRecord(recorder_, 0));
  EXPECT_EQ(fillRecordData(record.get(), "name", 2, "\x12\x34"), 0);
  EXPECT_EQ(insertRecordToDG(recorder_, 0, record.get()), 0);
  const RecordedGroup group = finish().groups.at(kFirst);
  EXPECT_EQ(group.description(),
            "group from  flags 0 bytes 2+0:"
            " name[unit]comment type 2/1/2 at 0.3:8 flags 16 limits -2.5..7 {}");
  EXPECT_EQ(group.bytes, (Bytes{0x30, 0x02})) << "turned around and masked";
}

TEST_F(MdfEngineTest, BuildsFormulasOfEachKind) {
  const double n[] = {3, 4};
  using Numbers = std::vector<double>;
  for (std::uint8_t kind = 0; kind < 10; ++kind) {
    SCOPED_TRACE(int{kind});
    const FormulaHandle handle(allocFormula(kind));
    void* const f = handle.get();
    const Formula& formula = *static_cast<const Formula*>(f);
    const bool takesNumbers = kind == 1 || kind == 2;
    EXPECT_EQ(setFormulaParam(f, 12, n), kind == 3 ? 0 : -1);
    EXPECT_EQ(setFormulaParam(f, 65536 + 8, n), takesNumbers || kind == 3 ? 0 : -1);
    EXPECT_EQ(formula.parameters, takesNumbers ? Numbers{3} : Numbers()) << "16 bits of the size";
    EXPECT_EQ(setFormulaParam(f, 0, "X+1"), takesNumbers || kind == 3 ? 0 : -1);
    EXPECT_EQ(formula.formulaText, kind == 3 ? "X+1" : "");
    const void* const value = kind == 6 ? static_cast<const void*>(n) : "other";
    EXPECT_EQ(setFormulaParamDefault(f, 8, value), kind >= 6 && kind <= 8 ? 0 : -1);
    EXPECT_EQ(formula.defaultValue, kind == 6 ? 3 : 0);
    EXPECT_EQ(formula.defaultText, kind == 7 || kind == 8 ? "other" : "");
    EXPECT_EQ(addFormulaParamN2N(f, 1, 2) + addFormulaParamN2T(f, 3, "a"), 0);
    EXPECT_EQ(addFormulaParamR2N(f, 4, 5, 6) + addFormulaParamR2T(f, 7, 8, "b"), 0);
    EXPECT_EQ(formula.parameters, Numbers({1, 2, 3, 4, 5, 6, 7, 8})) << "whatever the kind";
    EXPECT_EQ(formula.texts, (std::vector<std::string>{"a", "b"}));
    ChannelInfo channel;
    EXPECT_EQ(setChannelFormula(&channel, nullptr), -1);
    EXPECT_EQ(setChannelFormula(&channel, f), 0);
    EXPECT_EQ(addFormulaParamN2N(f, 1, 2), 0);
    EXPECT_EQ(channel.formula->parameters.size(), 8U) << "it has a copy";
  }
}

TEST_F(MdfEngineTest, OnlyInsertingIntoAGroupZeroesTheRecord) {
  start();
  ChannelInfo channel;
  channel.name = "a";
  channel.byteCount = 2;
  EXPECT_EQ(addDataGroup(recorder_, ""), 0);
  EXPECT_EQ(addChannelToDG(recorder_, 0, &channel), 0);
  const Record handle(allocRecord(recorder_, 0));
  const auto contents = [&] {
    const auto& data = *static_cast<const RecordData*>(handle.get());
    return Bytes(data.data(), data.data() + data.size());
  };
  const std::uint8_t bytes[] = {7, 8, 9};
  const auto fill = [&](int size) { return fillRecordData(handle.get(), "a", size, bytes); };
  EXPECT_EQ(fill(2), 0);
  EXPECT_EQ(insertData(recorder_, handle.get()), -1);
  EXPECT_EQ(contents(), (Bytes{7, 8}));
  EXPECT_EQ(insertRecordToDG(recorder_, 1, handle.get()), -1);
  EXPECT_EQ(contents(), Bytes(2));
  EXPECT_EQ(fill(1), 0);
  EXPECT_EQ(insertRecordToDG(recorder_, 0, handle.get()), 0);
  EXPECT_EQ(contents(), Bytes(2));
  EXPECT_EQ(fill(2), 0);
  EXPECT_EQ(fillRecordData(handle.get(), "a", 0, nullptr), 0);
  EXPECT_EQ(contents(), (Bytes{7, 8}));
  resetRecordData(handle.get());
  EXPECT_EQ(contents(), Bytes(2));
  EXPECT_EQ(insertDataToDG(recorder_, 0, 2, bytes + 1), 0);
  EXPECT_EQ(insertDataToDG(recorder_, 0, 3, bytes), -1);
  EXPECT_EQ(insertDataToDG(recorder_, ~0U, 2, bytes), -1);
  EXPECT_EQ(finish().groups.at(kFirst).bytes, (Bytes{7, 0, 8, 9}));
}

TEST_F(MdfEngineTest, AnErrorIsCutToTheRoomForIt) {
  const std::string path = dir_.path("no such folder/log.mf4");
  EXPECT_EQ(startRecord(recorder_, path.c_str(), kStart), 1);
  char text[9] = "xxxxxxxx";
  EXPECT_GT(getRecorderError(recorder_, text, 8), static_cast<int>(path.size()));
  EXPECT_EQ(std::string(text, 9), path.substr(0, 7) + '\0' + '\0');
  EXPECT_GT(getRecorderError(recorder_, text, 0), 8);
}

TEST_F(MdfEngineTest, FramesTakeThePayloadThatWasConfigured) {
  start();
  MdfCanMessage message;
  MdfCanError error;
  const std::pair<int, std::uint32_t> rows[] = {{3, 23}, {12, 27}, {100, 79}, {-1, 23}};
  for (const auto& [payload, size] : rows) {
    message.BusChannel(static_cast<std::uint8_t>(message.BusChannel() + 1));
    EXPECT_EQ(createBusLogConfiguration(recorder_, 0, payload), 0);
    EXPECT_EQ(saveCanMessage(recorder_, kStart, &message), 0);
  }
  EXPECT_EQ(saveCanError(recorder_, kStart, &message), 0);
  error.Crc(1);
  EXPECT_EQ(saveCanErrorFromCanError(recorder_, kStart, &error), 0);
  const RecordedFile file = finish();
  std::vector<std::uint32_t> sizes;
  for (const RecordedGroup& group : file.groups) sizes.push_back(group.cg.cg_data_bytes);
  EXPECT_EQ(sizes, (std::vector<std::uint32_t>{16, 16, 23, 27, 79, 23, 26, 113}));
  EXPECT_EQ(saveCanMessage(recorder_, kStart, &message), -1) << "after the end";
}

// The frames of a group are as long as the size that was set when it was made.
TEST_F(MdfEngineTest, FramesAreRefusedWhileAnotherPayloadIsConfigured) {
  for (const bool async : {false, true}) {
    SCOPED_TRACE(async);
    const std::unique_ptr<void, void (*)(void*)> recorder(createRecorder(async), deleteRecorder);
    const auto save = [&](int payload, std::uint8_t channel) {
      EXPECT_EQ(createBusLogConfiguration(recorder.get(), 0, payload), 0);
      MdfCanMessage message;
      message.BusChannel(channel);
      message.DataBytes(std::vector<std::uint8_t>(64, 7));
      return saveCanMessage(recorder.get(), kStart, &message);
    };
    const std::string path = dir_.path(async ? "async.mf4" : "sync.mf4");
    ASSERT_EQ(startRecord(recorder.get(), path.c_str(), kStart), 0);
    EXPECT_EQ(save(8, 1), 0);
    for (const int payload : {64, 9}) EXPECT_EQ(save(payload, 1), -1);
    EXPECT_EQ(save(64, 2), async ? -1 : 0) << "a group of its own, or the one of all";
    for (const int payload : {8, -1}) EXPECT_EQ(save(payload, 1), 0);
    EXPECT_EQ(save(8, 2), async ? 0 : -1);
    stopRecord(recorder.get(), 0);
    EXPECT_EQ(getLostRecordCount(recorder.get()), 0U);
    std::vector<std::pair<std::uint32_t, std::size_t>> groups;  // record size, records
    for (const RecordedGroup& group : RecordedFile(path).groups) {
      groups.emplace_back(group.cg.cg_data_bytes, group.records().size());
    }
    groups.erase(groups.begin(), groups.begin() + 2);  // of the start and stop time
    using Groups = decltype(groups);
    EXPECT_EQ(groups, async ? (Groups{{23, 4}}) : (Groups{{23, 3}, {79, 1}}));
  }
}

}  // namespace
}  // namespace tolvex::test
