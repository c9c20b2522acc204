// The recorder that writes on the calling thread: files, groups, CAN frames, splits, settings.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/MdfRecorder.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FailingFile.h"
#include "tests/support/RecordedFile.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

using Texts = std::vector<std::string>;

constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds
constexpr std::uint64_t kSecond = 1'000'000;
// The groups of a file in front of the caller's: start time and stop time.
constexpr std::size_t kFirst = 2;

class MdfRecorderTest : public testing::Test {
 protected:
  void TearDown() override {
    recorderSettings.splitSize = 0;
    recorderSettings.mdfVersion = 410;
  }

  std::string path(const std::string& name = "log.mf4") const { return dir_.path(name); }
  std::string start() {
    EXPECT_EQ(recorder_.startRecord(path(), kStart), 0);
    return path();
  }
  // A group of "time" and float64 "value".
  int addSignals(const std::string& name = "") {
    const int group = recorder_.addDataGroup(name);
    EXPECT_EQ(recorder_.addChannel(group, timeChannel()), 0);
    EXPECT_EQ(recorder_.addChannel(group, float64Channel("value")), 0);
    return group;
  }
  bool insert(int group, double time, double value) {
    const std::unique_ptr<RecordData> record = recorder_.createRecordData(group);
    return record != nullptr && record->setTime(time) &&
           record->setData("value", sizeof value, bytesOf(value).data()) &&
           recorder_.insertRecord(*record, group);
  }
  RecordedFile finish(const std::string& path) {
    recorder_.stopRecord(kStart + kSecond);
    return RecordedFile(path);
  }
  // The texts that name a source line, without it, and those of splits.
  static std::string smallSplit(std::uint64_t reserved) {
    return "[info] splitFile: the split size, " + std::to_string(recorderSettings.splitSize) +
           " bytes, is less than each file reserves for its groups, " + std::to_string(reserved) +
           " bytes: files hold few records";
  }
  Texts messages() const {
    Texts found;
    std::istringstream lines(diagnostics_.text());
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("[fatal] ")) found.push_back(line.substr(line.find(": ") + 2));
      if (line.starts_with("[info] ")) found.push_back(line);
    }
    return found;
  }

  CapturedDiagnostics diagnostics_;
  TempDir dir_;
  MdfRecorder recorder_;
};

template <class Value>
Bytes rawBytes(const Value& value) {
  const ByteSpan bytes = bytesOf(value);
  return {bytes.begin(), bytes.end()};
}

double measurementTime(const RecordedFile& file, std::size_t group) {
  const Bytes& record = file.groups.at(group).bytes;
  double values[2] = {-1, -1};
  if (record.size() == sizeof values) std::memcpy(values, record.data(), sizeof values);
  EXPECT_EQ(values[0], 0.0);
  return values[1];
}

// ---------------------------------------------------------------------------------------------
// The file

TEST_F(MdfRecorderTest, IdentifiesTheFile) {
  const struct {
    std::uint32_t version;
    std::string program;
    const char* want;
  } rows[] = {{410, "", "MDF     4.10    tolvex  "},
              {411, "abcdefghij", "MDF     4.11    abcdefgh"},
              {400, std::string("abc\0", 4), "MDF     4.00    abc     "},
              {410, std::string("a\0b", 3), "MDF     4.10    a\0b     "}};
  for (const auto& [version, program, want] : rows) {
    EXPECT_EQ(recorder_.setParameter(3, 4, &version), 0);
    EXPECT_EQ(recorder_.setParameter(0, static_cast<int>(program.size()), program.data()), 0);
    const RecordedFile file = finish(start());
    IdBlock id = {};
    std::memcpy(&id, want, 24);
    id.id_ver = static_cast<std::uint16_t>(version);
    EXPECT_EQ(rawBytes(file.id), rawBytes(id)) << version << " " << program;
    m4HDRecord header = {};
    header.hd_start_time_ns = kStart * 1000;
    EXPECT_EQ(rawBytes(file.header), rawBytes(header));
  }
}

