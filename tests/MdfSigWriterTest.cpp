// Signals written, read back, and copied from one file into another.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

using Texts = std::vector<std::string>;
using Fields = std::map<std::string, Bytes>;

constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds
// A recorded file begins with two groups of the recorder's own.
constexpr int kFirst = 2;

MdfSigCCInfo describe(const std::string& name, std::uint32_t dataType, std::uint8_t bits,
                      std::uint8_t conversion = 0, const std::vector<double>& values = {},
                      const Texts& texts = {}) {
  MdfSigCCInfo info;
  info.name = name;
  info.dataType = dataType;
  info.bitCount = bits;
  info.conversionType = conversion;
  info.values = values;
  info.valueCount = static_cast<std::uint16_t>(values.size());
  info.texts = texts;
  info.textCount = static_cast<std::uint16_t>(texts.size());
  info.initDataTypeInfo();
  return info;
}

// The physical value, then the text in front of "|"; "-" in front when there is none.
std::string shown(const MdfSigCCInfo& info, const Bytes& record) {
  double phys = 0;
  std::string text;
  const bool found = info.convertToPhysical(record, phys, text);
  return (found ? "" : "- ") + (text.empty() ? "" : text + "|") + std::to_string(phys);
}

class MdfSigWriterTest : public testing::Test {
 protected:
  MdfSigWriterTest() { collectErrors(writer_); }

  void collectErrors(MdfSigWriter& writer) {
    writer.setErrorCallback([this](const std::string& error) { errors_.push_back(error); });
  }
  Texts takeErrors() { return std::exchange(errors_, {}); }

  void start() {
    ASSERT_TRUE(writer_.open());
    ASSERT_EQ(writer_.startRecord(kStart), 0);
  }
  // Starts a recording of one group with the channel.
  void start(const MdfSigCCInfo& channel) {
    start();
    ASSERT_EQ(writer_.addDataGroup("group"), 0);
    ASSERT_EQ(writer_.addSignalChannel(0, channel), 0);
  }

  std::shared_ptr<MdfSigReader> openFile(const std::string& path) {
    auto reader = std::make_shared<MdfSigReader>(path);
    EXPECT_TRUE(reader->open()) << reader->getLastError();
    EXPECT_TRUE(reader->getProblems().empty()) << reader->getProblems()[0];
    return reader;
  }
  // Completes the file and opens it.
  std::shared_ptr<MdfSigReader> finish() {
    writer_.close();
    return openFile(path_);
  }

  static MdfSigCCInfo info(MdfSigReader& reader, int dg, int cn) {
    MdfSigCCInfo info;
    EXPECT_TRUE(reader.getCCInfo(dg, 0, cn, info)) << dg << " " << cn;
    return info;
  }
  static Texts names(MdfSigReader& reader, int dg) {
    Texts names;
    const int count = reader.getCNCount(dg, 0);
    for (int cn = 0; cn < count; ++cn) names.push_back(reader.getCNName(dg, 0, cn));
    return names;
  }

  CapturedDiagnostics diagnostics_;
  TempDir dir_;
  std::string path_ = dir_.path("signals.mf4");
  Texts errors_;
  MdfSigWriter writer_{path_};
};

