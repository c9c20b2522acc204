// scan LIBDUCKDB FILE...: has an engine scan the streams of all groups of a file with each type of
// column, of a recording and of the files named, and compares each value with what the columns
// hold. Declares as much of the engine's published C interface as it takes.
#include <dlfcn.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/interface/PlainCaller.h"
#include "tests/support/ColumnSample.h"
#include "tolvex/MdfColumns.h"

namespace {

using Row = std::uint64_t;

struct Result {  // duckdb_result
  std::uint64_t unused[3];
  void* columns;
  char* error;
  void* data;
};

// The engine with a database in memory.
class Engine {
 public:
  explicit Engine(const char* library) : library_(dlopen(library, RTLD_NOW | RTLD_LOCAL)) {
    if (library_ == nullptr) throw std::runtime_error(dlerror());
    if (call<int(const char*, void**)>("duckdb_open")(nullptr, &database_) != 0 ||
        call<int(void*, void**)>("duckdb_connect")(database_, &connection_) != 0) {
      throw std::runtime_error("no database");
    }
    run("SET threads = 2");
  }

  std::string version() { return call<const char*()>("duckdb_library_version")(); }

  // A table with the rows of the stream, which it releases.
  void load(ArrowArrayStream& stream) {
    const int failed =
        call<int(void*, const char*, void*)>("duckdb_arrow_scan")(connection_, "stream", &stream);
    if (failed != 0) throw std::runtime_error("the stream cannot be scanned");
    run("CREATE OR REPLACE TABLE loaded AS SELECT * FROM stream");
    run("DROP VIEW stream");
    if (stream.release != nullptr) stream.release(&stream);
  }

  // The first column of a query's result, "-" for nulls.
  std::vector<std::string> run(const std::string& query) {
    Result result = {};
    const int failed =
        call<int(void*, const char*, Result*)>("duckdb_query")(connection_, query.c_str(), &result);
    if (failed != 0) throw std::runtime_error(query + ": " + result.error);
    std::vector<std::string> values;
    const Row rows = call<Row(Result*)>("duckdb_row_count")(&result);
    for (Row i = 0; i < rows; ++i) {
      char* text = call<char*(Result*, Row, Row)>("duckdb_value_varchar")(&result, 0, i);
      values.emplace_back(text == nullptr ? "-" : text);
      call<void(void*)>("duckdb_free")(text);
    }
    call<void(Result*)>("duckdb_destroy_result")(&result);
    return values;
  }

 private:
  template <class Function>
  Function* call(const char* name) {
    void* const function = dlsym(library_, name);
    if (function == nullptr) throw std::runtime_error(dlerror());
    return reinterpret_cast<Function*>(function);
  }

