// What a file holds, told from its headers by the plain function.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Mdf4/MdfRecorder.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/SampleFiles.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfColumns.h"
#include "tolvex/MdfFrameReader.h"

namespace tolvex::test {
namespace {

constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds
constexpr std::int64_t kStartNs = 1'700'000'000'000'000'000;
constexpr std::int64_t kSecond = 1'000'000'000;

struct Summary : tolvex_summary {
  explicit Summary(const std::string& path) : tolvex_summary() {
    size = sizeof(tolvex_summary);
    status = tolvex_summarize_file(path.c_str(), this, error, sizeof error);
  }
  tolvex_status status;
  char error[200];
};

class FileSummaryTest : public testing::Test {
 protected:
  static std::string data(const std::string& name) { return TOLVEX_TEST_DATA "/" + name; }

  // 700 frames of two buses, an error frame, and 600 samples from the first second on.
  void record(MdfRecorder& recorder) const {
    ASSERT_EQ(recorder.startRecord(path_, kStart), 0);
    MdfCanMessage message;
    for (std::uint64_t i = 0; i < 700; ++i) {
      message.BusChannel(static_cast<std::uint8_t>(1 + i % 2));
      ASSERT_TRUE(recorder.saveCanMessage(kStart + 1000 * i, message));
    }
    ASSERT_TRUE(recorder.saveCanError(kStart, message));
    const int group = recorder.addDataGroup("signals");
    EXPECT_EQ(recorder.addChannel(group, timeChannel()), 0);
    EXPECT_EQ(recorder.addChannel(group, float64Channel("value")), 0);
    const std::unique_ptr<RecordData> sample = recorder.createRecordData(group);
    for (int i = 0; i < 600; ++i) {
      sample->setTime(1 + i);
      ASSERT_TRUE(recorder.insertRecord(*sample, group));
    }
  }

