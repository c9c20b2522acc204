// CAN frames by column into a recording, and back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Mdf4/MdfAsyncRecorder.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FailingFile.h"
#include "tests/support/RecordedFile.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfColumns.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::test {
namespace {

constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds
constexpr std::int64_t kStartNs = 1'700'000'000'000'000'000;

// The columns of a batch, to fill and to compare.
struct Columns {
  std::vector<std::int64_t> times;
  std::vector<std::uint32_t> ids;
  std::vector<std::uint16_t> buses;
  std::vector<std::uint16_t> flags;
  std::vector<std::uint8_t> directions;
  std::vector<std::uint8_t> kinds;
  std::vector<std::uint8_t> dlcs;
  std::vector<std::int64_t> offsets = {0};
  std::vector<std::uint8_t> payloads;
  std::vector<std::size_t> errorFrames;
  std::vector<tolvex_frame_error> errors;

  void add(std::int64_t ns, unsigned id, unsigned flag, unsigned kind, unsigned dlc,
           std::size_t length, unsigned bus = 1) {
    times.push_back(kStartNs + ns);
    ids.push_back(id);
    buses.push_back(static_cast<std::uint16_t>(bus));
    flags.push_back(static_cast<std::uint16_t>(flag));
    directions.push_back(flag & 1);
    kinds.push_back(static_cast<std::uint8_t>(kind));
    dlcs.push_back(static_cast<std::uint8_t>(dlc));
    for (std::size_t i = 0; i < length; ++i) {
      payloads.push_back(static_cast<std::uint8_t>(times.size() + i));
    }
    offsets.push_back(static_cast<std::int64_t>(payloads.size()));
  }
  void addError(const tolvex_frame_error& error) {
    errorFrames.push_back(times.size() - 1);
    errors.push_back(error);
  }
  void addAll(const tolvex_frame_batch& batch) {
    for (std::uint64_t i = 0; i < batch.count; ++i) {
      times.push_back(batch.times[i]);
      ids.push_back(batch.ids[i]);
      buses.push_back(batch.buses[i]);
      flags.push_back(batch.flags[i]);
      directions.push_back(batch.directions[i]);
      kinds.push_back(batch.kinds[i]);
      dlcs.push_back(batch.dlcs[i]);
      payloads.insert(payloads.end(), batch.payloads + batch.offsets[i],
                      batch.payloads + batch.offsets[i + 1]);
      offsets.push_back(static_cast<std::int64_t>(payloads.size()));
    }
    errorFrames.insert(errorFrames.end(), batch.error_frames,
                       batch.error_frames + batch.error_count);
    errors.insert(errors.end(), batch.errors, batch.errors + batch.error_count);
  }
  tolvex_frame_batch batch() const {
    tolvex_frame_batch made = {};
    made.size = sizeof made;
    made.count = times.size();
    made.times = times.data();
    made.ids = ids.data();
    made.buses = buses.data();
    made.flags = flags.data();
    made.directions = directions.data();
    made.kinds = kinds.data();
    made.dlcs = dlcs.data();
    made.offsets = offsets.data();
    made.payloads = payloads.data();
    made.error_frames = errorFrames.data();
    made.errors = errors.data();
    made.error_count = errors.size();
    made.error_size = sizeof(tolvex_frame_error);
    return made;
  }
};

void expectSame(const Columns& found, const Columns& want) {
  EXPECT_EQ(found.times, want.times);
  EXPECT_EQ(found.ids, want.ids);
  EXPECT_EQ(found.buses, want.buses);
  EXPECT_EQ(found.flags, want.flags);
  EXPECT_EQ(found.directions, want.directions);
  EXPECT_EQ(found.kinds, want.kinds);
  EXPECT_EQ(found.dlcs, want.dlcs);
  EXPECT_EQ(found.offsets, want.offsets);
  EXPECT_EQ(found.payloads, want.payloads);
  ASSERT_EQ(found.errorFrames, want.errorFrames);
  for (std::size_t i = 0; i < want.errors.size(); ++i) {
    EXPECT_EQ(std::memcmp(&found.errors[i], &want.errors[i], sizeof(tolvex_frame_error)), 0) << i;
  }
}

class SavedFramesTest : public testing::Test {
 protected:
  void TearDown() override {
    recorderSettings.splitSize = 0;
    recorderSettings.maxPendingTasks = 10000;
  }

