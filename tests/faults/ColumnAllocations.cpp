// Plain functions that read while allocations fail: each gives what it gives else, or says that
// there is no memory, and once there is some again it gives everything.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/faults/FailingMemory.h"
#include "tests/support/ColumnSample.h"
#include "tests/support/Diagnostics.h"
#include "tolvex/MdfColumns.h"

namespace tolvex::test {
namespace {

// What was read, as bytes that can be compared. A status other than TOLVEX_OK ends it.
struct Content {
  std::uint64_t numbers[6] = {};  // the bits of doubles
  std::uint8_t validity = 0;
  std::int64_t nanoseconds[6] = {};
  std::int64_t rows = 0;
  std::int64_t textBytes = 0;
  std::int32_t codes[6] = {};

  bool operator==(const Content&) const = default;
};

class ColumnAllocations : public testing::Test {
 protected:
  // Reads with each function in turn.
  tolvex_status read(Content& content) const {
    tolvex_reader* reader = nullptr;
    tolvex_status status = tolvex_reader_new(&reader);
    if (status == TOLVEX_OK) status = tolvex_reader_open(reader, &name_, 1);
    if (status == TOLVEX_OK) status = readValues(reader, content);
    ArrowArrayStream stream = {};
    if (status == TOLVEX_OK) status = tolvex_reader_stream(reader, 0, nullptr, &stream);
    if (status != TOLVEX_OK && reader != nullptr) {
      EXPECT_STREQ(tolvex_reader_error(reader), "out of memory");
    }
    tolvex_reader_free(reader);
    if (status == TOLVEX_OK) status = readStream(stream, content);
    return status;
  }

  static tolvex_status readValues(tolvex_reader* reader, Content& content) {
    tolvex_target target = {};
    target.size = sizeof target;
    target.values = content.numbers;
    target.validity = &content.validity;
    target.channel = kStatus;
    target.doubles = 1;
    std::uint64_t rows = 0;
    const char* const* problems = nullptr;
    std::size_t count = 0;
    tolvex_place place;
    tolvex_column* columns[2] = {};
    const std::int32_t wanted[] = {kStatus, kText};
    tolvex_status status = tolvex_reader_read(reader, 0, &target, 1, 0, 6, nullptr, &rows);
    if (status == TOLVEX_OK) {
      status = tolvex_reader_nanoseconds(reader, 0, 0, 6, content.nanoseconds, &rows);
    }
    if (status == TOLVEX_OK) status = tolvex_reader_problems(reader, &problems, &count);
    if (status == TOLVEX_OK) status = tolvex_reader_find(reader, "text", &place, 1, &count);
    if (status == TOLVEX_OK) {
      status = tolvex_reader_columns(reader, 0, wanted, 2, 0, 6, nullptr, columns);
      EXPECT_EQ(status == TOLVEX_OK, columns[0] != nullptr && columns[1] != nullptr);
    }
    for (tolvex_column* column : columns) tolvex_column_free(column);
    return status;
  }

  static tolvex_status readStream(ArrowArrayStream& stream, Content& content) {
    ArrowSchema schema = {};
    ArrowArray batch = {};
    int failed = stream.get_schema(&stream, &schema);
    if (failed == 0) failed = stream.get_next(&stream, &batch);
    EXPECT_STREQ(stream.get_last_error(&stream), failed == 0 ? nullptr : "out of memory");
    if (batch.release != nullptr) {
      content.rows = batch.length;
      content.textBytes = static_cast<const std::int64_t*>(batch.children[kText]->buffers[1])[6];
      std::copy_n(static_cast<const std::int32_t*>(batch.children[kStatus]->buffers[1]), 6,
                  content.codes);
      batch.release(&batch);
    }
    if (schema.release != nullptr) schema.release(&schema);
    stream.release(&stream);
    return failed == 0 ? TOLVEX_OK : failed == ENOMEM ? TOLVEX_ERROR_MEMORY : TOLVEX_ERROR_OTHER;
  }

  static constexpr std::int32_t kText = 4;
  static constexpr std::int32_t kStatus = 6;

