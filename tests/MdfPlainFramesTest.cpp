// The plain functions that read CAN frames give what the class behind them gives.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tests/support/SampleFiles.h"
#include "tolvex/MdfColumns.h"
#include "tolvex/MdfFrameReader.h"

namespace tolvex {
namespace {

using Lines = std::vector<std::string>;

template <class... Number>
std::string numbers(Number... number) {
  std::string text;
  ((text += std::to_string(number) + " "), ...);
  return text;
}

std::string errorText(const MdfFrameError& error) {
  return "error " + numbers(error.timeOffsetBrs, error.timeOffsetCrcDel, error.btrExtCfg, error.crc,
                            error.errorFlags, error.dataLength, error.errorType, error.tec,
                            error.rec);
}

std::string errorText(const tolvex_frame_error& error) {
  return "error " + numbers(error.time_offset_brs, error.time_offset_crc_del, error.btr_ext_cfg,
                            error.crc, error.error_flags, error.data_length, error.error_type,
                            error.tec, error.rec);
}

std::string bytesAt(const std::int64_t* offsets, const void* bytes, std::size_t i) {
  const auto* const text = static_cast<const char*>(bytes);
  return {text + offsets[i], text + offsets[i + 1]};
}

Lines linesOf(MdfFrameReader& reader) {
  Lines lines;
  MdfFrameBatch batch;
  while (reader.next(batch, 1000)) {
    for (std::size_t i = 0, error = 0; i < batch.count; ++i) {
      std::string line = numbers(batch.timeNs[i], batch.id[i], batch.bus[i], batch.direction[i],
                                 batch.kind[i], batch.dlc[i], batch.flags[i]) +
                         bytesAt(batch.offsets.data(), batch.bytes.data(), i);
      if (error < batch.errors.size() && batch.errorRows[error] == i) {
        line += errorText(batch.errors[error++]);
      }
      lines.push_back(line + numbers(batch.record[i]));
    }
  }
  return lines;
}

class MdfPlainFrames : public testing::Test {
 public:
  MdfPlainFrames() { EXPECT_EQ(tolvex_frames_new(&frames_), TOLVEX_OK); }
  ~MdfPlainFrames() override { tolvex_frames_free(frames_); }

 protected:
  void open(const std::string& path) {
    const char* const name = path.c_str();
    ASSERT_EQ(tolvex_frames_open(frames_, &name, 1), TOLVEX_OK) << tolvex_frames_error(frames_);
  }

  Lines lines() {
    Lines lines;
    tolvex_frame_batch batch = {};
    batch.size = sizeof batch;
    tolvex_status status = TOLVEX_OK;
    do {
      status = tolvex_frames_next(frames_, 7, &batch);
      EXPECT_EQ(status, TOLVEX_OK) << tolvex_frames_error(frames_);
      for (std::string& line : linesIn(batch)) lines.push_back(std::move(line));
    } while (status == TOLVEX_OK && batch.count != 0);
    return lines;
  }

  static Lines linesIn(const tolvex_frame_batch& batch) {
    Lines lines;
    const auto* error = reinterpret_cast<const char*>(batch.errors);
    std::uint64_t errors = 0;
    for (std::size_t i = 0; i < batch.count; ++i) {
      std::string line = numbers(batch.times[i], batch.ids[i], batch.buses[i], batch.directions[i],
                                 batch.kinds[i], batch.dlcs[i], batch.flags[i]) +
                         bytesAt(batch.offsets, batch.payloads, i);
      if (errors < batch.error_count && batch.error_frames[errors] == i) {
        line += errorText(*reinterpret_cast<const tolvex_frame_error*>(error));
        error += batch.error_size;
        ++errors;
      }
      lines.push_back(line + numbers(batch.rows[i]));
    }
    return lines;
  }