TEST_F(MdfRecorderTest, WritesStartAndStopIntoGroupsOfTheirOwn) {
  const RecordedFile file = finish(start());
  ASSERT_EQ(file.groups.size(), kFirst);
  for (const std::size_t i : {0U, 1U}) {
    const RecordedGroup& group = file.groups[i];
    EXPECT_EQ(group.description(),
              " from  flags 0 bytes 16+0:"
              " time[s] type 2/1/4 at 0.0:64 flags 16 limits 0..0 {} " +
                  std::string(i == 0 ? "MeasurementStartTime" : "MeasurementStopTime") +
                  "[] type 0/0/4 at 8.0:64 flags 16 limits 0..0 {}");
    EXPECT_EQ(group.cg.cg_cycle_count, 1U);
    EXPECT_EQ(group.lists, (std::vector<std::vector<std::uint64_t>>{{16}}));
  }
  EXPECT_EQ(measurementTime(file, 0), static_cast<double>(kStart));
  EXPECT_EQ(measurementTime(file, 1), static_cast<double>(kStart + kSecond));
}

TEST_F(MdfRecorderTest, TimesCountFromTheStartTimeSetLast) {
  start();
  recorder_.setStartTime(kStart - 2 * kSecond);
  EXPECT_TRUE(recorder_.saveCanMessage(kStart, MdfCanMessage()));
  EXPECT_TRUE(recorder_.saveCanMessage(kStart - 3 * kSecond, MdfCanMessage()));
  recorder_.setStartTime(0);
  const RecordedFile file = finish(path());
  EXPECT_EQ(file.header.hd_start_time_ns, (kStart - 2 * kSecond) * 1000) << "0 leaves it";
  EXPECT_EQ(measurementTime(file, 0), 0.0);
  const std::vector<Bytes> records = file.groups.at(kFirst).records();
  ASSERT_EQ(records.size(), 2U);
  for (const auto& [record, time] : {std::pair(records[0], 2.0), {records[1], -1.0}}) {
    EXPECT_EQ(Bytes(record.begin(), record.begin() + 8), packed(time));
  }
}

TEST_F(MdfRecorderTest, ChecksParameters) {
  const std::uint8_t bytes[16] = {0x9B, 1};  // 411
  const struct {
    int id, size, result;
  } rows[] = {{0, 0, 0},  {2, 16, 0},  {0, -1, -1}, {3, 3, -1},
              {4, 7, -1}, {4, -8, -1}, {5, 0, 0},   {-1, -1, 0}};
  for (const auto& [id, size, result] : rows) {
    EXPECT_EQ(recorder_.setParameter(id, size, bytes), result) << id << " " << size;
  }
  EXPECT_EQ(recorder_.setParameter(5, 8, nullptr), -1);
  const std::string text = "MdfRecorder::setParameter ";
  EXPECT_EQ(messages(), (Texts{text + "invalid string dataSize, paramId: 0, dataSize: -1",
                               text + "invalid dataSize, paramId: 3, dataSize: 3, expected: 4",
                               text + "invalid dataSize, paramId: 4, dataSize: 7, expected: 8",
                               text + "invalid dataSize, paramId: 4, dataSize: -8, expected: 8",
                               text + "nullptr, paramId: 5"}));
  EXPECT_EQ(recorderSettings.mdfVersion, 410U);
  EXPECT_EQ(recorderSettings.splitSize, 0U);
  MdfRecorder other;
  EXPECT_EQ(other.setParameter(3, 16, bytes), 0);
  EXPECT_EQ(other.setParameter(4, 16, bytes), 0);
  EXPECT_EQ(recorderSettings.splitSize, 411U);
  EXPECT_EQ(finish(start()).id.id_ver, 411) << "settings are the process's";
}

TEST_F(MdfRecorderTest, StartingAgainFinishesTheRunningFile) {
  const std::string first = start();
  EXPECT_TRUE(insert(addSignals("first"), 2.5, 1));
  EXPECT_EQ(recorder_.startRecord(path("no/such/folder.mf4"), 1), 1);
  EXPECT_NE(recorder_.firstError().find("no/such/folder.mf4"), std::string::npos);
  EXPECT_EQ(recorder_.startRecord(path("second.mf4"), kStart + 3 * kSecond), 0);
  EXPECT_EQ(recorder_.firstError(), "");
  EXPECT_EQ(addSignals("second"), 0);

  const RecordedFile file(first);
  EXPECT_EQ(file.groups.at(kFirst).bytes, packed(2.5, 1.0));
  EXPECT_EQ(measurementTime(file, 1), static_cast<double>(kStart + 2'500'000));
  const RecordedFile second = finish(path("second.mf4"));
  ASSERT_EQ(second.groups.size(), kFirst + 1);
  EXPECT_EQ(second.groups[kFirst].comment, "second");
  EXPECT_EQ(second.groups[kFirst].lists.size(), 0U) << "a group without records has no data";
}

