// Recording on the caller's thread, against packing the same records and writing their blocks.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "Mdf4/MdfRecorder.h"
#include "Mdf4/base/Bytes.h"
#include "bench/Bench.h"
#include "bench/Recordings.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/MdfColumns.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::bench {
namespace {

constexpr std::uint8_t kMaxBuses = 4;
constexpr double kGoalFieldNs = 25;
constexpr std::size_t kBlockHeaderBytes = 24;

// ---------------------------------------------------------------------------------------------
// Frames. Each contestant gives the number of frames that were saved.

using SaveFrames = Outcome (*)(const std::string& path, const Traffic& traffic,
                               std::uint64_t count);

Outcome saveWithFunctions(const std::string& path, const Traffic& traffic, std::uint64_t count) {
  removeFile(path);
  return timed([&] { return recordFrames(path, traffic, count); });
}

Outcome saveWithClass(const std::string& path, const Traffic& traffic, std::uint64_t count) {
  removeFile(path);
  return timed([&] {
    std::uint64_t saved = 0;
    const std::unique_ptr<MdfRecorder> recorder = std::make_unique<MdfRecorder>();
    static_cast<void>(recorder->startRecord(path, kStartTimeUs));
    for (std::uint64_t i = 0; i < count; ++i) {
      if (recorder->saveCanMessage(Traffic::timeUs(i), traffic.message(i))) ++saved;
    }
    recorder->stopRecord(Traffic::timeUs(count));
    return saved;
  });
}

// By column, as a reader gives them.
Outcome saveColumns(const std::string& path, const Traffic& traffic, std::uint64_t count) {
  constexpr std::size_t kAtOnce = 64 * 1024;
  std::vector<std::int64_t> times(kAtOnce);
  std::vector<std::uint32_t> ids(kAtOnce);
  std::vector<std::uint16_t> buses(kAtOnce);
  const std::vector<std::uint16_t> flags(kAtOnce);
  const std::vector<std::uint8_t> dlcs(kAtOnce, 8);
  std::vector<std::int64_t> offsets(kAtOnce + 1);
  std::vector<std::uint8_t> payloads(8 * kAtOnce);
  for (std::size_t i = 0; i < kAtOnce; ++i) {
    const PlainFrame& frame = traffic.frame(i);
    ids[i] = frame.id;
    buses[i] = frame.busChannel;
    offsets[i + 1] = static_cast<std::int64_t>(8 * (i + 1));
    std::copy(frame.payload.begin(), frame.payload.end(), &payloads[8 * i]);
  }
  tolvex_frame_batch batch = {};
  batch.size = sizeof batch;
  batch.times = times.data();
  batch.ids = ids.data();
  batch.buses = buses.data();
  batch.flags = flags.data();
  batch.dlcs = dlcs.data();
  batch.offsets = offsets.data();
  batch.payloads = payloads.data();
  removeFile(path);
  Outcome all;
  void* const recorder = createRecorder(false);
  startRecord(recorder, path.c_str(), kStartTimeUs);
  while (all.result < count) {
    batch.count = std::min<std::uint64_t>(kAtOnce, count - all.result);
    for (std::size_t i = 0; i < batch.count; ++i) {
      times[i] = static_cast<std::int64_t>(Traffic::timeUs(all.result + i) * 1000);
    }
    std::uint64_t saved = 0;
    all.seconds += timed([&] {
                     return std::uint64_t{
                         tolvex_save_frames(recorder, &batch, &saved, nullptr, 0) == TOLVEX_OK};
                   }).seconds;
    if (saved != batch.count) break;
    all.result += saved;
  }
  all.seconds += timed([&] {
                   stopRecord(recorder, Traffic::timeUs(count));
                   return std::uint64_t{0};
                 }).seconds;
  deleteRecorder(recorder);
  return all;
}

// A block for each bus.
Outcome saveByHand(const std::string& path, const Traffic& traffic, std::uint64_t count) {
  removeFile(path);
  return timed([&] {
    std::uint64_t saved = 0;
    PlainFile file(path);
    std::vector<PlainBlocks<kFrameRecordBytes>> blocks(kMaxBuses + 1,
                                                       PlainBlocks<kFrameRecordBytes>(file));
    for (std::uint64_t i = 0; i < count; ++i) {
      const PlainFrame& frame = traffic.frame(i);
      const FrameRecord record(frame, Traffic::timeUs(i));
      if (blocks[frame.busChannel].append(record.bytes.data())) ++saved;
    }
    for (PlainBlocks<kFrameRecordBytes>& block : blocks) block.flush();
    return saved;
  });
}

void measureFrames(benchmark::State& state, SaveFrames save, std::uint8_t buses) {
  const test::TempDir folder;
  const Traffic traffic(buses);
  const std::uint64_t count = scaled(5'000'000);
  const std::string path = folder.path("frames.mf4");
  save(path, traffic, count);
  if (readBack(path) != traffic.first(count)) return fail(state, "other frames are read back");
  const auto items = static_cast<double>(count);
  compare(
      state, {items, items * kFrameRecordBytes, 1.3}, [&] { return save(path, traffic, count); },
      [&] { return saveByHand(folder.path("plain"), traffic, count); });
}

// ---------------------------------------------------------------------------------------------
// Records of 8 channels of 8 bytes. Each contestant gives the number of inserted records.

constexpr std::size_t kFields = 8;
constexpr std::array<const char*, kFields> kNames = {
    "time",         "Engine.Speed",   "Engine.Torque", "Vehicle.Speed",
    "Brake.Demand", "Steering.Angle", "Gearbox.Gear",  "Battery.Voltage",
};
constexpr std::uint32_t kRecordBytes = kFields * sizeof(double);

double valueOf(std::uint64_t record, std::size_t field) {
  return static_cast<double>(record) * 1e-5 + static_cast<double>(field);
}

// A recording of one group with one record to fill, under way as long as it lives.
class SignalRecording {
 public:
  explicit SignalRecording(const std::string& path, std::size_t channels = kFields,
                           bool async = false)
      : recorder_(createRecorder(async)) {
    startRecord(recorder_, path.c_str(), kStartTimeUs);
    group_ = addDataGroup(recorder_, "signals");
    for (std::size_t i = 0; i < channels; ++i) addChannel(kNames[i]);
    record_ = allocRecord(recorder_, group_);
  }
  SignalRecording(const SignalRecording&) = delete;
  SignalRecording& operator=(const SignalRecording&) = delete;
  ~SignalRecording() {
    freeRecord(record_);
    stopRecord(recorder_, kStartTimeUs);
    deleteRecorder(recorder_);
  }