  CapturedDiagnostics diagnostics_;
  TempDir dir_;
  std::string path_ = dir_.path("log.mf4");
};

TEST_F(FileSummaryTest, TellsWhatARecordingHolds) {
  MdfRecorder recorder;
  record(recorder);
  recorder.stopRecord(kStart + 1);
  const Summary found(path_);
  ASSERT_EQ(found.status, TOLVEX_OK) << found.error;
  EXPECT_EQ(found.bytes, std::filesystem::file_size(path_));
  EXPECT_EQ(found.start_time_ns, kStartNs);
  EXPECT_EQ(found.first_time_ns, kStartNs);
  EXPECT_EQ(found.last_time_ns, kStartNs + 600 * kSecond);
  EXPECT_EQ(found.records, 2 + 700 + 1 + 600);  // with those of the start and stop time
  EXPECT_EQ(found.frames, 701U);
  EXPECT_EQ(found.problem_count, 0U);
  EXPECT_EQ(found.version, 410U);
  EXPECT_EQ(found.group_count, 2 + 3 + 1);
  EXPECT_EQ(found.channel_count, 2 * 2 + 2 * (2 + 17) + (2 + 10) + 2);
  EXPECT_EQ(found.is_finalized, 1U);
  EXPECT_STREQ(found.program, "tolvex");
}

TEST_F(FileSummaryTest, TellsOfAKilledRecordingWhatIsThere) {
  MdfRecorder recorder;
  record(recorder);
  const std::string killed = dir_.path("killed.mf4");
  std::filesystem::copy_file(path_, killed);
  const Summary found(killed);
  ASSERT_EQ(found.status, TOLVEX_OK) << found.error;
  EXPECT_EQ(found.is_finalized, 0U);
  EXPECT_EQ(found.records, 512U) << "of the signals: no other block was full";
  EXPECT_EQ(found.frames, 0U);
  EXPECT_EQ(found.first_time_ns, kStartNs + kSecond);
  EXPECT_EQ(found.last_time_ns, kStartNs + 512 * kSecond);
  EXPECT_EQ(found.problem_count, 0U);
}

TEST_F(FileSummaryTest, IsThatOfTheReaders) {
  std::vector<std::string> paths = {data("raw-00000005.MF4"), data("decoded-00000005.mf4"),
                                    data("unfinalized-00000002.MF4"),
                                    data("unfinalized-00000170.MF4")};
  const auto samples = sampleFiles();
  for (const auto& [name, file] : samples) paths.push_back(file.write());
  std::size_t timed = 0;
  for (const std::string& path : paths) {
    SCOPED_TRACE(path);
    const Summary found(path);
    MdfColumnReader reader(path);
    ASSERT_EQ(found.status == TOLVEX_OK, reader.open());
    EXPECT_EQ(found.error, reader.error());
    if (found.status != TOLVEX_OK) continue;
    EXPECT_EQ(found.start_time_ns, reader.info().startTimeNs);
    EXPECT_EQ(found.start_is_local != 0, reader.info().startIsLocal);
    EXPECT_EQ(found.utc_offset_minutes, reader.info().utcOffsetMinutes);
    EXPECT_EQ(found.program, reader.info().program);
    EXPECT_EQ(found.is_finalized != 0, reader.notices().empty());
    EXPECT_EQ(found.group_count, reader.groups().size());
    std::size_t channels = 0;
    std::vector<std::int64_t> times;
    for (std::size_t i = 0; i < reader.groups().size(); ++i) {
      const MdfColumnGroup& group = reader.groups()[i];
      channels += group.channels.size();
      if (group.unsorted || group.records == 0) continue;
      for (const std::uint64_t record : {std::uint64_t{0}, group.records - 1}) {
        std::int64_t ns = kMdfNoTime;
        const auto read = reader.readNanoseconds(static_cast<std::int32_t>(i), record, 1, &ns);
        if (read == 1 && ns != kMdfNoTime) times.push_back(ns);
      }
    }
    EXPECT_EQ(found.channel_count, channels);
    const auto [first, last] = std::ranges::minmax_element(times);
    EXPECT_EQ(found.first_time_ns, times.empty() ? TOLVEX_NO_TIME : *first);
    EXPECT_EQ(found.last_time_ns, times.empty() ? TOLVEX_NO_TIME : *last);
    timed += times.empty() ? 0 : 1;
    MdfFrameReader frames(path);
    ASSERT_TRUE(frames.open());
    std::uint64_t stated = 0;
    for (const MdfFrameGroup& group : frames.groups()) {
      if (group.isRead) stated += group.statedRecords;
    }
    if (found.is_finalized != 0) {
      EXPECT_EQ(found.frames, stated);
    }
    EXPECT_LE(found.frames, found.records);
  }
  EXPECT_GT(timed, 20U);
}

TEST_F(FileSummaryTest, CountsWhatIsDamaged) {
  FileBuilder file;
  const std::vector<Bytes> records(5, packed(1.5, std::uint8_t{7}));
  const Link group = file.signalGroup({{.name = "a", .byteOffset = 8}}, records);
  const Link cg = file.link(group, 1);
  EXPECT_EQ(Summary(file.write()).problem_count, 0U);
  FileBuilder cut = file;
  EXPECT_GT(Summary(cut.write(cut.firstOf("DT") + 30)).problem_count, 0U);
  file.setU64(file.dataPosition(cg) + 8, ~std::uint64_t{0});
  const Summary found(file.write());
  EXPECT_EQ(found.records, ~std::uint64_t{0}) << "as the file states them";
  EXPECT_GT(found.problem_count, 0U);
  EXPECT_EQ(found.last_time_ns, kSecond + kSecond / 2);
}

TEST_F(FileSummaryTest, SaysWhyThereIsNone) {
  const Summary absent("/nowhere");
  EXPECT_EQ(absent.status, TOLVEX_ERROR_FILE);
  EXPECT_STREQ(absent.error, "No such file or directory");
  char shortText[] = "xxxxx";
  tolvex_summary summary = {};
  EXPECT_EQ(tolvex_summarize_file("/nowhere", &summary, shortText, 4), TOLVEX_ERROR_ARGUMENT);
  EXPECT_EQ(std::string(shortText, 6), std::string("the\0x\0", 6));
  summary.size = sizeof summary;
  EXPECT_EQ(tolvex_summarize_file("/nowhere", &summary, nullptr, 4), TOLVEX_ERROR_FILE);
  EXPECT_EQ(tolvex_summarize_file(nullptr, &summary, shortText, 0), TOLVEX_ERROR_ARGUMENT);
  EXPECT_EQ(shortText[4], 'x');
  const std::string program(8, '\xFF');
  FileBuilder file({.program = program});
  EXPECT_STREQ(Summary(file.write()).program,
               "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST_F(FileSummaryTest, IsTheSameOnEveryThread) {
  setDiagnosticHandler(nullptr, nullptr);
  const std::string paths[] = {data("raw-00000005.MF4"), data("unfinalized-00000170.MF4")};
  const std::uint64_t records[] = {Summary(paths[0]).records, Summary(paths[1]).records};
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int turn = 0; turn < 50; ++turn) {
        wrong += Summary(paths[turn % 2]).records != records[turn % 2] ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(FileSummaryTest, OfAnyBytesEnds) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (const auto& [name, sample] : sampleFiles()) {
    for (int round = 1; round < 12; ++round) {
      FileBuilder file = sample;
      for (int change = 0; change < round; ++change) {
        file.setByte(64 + random() % (file.size() - 64), static_cast<std::uint8_t>(random()));
      }
      const Summary found(file.write());
      EXPECT_TRUE(found.status == TOLVEX_OK || *found.error != '\0') << name;
      EXPECT_LE(found.frames, found.records) << name;
    }
  }
}

}  // namespace
}  // namespace tolvex::test