TEST_F(MdfSigWriterTest, ValuesReadBackByEveryConversion) {
  struct Row {
    MdfSigCCInfo channel;
    Bytes first;
    Bytes second;
    Texts shown;
  };
  const auto oneByte = [](const MdfSigCCInfo& channel, std::uint8_t first, std::uint8_t second,
                          const Texts& shown) {
    return Row{channel, {first}, {second}, shown};
  };
  const Row rows[] = {
      {describe("none", 1, 16), {0x12, 0x34}, {0xFF, 0xFE}, {"4660.000000", "65534.000000"}},
      {describe("rational", 4, 64, 2, {0, 1, 0, 0, 1, 1}),
       packed(3.0),
       packed(-1.0),
       {"0.750000", "- -1.000000"}},
      oneByte(describe("linear", 2, 8, 1, {-40, 0.5}), 0x9C, 100, {"-90.000000", "10.000000"}),
      oneByte(describe("algebraic", 0, 8, 3), 5, 6, {"5.000000", "6.000000"}),
      oneByte(describe("lines", 0, 8, 4, {0, 0, 10, 100}), 5, 11, {"50.000000", "100.000000"}),
      oneByte(describe("names", 0, 8, 7, {1, 2}, {"on", "off", "other"}), 2, 3,
              {"off|2.000000", "other|3.000000"}),
      oneByte(describe("ranges", 0, 8, 8, {0, 4, 5, 9}, {"low", "high", "else"}), 9, 10,
              {"high|9.000000", "else|10.000000"}),
      oneByte(describe("odd ranges", 0, 8, 8, {0, 4, 5}, {"low"}), 1, 2,
              {"- 1.000000", "- 2.000000"}),
      oneByte(describe("text to value", 0, 8, 9, {1}, {"a"}), 0, 1, {"0.000000", "1.000000"}),
  };
  start();
  ASSERT_EQ(writer_.addDataGroup("all kinds"), 0);
  Fields first;
  Fields second;
  for (const Row& row : rows) {
    EXPECT_EQ(writer_.addSignalChannel(0, row.channel), 0) << row.channel.name;
    first[row.channel.name] = row.first;
    second[row.channel.name] = row.second;
  }
  EXPECT_EQ(writer_.writeSignalDataBatch(0, 0.25, first), 0);
  EXPECT_EQ(writer_.writeSignalDataBatch(0, 0.75, second), 0);
  const auto reader = finish();

  EXPECT_EQ(reader->getCGName(kFirst, 0), "all kinds");
  EXPECT_EQ(reader->getStartTime(), kStart * 1000);
  EXPECT_EQ(reader->getRecordCount(kFirst, 0), 2);
  EXPECT_EQ(reader->readSignalTimeRange(kFirst, 0), std::pair(0.25, 0.75));
  for (int i = 0; i < 2; ++i) {
    const auto record = reader->readSignalDataByIndex(kFirst, i);
    ASSERT_NE(record, nullptr);
    for (int cn = 1; const Row& row : rows) {
      const MdfSigCCInfo channel = info(*reader, kFirst, cn++);
      EXPECT_EQ(channel.name, row.channel.name);
      EXPECT_EQ(shown(channel, record->data), row.shown.at(static_cast<std::size_t>(i)))
          << channel.name;
    }
  }
  EXPECT_TRUE(errors_.empty());
}

TEST_F(MdfSigWriterTest, ChannelsKeepTheirDescription) {
  MdfSigCCInfo full = describe("full", 2, 16);
  full.unit = "V";
  full.comment = "measured";
  full.flags = 0x4AF;
  full.invalidBitPos = 3;
  full.cnPrecisionValid = full.limitExtValid = full.physRangeValid = full.valueRangeValid = true;
  full.cnPrecision = 3;
  full.limitExtMin = -5, full.limitExtMax = 5;
  full.physRangeMin = -1, full.physRangeMax = 1;
  full.valueRangeMax = 9;
  MdfSigCCInfo raw = full;
  raw.name = "raw range";
  raw.physRangeValid = false;
  MdfSigCCInfo bits = describe("12 bits", 0, 12);
  bits.bitOffset = 3;
  start(full);
  EXPECT_EQ(writer_.addSignalChannel(0, raw), 0);
  EXPECT_EQ(writer_.addSignalChannel(0, bits), 0);
  const auto reader = finish();

  EXPECT_EQ(names(*reader, kFirst), (Texts{"time", "full", "raw range", "12 bits"}));
  const MdfSigCCInfo time = info(*reader, kFirst, 0);
  EXPECT_EQ(std::pair(time.channelType, time.syncType),
            (std::pair<std::uint8_t, std::uint8_t>(2, 1)));
  EXPECT_EQ(time.unit, "s");
  const MdfSigCCInfo read = info(*reader, kFirst, 1);
  EXPECT_EQ(read.unit + read.comment, "Vmeasured");
  EXPECT_EQ(read.displayPrecision, 3);
  EXPECT_EQ(read.flags, 0x4BCU) << "less the two of invalid samples, and with its limits";
  const MdfSigCCInfo readRaw = info(*reader, kFirst, 2);
  const double ranges[] = {read.valueRangeMin, read.valueRangeMax, read.limitExtMin,
                           read.limitExtMax,   read.limitMin,      read.limitMax,
                           readRaw.limitMin,   readRaw.limitMax};
  EXPECT_EQ(std::to_array(ranges), (std::array<double, 8>{0, 9, -5, 5, -1, 1, 0, 9}));
  const MdfSigAttr place = reader->getSigAttr(kFirst, 0, 3);
  EXPECT_EQ(place.byteOffset, 12U);
  EXPECT_EQ(place.bitOffset, 0);
  EXPECT_EQ(place.bitCount, 16U) << "whole bytes";
}