  // The same by both functions in turns, with room for some frames, or for some bytes, which may be
  // too few for the next frame. Begin and end of each: arrays have nothing of errors.
  using Pieces = std::vector<std::pair<std::string, std::string>>;
  Pieces linesInPieces(std::minstd_rand& random) {
    Pieces pieces;
    std::vector<std::int64_t> times(9);
    std::vector<std::uint32_t> ids(9);
    std::vector<std::uint16_t> buses(9);
    std::vector<std::uint16_t> flags(9);
    std::vector<std::uint8_t> dlcs(9);
    std::vector<std::uint8_t> kinds(9);
    std::vector<std::uint64_t> rows(9);
    std::vector<std::int64_t> offsets(10);
    std::vector<std::uint8_t> payloads(9 * 64);
    for (;;) {
      std::uint64_t read = 0;
      tolvex_frame_arrays arrays = {
          sizeof arrays, 1 + random() % 9, times.data(),  ids.data(),  buses.data(),
          flags.data(),  dlcs.data(),      kinds.data(),  rows.data(), offsets.data(),
          nullptr,       payloads.data(),  random() % 90, 0,           0};
      const tolvex_status status = tolvex_frames_read(frames_, &arrays, &read);
      if (status != TOLVEX_OK) {
        EXPECT_EQ(status, TOLVEX_ERROR_ARGUMENT);
        EXPECT_STREQ(tolvex_frames_error(frames_), "there is no room for a payload");
        EXPECT_LT(arrays.payload_room, 64U);
        continue;
      }
      for (std::size_t i = 0; i < read; ++i) {
        pieces.emplace_back(numbers(times[i], ids[i], buses[i], flags[i] & TOLVEX_FRAME_TRANSMITTED,
                                    kinds[i], dlcs[i], flags[i]) +
                                bytesAt(offsets.data(), payloads.data(), i),
                            numbers(rows[i]));
      }
      tolvex_frame_batch batch = {};
      batch.size = sizeof batch;
      EXPECT_EQ(tolvex_frames_next(frames_, 1 + random() % 3, &batch), TOLVEX_OK);
      for (const std::string& line : linesIn(batch)) pieces.emplace_back(line, "");
      if (read == 0) return pieces;
    }
  }

  // Without what is in no column.
  Lines streamed(const tolvex_frame_filter* filter = nullptr) {
    Lines lines;
    ArrowArrayStream stream = {};
    EXPECT_EQ(tolvex_frames_stream(frames_, filter, 5, &stream), TOLVEX_OK);
    ArrowSchema schema = {};
    EXPECT_EQ(stream.get_schema(&stream, &schema), 0);
    std::string types;
    for (std::int64_t c = 0; c < schema.n_children; ++c) {
      types += std::string(schema.children[c]->name) + " " + schema.children[c]->format + ", ";
    }
    schema.release(&schema);
    EXPECT_EQ(types, "time tsn:UTC, id I, bus S, direction C, kind C, dlc C, flags S, data Z, ");
    for (;;) {
      ArrowArray batch = {};
      EXPECT_EQ(stream.get_next(&stream, &batch), 0);
      if (batch.release == nullptr) break;
      EXPECT_LE(batch.length, 5);
      for (std::int64_t i = 0; i < batch.length; ++i) lines.push_back(lineOf(batch, i));
      batch.release(&batch);
    }
    stream.release(&stream);
    return lines;
  }

  std::string lineOf(const ArrowArray& batch, std::int64_t i) {
    const auto column = [&](int c) { return batch.children[c]->buffers[1]; };
    const auto small = [&](int c) { return static_cast<const std::uint8_t*>(column(c))[i]; };
    const std::uint16_t flags = static_cast<const std::uint16_t*>(column(6))[i];
    const ArrowArray& data = *batch.children[7];
    const auto* const valid = static_cast<const std::uint8_t*>(data.buffers[0]);
    const bool isMissing = valid != nullptr && (valid[i / 8] >> i % 8 & 1) == 0;
    lost_ += isMissing ? 1 : 0;
    EXPECT_EQ(isMissing, (flags & TOLVEX_FRAME_PAYLOAD_MISSING) != 0);
    EXPECT_EQ(valid != nullptr, data.null_count != 0);
    return numbers(static_cast<const std::int64_t*>(column(0))[i],
                   static_cast<const std::uint32_t*>(column(1))[i],
                   static_cast<const std::uint16_t*>(column(2))[i], small(3), small(4), small(5),
                   flags) +
           bytesAt(static_cast<const std::int64_t*>(column(7)), data.buffers[2],
                   static_cast<std::size_t>(i));
  }