TEST_F(MdfRecorderTest, RefusesWhatHasNoGroupInAnOpenFile) {
  EXPECT_EQ(recorder_.addDataGroup("too early"), -1);
  EXPECT_EQ(messages(), Texts{"MdfRecorder::addDataGroup Failed"});
  EXPECT_FALSE(recorder_.saveCanMessage(kStart, MdfCanMessage()));
  recorder_.stopRecord(1);

  start();
  const int group = addSignals();
  const std::unique_ptr<RecordData> record = recorder_.createRecordData(group);
  const auto expectRefused = [&](int index) {
    SCOPED_TRACE(index);
    EXPECT_EQ(recorder_.addChannel(index, timeChannel()), -1);
    EXPECT_EQ(recorder_.setDataGroupComment(index, "a"), -1);
    EXPECT_EQ(recorder_.setAcquisitionName(index, "a"), -1);
    EXPECT_EQ(recorder_.createRecordData(index), nullptr);
    EXPECT_FALSE(recorder_.insertRecord(*record, index));
    EXPECT_FALSE(
        recorder_.insertData(static_cast<std::uint32_t>(index), record->size(), record->data()));
  };
  using Limits = std::numeric_limits<int>;
  for (const int index : {-1, 1, Limits::min(), Limits::max()}) expectRefused(index);
  ChannelInfo variable = float64Channel("text");
  variable.channelType = 1;
  EXPECT_EQ(recorder_.addChannel(group, variable), -1);
  EXPECT_EQ(messages().back(), "MdfRecorder::addChannel: VLSD write is not supported");
  EXPECT_EQ(messages().size(), 2U);
  recorder_.stopRecord(kStart);
  recorder_.stopRecord(1);
  expectRefused(group);
  EXPECT_FALSE(recorder_.saveCanMessage(kStart, MdfCanMessage()));
  const RecordedFile file(path());
  EXPECT_EQ(measurementTime(file, 1), static_cast<double>(kStart));
  ASSERT_EQ(file.groups.size(), kFirst + 1);
  EXPECT_EQ(file.groups[kFirst].channels.size(), 2U);
  EXPECT_EQ(file.groups[kFirst].cg.cg_cycle_count, 0U);
}

// ---------------------------------------------------------------------------------------------
// CAN frames

MdfCanMessage frameOf(std::uint8_t busChannel, bool dir, const Bytes& payload = {}) {
  MdfCanMessage frame;
  frame.BusChannel(busChannel);
  frame.Dir(dir);
  frame.DataBytes(payload);
  return frame;
}

TEST_F(MdfRecorderTest, EachBusChannelAndDirectionHasItsGroup) {
  start();
  EXPECT_EQ(addSignals("signals"), 0);
  const std::pair<std::uint8_t, bool> order[] = {{2, true}, {1, false},   {2, true},    {1, true},
                                                 {0, true}, {255, false}, {127, false}, {1, false}};
  for (const auto& [busChannel, dir] : order) {
    EXPECT_TRUE(recorder_.saveCanMessage(kStart, frameOf(busChannel, dir)));
  }
  EXPECT_EQ(recorder_.addDataGroup("later"), 7) << "groups are numbered in one row";
  const RecordedFile file = finish(path());
  ASSERT_EQ(file.groups.size(), kFirst + 8);
  const Bytes channels[] = {{2, 2}, {1, 1}, {1}, {0}, {255}, {127}};  // of each group's records
  for (std::size_t i = 0; i < std::size(channels); ++i) {
    const RecordedGroup& group = file.groups[kFirst + 1 + i];
    EXPECT_EQ(group.comment, "CAN_DataFrame");
    EXPECT_EQ(group.cg.cg_flags, 6U);
    Bytes found;
    for (const Bytes& record : group.records()) found.push_back(record.at(8));
    EXPECT_EQ(found, channels[i]);
  }
}