  static tolvex_status save(MdfRecorder& recorder, const tolvex_frame_batch& batch,
                            std::uint64_t& saved, std::string& error) {
    char text[200];
    const tolvex_status status = tolvex_save_frames(&recorder, &batch, &saved, text, sizeof text);
    error = text;
    return status;
  }
  void saveAll(MdfRecorder& recorder, const tolvex_frame_batch& batch) {
    std::uint64_t saved = 0;
    std::string error;
    EXPECT_EQ(save(recorder, batch, saved, error), TOLVEX_OK) << error;
    EXPECT_EQ(error, "");
    EXPECT_EQ(saved, batch.count);
  }
  Columns read(const std::string& path) {
    tolvex_frames* frames = nullptr;
    EXPECT_EQ(tolvex_frames_new(&frames), TOLVEX_OK);
    const char* const name = path.c_str();
    EXPECT_EQ(tolvex_frames_open(frames, &name, 1), TOLVEX_OK) << tolvex_frames_error(frames);
    tolvex_frame_batch batch = {};
    batch.size = sizeof batch;
    EXPECT_EQ(tolvex_frames_next(frames, 100'000, &batch), TOLVEX_OK);
    Columns columns;
    columns.addAll(batch);
    tolvex_frames_free(frames);
    return columns;
  }
  // What a recording of `payload` bytes has of the frames.
  Columns recorded(bool async, const tolvex_frame_batch& batch, int payload = 64,
                   std::uint64_t start = kStart) {
    const std::unique_ptr<MdfRecorder> recorder(async ? std::make_unique<MdfAsyncRecorder>()
                                                      : std::make_unique<MdfRecorder>());
    recorder->setMaxCanDataLength(payload);
    EXPECT_EQ(recorder->startRecord(path_, start), 0);
    saveAll(*recorder, batch);
    recorder->stopRecord(start);
    EXPECT_EQ(recorder->lostRecords(), 0U);
    return read(path_);
  }

  CapturedDiagnostics diagnostics_;
  TempDir dir_;
  std::string path_ = dir_.path("log.mf4");
};

// Frames of every kind, thousands of them, a few days into the recording.
TEST_F(SavedFramesTest, ReadBackAsTheyWereSaved) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  constexpr unsigned kLengths[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
  Columns frames;
  std::int64_t ns = 0;
  for (unsigned i = 0; i < 3000; ++i) {
    ns += 1 + static_cast<std::int64_t>(random() % 1'000'000'000'000);
    const bool isExtended = random() % 2 == 0;
    const unsigned mark = isExtended ? unsigned{TOLVEX_FRAME_EXTENDED} : 0U;
    const auto id = static_cast<unsigned>(random() & (isExtended ? 0x1FFFFFFF : 0x7FF));
    const auto bus = static_cast<unsigned>(random() % 256);
    const unsigned direction = random() % 2;
    const unsigned dlc = random() % 16;
    switch (random() % 8) {
      case 0:
        frames.add(ns, id, mark | direction | TOLVEX_FRAME_RTR, TOLVEX_FRAME_REMOTE, dlc, 0, bus);
        break;
      case 1:
        frames.add(ns, id, mark | direction, TOLVEX_FRAME_ERROR, dlc % 9, dlc % 9, bus);
        frames.addError({0, 0, 0, 0, dlc * 17, dlc % 9, 0, 96, 7, 0});
        break;
      case 2:
        frames.add(ns, id & 0x7FF, TOLVEX_FRAME_FD, TOLVEX_FRAME_FD_ERROR, dlc, kLengths[dlc], bus);
        frames.addError({4'000'000'000, 2, random(), 0x1ABCDE, 200, kLengths[dlc], 0, 1, 255, 0});
        break;
      case 3:
        frames.add(ns, id, mark | direction, TOLVEX_FRAME_DATA, dlc % 9, dlc % 9, bus);
        break;
      default:
        frames.add(ns, id,
                   mark | direction | TOLVEX_FRAME_FD | static_cast<unsigned>(random() & 0x7A),
                   TOLVEX_FRAME_DATA, dlc, kLengths[dlc], bus);
    }
  }
  for (const bool async : {false, true}) {
    SCOPED_TRACE(async);
    expectSame(recorded(async, frames.batch()), frames);
  }
}

TEST_F(SavedFramesTest, OfARealFileAreRecordedAsTheyWereRead) {
  for (const char* const name : {"/raw-00000005.MF4", "/unfinalized-00000170.MF4"}) {
    const Columns frames = read(std::string(TOLVEX_TEST_DATA) + name);
    ASSERT_GT(frames.times.size(), 2000U);
    const auto start = static_cast<std::uint64_t>(frames.times.front()) / 1000;
    expectSame(recorded(false, frames.batch(), 8, start), frames);
  }
}

TEST_F(SavedFramesTest, ColumnsThatAreNullHaveTheirUsualValues) {
  Columns frames;
  frames.add(0, 0x7FF, 0, TOLVEX_FRAME_DATA, 8, 8);
  frames.add(1, 0x800, TOLVEX_FRAME_EXTENDED | TOLVEX_FRAME_FD, TOLVEX_FRAME_DATA, 9, 12);
  tolvex_frame_batch batch = frames.batch();
  batch.buses = batch.flags = nullptr;
  batch.directions = batch.kinds = batch.dlcs = nullptr;
  batch.errors = nullptr;
  batch.error_frames = nullptr;
  expectSame(recorded(true, batch), frames);

  Columns remote;  // by its flags alone, and with a payload that is shorter than its code
  remote.add(0, 1, TOLVEX_FRAME_RTR | TOLVEX_FRAME_TRANSMITTED, TOLVEX_FRAME_REMOTE, 5, 0);
  remote.add(1, 1, 0, TOLVEX_FRAME_DATA, 3, 3);
  tolvex_frame_batch some = remote.batch();
  const std::vector<std::int64_t> offsets = {0, 0, 2};
  some.offsets = offsets.data();
  some.kinds = some.directions = nullptr;
  remote.payloads[2] = 0;
  expectSame(recorded(false, some, 8), remote);
}

TEST_F(SavedFramesTest, WhatNoRecordHoldsIsRefusedWhole) {
  Columns frames;
  for (int i = 0; i < 3; ++i) frames.add(i, 1, 0, TOLVEX_FRAME_DATA, 8, 8);
  frames.add(3, 1, 0, TOLVEX_FRAME_ERROR, 0, 0);
  frames.addError({});
  using Change = std::function<void(Columns&)>;
  const std::vector<std::pair<Change, std::string>> cases = {
      {[](Columns& c) { c.times[2] = kStartNs - 1; }, "frame 2: its time, "},
      {[](Columns& c) { c.times[2] = TOLVEX_NO_TIME; }, "frame 2: its time, "},
      {[](Columns& c) { c.offsets[2] = 7; }, "frame 1: expected a payload of 0 to 64 bytes"},
      {[](Columns& c) { c.offsets[3] = 200; }, "frame 2: expected a payload of 0 to 64 bytes"},
      {[](Columns& c) { c.offsets[1] = INT64_MIN; }, "frame 0: expected a payload of 0 to 64 byt"},
      {[](Columns& c) { c.offsets[0] = -1; }, "payload offsets begin below 0"},
      {[](Columns& c) { c.ids[1] = 0x20000000; }, "frame 1: expected an identifier of 29 bits"},
      {[](Columns& c) { c.buses[1] = 256; }, "frame 1: expected a bus below 256, found 256"},
      {[](Columns& c) { c.dlcs[1] = 16; }, "frame 1: expected a data length code below 16"},
      {[](Columns& c) { c.dlcs[1] = 7; }, "frame 1: its payload has 8 bytes, its data length"},
      {[](Columns& c) { c.kinds[1] = 4; }, "frame 1: there is no kind 4"},
      {[](Columns& c) { c.flags[1] = 0x400; }, "frame 1: there are no such flags as 0x400"},
      {[](Columns& c) { c.flags[1] = TOLVEX_FRAME_PAYLOAD_MISSING; }, "frame 1: its payload is m"},
      {[](Columns& c) { c.kinds[1] = TOLVEX_FRAME_REMOTE; }, "frame 1: a remote frame has a payl"},
      {[](Columns& c) {
         c.dlcs[1] = 9;
         c.flags[1] = TOLVEX_FRAME_FD;
       },
       "frame 1: its payload has 12 bytes, the recorder is configured for 8 at most"},
      {[](Columns& c) { c.errorFrames[0] = 2; }, "error fields 0: frame 2 is no error frame"},
      {[](Columns& c) { c.errors[0].error_flags = 256; }, "frame 3: expected error flags of 8"},
      {[](Columns& c) {
         c.kinds[3] = TOLVEX_FRAME_FD_ERROR;
         c.ids[3] = 0x1000000;
       },
       "frame 3: an error frame of CAN FD cannot have the standard identifier"},
      {[](Columns& c) {
         c.kinds[3] = TOLVEX_FRAME_FD_ERROR;
         c.errors[0].crc = 0x200000;
       },
       "frame 3: its data length, CRC"}};
  for (const bool async : {false, true}) {
    SCOPED_TRACE(async);
    const std::unique_ptr<MdfRecorder> recorder(async ? std::make_unique<MdfAsyncRecorder>()
                                                      : std::make_unique<MdfRecorder>());
    std::uint64_t saved = 7;
    std::string error;
    EXPECT_EQ(save(*recorder, frames.batch(), saved, error), TOLVEX_ERROR_OTHER);
    EXPECT_EQ(error, "nothing is being recorded");
    ASSERT_EQ(recorder->startRecord(path_, kStart), 0);
    for (const auto& [change, text] : cases) {
      Columns wrong = frames;
      change(wrong);
      EXPECT_EQ(save(*recorder, wrong.batch(), saved, error), TOLVEX_ERROR_ARGUMENT) << text;
      EXPECT_EQ(error.substr(0, text.size()), text);
      EXPECT_EQ(saved, 0U);
    }
    tolvex_frame_batch batch = frames.batch();
    batch.ids = nullptr;
    EXPECT_EQ(save(*recorder, batch, saved, error), TOLVEX_ERROR_ARGUMENT);
    batch = frames.batch();
    batch.payloads = nullptr;
    EXPECT_EQ(save(*recorder, batch, saved, error), TOLVEX_ERROR_ARGUMENT);
    batch = frames.batch();
    ASSERT_EQ(recorder->startRecord(path_, ~std::uint64_t{0} / 1000), 0);
    EXPECT_EQ(save(*recorder, batch, saved, error), TOLVEX_ERROR_ARGUMENT);
    batch.size = 0;
    EXPECT_EQ(save(*recorder, batch, saved, error), TOLVEX_ERROR_ARGUMENT);
    batch = frames.batch();
    EXPECT_EQ(tolvex_save_frames(nullptr, &batch, &saved, nullptr, 0), TOLVEX_ERROR_ARGUMENT);
    EXPECT_EQ(tolvex_save_frames(recorder.get(), &batch, nullptr, nullptr, 0),
              TOLVEX_ERROR_ARGUMENT);
    recorder->stopRecord(kStart);
    EXPECT_EQ(read(path_).times.size(), 0U);
    EXPECT_EQ(recorder->lostRecords(), 0U);
  }
}

TEST_F(SavedFramesTest, TellHowManyWereAccepted) {
  Columns frames;
  for (int i = 0; i < 3000; ++i) frames.add(i, 1, 0, TOLVEX_FRAME_DATA, 8, 8);
  std::uint64_t saved = 0;
  std::string error;
  FailingDisk disk;
  MdfRecorder recorder(disk.opener());
  ASSERT_EQ(recorder.startRecord(path_, kStart), 0);
  disk.fillAfter(40'000);
  EXPECT_EQ(save(recorder, frames.batch(), saved, error), TOLVEX_ERROR_OTHER);
  EXPECT_NE(error.find("refused by the disk"), std::string::npos) << error;
  EXPECT_GE(saved, 512U);
  EXPECT_EQ(recorder.lostRecords(), 3000 - saved);
  disk.recover();
  recorder.stopRecord(kStart);
  EXPECT_EQ(read(path_).times.size(), saved);

  // The worker stands still: it waits for a write.
  recorderSettings.maxPendingTasks = 3;
  std::mutex door;
  FailingDisk other;
  MdfAsyncRecorder queue(other.opener());
  ASSERT_EQ(queue.startRecord(path_, kStart), 0);
  Columns first;
  first.add(0, 1, 0, TOLVEX_FRAME_DATA, 8, 8);
  saveAll(queue, first.batch());
  while (queue.pendingTasks() != 0) std::this_thread::yield();
  other.beforeWrite([&] { const std::lock_guard passing(door); });
  {
    const std::lock_guard closed(door);
    EXPECT_EQ(save(queue, frames.batch(), saved, error), TOLVEX_ERROR_OTHER);
    EXPECT_EQ(error, "the queue is full");
    EXPECT_EQ(saved, 3 * 512U);
  }
  queue.stopRecord(kStart);
  EXPECT_EQ(queue.lostRecords(), 0U);
  EXPECT_EQ(read(path_).times.size(), 1 + saved);
}

// What is accepted is changed in nothing but what the function says.
TEST_F(SavedFramesTest, WhatIsAcceptedReadsBack) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::minstd_rand random(seed);
  const auto pick = [&](std::initializer_list<unsigned> some) {
    return *(some.begin() + random() % some.size());
  };
  int accepted = 0;
  for (int round = 0; round < 1500; ++round) {
    Columns frame;
    const unsigned flags = random() % 4 == 0 ? static_cast<unsigned>(random() % 0x401)
                                             : pick({0, 1, 4, 0x100, 0x80, 0x105});
    frame.add(round, pick({0, 0x7FF, 0x800, 0xFFFFFF, 0x1000123, 0x1FFFFFFF, 0x20000000}), flags,
              pick({0, 0, 1, 2, 3, 4}), pick({0, 3, 8, 9, 12, 15, 16}),
              pick({0, 0, 3, 8, 9, 12, 64, 65}), pick({0, 1, 255, 256}));
    frame.directions[0] = random() % 2;
    const int payload = static_cast<int>(pick({8, 12, 64}));
    MdfRecorder recorder;
    recorder.setMaxCanDataLength(payload);
    ASSERT_EQ(recorder.startRecord(path_, kStart), 0);
    std::uint64_t saved = 0;
    std::string error;
    const tolvex_status status = save(recorder, frame.batch(), saved, error);
    recorder.stopRecord(kStart);
    if (status != TOLVEX_OK) continue;
    ++accepted;
    const Columns found = read(path_);
    ASSERT_EQ(found.times.size(), 1U);
    const bool isError = frame.kinds[0] >= TOLVEX_FRAME_ERROR;
    SCOPED_TRACE(round);
    EXPECT_EQ(found.ids, frame.ids);
    EXPECT_EQ(found.buses, frame.buses);
    if (frame.kinds[0] != TOLVEX_FRAME_FD_ERROR) {
      EXPECT_EQ(found.directions, frame.directions);
    }
    EXPECT_EQ(found.dlcs, frame.dlcs);
    EXPECT_EQ(found.times, frame.times);
    if (!isError) {
      const bool isRemote = frame.kinds[0] == TOLVEX_FRAME_REMOTE;
      const unsigned rtr = isRemote ? unsigned{TOLVEX_FRAME_RTR} : 0U;
      EXPECT_EQ(found.flags[0] & ~1U, (flags & ~1U) | rtr);
    }
    Bytes padded = frame.payloads;
    padded.resize(std::max(padded.size(), found.payloads.size()));
    EXPECT_EQ(found.payloads, padded);
    if (HasFailure()) return;
  }
  EXPECT_GT(accepted, 100);
}

// In the middle of a block, and after every frame.
TEST_F(SavedFramesTest, SplitFilesAsSingleFramesDo) {
  const std::pair<std::uint64_t, int> rows[] = {{60'000, 4000}, {1, 40}};
  for (const auto& [splitSize, count] : rows) {
    SCOPED_TRACE(splitSize);
    recorderSettings.splitSize = 0;
    Columns frames;
    MdfCanMessage message;
    MdfRecorder single;
    ASSERT_EQ(single.startRecord(dir_.path("single.mf4"), kStart), 0);
    for (int i = 0; i < count; ++i) {
      if (i == count / 2) recorderSettings.splitSize = splitSize;
      frames.add(1000 * i, static_cast<unsigned>(i % 0x800), 0, TOLVEX_FRAME_DATA, 8, 8,
                 static_cast<unsigned>(1 + i % 30 / 10));
      message.BusChannel(static_cast<std::uint8_t>(frames.buses.back()));
      message.MessageId(frames.ids.back());
      message.DataBytes({frames.payloads.end() - 8, frames.payloads.end()});
      ASSERT_TRUE(single.saveCanMessage(kStart + static_cast<std::uint64_t>(i), message));
    }
    single.stopRecord(kStart);
    MdfRecorder many;
    ASSERT_EQ(many.startRecord(dir_.path("many.mf4"), kStart), 0);
    recorderSettings.splitSize = 0;
    tolvex_frame_batch half = frames.batch();
    half.count /= 2;
    saveAll(many, half);
    recorderSettings.splitSize = splitSize;
    half.times += half.count;
    half.ids += half.count;
    half.buses += half.count;
    half.offsets += half.count;
    saveAll(many, half);
    many.stopRecord(kStart);
    for (const char* const part : {"", "_1", "_2"}) {
      const std::string rest = std::string(part) + ".mf4";
      const Bytes found = fileBytes(dir_.path("many" + rest));
      EXPECT_FALSE(found.empty());
      EXPECT_TRUE(found == fileBytes(dir_.path("single" + rest))) << part;
    }
  }
}

}  // namespace
}  // namespace tolvex::test