// Counts come from files, and may promise more than there is.
TEST_F(MdfSigWriterTest, TakesOnlyWhatAnIncompleteConversionHolds) {
  start(describe("whole", 0, 8));
  int channels = 2;  // with "time"
  for (std::uint8_t kind = 1; kind < 20; ++kind) {
    for (const std::vector<double>& values : {std::vector<double>{}, {1}, {1, 2, 3}}) {
      MdfSigCCInfo channel = describe("", 0, 8, kind, values, {"a"});
      for (const unsigned count : {0U, 5U, 6U, 0xFFFFU}) {
        channel.name = std::to_string(channels++);
        channel.valueCount = static_cast<std::uint16_t>(count);
        channel.textCount = static_cast<std::uint16_t>(count + 1);
        EXPECT_EQ(writer_.addSignalChannel(0, channel), 0);
      }
    }
  }
  const auto reader = finish();
  EXPECT_EQ(reader->getCNCount(kFirst, 0), channels);
}

TEST_F(MdfSigWriterTest, WritesSingleChannelsAndRefusesWhatDoesNotFit) {
  start(describe("wide", 0, 16));
  EXPECT_EQ(writer_.addSignalChannel(0, describe("other", 0, 8)), 0);
  const std::uint8_t bytes[] = {1, 2, 3};
  EXPECT_EQ(writer_.writeSignalData(0, 1, "wide", bytes, 2), 0);
  EXPECT_EQ(writer_.writeSignalData(0, 2, "wide", bytes, 1), 0) << "fewer bytes";
  EXPECT_EQ(writer_.writeSignalData(0, 3, "wide", bytes, 3), -1) << "more bytes";
  EXPECT_EQ(writer_.writeSignalData(0, 3, "nobody", bytes, 1), -1);
  EXPECT_EQ(writer_.writeSignalData(0, 3, "wide", nullptr, 1), -1);
  EXPECT_EQ(writer_.writeSignalDataBatch(0, 3, {{"other", {7}}, {"wide", {1, 2, 3}}}), -1);
  EXPECT_EQ(writer_.writeSignalDataBatch(0, 4, {}), 0) << "the time alone";
  EXPECT_EQ(takeErrors(), Texts{});
  EXPECT_EQ(writer_.writeSignalData(1, 5, "wide", bytes, 1), -1);
  EXPECT_EQ(takeErrors(), Texts{"Failed to allocate record data"});
  const auto reader = finish();

  EXPECT_EQ(reader->getRecordCount(kFirst, 0), 3);
  Bytes records;
  int size = 0;
  EXPECT_TRUE(reader->readSignalDataBlock(kFirst, 0, 3, records, size));
  EXPECT_EQ(records, joined({packed(1.0, std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{0}),
                             packed(2.0, std::uint8_t{1}, std::uint8_t{0}, std::uint8_t{0}),
                             packed(4.0, std::uint8_t{0}, std::uint8_t{0}, std::uint8_t{0})}));
}

TEST_F(MdfSigWriterTest, EveryGroupHasOneTime) {
  start();
  EXPECT_EQ(writer_.addDataGroup(""), 0);
  EXPECT_EQ(writer_.addDataGroup("named"), 1);
  EXPECT_EQ(writer_.setDataGroupComment(0, "named later"), 0);
  EXPECT_EQ(writer_.addTimeChannel(1), 0);
  EXPECT_EQ(writer_.addTimeChannel(1), 0);
  for (const int dg : {0, 1}) {
    EXPECT_EQ(writer_.addSignalChannel(dg, describe("a", 0, 8)), 0);
    for (const char* name : {"time", "a"}) {
      EXPECT_EQ(writer_.addSignalChannel(dg, describe(name, 0, 8)), -1) << "a name of its own";
    }
    EXPECT_EQ(writer_.addSignalChannel(dg, describe("b", 0, 8)), 0);
    EXPECT_EQ(writer_.writeSignalDataBatch(dg, 1, {{"b", {7}}}), 0);
    EXPECT_EQ(writer_.addSignalChannel(dg, describe("c", 0, 8)), -1) << "behind a record";
  }
  const auto reader = finish();
  EXPECT_EQ(reader->getCGName(kFirst, 0), "named later");
  for (const int dg : {0, 1}) EXPECT_EQ(names(*reader, kFirst + dg), (Texts{"time", "a", "b"}));
}