  bool fill(std::size_t field, double value) {
    return fillRecordData(record_, kNames[field], sizeof value, &value) == 0;
  }
  bool insert() { return insertRecordToDG(recorder_, group_, record_) == 0; }
  bool insertRow(int size, const void* row) {
    return insertDataToDG(recorder_, static_cast<unsigned>(group_), size, row) == 0;
  }
  std::uint64_t insertRows(std::uint64_t count, int size, const void* rows) {
    return static_cast<std::uint64_t>(
        insertRecordsToDG(recorder_, static_cast<unsigned>(group_), count, size, rows));
  }
  // Past the plain functions; leaves the record as it is.
  bool insertWithClass() {
    return static_cast<MdfRecorder*>(recorder_)->insertRecord(
        *static_cast<const RecordData*>(record_), group_);
  }

 private:
  void addChannel(const char* name) {
    const bool isTime = name == kNames[0];
    const std::uint8_t type = isTime ? 2 : 0;
    const std::uint8_t syncType = isTime ? 1 : 0;
    const std::uint8_t dataType = 4;  // float64
    const std::uint32_t bytes = sizeof(double);
    void* const channel = allocChannel();
    setChannelParameter(channel, MDF_CHANNEL_NAME, 0, name);
    setChannelParameter(channel, MDF_CHANNEL_TYPE, sizeof type, &type);
    setChannelParameter(channel, MDF_CHANNEL_SYNC_TYPE, sizeof syncType, &syncType);
    setChannelParameter(channel, MDF_CHANNEL_DATA_TYPE, sizeof dataType, &dataType);
    setChannelParameter(channel, MDF_CHANNEL_BYTE_COUNT, sizeof bytes, &bytes);
    addChannelToDG(recorder_, group_, channel);
    freeChannel(channel);
  }

