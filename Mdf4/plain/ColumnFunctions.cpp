// Plain functions: columns into the caller's memory, into memory of their own, and as streams.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Mdf4/plain/ColumnStream.h"
#include "tolvex/MdfColumns.h"

struct tolvex_column {
  explicit tolvex_column(tolvex::MdfColumn read)
      : column(std::move(read)), texts(tolvex::plain::pointersTo(column.texts())) {}

  tolvex::MdfColumn column;
  std::vector<const char*> texts;
};

namespace tolvex::plain {
namespace {

// Whether the group has such rows; else nothing is written, and memory for it may be null.
bool hasRows(const MdfColumnGroup& group, std::uint64_t first, std::uint64_t count) {
  return count != 0 && first < group.records;
}

// Takes targets that lie as far apart as the program's are large.
tolvex_status takeTargets(tolvex_reader& reader, std::int32_t group, const tolvex_target* targets,
                          std::size_t count, bool hasRows, std::vector<MdfColumnTarget>& taken) {
  if (targets == nullptr && count != 0) return reader.error.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
  const auto* at = reinterpret_cast<const unsigned char*>(targets);
  for (std::size_t i = 0; i < count; ++i, at += targets->size) {
    tolvex_target target;
    if (!take(reinterpret_cast<const tolvex_target*>(at), target)) {
      return reader.error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoSize);
    }
    if (channelOf(reader, group, target.channel) == nullptr) return TOLVEX_ERROR_ARGUMENT;
    if (target.values == nullptr && hasRows) {
      return reader.error.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
    }
    taken.push_back({target.channel, target.values, target.validity, target.doubles != 0});
  }
  return TOLVEX_OK;
}

// Calls `work` with a reader, for a number of rows; -1 is a failure.
template <class Work>
tolvex_status readRows(tolvex_reader& reader, std::uint64_t* rows, Work work) {
  if (rows == nullptr) return reader.error.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
  return reader.recording->with([&](MdfColumnReader& columns) -> tolvex_status {
    const std::int64_t read = work(columns);
    if (read < 0) return failed(reader.error, columns.error(), TOLVEX_ERROR_TYPE);
    *rows = static_cast<std::uint64_t>(read);
    return TOLVEX_OK;
  });
}

template <class Work>
tolvex_status readTimes(tolvex_reader* reader, std::int32_t group, std::uint64_t first,
                        std::uint64_t count, const void* times, std::uint64_t* rows, Work work) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(reader->error, [&]() -> tolvex_status {
    const MdfColumnGroup* const found = groupOf(*reader, group);
    if (found == nullptr) return TOLVEX_ERROR_ARGUMENT;
    if (times == nullptr && hasRows(*found, first, count)) {
      return reader->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
    }
    return readRows(*reader, rows, work);
  });
}

}  // namespace

std::uint32_t widthOf(MdfColumnType type) {
  switch (type) {
    case MdfColumnType::Int8:
    case MdfColumnType::UInt8:
      return 1;
    case MdfColumnType::Int16:
    case MdfColumnType::UInt16:
      return 2;
    case MdfColumnType::Int32:
    case MdfColumnType::UInt32:
    case MdfColumnType::Float32:
    case MdfColumnType::Dictionary:
      return 4;
    case MdfColumnType::Int64:
    case MdfColumnType::UInt64:
    case MdfColumnType::Float64:
      return 8;
    case MdfColumnType::None:
    case MdfColumnType::Text:
    case MdfColumnType::Bytes:
      break;
  }
  return 0;
}

bool takeReadOptions(const tolvex_read_options* options, MdfReadOptions& taken) {
  tolvex_read_options given;
  if (!takeOptions(options, given)) return false;
  taken.raw = given.raw != 0;
  taken.threads = std::max(given.threads, 1U);
  taken.seconds = given.seconds;
  taken.nanoseconds = given.nanoseconds;
  return true;
}

tolvex_status readColumns(OpenRecording& recording, LastError& error, std::int32_t group,
                          const std::vector<std::int32_t>& channels, std::uint64_t first,
                          std::uint64_t count, const MdfReadOptions& options,
                          std::vector<MdfColumn>& columns) {
  return recording.with([&](MdfColumnReader& reader) -> tolvex_status {
    if (reader.read(group, channels, first, count, columns, options)) return TOLVEX_OK;
    return failed(error, reader.error(), TOLVEX_ERROR_TYPE);
  });
}

}  // namespace tolvex::plain

using namespace tolvex::plain;