TEST_F(MdfSigWriterTest, ACopyOfARealFileHasItsValues) {
  const auto source = openFile(TOLVEX_TEST_DATA "/decoded-00000005.mf4");
  start();
  const int groups = source->getDGCount();
  ASSERT_EQ(groups, 9);
  // The physical values of the next record.
  const auto next = [](MdfSigReader& reader, int dg) {
    std::vector<double> values;
    const auto record = reader.readSignalData(dg, 0);
    for (int cn = 0; record != nullptr && cn < reader.getCNCount(dg, 0); ++cn) {
      values.emplace_back();
      EXPECT_TRUE(info(reader, dg, cn).convertToPhysical(record->data, values.back()));
    }
    return values;
  };
  for (int dg = 0; dg < groups; ++dg) {
    ASSERT_EQ(writer_.createDataGroupFromReader(source, dg, 0, source->getCGName(dg, 0)), dg);
    const int count = source->getRecordCount(dg, 0);
    for (int i = 0; i < count; ++i) {
      const double seconds = next(*source, dg).at(0);
      const auto record = source->readSignalDataByIndex(dg, i);
      Fields fields;
      for (int cn = 1; cn < source->getCNCount(dg, 0); ++cn) {
        ASSERT_TRUE(source->readValueBytes(dg, 0, cn, record->data.data(), record->data.size(),
                                           fields[source->getCNName(dg, 0, cn)]));
      }
      ASSERT_EQ(writer_.writeSignalDataBatch(dg, seconds, fields), 0);
    }
    source->resetDataStream(dg, 0);
  }
  const auto copy = finish();

  for (int dg = 0; dg < groups; ++dg) {
    SCOPED_TRACE(dg);
    EXPECT_EQ(copy->getCGName(kFirst + dg, 0), source->getCGName(dg, 0));
    EXPECT_EQ(names(*copy, kFirst + dg), names(*source, dg));
    for (int cn = 0; cn < source->getCNCount(dg, 0); ++cn) {
      EXPECT_EQ(info(*copy, kFirst + dg, cn).unit, info(*source, dg, cn).unit);
    }
    int count = 0;
    for (auto want = next(*source, dg); !want.empty(); want = next(*source, dg), ++count) {
      ASSERT_EQ(next(*copy, kFirst + dg), want);
    }
    EXPECT_TRUE(next(*copy, kFirst + dg).empty());
    EXPECT_EQ(count, dg == 8 ? 4518 : 41);
  }
  EXPECT_TRUE(errors_.empty());
}

TEST_F(MdfSigWriterTest, ACopyHoldsTheFixedLengthValueChannels) {
  FileBuilder file;
  const Link linear = file.cc({.type = 1, .values = {1, 0.5}, .name = file.tx("half")});
  file.signalGroup(
      {{.name = "packed", .byteOffset = 8, .bitOffset = 4, .bitCount = 12, .conversion = linear},
       {.name = "marked", .byteOffset = 10, .flags = 2},
       {.name = "angle", .type = 2, .sync = 2, .byteOffset = 8},
       {.name = "variable", .type = 1, .byteOffset = 8},
       {.name = "marked", .byteOffset = 9}},
      {packed(0.5, std::uint16_t{0xABC0}, std::uint8_t{1})});
  file.signalGroup({}, {packed(0.5)});
  const auto source = openFile(file.write());
  start();
  EXPECT_EQ(writer_.createDataGroupFromReader(source, 0, 0, "values"), 0);
  EXPECT_EQ(writer_.createDataGroupFromReader(source, 1, 0, "masters"), 1);
  EXPECT_EQ(takeErrors(), Texts{"Failed to add signal channel: marked"}) << "the second one";
  // A packed channel's own bytes are not its value's: the copy has bytes for the value alone.
  const auto record = source->readSignalData(0);
  ASSERT_NE(record, nullptr);
  std::uint64_t value = 0;
  ASSERT_TRUE(info(*source, 0, 1).extractBitFieldValue(record->data, value));
  const Fields fields = {{"packed [half]", packed(static_cast<std::uint16_t>(value))},
                         {"marked", {9}}};
  EXPECT_EQ(writer_.writeSignalDataBatch(0, 0.5, fields), 0);
  const auto copy = finish();

  EXPECT_EQ(names(*copy, kFirst), (Texts{"time", "packed [half]", "marked"}));
  EXPECT_EQ(names(*copy, kFirst + 1), Texts{"time"});
  const auto copied = copy->readSignalData(kFirst);
  ASSERT_NE(copied, nullptr);
  EXPECT_EQ(shown(info(*copy, kFirst, 1), copied->data), std::to_string(1 + 0.5 * 0xABC));
  EXPECT_EQ(shown(info(*copy, kFirst, 2), copied->data), "9.000000");
  EXPECT_FALSE(copy->isInvalidSample(kFirst, 0, 2, copied->data.data(), copied->data.size()));
}