  void* recorder_;
  int group_ = -1;
  void* record_ = nullptr;
};

// Records the same number of records with each way of making one.
template <class Record>
Outcome insertRecords(const std::string& path, std::uint64_t count, Record record) {
  removeFile(path);
  return timed([&] {
    std::uint64_t inserted = 0;
    SignalRecording recording(path);
    for (std::uint64_t i = 0; i < count; ++i) {
      if (record(recording, i)) ++inserted;
    }
    return inserted;
  });
}

// Fills the fields in the order of `fields`.
Outcome fillAndInsert(const std::string& path, std::uint64_t count,
                      const std::array<std::size_t, kFields>& fields) {
  return insertRecords(path, count, [&](SignalRecording& recording, std::uint64_t i) {
    bool filled = true;
    for (const std::size_t field : fields) filled &= recording.fill(field, valueOf(i, field));
    return recording.insert() && filled;
  });
}

// Without block headers every block of these records fills whole pages of the file, which the
// system writes at half the cost; no structured file lies like that.
template <std::size_t HeaderBytes>
Outcome insertByHand(const std::string& path, std::uint64_t count) {
  removeFile(path);
  return timed([&] {
    std::uint64_t inserted = 0;
    PlainFile file(path);
    PlainBlocks<kRecordBytes, HeaderBytes> block(file);
    std::array<double, kFields> record = {};
    for (std::uint64_t i = 0; i < count; ++i) {
      benchmark::DoNotOptimize(record);
      if (block.append(record.data())) ++inserted;
    }
    block.flush();
    return inserted;
  });
}

// The group's records are those of fillAndInsert.
bool holdsFilledRecords(const std::string& path, std::uint64_t count) {
  MdfSigReader reader(path);
  if (!reader.open()) return false;
  MdfGroupInfo group;
  int dg = 0;
  while (reader.getGroupInfo(dg, 0, group) && group.recordSize != kRecordBytes) ++dg;
  std::vector<std::uint8_t> records;
  int recordSize = 0;
  if (group.recordCount != count ||
      !reader.readSignalDataBlock(dg, 0, static_cast<int>(count), records, recordSize)) {
    return false;
  }
  for (std::uint64_t i = 0; i < count; ++i) {
    for (std::size_t field = 0; field < kFields; ++field) {
      const std::uint8_t* const value = &records[i * kRecordBytes + field * sizeof(double)];
      if (loadNumber<double>(value) != valueOf(i, field)) return false;
    }
  }
  return true;
}

std::uint64_t recordCount() {
  return scaled(2'000'000);
}

template <class Record>
void measureInsert(benchmark::State& state, Record record,
                   Outcome (*byHand)(const std::string& path, std::uint64_t count)) {
  const test::TempDir folder;
  const std::uint64_t count = recordCount();
  const auto items = static_cast<double>(count);
  compare(
      state, {items, items * kRecordBytes, 2},
      [&] { return insertRecords(folder.path("records.mf4"), count, record); },
      [&] { return byHand(folder.path("plain"), count); });
}

// Rows of 5 channels: a call for each, or one for all.
Outcome insertRows(const std::string& path, std::uint64_t count, bool atOnce, bool async) {
  constexpr std::size_t kChannels = 5;
  constexpr int kRowBytes = kChannels * sizeof(double);
  const std::vector<double> rows(count * kChannels, 0.5);
  removeFile(path);
  return timed([&] {
    std::uint64_t taken = 0;
    SignalRecording recording(path, kChannels, async);
    if (atOnce) return recording.insertRows(count, kRowBytes, rows.data());
    while (taken < count && recording.insertRow(kRowBytes, &rows[taken * kChannels])) ++taken;
    return taken;
  });
}

void measureRows(benchmark::State& state, bool async) {
  const test::TempDir folder;
  const std::uint64_t count = scaled(1'000'000);
  const auto items = static_cast<double>(count);
  const std::string path = folder.path("rows.mf4");
  compare(
      state, {items, items * 40, 1.2}, [&] { return insertRows(path, count, true, async); },
      [&] { return insertRows(path, count, false, false); });
}

// What filling adds to inserting.
void measureFill(benchmark::State& state, const std::array<std::size_t, kFields>& fields) {
  const test::TempDir folder;
  const std::string path = folder.path("records.mf4");
  const std::uint64_t count = recordCount();
  fillAndInsert(path, count, fields);
  if (!holdsFilledRecords(path, count)) return fail(state, "other values are read back");
  const double seconds = medianSeconds(state, [&] {
    const Outcome filled = fillAndInsert(path, count, fields);
    const Outcome empty = insertRecords(
        path, count, [](SignalRecording& recording, std::uint64_t) { return recording.insert(); });
    return Outcome{filled.seconds - empty.seconds, filled.result};
  });
  const double ns = seconds / static_cast<double>(count * kFields) * 1e9;
  state.counters["ns"] = ns;
  show(state,
       fmt::format("{:9.1f} ns a field (goal {}){}", ns, kGoalFieldNs, verdict(ns, kGoalFieldNs)));
}

}  // namespace