TEST_F(MdfRecorderTest, AGroupThatHadRecordsTakesNoChannelInAnyFile) {
  start();
  const int signals = addSignals();
  EXPECT_TRUE(insert(signals, 1, 1));
  for (const unsigned splitSize : {0U, 1U, 0U}) {
    recorderSettings.splitSize = splitSize;
    EXPECT_TRUE(recorder_.saveCanMessage(kStart, frameOf(1, true)));
    for (const int group : {signals, 1}) {
      EXPECT_EQ(recorder_.addChannel(group, float64Channel("more")), -1);
    }
  }
  EXPECT_TRUE(insert(signals, 2, 2));
  const RecordedFile file = finish(path("log_1.mf4"));
  EXPECT_EQ(file.groups.at(kFirst).bytes, packed(2.0, 2.0));
  EXPECT_EQ(file.groups.at(kFirst + 1).records().size(), 1U);
}

// A frame that was read has the number of its bus channel less one, and the flags of wake-up and
// single wire exchanged.
TEST_F(MdfRecorderTest, FramesReadBackAsTheyWereSaved) {
  start();
  recorder_.setMaxCanDataLength(64);
  std::vector<MdfCanMessage> frames;
  for (unsigned i = 0; i < 700; ++i) {
    MdfCanMessage frame = frameOf(static_cast<std::uint8_t>(1 + i % 3), i % 2 != 0,
                                  Bytes(i % 65, static_cast<std::uint8_t>(i)));
    frame.MessageId(i * 0x2F1);
    frame.ExtendedId(i % 5 == 0);
    frame.Edl(i % 65 > 8);
    frame.Brs(i % 7 == 0);
    frame.Esi(i % 11 == 0);
    frame.Rtr(i % 13 == 0);
    frame.WakeUp(i % 17 == 0);
    frame.SingleWire(i % 19 == 0);
    EXPECT_TRUE(recorder_.saveCanMessage(kStart + 7 * i, frame));
    frames.push_back(std::move(frame));
  }
  recorder_.stopRecord(kStart);

  MdfReader reader(path());
  ASSERT_TRUE(reader.open());
  reader.setPayloadByDlc(true);
  for (std::size_t i = 0; i < frames.size(); ++i) {
    SCOPED_TRACE(i);
    const MdfCanMessage& want = frames[i];
    const auto frame = reader.getCanMessage();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->Timestamp(), 7000 * i);
    EXPECT_EQ(frame->BusChannel(), want.BusChannel() - 1);
    EXPECT_EQ(frame->MessageId(), want.MessageId());
    EXPECT_EQ(frame->Dlc(), want.Dlc());
    EXPECT_EQ(frame->DataBytes(), want.DataBytes());
    const auto flags = [](const MdfCanMessage& f, bool wakeUp, bool singleWire) {
      return std::vector<bool>{f.Dir(), f.Edl(), f.Brs(), f.Esi(), f.Rtr(), wakeUp, singleWire};
    };
    EXPECT_EQ(flags(*frame, frame->WakeUp(), frame->SingleWire()),
              flags(want, want.SingleWire(), want.WakeUp()));
  }
  EXPECT_EQ(reader.getCanMessage(), nullptr);
}

TEST_F(MdfRecorderTest, ErrorsOfBothClassesGoIntoTheGroupOfTheirKind) {
  start();
  MdfCanError error;
  error.BusChannel(3);
  error.MessageId(1);
  MdfCanError fdError = error;
  fdError.Crc(1);
  MdfCanMessage message = frameOf(3, false);
  message.MessageId(2);
  MdfCanMessage fdMessage = message;
  fdMessage.Edl(true);
  EXPECT_TRUE(recorder_.saveCanError(kStart, error));
  EXPECT_TRUE(recorder_.saveCanError(kStart, fdMessage));
  EXPECT_TRUE(recorder_.saveCanError(kStart, message));
  EXPECT_TRUE(recorder_.saveCanError(kStart, fdError));
  error.Dir(true);
  EXPECT_TRUE(recorder_.saveCanError(kStart, error));

  const RecordedFile file = finish(path());
  const struct {
    std::uint32_t recordSize;
    std::size_t fields;
    Bytes ids;
  } groups[] = {{26, 10, {1, 2}}, {113, 13, {2, 1}}, {26, 10, {1}}};
  ASSERT_EQ(file.groups.size(), kFirst + std::size(groups));
  for (std::size_t i = 0; i < std::size(groups); ++i) {
    const RecordedGroup& group = file.groups[kFirst + i];
    EXPECT_EQ(group.comment, "CAN_ErrorFrame");
    const RecordedChannel& parent = group.channels.at(1);
    EXPECT_EQ(parent.name, group.comment);
    EXPECT_EQ(parent.place(), (RecordedPlace{10, 8, 0, 8 * (groups[i].recordSize - 8)}));
    EXPECT_EQ(parent.children.size(), groups[i].fields);
    Bytes ids;
    for (const Bytes& record : group.records()) ids.push_back(record.at(9));
    EXPECT_EQ(ids, groups[i].ids);
  }
}