TEST_F(MdfSigWriterTest, SaysWhatFailed) {
  EXPECT_EQ(writer_.startRecord(1), -1);
  EXPECT_EQ(takeErrors(), Texts{"MdfSigWriter is not open"});
  EXPECT_TRUE(writer_.open());
  EXPECT_FALSE(writer_.open());
  EXPECT_EQ(takeErrors(), Texts{"MdfSigWriter is already open"});
  EXPECT_EQ(writer_.addDataGroup("before the start"), -1);
  EXPECT_EQ(takeErrors(), Texts{});
  EXPECT_EQ(writer_.startRecord(1), 0) << "the second open left it open";

  EXPECT_EQ(writer_.addTimeChannel(0), -1);
  EXPECT_EQ(writer_.addSignalChannel(0, describe("a", 0, 8)), -1);
  EXPECT_EQ(writer_.setDataGroupComment(0, "none"), -1);
  EXPECT_EQ(takeErrors(), Texts{"Failed to add time channel"});
  EXPECT_EQ(writer_.createDataGroupFromReader(nullptr, 0, 0, "a"), -1);
  EXPECT_EQ(takeErrors(), Texts{"MdfSigReader is null"});
  const auto source = openFile(TOLVEX_TEST_DATA "/decoded-00000005.mf4");
  EXPECT_EQ(writer_.createDataGroupFromReader(source, 9, 0, "a"), -1);
  EXPECT_EQ(takeErrors(), Texts{"Invalid channel count"});
  writer_.close();
  EXPECT_EQ(writer_.createDataGroupFromReader(source, 0, 0, "a"), -1);
  EXPECT_EQ(takeErrors(), Texts{"Failed to create DataGroup"});

  MdfSigWriter nowhere(dir_.path("no/such/folder.mf4"));
  collectErrors(nowhere);
  EXPECT_TRUE(nowhere.open());
  EXPECT_EQ(nowhere.startRecord(5), 1);
  EXPECT_EQ(takeErrors(), Texts{"Failed to start record"});
  EXPECT_EQ(nowhere.getStartTime(), 5U);
}

TEST_F(MdfSigWriterTest, RecordsThatAreLostAtTheEndAreReported) {
  start(describe("a", 0, 8));
  for (int i = 0; i < 600; ++i) ASSERT_EQ(writer_.writeSignalDataBatch(0, i, {}), 0);
  rlimit unlimited = {};
  getrlimit(RLIMIT_FSIZE, &unlimited);
  const rlimit full = {std::filesystem::file_size(path_), unlimited.rlim_max};
  auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &full);
  writer_.close();
  setrlimit(RLIMIT_FSIZE, &unlimited);
  std::signal(SIGXFSZ, handler);
  const Texts errors = takeErrors();
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_EQ(errors[0].rfind(path_ + ": ", 0), 0U) << errors[0];
  MdfSigReader reader(path_);
  EXPECT_TRUE(reader.open());
  EXPECT_EQ(reader.getRecordCount(kFirst, 0), 512) << "a block of them was written in time";
}

}  // namespace
}  // namespace tolvex::test