void addRecordingBenches() {
  const auto addFrames = [](const char* name, SaveFrames save, std::uint8_t buses) {
    add(name, [=](benchmark::State& state) { measureFrames(state, save, buses); });
  };
  addFrames("saveCanMessage, plain function / by hand", saveWithFunctions, 1);
  addFrames("saveCanMessage, class / by hand", saveWithClass, 1);
  addFrames("tolvex_save_frames / by hand", saveColumns, 1);
  addFrames("saveCanMessage, class, 4 buses / by hand", saveWithClass, kMaxBuses);

  const auto insert = [](SignalRecording& to, std::uint64_t) { return to.insert(); };
  const auto insertWithClass = [](SignalRecording& to, std::uint64_t) {
    return to.insertWithClass();
  };
  add("insertRecordToDG, 64 bytes / by hand, whole pages",
      [=](benchmark::State& state) { measureInsert(state, insert, insertByHand<0>); });
  add("insertRecord, class, 64 bytes / by hand, whole pages",
      [=](benchmark::State& state) { measureInsert(state, insertWithClass, insertByHand<0>); });
  add("insertRecordToDG, 64 bytes / by hand, with headers", [=](benchmark::State& state) {
    measureInsert(state, insert, insertByHand<kBlockHeaderBytes>);
  });
  add("insertRecordsToDG, 40 bytes / insertDataToDG",
      [](benchmark::State& state) { measureRows(state, false); });
  add("insertRecordsToDG, 40 bytes, asynchronous / insertDataToDG",
      [](benchmark::State& state) { measureRows(state, true); });
  add("fillRecordData by name, in the channels' order", [](benchmark::State& state) {
    measureFill(state, {0, 1, 2, 3, 4, 5, 6, 7});
  });
  add("fillRecordData by name, in another order", [](benchmark::State& state) {
    measureFill(state, {5, 2, 7, 0, 3, 6, 1, 4});
  });
}

}  // namespace tolvex::bench