// ---------------------------------------------------------------------------------------------
// Splits

TEST_F(MdfRecorderTest, SplitsAFileThatIsLargerThanAllowed) {
  // The name's text fills its block to a multiple of 8, so that nothing lies between the blocks.
  const auto record = [&](std::uint64_t splitSize) {
    recorderSettings.splitSize = splitSize;
    start();
    const int group = recorder_.addDataGroup("");
    EXPECT_EQ(recorder_.addChannel(group, float64Channel("seventh")), 0);
    EXPECT_TRUE(recorder_.insertRecord(*recorder_.createRecordData(group), group));
    recorderSettings.splitSize = 0;
    return finish(path()).groups.at(kFirst);
  };
  const RecordedGroup whole = record(0);
  const std::uint64_t size = whole.lastBlock + 24 + 512 * 8;
  record(size);
  EXPECT_FALSE(std::filesystem::exists(path("log_1.mf4")));
  EXPECT_EQ(record(size - 1).bytes, Bytes(8)) << "the record is in front of the split";
  const RecordedFile next(path("log_1.mf4"));
  EXPECT_EQ(next.groups.at(kFirst).description(), whole.description());
  EXPECT_TRUE(next.groups.at(kFirst).lists.empty());
}

// With a split after every record, and with ones inside of what is handed over at once.
TEST_F(MdfRecorderTest, ManyRecordsAtOnceMakeTheFilesThatSingleOnesMake) {
  constexpr std::uint64_t kCounts[] = {1, 3, 0, 508, 511, 512, 513, 2100};
  constexpr std::uint32_t kSize = 2 * sizeof(double);
  std::vector<double> values(2 * 2100);
  std::ranges::generate(values, [next = 0.0]() mutable { return ++next; });
  const auto* const data = reinterpret_cast<const std::uint8_t*>(values.data());
  const auto record = [&](const std::string& name, bool atOnce) {
    EXPECT_EQ(recorder_.startRecord(path(name + ".mf4"), kStart), 0);
    const int other = addSignals();
    const auto group = static_cast<std::uint32_t>(addSignals());
    const std::uint64_t splitSize = recorderSettings.splitSize.exchange(0);
    for (const std::uint64_t count : kCounts) {
      if (splitSize == 1 && count > 508) break;  // a file for each of them
      EXPECT_TRUE(insert(other, 1, 2));          // what a file that is split ends with
      if (count == 508) recorderSettings.splitSize = splitSize;  // due at once
      std::uint64_t taken = 0;
      if (atOnce) {
        EXPECT_TRUE(recorder_.insertRecords(group, count, kSize, data, taken));
      }
      while (!atOnce && taken < count) {
        EXPECT_TRUE(recorder_.insertData(group, kSize, data + taken++ * kSize));
      }
      EXPECT_EQ(taken, count);
    }
    recorder_.stopRecord(kStart + kSecond);
  };
  for (const std::uint64_t splitSize : {0U, 1U, 20'000U, 60'000U}) {
    SCOPED_TRACE(splitSize);
    recorderSettings.splitSize = splitSize;
    record("single", false);
    record("many", true);
    std::size_t files = 0;
    for (std::string part; std::filesystem::exists(path("single" + part + ".mf4"));
         part = std::string("_").append(std::to_string(++files))) {
      EXPECT_EQ(fileBytes(path("many" + part + ".mf4")), fileBytes(path("single" + part + ".mf4")))
          << part;
    }
    EXPECT_EQ(files > 2, splitSize != 0);
    EXPECT_FALSE(std::filesystem::exists(path("many_" + std::to_string(files) + ".mf4")));
  }
}