  CapturedDiagnostics diagnostics_;
  FileBuilder file_ = columnSample(6);
  const std::string path_ = file_.write();
  const char* name_ = path_.c_str();
};

TEST_F(ColumnAllocations, FramesAreReadOrNot) {
  FileBuilder file;
  std::vector<Bytes> records;
  for (unsigned i = 0; i < 6; ++i) {
    records.push_back(busRecord(dataFrames(), i, {{"ID", i}, {"DataLength", 1}, {"DLC", 1}}, {7}));
  }
  file.busLog(dataFrames(), records);
  const std::string path = file.write();
  const char* const name = path.c_str();
  const auto read = [&](std::uint64_t& count) {
    tolvex_frames* frames = nullptr;
    ArrowArrayStream stream = {};
    tolvex_frame_batch batch = {};
    batch.size = sizeof batch;
    tolvex_status status = tolvex_frames_new(&frames);
    if (status == TOLVEX_OK) status = tolvex_frames_open(frames, &name, 1);
    if (status == TOLVEX_OK) status = tolvex_frames_stream(frames, nullptr, 0, &stream);
    if (status == TOLVEX_OK) status = tolvex_frames_next(frames, 10, &batch);
    count = status == TOLVEX_OK ? batch.count : 0;
    if (frames != nullptr && status != TOLVEX_OK) {
      EXPECT_STREQ(tolvex_frames_error(frames), "out of memory");
    }
    tolvex_frames_free(frames);
    if (stream.release == nullptr) return status;
    ArrowArray array = {};
    const int failed = stream.get_next(&stream, &array);
    if (status == TOLVEX_OK && failed != 0) status = TOLVEX_ERROR_MEMORY;
    if (array.release != nullptr) {
      EXPECT_EQ(array.length, 6);
      array.release(&array);
    }
    stream.release(&stream);
    return status;
  };
  std::uint64_t count = 0;
  ASSERT_EQ(read(count), TOLVEX_OK);
  EXPECT_EQ(count, 6U);
  forEveryAllocation([&](AllocationFault& fault) {
    tolvex_status status = TOLVEX_OK;
    fault.strike([&] { status = read(count); });
    EXPECT_EQ(count, status == TOLVEX_OK ? 6U : count);
    EXPECT_TRUE(status == TOLVEX_OK || (status == TOLVEX_ERROR_MEMORY && fault.met())) << status;
  });
}

TEST_F(ColumnAllocations, FilesAreCheckedAndRecoveredOrNot) {
  const TempDir folder;
  const std::string recovered = folder.path("recovered.mf4");
  forEveryAllocation([&](AllocationFault& fault) {
    tolvex_check* check = nullptr;
    tolvex_recovery* recovery = nullptr;
    tolvex_status checked = TOLVEX_OK;
    tolvex_status status = TOLVEX_OK;
    fault.strike([&] {
      checked = tolvex_check_file(name_, nullptr, nullptr, &check);
      status = tolvex_recover_file(name_, recovered.c_str(), nullptr, &recovery);
    });
    for (const tolvex_status one : {checked, status}) {
      EXPECT_TRUE(one == TOLVEX_OK || (one == TOLVEX_ERROR_MEMORY && fault.met())) << one;
    }
    EXPECT_EQ(check != nullptr, checked == TOLVEX_OK);
    EXPECT_EQ(recovery != nullptr, status == TOLVEX_OK);
    tolvex_check_free(check);
    tolvex_recovery_free(recovery);
  });
}

TEST_F(ColumnAllocations, AreReadOrNot) {
  Content want;
  ASSERT_EQ(read(want), TOLVEX_OK);
  EXPECT_EQ(want.rows, 6);
  EXPECT_EQ(want.numbers[3], std::bit_cast<std::uint64_t>(1.5));
  forEveryAllocation([&](AllocationFault& fault) {
    Content content;
    tolvex_status status = TOLVEX_OK;
    fault.strike([&] { status = read(content); });
    if (status == TOLVEX_OK) {
      EXPECT_EQ(content, want);
    } else {
      EXPECT_EQ(status, TOLVEX_ERROR_MEMORY);
      EXPECT_TRUE(fault.met());
    }
  });
}

}  // namespace
}  // namespace tolvex::test