  void* library_;
  void* database_ = nullptr;
  void* connection_ = nullptr;
};

void require(bool isSo, const std::string& what) {
  if (!isSo) throw std::runtime_error(what);
}

// Element `index` of each row, as the engine calls it.
std::string elementOf(const std::string& name, const tolvex_channel& channel, std::uint64_t index) {
  std::string indices;
  for (std::uint64_t d = channel.dimensions; d-- > 0; index /= channel.shape[d]) {
    std::string outer = "[";
    indices = outer.append(std::to_string(index % channel.shape[d] + 1)).append("]") + indices;
  }
  return "\"" + name + "\"" + indices;
}

template <class Number>
std::string numberAt(const tolvex_values& values, std::uint64_t i) {
  return std::to_string(static_cast<const Number*>(values.data)[i]);
}

std::string textOf(double value) {
  char text[40];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

std::string hex(const void* bytes, std::int64_t begin, std::int64_t end) {
  std::string text;
  for (std::int64_t i = begin; i < end; ++i) {
    const std::uint8_t byte = static_cast<const std::uint8_t*>(bytes)[i];
    for (const int half : {byte >> 4, byte & 15}) text += "0123456789ABCDEF"[half];
  }
  return text;
}

// A value of a column as this program has the engine write it; "-" for none.
std::string shown(const tolvex_values& values, std::uint64_t i) {
  if (values.validity != nullptr && (values.validity[i / 8] >> i % 8 & 1) == 0) return "-";
  switch (values.type) {
    case TOLVEX_INT8:
      return numberAt<std::int8_t>(values, i);
    case TOLVEX_INT16:
      return numberAt<std::int16_t>(values, i);
    case TOLVEX_INT32:
      return numberAt<std::int32_t>(values, i);
    case TOLVEX_INT64:
      return numberAt<std::int64_t>(values, i);
    case TOLVEX_UINT8:
      return numberAt<std::uint8_t>(values, i);
    case TOLVEX_UINT16:
      return numberAt<std::uint16_t>(values, i);
    case TOLVEX_UINT32:
      return numberAt<std::uint32_t>(values, i);
    case TOLVEX_UINT64:
      return numberAt<std::uint64_t>(values, i);
    case TOLVEX_FLOAT32:
      return textOf(static_cast<const float*>(values.data)[i]);
    case TOLVEX_FLOAT64:
      return textOf(static_cast<const double*>(values.data)[i]);
    case TOLVEX_DICTIONARY: {
      const std::int32_t code = static_cast<const std::int32_t*>(values.data)[i];
      return code < 0 ? "-" : values.texts[code];
    }
    default:
      break;
  }
  if (values.type == TOLVEX_BYTES)
    return hex(values.data, values.offsets[i], values.offsets[i + 1]);
  const auto* const text = static_cast<const char*>(values.data);
  return {text + values.offsets[i], text + values.offsets[i + 1]};
}

// Compares streams with the columns of the same reader.
class Comparison {
 public:
  Comparison(Engine& engine, const std::string& path) : engine_(engine), path_(path) {
    const char* const name = path.c_str();
    require(tolvex_reader_new(&reader_) == TOLVEX_OK, "no reader");
    require(tolvex_reader_open(reader_, &name, 1) == TOLVEX_OK, tolvex_reader_error(reader_));
  }
  Comparison(const Comparison&) = delete;
  Comparison& operator=(const Comparison&) = delete;
  ~Comparison() { tolvex_reader_free(reader_); }

  void run() {
    tolvex_recording recording = {};
    recording.size = sizeof recording;
    require(tolvex_reader_recording(reader_, &recording) == TOLVEX_OK, "no recording");
    for (std::uint32_t group = 0; group < recording.group_count; ++group) {
      for (const std::uint64_t batch : {0U, 7U}) compare(static_cast<std::int32_t>(group), batch);
    }
    compareFrames();
    std::printf("%s: %" PRIu64 " values of %" PRIu64 " columns are the same\n", path_.c_str(),
                values_, columns_);
  }

 private:
  void load(std::int32_t group, std::uint64_t batch, std::uint32_t time) {
    tolvex_stream_options options = {};
    options.size = sizeof options;
    options.batch_rows = batch;
    options.time = time;
    ArrowArrayStream stream = {};
    require(tolvex_reader_stream(reader_, group, &options, &stream) == TOLVEX_OK,
            tolvex_reader_error(reader_));
    engine_.load(stream);
  }

  void compare(std::int32_t group, std::uint64_t batch) {
    tolvex_group description = {};
    description.size = sizeof description;
    require(tolvex_reader_group(reader_, group, &description) == TOLVEX_OK, "no group");
    if (description.channel_count == 0) return;
    load(group, batch, TOLVEX_TIME_AS_CHANNEL);
    require(engine_.run("SELECT count(*) FROM loaded").at(0) == std::to_string(description.rows),
            "another number of rows");
    for (std::uint32_t i = 0; i < description.channel_count; ++i) {
      compareChannel(group, static_cast<std::int32_t>(i));
    }
    if (description.master >= 0) compareTimes(group, batch, description);
  }

  void compareChannel(std::int32_t group, std::int32_t index) {
    tolvex_channel channel = {};
    channel.size = sizeof channel;
    require(tolvex_reader_channel(reader_, group, index, &channel) == TOLVEX_OK, "no channel");
    const std::string isThere =
        std::string(
            "SELECT count(*) FROM information_schema.columns WHERE table_name = 'loaded' "
            "AND column_name = '") +
        channel.name + "'";
    if (channel.type == TOLVEX_NONE) {
      require(engine_.run(isThere).at(0) == "0", "a column without values");
      return;
    }
    if (channel.type == TOLVEX_BYTES && engine_.run(isThere).at(0) == "0") return;  // a structure
    tolvex_column* column = nullptr;
    tolvex_values values = {};
    values.size = sizeof values;
    require(tolvex_reader_columns(reader_, group, &index, 1, 0, UINT64_MAX, nullptr, &column) ==
                    TOLVEX_OK &&
                tolvex_column_values(column, &values) == TOLVEX_OK,
            tolvex_reader_error(reader_));
    ++columns_;
    for (std::uint64_t element = 0; element < values.elements; ++element) {
      compareElement(channel, values, element);
      if (values.numbers != nullptr) compareNumbers(channel, values, element);
    }
    tolvex_column_free(column);
  }

  void compareElement(const tolvex_channel& channel, const tolvex_values& values,
                      std::uint64_t element) {
    std::string asked = elementOf(channel.name, channel, element);
    const bool isFloat = values.type == TOLVEX_FLOAT32 || values.type == TOLVEX_FLOAT64;
    if (values.type == TOLVEX_BYTES) asked = "hex(" + asked + ")";
    const std::vector<std::string> got = engine_.run("SELECT " + asked + " FROM loaded");
    for (std::uint64_t row = 0; row < values.rows; ++row) {
      const std::string want = shown(values, row * values.elements + element);
      const std::string& found = got.at(row);
      const bool isSame =
          isFloat && want != "-" && found != "-" ? same(want, found) : want == found;
      require(isSame, std::string(channel.name) + ", row " + std::to_string(row) + ": expected " +
                          want + ", found " + found);
      ++values_;
    }
  }

  void compareNumbers(const tolvex_channel& channel, const tolvex_values& values,
                      std::uint64_t element) {
    const std::string name = std::string(channel.name) + ".value";
    const std::vector<std::string> got =
        engine_.run("SELECT " + elementOf(name, channel, element) + " FROM loaded");
    for (std::uint64_t row = 0; row < values.rows; ++row) {
      const double want = values.numbers[row * values.elements + element];
      const std::string& found = got.at(row);
      require(std::isnan(want) ? found == "-" : same(textOf(want), found), name + ": " + found);
      ++values_;
    }
  }

  // The timestamps of a zone have microseconds there.
  void compareTimes(std::int32_t group, std::uint64_t batch, const tolvex_group& description) {
    std::vector<std::int64_t> times(description.rows);
    std::uint64_t rows = 0;
    const tolvex_status status =
        tolvex_reader_nanoseconds(reader_, group, 0, times.size(), times.data(), &rows);
    if (status == TOLVEX_ERROR_TYPE) return;
    require(status == TOLVEX_OK && rows == times.size(), tolvex_reader_error(reader_));
    tolvex_channel master = {};
    master.size = sizeof master;
    require(tolvex_reader_channel(reader_, group, description.master, &master) == TOLVEX_OK, "");
    load(group, batch, TOLVEX_TIME_NANOSECONDS);
    const auto got =
        engine_.run("SELECT epoch_us(\"" + std::string(master.name) + "\") FROM loaded");
    for (std::size_t row = 0; row < times.size(); ++row, ++values_) {
      const std::string want =
          times[row] == TOLVEX_NO_TIME ? "-" : std::to_string(times[row] / 1000);
      require(want == got.at(row), "time: expected " + want + ", found " + got.at(row));
    }
  }

  // The frames of the file, if it has any.
  void compareFrames() {
    const char* const name = path_.c_str();
    tolvex_frames* frames = nullptr;
    ArrowArrayStream stream = {};
    require(tolvex_frames_new(&frames) == TOLVEX_OK &&
                tolvex_frames_open(frames, &name, 1) == TOLVEX_OK &&
                tolvex_frames_stream(frames, nullptr, 100, &stream) == TOLVEX_OK,
            tolvex_frames_error(frames));
    engine_.load(stream);
    const std::vector<std::string> got = engine_.run(
        "SELECT concat_ws(' ', epoch_us(time), id, bus, direction, kind, dlc, flags, "
        "coalesce(hex(data), '-')) FROM loaded");
    tolvex_frame_batch batch = {};
    batch.size = sizeof batch;
    std::size_t row = 0;
    while (tolvex_frames_next(frames, 1000, &batch) == TOLVEX_OK && batch.count != 0) {
      for (std::size_t i = 0; i < batch.count; ++i, ++row, ++values_) {
        std::string want;
        for (const std::int64_t number :
             {batch.times[i] / 1000, std::int64_t{batch.ids[i]}, std::int64_t{batch.buses[i]},
              std::int64_t{batch.directions[i]}, std::int64_t{batch.kinds[i]},
              std::int64_t{batch.dlcs[i]}, std::int64_t{batch.flags[i]}}) {
          want += std::to_string(number) + " ";
        }
        const bool isLost = (batch.flags[i] & TOLVEX_FRAME_PAYLOAD_MISSING) != 0;
        want += isLost ? "-" : hex(batch.payloads, batch.offsets[i], batch.offsets[i + 1]);
        require(row < got.size() && got[row] == want, "frame " + std::to_string(row) + ": " + want);
      }
    }
    require(row == got.size(), "another number of frames");
    columns_ += row == 0 ? 0 : 8;
    tolvex_frames_free(frames);
  }

  static bool same(const std::string& a, const std::string& b) {
    const double first = std::strtod(a.c_str(), nullptr);
    const double second = std::strtod(b.c_str(), nullptr);
    return first == second || (std::isnan(first) && std::isnan(second));
  }

  Engine& engine_;
  std::string path_;
  tolvex_reader* reader_ = nullptr;
  std::uint64_t values_ = 0;
  std::uint64_t columns_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: scan LIBDUCKDB FILE...\n");
    return 2;
  }
  try {
    Engine engine(argv[1]);
    std::printf("DuckDB %s\n", engine.version().c_str());
    const auto sample = tolvex::test::columnSample(100);
    Comparison(engine, sample.write()).run();
    const tolvex::test::TempDir folder;
    const std::string recorded = folder.path("recorded.mf4");
    dropDiagnostics();
    require(recordRamp(recorded.c_str(), 1'700'000'000'000'000, true) == 0, "no recording");
    Comparison(engine, recorded).run();
    for (int i = 2; i < argc; ++i) Comparison(engine, argv[i]).run();
    return 0;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "scan: %s\n", failure.what());
    return 1;
  }
}