TEST_F(MdfRecorderTest, ManyRecordsAtOnceEndWithTheOneThatCannotBeWritten) {
  const Bytes data(5000 * 8, 7);
  FailingDisk disk;
  MdfRecorder recorder(disk.opener());
  ASSERT_EQ(recorder.startRecord(path(), kStart), 0);
  ASSERT_EQ(recorder.addDataGroup(""), 0);
  ASSERT_EQ(recorder.addChannel(0, float64Channel("value")), 0);
  std::uint64_t taken = 0;
  for (const std::uint32_t size : {0U, 4U, 16U}) {
    EXPECT_FALSE(recorder.insertRecords(0, 1, size, data.data(), taken));
  }
  EXPECT_FALSE(recorder.insertRecords(1, 1, 8, data.data(), taken));
  disk.fillAfter(10'000);
  EXPECT_TRUE(recorder.insertRecords(0, 5000, 8, data.data(), taken));
  EXPECT_GE(taken, 1023U);
  EXPECT_LT(taken, 5000U);
  EXPECT_EQ(recorder.lostRecords(), 5000 - taken);
  disk.recover();
  std::uint64_t more = 0;
  EXPECT_TRUE(recorder.insertRecords(0, 5000, 8, data.data(), more));
  EXPECT_EQ(more, 5000U);
  recorder.stopRecord(kStart);
  EXPECT_EQ(RecordedFile(path()).groups.at(kFirst).records().size(), taken + more);
}

TEST_F(MdfRecorderTest, NumbersTheFilesOfASplitInFrontOfTheLastDot) {
  const std::string names[] = {"a.log.mf4", "a.log_1.mf4", "a.log_2.mf4"};
  EXPECT_EQ(recorder_.startRecord(path(names[0]), kStart), 0);
  const int group = addSignals();
  for (int i = 0; i < 3; ++i) {
    recorderSettings.splitSize = i < 2 ? 1 : 0;
    EXPECT_TRUE(insert(group, i, i));
  }
  recorder_.stopRecord(kStart);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(RecordedFile(path(names[i])).groups.at(kFirst).bytes, packed(1.0 * i, 1.0 * i));
  }
  recorderSettings.splitSize = 1;
  EXPECT_EQ(messages(), (Texts{smallSplit(8304), "[info] splitFile: 2", "[info] splitFile: 3"}));
}

TEST_F(MdfRecorderTest, SaysOncePerRecordingThatASplitSizeIsLessThanAFileReserves) {
  recorderSettings.splitSize = 1;
  Texts expected;
  for (const std::uint64_t groups : {1U, 3U}) {
    start();
    EXPECT_EQ(recorder_.reservedSize(), 0U);
    for (std::uint64_t i = 0; i < groups; ++i) addSignals();
    const std::uint64_t reserved = recorder_.reservedSize();
    EXPECT_EQ(reserved, groups * (24 + 512 * 16 + 24 + 6 * 8 + 8 + 8));  // a DT and a DL each
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(insert(0, i, i));
    recorder_.stopRecord(kStart);
    for (const auto& text : {smallSplit(reserved), std::string("[info] splitFile: 2"),
                             std::string("[info] splitFile: 3")}) {
      expected.push_back(text);
    }
  }
  start();
  recorderSettings.splitSize = 12000;
  const int group = addSignals();
  for (int i = 0; i < 600; ++i) EXPECT_TRUE(insert(group, i, i));
  recorder_.stopRecord(kStart);
  expected.emplace_back("[info] splitFile: 2");
  EXPECT_EQ(messages(), expected);
}

TEST_F(MdfRecorderTest, LeavesFilesThatExistWhenToldTo) {
  const std::string next = path("log_1.mf4");
  recorder_.setOverwrite(false);
  const auto hold = [](const std::string& file, const std::string& text) {
    std::ofstream(file, std::ios::binary) << text;
  };
  for (const std::string& file : {path(), next}) hold(file, "precious");
  EXPECT_EQ(recorder_.startRecord(path(), kStart), 1);
  EXPECT_EQ(recorder_.firstError(), path() + ": exists");
  EXPECT_EQ(std::filesystem::file_size(path()), 8U);

  hold(path(), "");
  start();
  const int group = addSignals();
  recorderSettings.splitSize = 1;
  for (int i = 0; i < 600; ++i) EXPECT_TRUE(insert(group, i, i)) << "it goes on in its file";
  EXPECT_EQ(recorder_.firstError(), next + ": exists");
  EXPECT_EQ(messages().size(), 3U) << "of the start, the small split size and the split";
  recorderSettings.splitSize = 0;
  EXPECT_EQ(finish(path()).groups.at(kFirst).records().size(), 600U);
  EXPECT_EQ(std::filesystem::file_size(next), 8U);

  for (const std::string& file : {path(), next}) std::filesystem::remove(file);
  std::filesystem::create_symlink(path("elsewhere"), next);
  recorderSettings.splitSize = 1;
  start();
  EXPECT_TRUE(insert(addSignals(), 1, 1));
  EXPECT_FALSE(std::filesystem::exists(path("elsewhere")));
  std::filesystem::remove(next);
  EXPECT_TRUE(insert(group, 2, 2));
  EXPECT_FALSE(std::filesystem::exists(next)) << "it is not tried again";
}