  test::CapturedDiagnostics diagnostics_;
  tolvex_frames* frames_ = nullptr;
  std::size_t lost_ = 0;  // payloads in streams
};

TEST_F(MdfPlainFrames, AreThoseOfTheReader) {
  std::size_t frames = 0;
  std::size_t errors = 0;
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::minstd_rand random(seed);
  for (const auto& [name, file] : test::sampleFiles()) {
    SCOPED_TRACE(name);
    const std::string path = file.write();
    MdfFrameReader reader(path);
    if (!reader.open()) continue;
    const Lines want = linesOf(reader);
    open(path);
    EXPECT_EQ(lines(), want);
    ASSERT_EQ(tolvex_frames_select(frames_, nullptr), TOLVEX_OK);
    const Pieces pieces = linesInPieces(random);
    ASSERT_EQ(pieces.size(), want.size());
    for (std::size_t i = 0; i < want.size(); ++i) {
      EXPECT_TRUE(want[i].starts_with(pieces[i].first) && want[i].ends_with(pieces[i].second)) << i;
    }
    const Lines plain = streamed();
    ASSERT_EQ(plain.size(), want.size());
    for (std::size_t i = 0; i < want.size(); ++i) {
      EXPECT_TRUE(want[i].starts_with(plain[i])) << want[i] << "\n" << plain[i];
      errors += want[i].find("error") != std::string::npos ? 1 : 0;
    }
    frames += want.size();
    tolvex_frame_group group = {};
    group.size = sizeof group;
    for (std::uint64_t i = 0; i < reader.groups().size(); ++i) {
      ASSERT_EQ(tolvex_frames_group(frames_, i, &group), TOLVEX_OK);
      EXPECT_EQ(group.name, reader.groups()[i].name);
      EXPECT_EQ(group.stated_rows, reader.groups()[i].statedRecords);
      EXPECT_EQ(group.is_read != 0, reader.groups()[i].isRead);
    }
    const char* const* texts = nullptr;
    std::size_t count = 0;
    EXPECT_EQ(tolvex_frames_problems(frames_, &texts, &count), TOLVEX_OK);
    EXPECT_EQ(Lines(texts, texts + count), reader.problems());
  }
  EXPECT_GT(frames, 40U);
  EXPECT_GT(errors, 3U);
  EXPECT_GT(lost_, 0U);
}

TEST_F(MdfPlainFrames, AreSelectedByIdBusAndTime) {
  open(TOLVEX_TEST_DATA "/raw-00000005.MF4");
  std::int64_t first = 0;
  std::int64_t last = 0;
  ASSERT_EQ(tolvex_frames_time_range(frames_, &first, &last), TOLVEX_OK);
  const Lines all = lines();
  EXPECT_EQ(all.size(), 5477U);
  EXPECT_EQ(all.front().substr(0, 20), numbers(first));
  EXPECT_EQ(all.back().substr(0, 20), numbers(last));
  const std::uint32_t ids[] = {9};
  const std::uint16_t buses[] = {2};
  tolvex_frame_filter filter = {};
  filter.size = sizeof filter;
  filter.ids = ids;
  filter.id_count = 1;
  filter.start_ns = first + (last - first) / 2;
  filter.has_start = 1;
  filter.end_ns = last;
  filter.has_end = 1;
  Lines want;
  for (const std::string& line : all) {
    const std::int64_t time = std::stoll(line);
    const bool isIn = time >= filter.start_ns && time < last;
    if (isIn && line.substr(20, 4) == "9 2 ") want.push_back(line);
  }
  EXPECT_GT(want.size(), 10U);
  filter.buses = buses;
  filter.bus_count = 1;
  ASSERT_EQ(tolvex_frames_select(frames_, &filter), TOLVEX_OK);
  EXPECT_EQ(lines(), want);
  EXPECT_EQ(streamed(&filter).size(), want.size());
}

// That goes ahead as far as it may, and there is more room than frames; the payloads need several
// calls.
TEST_F(MdfPlainFrames, AreTheSameWithAThreadThatHasMemoryAtHand) {
  const std::vector<const char*> files(40, TOLVEX_TEST_DATA "/raw-00000005.MF4");
  constexpr std::uint64_t kRoom = 1'000'000;
  const auto copied = [&](std::uint32_t threads) {
    EXPECT_EQ(tolvex_frames_open(frames_, files.data(), files.size()), TOLVEX_OK);
    std::vector<std::int64_t> times(kRoom);
    std::vector<std::int64_t> offsets(kRoom + 1);
    std::vector<std::uint8_t> lengths(kRoom);
    std::vector<std::uint8_t> payloads(1'000'001);
    tolvex_frame_arrays arrays = {};
    arrays.size = sizeof arrays;
    arrays.room = kRoom;
    arrays.times = times.data();
    arrays.offsets = offsets.data();
    arrays.lengths = lengths.data();
    arrays.payloads = payloads.data();
    arrays.payload_room = payloads.size();
    arrays.threads = threads;
    std::vector<std::int64_t> numbers;
    std::vector<std::uint8_t> bytes;
    for (std::uint64_t read = 1; read != 0;) {
      EXPECT_EQ(tolvex_frames_read(frames_, &arrays, &read), TOLVEX_OK);
      const auto count = static_cast<std::ptrdiff_t>(read);
      numbers.insert(numbers.end(), times.begin(), times.begin() + count);
      numbers.insert(numbers.end(), offsets.begin(), offsets.begin() + count + 1);
      for (std::size_t i = 0; i < read; ++i) {
        EXPECT_EQ(lengths[i], offsets[i + 1] - offsets[i]);
      }
      bytes.insert(bytes.end(), payloads.begin(), payloads.begin() + offsets[read]);
    }
    return std::pair(numbers, bytes);
  };
  const auto alone = copied(0);
  EXPECT_GT(alone.first.size(), 400'000U);
  EXPECT_TRUE(copied(2) == alone);
}

TEST_F(MdfPlainFrames, SayWhatIsWrong) {
  tolvex_frame_log log = {};
  EXPECT_EQ(tolvex_frames_log(frames_, &log), TOLVEX_ERROR_ARGUMENT);
  EXPECT_STREQ(tolvex_frames_error(frames_), "no file is open");
  const char* const absent = "/nowhere";
  EXPECT_EQ(tolvex_frames_open(frames_, &absent, 1), TOLVEX_ERROR_FILE);
  EXPECT_STREQ(tolvex_frames_error(frames_), "No such file or directory");
  open(TOLVEX_TEST_DATA "/raw-00000005.MF4");
  EXPECT_EQ(tolvex_frames_log(frames_, &log), TOLVEX_ERROR_ARGUMENT);
  EXPECT_STREQ(tolvex_frames_error(frames_), "the size of a struct is not set");
  tolvex_frame_batch batch = {};
  EXPECT_EQ(tolvex_frames_next(frames_, 1, &batch), TOLVEX_ERROR_ARGUMENT);
  tolvex_frame_arrays arrays = {};
  std::uint64_t read = 7;
  EXPECT_EQ(tolvex_frames_read(frames_, &arrays, &read), TOLVEX_ERROR_ARGUMENT);
  arrays.size = sizeof arrays;
  EXPECT_EQ(tolvex_frames_read(frames_, &arrays, nullptr), TOLVEX_ERROR_ARGUMENT);
  std::int64_t offset = 0;
  arrays.offsets = &offset;
  EXPECT_EQ(tolvex_frames_read(frames_, &arrays, &read), TOLVEX_ERROR_ARGUMENT);
  EXPECT_EQ(read, 7U);
  tolvex_frame_filter filter = {};
  filter.size = sizeof filter;
  filter.id_count = 1;
  EXPECT_EQ(tolvex_frames_select(frames_, &filter), TOLVEX_ERROR_ARGUMENT);
  tolvex_frame_group group = {};
  group.size = sizeof group;
  EXPECT_EQ(tolvex_frames_group(frames_, 99, &group), TOLVEX_ERROR_ARGUMENT);
  EXPECT_STREQ(tolvex_frames_error(frames_), "there is no group 99");
}

}  // namespace
}  // namespace tolvex
