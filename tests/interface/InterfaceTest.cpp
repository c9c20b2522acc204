// The shared library as a user has it: public headers and exported symbols alone.
#include <gtest/gtest.h>
#include <tolvex/Mdf4.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "ColumnCaller.h"
#include "PlainCaller.h"

namespace {

using tolvex::MdfReader;
using tolvex::MdfSigCCInfo;
using tolvex::MdfSigReader;

const std::string kBusLog = TOLVEX_TEST_DATA "/raw-00000005.MF4";
const std::string kSignals = TOLVEX_TEST_DATA "/decoded-00000005.mf4";
constexpr std::uint64_t kStart = 1700000000000000;  // microseconds
constexpr int kFirst = 2;  // data group: a recorded file begins with two of the recorder's own

TEST(Interface, CopiesAndFramesOutliveTheReaderThatTheyCameFrom) {
  dropDiagnostics();
  std::optional<MdfReader> reader(kBusLog);
  ASSERT_TRUE(reader->open());
  const auto first = reader->getCanMessage();
  MdfReader copy(*reader);
  reader.reset();

  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->CanId(), 9u);
  unsigned following = 0;
  while (copy.getCanMessage()) ++following;
  EXPECT_EQ(following, 5476u);
}

// Needs the exported class's virtual table and type information.
class OwnReader : public MdfSigReader {
 public:
  using MdfSigReader::MdfSigReader;
  std::uint64_t getStopTime() override { return 42; }
};

TEST(Interface, ReadersCanBeDerivedFromAndToldApart) {
  dropDiagnostics();
  const std::unique_ptr<tolvex::MdfBaseReader> reader = std::make_unique<OwnReader>(kSignals);
  ASSERT_TRUE(reader->open());
  EXPECT_EQ(reader->getDGCount(), 9);
  EXPECT_EQ(reader->getStopTime(), 42u);
  EXPECT_NE(dynamic_cast<MdfSigReader*>(reader.get()), nullptr);
  EXPECT_EQ(dynamic_cast<MdfReader*>(reader.get()), nullptr);
}

TEST(Interface, AnExceptionOfTheLibraryIsCaughtByItsStandardType) {
  MdfSigCCInfo channel;
  channel.bitCount = 8;
  channel.flags = 1U << 1;
  double raw = 0;
  EXPECT_THROW(channel.convertBitFieldValueToRaw(1, raw), std::runtime_error);
}

TEST(Interface, ErrorsReachTheCallbackAndDiagnosticsTheHandler) {
  DiagnosticCount count = {};
  countDiagnostics(&count);
  std::vector<std::string> errors;
  MdfSigReader reader("no such file \xFF");  // nor UTF-8
  reader.setErrorCallback([&](const std::string& error) { errors.push_back(error); });
  EXPECT_FALSE(reader.open());
  EXPECT_TRUE(MdfReader(kBusLog).open());
  dropDiagnostics();

  EXPECT_EQ(errors, std::vector<std::string>{"Failed to open MDF4 file: no such file \xFF"});
  EXPECT_GT(count.texts, 0);
  EXPECT_EQ(count.unterminated, 0);
}

// A path in the temporary folder where the file goes with the object.
class TemporaryFile {
 public:
  TemporaryFile()
      : path_(std::filesystem::temp_directory_path() /
              ("tolvex-" + std::to_string(std::random_device()()) + ".mf4")) {}
  ~TemporaryFile() { std::filesystem::remove(path_); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  std::string path() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

TEST(Interface, WhatACProgramRecordsTheReadersRead) {
  dropDiagnostics();
  for (const bool async : {false, true}) {
    SCOPED_TRACE(async ? "through a queue" : "at once");
    const TemporaryFile file;
    ASSERT_EQ(recordRamp(file.path().c_str(), kStart, async), 0);

    MdfSigReader signals(file.path());
    ASSERT_TRUE(signals.open()) << signals.getLastError();
    EXPECT_EQ(signals.getStartTime(), kStart * 1000);
    ASSERT_EQ(signals.getCGName(kFirst, 0), "ramp");
    ASSERT_EQ(signals.getRecordCount(kFirst, 0), kRampRecords);
    MdfSigCCInfo time;
    MdfSigCCInfo value;
    ASSERT_TRUE(signals.getTimeCCInfo(kFirst, 0, time));
    ASSERT_TRUE(signals.getCCInfo(kFirst, 0, 1, value));
    MdfReader frames(file.path());
    ASSERT_TRUE(frames.open());
    for (unsigned i = 0; i < kRampRecords; ++i) {
      const auto record = signals.readSignalData(kFirst);
      ASSERT_NE(record, nullptr) << i;
      double seconds = -1;
      double number = -1;
      EXPECT_TRUE(time.convertToPhysical(record->data, seconds));
      EXPECT_TRUE(value.convertToPhysical(record->data, number));
      EXPECT_EQ(seconds, i);
      EXPECT_EQ(number, 3 * i);
      const auto frame = frames.getCanMessage();
      ASSERT_NE(frame, nullptr) << i;
      EXPECT_EQ(frame->CanId(), i);
      EXPECT_EQ(frame->Timestamp(), 1000000000ULL * i);
    }
    EXPECT_EQ(frames.getCanMessage(), nullptr);
  }
}

TEST(Interface, WhatACProgramRecordsACProgramReadsChecksAndRecovers) {
  dropDiagnostics();
  const TemporaryFile file;
  const TemporaryFile recovered;
  ASSERT_EQ(recordRamp(file.path().c_str(), kStart, false), 0);
  EXPECT_EQ(readRamp(file.path().c_str()), 0);
  EXPECT_EQ(checkRamp(file.path().c_str(), recovered.path().c_str()), 0);
  EXPECT_EQ(readRamp(recovered.path().c_str()), 0);
}

TEST(Interface, TheSignalWriterTakesAnyReaderAndReportsToAnyCallback) {
  dropDiagnostics();
  const TemporaryFile file;
  const auto source = std::make_shared<OwnReader>(kSignals);
  ASSERT_TRUE(source->open());
  std::vector<std::string> errors;
  {
    tolvex::MdfSigWriter writer(file.path());
    writer.setErrorCallback([&](const std::string& error) { errors.push_back(error); });
    EXPECT_EQ(writer.startRecord(kStart), -1);
    EXPECT_TRUE(writer.open());
    EXPECT_EQ(writer.startRecord(kStart), 0);
    EXPECT_EQ(writer.createDataGroupFromReader(source, 0, 0, "copy"), 0);
    EXPECT_EQ(writer.writeSignalDataBatch(0, 0.5, {{"FixType", {3}}, {"Satellites", {12}}}), 0);
  }
  EXPECT_EQ(errors, std::vector<std::string>{"MdfSigWriter is not open"});
  MdfSigReader copy(file.path());
  ASSERT_TRUE(copy.open());
  EXPECT_EQ(copy.getCNName(kFirst, 0, 2), "Satellites");
  const auto record = copy.readSignalData(kFirst);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->data, (std::vector<std::uint8_t>{0, 0, 0, 0, 0, 0, 0xE0, 0x3F, 3, 12}));
}

}  // namespace