// Every insert splits: each file has one record and the groups that were there by then.
TEST_F(MdfRecorderTest, ASplitGoesOnWithTheSameGroups) {
  recorderSettings.splitSize = 1;
  recorder_.setMaxCanDataLength(12);
  start();
  const int signals = addSignals("signals");
  ChannelInfo state = float64Channel("state");
  state.formula = std::make_shared<Formula>(Formula{7, {1}, {"one"}, "", 0, "other"});
  state.bitMask = 0xFF0;
  state.comment = "of the engine";
  EXPECT_EQ(recorder_.addChannel(signals, state), 0);
  EXPECT_EQ(recorder_.setAcquisitionName(signals, "unit 1"), 0);
  EXPECT_EQ(recorder_.setAcquisitionName(signals, "unit 2"), 0);
  const int unnamed = addSignals();
  EXPECT_EQ(recorder_.setDataGroupComment(unnamed, "first"), 0);
  EXPECT_EQ(recorder_.setDataGroupComment(unnamed, "second"), 0);
  EXPECT_EQ(recorder_.addDataGroup("no channels"), 2);

  MdfCanError fdError;
  fdError.Crc(1);
  // Frames keep to the size that their group was made for.
  const auto saveFrame = [&](std::uint64_t time) {
    recorder_.setMaxCanDataLength(12);
    const bool saved = recorder_.saveCanMessage(time, frameOf(1, true));
    recorder_.setMaxCanDataLength(64);
    return saved;
  };
  // What is recorded, where it goes, and the latest time then, in seconds.
  const struct {
    std::function<bool()> insert;
    std::size_t group;
    unsigned latest;
  } steps[] = {
      {[&] { return insert(signals, 5, 1); }, 0, 5},
      {[&] { return insert(unnamed, 2, 2); }, 1, 5},
      {[&] { return saveFrame(kStart + 6 * kSecond); }, 3, 6},
      {[&] { return recorder_.saveCanError(kStart, frameOf(1, true)); }, 4, 6},
      {[&] { return recorder_.saveCanError(kStart, fdError); }, 5, 6},
      {[&] { return insert(signals, 7, 3); }, 0, 7},
      {[&] { return saveFrame(kStart); }, 3, 7},
      {[&] { return recorder_.saveCanError(kStart, fdError); }, 5, 7},
      {[&] { return recorder_.insertData(1, 16, packed(9.0, 4.0).data()); }, 1, 7},
  };
  for (const auto& step : steps) EXPECT_TRUE(step.insert());
  EXPECT_EQ(addSignals("later"), 6);
  recorder_.stopRecord(kStart + 99 * kSecond);

  std::vector<RecordedFile> files = {RecordedFile(path())};
  for (std::size_t i = 1; i <= std::size(steps); ++i) {
    files.emplace_back(path("log_" + std::to_string(i) + ".mf4"));
  }
  ASSERT_EQ(files.back().groups.size(), kFirst + 7);
  std::uint64_t latest = kStart;
  for (std::size_t i = 0; i < files.size(); ++i) {
    SCOPED_TRACE(testing::Message() << "file " << i);
    const RecordedFile& file = files[i];
    EXPECT_EQ(file.header.hd_start_time_ns, kStart * 1000);
    EXPECT_EQ(measurementTime(file, 0), static_cast<double>(latest));
    latest = kStart + kSecond * (i < std::size(steps) ? steps[i].latest : 99);
    EXPECT_EQ(measurementTime(file, 1), static_cast<double>(latest));
    for (std::size_t g = kFirst; g < file.groups.size(); ++g) {
      SCOPED_TRACE(testing::Message() << "group " << g - kFirst);
      const bool here = i < std::size(steps) && steps[i].group == g - kFirst;
      EXPECT_EQ(file.groups[g].records().size(), here ? 1U : 0U);
      EXPECT_EQ(file.groups[g].cg.cg_cycle_count, here ? 1U : 0U);
      EXPECT_EQ(file.groups[g].equalLength, here ? 512 * file.groups[g].cg.cg_data_bytes : 0);
      // Of two texts, the file that was open keeps the first, those behind it have the last.
      RecordedGroup group = file.groups[g];
      const RecordedGroup& last = files.back().groups[g];
      if (i == 0) group.comment = last.comment;
      if (i == 0) group.acquisitionName = last.acquisitionName;
      EXPECT_EQ(group.description(), last.description());
    }
  }
  EXPECT_EQ(files[0].groups[kFirst].acquisitionName, "unit 1");
  EXPECT_EQ(files[1].groups[kFirst].acquisitionName, "unit 2");
  EXPECT_EQ(files[0].groups[kFirst + 1].comment, "first");
  EXPECT_EQ(files[1].groups[kFirst + 1].comment, "second");
  EXPECT_EQ(files[3].groups.at(kFirst + 3).cg.cg_data_bytes, 27U) << "the payload is as it was";
  EXPECT_EQ(files[8].groups[kFirst + 1].bytes, packed(9.0, 4.0));
}