tolvex_status tolvex_reader_read(tolvex_reader* reader, int32_t group, const tolvex_target* targets,
                                 size_t target_count, uint64_t first, uint64_t count,
                                 const tolvex_read_options* options, uint64_t* rows) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(reader->error, [&]() -> tolvex_status {
    const tolvex::MdfColumnGroup* const found = groupOf(*reader, group);
    if (found == nullptr) return TOLVEX_ERROR_ARGUMENT;
    tolvex::MdfReadOptions how;
    if (!takeReadOptions(options, how)) {
      return reader->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoSize);
    }
    std::vector<tolvex::MdfColumnTarget> wanted;
    const tolvex_status status =
        takeTargets(*reader, group, targets, target_count, hasRows(*found, first, count), wanted);
    if (status != TOLVEX_OK) return status;
    return readRows(*reader, rows, [&](tolvex::MdfColumnReader& columns) {
      return columns.read(group, wanted, first, count, how);
    });
  });
}

tolvex_status tolvex_reader_seconds(tolvex_reader* reader, int32_t group, uint64_t first,
                                    uint64_t count, double* seconds, uint64_t* rows) {
  return readTimes(reader, group, first, count, seconds, rows, [&](auto& columns) {
    return columns.readSeconds(group, first, count, seconds);
  });
}

tolvex_status tolvex_reader_nanoseconds(tolvex_reader* reader, int32_t group, uint64_t first,
                                        uint64_t count, int64_t* nanoseconds, uint64_t* rows) {
  return readTimes(reader, group, first, count, nanoseconds, rows, [&](auto& columns) {
    return columns.readNanoseconds(group, first, count, nanoseconds);
  });
}

tolvex_status tolvex_reader_columns(tolvex_reader* reader, int32_t group, const int32_t* channels,
                                    size_t channel_count, uint64_t first, uint64_t count,
                                    const tolvex_read_options* options, tolvex_column** columns) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(reader->error, [&]() -> tolvex_status {
    if (channel_count != 0 && (channels == nullptr || columns == nullptr)) {
      return reader->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
    }
    if (groupOf(*reader, group) == nullptr) return TOLVEX_ERROR_ARGUMENT;
    tolvex::MdfReadOptions how;
    if (!takeReadOptions(options, how)) {
      return reader->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoSize);
    }
    const std::vector<std::int32_t> wanted(channels, channels + channel_count);
    for (const std::int32_t channel : wanted) {
      if (channelOf(*reader, group, channel) == nullptr) return TOLVEX_ERROR_ARGUMENT;
    }
    std::vector<tolvex::MdfColumn> read;
    const tolvex_status status =
        readColumns(*reader->recording, reader->error, group, wanted, first, count, how, read);
    if (status != TOLVEX_OK) return status;
    std::vector<std::unique_ptr<tolvex_column>> made;
    for (tolvex::MdfColumn& column : read) {
      made.push_back(std::make_unique<tolvex_column>(std::move(column)));
    }
    for (std::size_t i = 0; i < made.size(); ++i) columns[i] = made[i].release();
    return TOLVEX_OK;
  });
}

void tolvex_column_free(tolvex_column* column) {
  delete column;
}

tolvex_status tolvex_column_values(const tolvex_column* column, tolvex_values* values) {
  if (column == nullptr) return TOLVEX_ERROR_ARGUMENT;
  const tolvex::MdfColumn& held = column->column;
  tolvex_values described = {};
  described.rows = held.rows();
  described.elements = held.elements();
  described.data = held.data();
  described.offsets = held.offsets();
  described.validity = held.validity();
  described.texts = column->texts.data();
  described.text_count = column->texts.size();
  described.numbers = held.numbers().empty() ? nullptr : held.numbers().data();
  described.type = static_cast<std::uint32_t>(held.type());
  described.width = widthOf(held.type());
  return fill(values, described) ? TOLVEX_OK : TOLVEX_ERROR_ARGUMENT;
}

tolvex_status tolvex_reader_stream(tolvex_reader* reader, int32_t group,
                                   const tolvex_stream_options* options,
                                   struct ArrowArrayStream* stream) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(reader->error, [&]() -> tolvex_status {
    if (stream == nullptr) return reader->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
    tolvex_stream_options given;
    if (!takeOptions(options, given)) {
      return reader->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoSize);
    }
    StreamPlan plan;
    tolvex_status status = TOLVEX_OK;
    if (!planStream(*reader, group, given, plan, status)) return status;
    *stream = makeStream(std::make_unique<ColumnStream>(reader->recording, std::move(plan)));
    return TOLVEX_OK;
  });
}