TEST_F(MdfRecorderTest, APathWithoutADotIsNotSplit) {
  const std::string plain = path("log");
  if (plain.find('.') != std::string::npos) GTEST_SKIP() << "the temporary folder has a \".\"";
  recorderSettings.splitSize = 1;
  EXPECT_EQ(recorder_.startRecord(plain, kStart), 0);
  const int group = addSignals();
  EXPECT_THROW(insert(group, 1, 1), std::out_of_range);
  EXPECT_THROW(recorder_.insertData(0, 16, packed(2.0, 2.0).data()), std::out_of_range);
  EXPECT_THROW(recorder_.saveCanMessage(kStart, MdfCanMessage()), std::out_of_range);
  EXPECT_THROW(recorder_.saveCanError(kStart, MdfCanError()), std::out_of_range);
  const RecordedFile file = finish(plain);
  EXPECT_EQ(file.groups.at(kFirst).bytes, packed(1.0, 1.0, 2.0, 2.0));
  EXPECT_EQ(file.groups.at(kFirst + 1).records().size(), 1U);
  EXPECT_EQ(file.groups.at(kFirst + 2).records().size(), 1U);
}

TEST_F(MdfRecorderTest, ASplitThatFailsEndsTheRecording) {
  std::filesystem::create_directory(path("gone"));
  EXPECT_EQ(recorder_.startRecord(path("gone/log.mf4"), kStart), 0);
  const int group = addSignals();
  EXPECT_TRUE(insert(group, 1, 1));
  EXPECT_TRUE(recorder_.saveCanMessage(kStart, MdfCanMessage()));
  std::filesystem::remove_all(path("gone"));
  recorderSettings.splitSize = 1;
  const std::unique_ptr<RecordData> record = recorder_.createRecordData(group);
  EXPECT_TRUE(recorder_.insertRecord(*record, group)) << "it is in front of the split";
  const std::string next = path("gone/log_1.mf4");
  EXPECT_EQ(messages(), (Texts{smallSplit(20192), "splitFile failed!, path: " + next}));
  EXPECT_EQ(recorder_.firstError().rfind(next + ": ", 0), 0U) << recorder_.firstError();

  EXPECT_FALSE(recorder_.insertRecord(*record, group));
  EXPECT_FALSE(recorder_.saveCanMessage(kStart, MdfCanMessage()));
  EXPECT_FALSE(recorder_.saveCanError(kStart, MdfCanError()));
  EXPECT_EQ(recorder_.addDataGroup(""), -1);
  EXPECT_EQ(recorder_.createRecordData(group), nullptr);
  recorder_.stopRecord(kStart);

  recorderSettings.splitSize = 0;
  start();
  EXPECT_TRUE(insert(addSignals(), 1, 1));
  EXPECT_TRUE(recorder_.saveCanMessage(kStart, MdfCanMessage()));
  EXPECT_EQ(finish(path()).groups.size(), kFirst + 2);
}

}  // namespace
}  // namespace tolvex::test
