// The plain functions that read: streams of Arrow arrays, lifetimes, errors.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/ColumnSample.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tests/support/SampleFiles.h"
#include "tolvex/MdfColumns.h"

namespace tolvex {
namespace {

using test::Cn;
using test::columnSample;
using test::FileBuilder;

// A reader with a file, which must be one unless said otherwise.
class Reader {
 public:
  explicit Reader(const std::string& path) {
    const char* const name = path.c_str();
    EXPECT_EQ(tolvex_reader_new(&reader_), TOLVEX_OK);
    status_ = tolvex_reader_open(reader_, &name, 1);
  }
  explicit Reader(const FileBuilder& file) : Reader(file.write()) {
    EXPECT_EQ(status_, TOLVEX_OK) << error();
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  ~Reader() { close(); }

  operator tolvex_reader*() { return reader_; }  // NOLINT(google-explicit-constructor): in calls
  tolvex_status status() const { return status_; }
  std::string error() const { return tolvex_reader_error(reader_); }
  void close() { tolvex_reader_free(std::exchange(reader_, nullptr)); }

 private:
  tolvex_reader* reader_ = nullptr;
  tolvex_status status_ = TOLVEX_OK;
};

template <class Struct>
Struct sized() {
  Struct made = {};
  made.size = sizeof made;
  return made;
}

bool isValid(const ArrowArray& array, std::int64_t i) {
  if (array.n_buffers == 0) return false;
  const auto* const bits = static_cast<const std::uint8_t*>(array.buffers[0]);
  return bits == nullptr || (bits[i / 8] >> i % 8 & 1) != 0;
}

template <class Number>
std::string numberAt(const ArrowArray& array, std::int64_t i) {
  std::string text = std::to_string(static_cast<const Number*>(array.buffers[1])[i]);
  if (text.find('.') != std::string::npos) text.erase(text.find_last_not_of('0') + 1);
  return text;
}

std::string bytesAt(const ArrowArray& array, std::int64_t i) {
  const auto* const offsets = static_cast<const std::int64_t*>(array.buffers[1]);
  const auto* const bytes = static_cast<const char*>(array.buffers[2]);
  EXPECT_LE(offsets[i], offsets[i + 1]);
  return {bytes + offsets[i], bytes + offsets[i + 1]};
}

// A value as consumers of the Arrow C data interface read it; "-" for nulls.
std::string shown(const ArrowSchema& schema, const ArrowArray& array, std::int64_t i) {
  const std::string format = schema.format;
  if (!isValid(array, i)) return "-";
  if (schema.dictionary != nullptr) {
    const std::int32_t index = static_cast<const std::int32_t*>(array.buffers[1])[i];
    EXPECT_LT(index, array.dictionary->length);
    return shown(*schema.dictionary, *array.dictionary, index);
  }
  if (format.starts_with("+w:")) {
    const std::int64_t size = std::stoll(format.substr(3));
    std::string text = "[";
    for (std::int64_t k = 0; k < size; ++k) {
      text +=
          shown(*schema.children[0], *array.children[0], i * size + k) + (k + 1 < size ? " " : "]");
    }
    return text;
  }
  static const std::map<std::string, std::string (*)(const ArrowArray&, std::int64_t)> kTypes = {
      {"c", numberAt<std::int8_t>},
      {"C", numberAt<std::uint8_t>},
      {"s", numberAt<std::int16_t>},
      {"S", numberAt<std::uint16_t>},
      {"i", numberAt<std::int32_t>},
      {"I", numberAt<std::uint32_t>},
      {"l", numberAt<std::int64_t>},
      {"L", numberAt<std::uint64_t>},
      {"f", numberAt<float>},
      {"g", numberAt<double>},
      {"U", bytesAt},
      {"Z", bytesAt},
      {"tsn:", numberAt<std::int64_t>},
      {"tsn:UTC", numberAt<std::int64_t>}};
  const auto type = kTypes.find(format);
  if (type == kTypes.end()) return "type " + format;
  return type->second(array, i);
}

// Key and value pairs, "key=value;".
std::string metadataOf(const ArrowSchema& schema) {
  if (schema.metadata == nullptr) return "";
  const char* at = schema.metadata;
  const auto number = [&] {
    std::int32_t value = 0;
    std::memcpy(&value, at, sizeof value);
    at += sizeof value;
    return value;
  };
  const auto text = [&] {
    const auto size = static_cast<std::size_t>(number());
    at += size;
    return std::string(at - size, size);
  };
  std::string shown;
  for (std::int32_t left = number(); left > 0; --left) {
    shown += text() + "=";
    shown += text() + ";";
  }
  return shown;
}

std::string typeOf(const ArrowSchema& schema) {
  std::string type = schema.format;
  if (schema.dictionary != nullptr) type.append("(").append(typeOf(*schema.dictionary)).append(")");
  if (schema.n_children == 1) type.append("(").append(typeOf(*schema.children[0])).append(")");
  return type;
}

// All that a stream gives, by column: each name and type, each metadata, the values.
struct Content {
  std::string schema;
  std::vector<std::string> columns;
  std::vector<std::string> metadata;
  std::map<std::string, std::string> values;
  std::vector<std::int64_t> lengths;  // of the batches
};

std::int64_t nullsOf(const ArrowArray& array) {
  std::int64_t nulls = 0;
  for (std::int64_t i = 0; i < array.length; ++i) nulls += isValid(array, i) ? 0 : 1;
  return nulls;
}

Content contentOf(ArrowArrayStream& stream) {
  Content content;
  ArrowSchema schema = {};
  EXPECT_EQ(stream.get_schema(&stream, &schema), 0);
  EXPECT_STREQ(schema.format, "+s");
  content.schema = metadataOf(schema);
  for (std::int64_t c = 0; c < schema.n_children; ++c) {
    const ArrowSchema& field = *schema.children[c];
    content.columns.push_back(std::string(field.name) + " " + typeOf(field));
    content.metadata.push_back(metadataOf(field));
  }
  for (;;) {
    ArrowArray batch = {};
    EXPECT_EQ(stream.get_next(&stream, &batch), 0);
    if (batch.release == nullptr) break;
    content.lengths.push_back(batch.length);
    EXPECT_EQ(batch.n_children, schema.n_children);
    for (std::int64_t c = 0; c < batch.n_children; ++c) {
      EXPECT_EQ(batch.children[c]->length, batch.length);
      EXPECT_EQ(batch.children[c]->null_count, nullsOf(*batch.children[c]));
      std::string& values = content.values[schema.children[c]->name];
      for (std::int64_t i = 0; i < batch.length; ++i) {
        values.append(values.empty() ? "" : " ");
        values.append(shown(*schema.children[c], *batch.children[c], i));
      }
    }
    batch.release(&batch);
    EXPECT_EQ(batch.release, nullptr);
  }
  schema.release(&schema);
  return content;
}

ArrowArrayStream streamOf(tolvex_reader* reader, std::int32_t group,
                          const tolvex_stream_options& options) {
  ArrowArrayStream stream = {};
  EXPECT_EQ(tolvex_reader_stream(reader, group, &options, &stream), TOLVEX_OK)
      << tolvex_reader_error(reader);
  return stream;
}

// The options of a stream, to be written down in part.
struct Wanted {
  std::vector<std::int32_t> channels = {};
  std::uint64_t first = 0;
  std::uint64_t count = 0;
  std::uint64_t batch = 0;
  std::uint32_t time = TOLVEX_TIME_AS_CHANNEL;
  bool raw = false;
  std::uint32_t threads = 0;

  tolvex_stream_options options() const {
    auto options = sized<tolvex_stream_options>();
    options.channels = channels.empty() ? nullptr : channels.data();
    options.channel_count = channels.size();
    options.first_row = first;
    options.row_count = count;
    options.batch_rows = batch;
    options.time = time;
    options.raw = raw ? 1 : 0;
    options.threads = threads;
    return options;
  }
};

Content contentOf(tolvex_reader* reader, const Wanted& wanted = {}) {
  ArrowArrayStream stream = streamOf(reader, 0, wanted.options());
  Content content = contentOf(stream);
  stream.release(&stream);
  EXPECT_EQ(stream.release, nullptr);
  return content;
}

TEST(MdfColumns, StreamsEachTypeAsArrowHasIt) {
  Reader reader(columnSample(6));
  const Content content = contentOf(reader, {.batch = 4});
  EXPECT_EQ(content.lengths, (std::vector<std::int64_t>{4, 2}));
  EXPECT_EQ(content.columns,
            (std::vector<std::string>{"time g", "big L", "kmh g", "small c", "text U", "bytes Z",
                                      "status i(U)", "status.value g", "level i(U)",
                                      "matrix +w:2(+w:3(s))", "checked S"}));
  EXPECT_EQ(content.metadata[2], "unit=km/h;comment=of the wheels;");
  EXPECT_EQ(content.schema,
            "name=sample;left_out=beyond: expected it inside its record of 41 bytes, found 8 bits "
            "at byte 99\n;");
  const std::pair<const char*, const char*> wanted[] = {
      {"time", "0. 0.25 0.5 0.75 1. 1.25"},
      {"big",
       "18446744073709551615 18446744073709551614 18446744073709551613 18446744073709551612 "
       "18446744073709551611 18446744073709551610"},
      {"kmh", "1. 1.5 2. 2.5 3. 3.5"},
      {"small", "0 -1 -2 -3 -4 -5"},
      {"text", "text 0 text 1 text 2 text 3 - text 5"},
      {"status", "off on - - off on"},
      {"status.value", "- - 1. 1.5 - -"},
      {"level", "low low low high high high"},
      {"matrix",
       "[[0 1 2] [3 4 5]] [[1 2 3] [4 5 6]] [[2 3 4] [5 6 7]] [[3 4 5] [6 7 8]] [[4 5 6] [7 8 9]] "
       "[[5 6 7] [8 9 10]]"},
      {"checked", "0 - 2 3 - 5"}};
  for (const auto& [name, values] : wanted) EXPECT_EQ(content.values.at(name), values) << name;
  EXPECT_EQ(content.values.at("bytes").substr(2, 5), std::string(" \x01\xFE \x02", 5));
}

TEST(MdfColumns, StreamsWhatIsAskedFor) {
  Reader reader(columnSample(6));
  Content content = contentOf(reader, {.channels = {9, 2, 2, 0},  // beyond, kmh twice, the master
                                       .first = 2,
                                       .count = 3,
                                       .time = TOLVEX_TIME_SECONDS,
                                       .raw = true,
                                       .threads = 2});
  EXPECT_EQ(content.columns, (std::vector<std::string>{"time g", "beyond n", "kmh S", "kmh_2 S"}));
  EXPECT_EQ(content.metadata[1],
            "fault=expected it inside its record of 41 bytes, found 8 bits at byte 99;");
  EXPECT_EQ(content.values.at("kmh_2"), "2 3 4");
  EXPECT_EQ(content.values.at("beyond"), "- - -");
  EXPECT_EQ(content.values.at("time"), "0.5 0.75 1.");

  content = contentOf(reader, {.first = 4, .time = TOLVEX_TIME_NANOSECONDS});
  EXPECT_EQ(content.columns[0], "time tsn:UTC");
  EXPECT_EQ(content.values.at("time"), "1700000001123456789 1700000001373456789");
  EXPECT_EQ(contentOf(reader, {.first = 99}).lengths, std::vector<std::int64_t>());
}

// An index means the same text in each batch, and memory does not grow for ever.
TEST(MdfColumns, NumbersTextsOnceForAStream) {
  FileBuilder file;
  test::Cc same;  // texts for texts: none, so each stays as it is
  same.type = 10;
  same.refs = {0};
  Cn text = {
      .name = "text", .dataType = 7, .byteOffset = 8, .bitCount = 64, .conversion = file.cc(same)};
  std::vector<test::Bytes> rows;
  constexpr unsigned kTexts = 70'000;
  for (unsigned i = 0; i < 2 * kTexts; ++i) {
    test::Bytes row = test::packed(double(i), std::uint64_t{0});
    const std::string word = std::to_string(i % kTexts);
    std::memcpy(row.data() + 8, word.data(), word.size());
    rows.push_back(std::move(row));
  }
  file.signalGroup({text}, rows);
  Reader reader(file);
  ArrowArrayStream stream = streamOf(reader, 0, Wanted{.batch = 1000}.options());
  std::map<std::int32_t, std::string> meant;
  std::int64_t known = 0;
  unsigned next = 0;
  unsigned anew = 0;
  for (;;) {
    ArrowArray batch = {};
    ASSERT_EQ(stream.get_next(&stream, &batch), 0);
    if (batch.release == nullptr) break;
    const ArrowArray& column = *batch.children[1];
    if (column.dictionary->length < known) {
      ++anew;
      meant.clear();
    }
    known = column.dictionary->length;
    EXPECT_LE(known, (1 << 16) + 1000);
    for (std::int64_t i = 0; i < batch.length; ++i, ++next) {
      const std::int32_t index = static_cast<const std::int32_t*>(column.buffers[1])[i];
      const std::string word = bytesAt(*column.dictionary, index);
      ASSERT_EQ(word, std::to_string(next % kTexts));
      ASSERT_EQ(meant.try_emplace(index, word).first->second, word);
    }
    batch.release(&batch);
  }
  EXPECT_EQ(next, 2 * kTexts);
  EXPECT_EQ(anew, 2U);
  stream.release(&stream);
}

// Whatever is released first, the rest stays: address checks see to that.
TEST(MdfColumns, EachPartLivesAsLongAsItIsHeld) {
  auto reader = std::make_unique<Reader>(columnSample(6));
  ArrowArrayStream stream = streamOf(*reader, 0, sized<tolvex_stream_options>());
  tolvex_column* column = nullptr;
  const std::int32_t status = 6;
  ASSERT_EQ(tolvex_reader_columns(*reader, 0, &status, 1, 0, 6, nullptr, &column), TOLVEX_OK);
  reader.reset();

  ArrowSchema schema = {};
  ASSERT_EQ(stream.get_schema(&stream, &schema), 0);
  ArrowArray batch = {};
  ASSERT_EQ(stream.get_next(&stream, &batch), 0);
  stream.release(&stream);

  const auto moved = [](auto& from) {
    const auto to = from;
    from.release = nullptr;
    return to;
  };
  ArrowSchema field = moved(*schema.children[9]);
  ArrowArray lists = moved(*batch.children[9]);
  ArrowArray texts = moved(*batch.children[8]->dictionary);
  batch.release(&batch);
  schema.release(&schema);
  EXPECT_EQ(shown(field, lists, 5), "[[5 6 7] [8 9 10]]");
  EXPECT_EQ(bytesAt(texts, 1), "high");
  field.release(&field);
  lists.release(&lists);
  texts.release(&texts);

  auto values = sized<tolvex_values>();
  ASSERT_EQ(tolvex_column_values(column, &values), TOLVEX_OK);
  EXPECT_EQ(values.type, static_cast<std::uint32_t>(TOLVEX_DICTIONARY));
  EXPECT_STREQ(values.texts[static_cast<const std::int32_t*>(values.data)[1]], "on");
  EXPECT_EQ(values.numbers[3], 1.5);
  tolvex_column_free(column);
}

// For the thread sanitizer.
TEST(MdfColumns, StreamsOfOneReaderRunOnThreadsOfTheirOwn) {
  Reader reader(columnSample(500));
  const Content wanted = contentOf(reader, {.batch = 50});
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    ArrowArrayStream made = streamOf(reader, 0, Wanted{.batch = 50}.options());
    threads.emplace_back([&wanted, stream = made]() mutable {
      EXPECT_EQ(contentOf(stream).values, wanted.values);
      stream.release(&stream);
    });
  }
  EXPECT_EQ(contentOf(reader, {.batch = 70}).values, wanted.values);
  for (std::thread& thread : threads) thread.join();
}

TEST(MdfColumns, SaysWhatIsWrong) {
  Reader reader(columnSample(6));
  double values[6];
  std::uint64_t rows = 0;
  auto target = sized<tolvex_target>();
  target.values = values;
  const auto read = [&](std::int32_t group, std::int32_t channel, bool doubles) {
    target.channel = channel;
    target.doubles = doubles ? 1 : 0;
    return tolvex_reader_read(reader, group, &target, 1, 0, 6, nullptr, &rows);
  };
  const auto stream = [](tolvex_reader* from, const Wanted& wanted) {
    ArrowArrayStream made = {};
    const tolvex_stream_options options = wanted.options();
    const tolvex_status status = tolvex_reader_stream(from, 0, &options, &made);
    EXPECT_EQ(made.release, nullptr);
    return status;
  };
  FileBuilder untimed;
  untimed.dg({.groups = {untimed.cg({.name = "untimed"})}});
  Reader other(untimed);
  const struct {
    std::function<tolvex_status()> call;
    tolvex_status status;
    std::string error;
  } cases[] = {
      {[&] { return read(1, 0, false); }, TOLVEX_ERROR_ARGUMENT, "there is no group 1"},
      {[&] { return read(0, 99, false); }, TOLVEX_ERROR_ARGUMENT,
       "there is no channel 99 in group 0"},
      {[&] { return read(0, 4, true); }, TOLVEX_ERROR_TYPE, "channel 4: "},
      {[&] { return read(0, 6, false); }, TOLVEX_ERROR_TYPE, "channel 6: "},
      {[&] { return read(0, 9, true); }, TOLVEX_ERROR_TYPE, "channel 9: expected it inside"},
      {[&] {
         tolvex_target unsized = {};
         return tolvex_reader_read(reader, 0, &unsized, 1, 0, 6, nullptr, &rows);
       },
       TOLVEX_ERROR_ARGUMENT, "the size of a struct is not set"},
      {[&] { return tolvex_reader_read(reader, 0, &target, 1, 0, 6, nullptr, nullptr); },
       TOLVEX_ERROR_ARGUMENT, "a pointer is null"},
      {[&] { return tolvex_reader_seconds(reader, 0, 0, 6, nullptr, &rows); },
       TOLVEX_ERROR_ARGUMENT, "a pointer is null"},
      {[&] {
         tolvex_group group = {};
         return tolvex_reader_group(reader, 0, &group);
       },
       TOLVEX_ERROR_ARGUMENT, "the size of a struct is not set"},
      {[&] { return stream(reader, {.channels = {99}}); }, TOLVEX_ERROR_ARGUMENT,
       "there is no channel 99 in group 0"},
      {[&] { return stream(reader, {.time = 3}); }, TOLVEX_ERROR_ARGUMENT,
       "there is no option time 3"},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(one.call(), one.status) << one.error;
    EXPECT_EQ(reader.error().substr(0, one.error.size()), one.error);
  }
  EXPECT_EQ(read(0, 6, true), TOLVEX_OK);  // the numbers of a dictionary
  EXPECT_EQ(values[3], 1.5);

  EXPECT_EQ(stream(other, {.time = TOLVEX_TIME_SECONDS}), TOLVEX_ERROR_TYPE);
  EXPECT_EQ(other.error(), "group 0 has no master of time");

  Reader absent(std::string("/nowhere"));
  EXPECT_EQ(absent.status(), TOLVEX_ERROR_FILE);
  EXPECT_EQ(absent.error(), "No such file or directory");
  EXPECT_EQ(tolvex_reader_open(absent, nullptr, 1), TOLVEX_ERROR_ARGUMENT);
  EXPECT_EQ(tolvex_reader_problems(absent, nullptr, nullptr), TOLVEX_ERROR_ARGUMENT);
  EXPECT_EQ(tolvex_reader_new(nullptr), TOLVEX_ERROR_ARGUMENT);
  tolvex_check* check = nullptr;
  EXPECT_EQ(tolvex_check_file("/nowhere", nullptr, nullptr, &check), TOLVEX_ERROR_FILE);
  auto summary = sized<tolvex_check_summary>();
  EXPECT_EQ(tolvex_check_get_summary(check, &summary), TOLVEX_OK);
  EXPECT_NE(std::string(summary.failure), "");
  tolvex_check_free(check);
}

TEST(MdfColumns, ChannelsAreChosenByPatterns) {
  FileBuilder file;
  for (int group = 0; group < 2; ++group) {
    std::vector<test::Link> channels;
    for (const char* const name : {"speed.front", "Speed.rear"}) {
      channels.push_back(file.cn({.name = name}));
    }
    file.dg({.groups = {file.cg({.channels = channels, .dataBytes = 1})}});
  }
  Reader reader(file);
  tolvex_place places[3] = {{7, 7}, {7, 7}, {7, 7}};
  std::size_t found = 0;
  EXPECT_EQ(tolvex_reader_match(reader, "s*.[!x]*", 0, places, 3, &found), TOLVEX_OK);
  EXPECT_EQ(found, 2U);
  EXPECT_EQ(places[1].group * 10 + places[1].channel, 10);
  EXPECT_EQ(tolvex_reader_match(reader, "s*.[!x]*", 1, places, 2, &found), TOLVEX_OK);
  EXPECT_EQ(found, 4U);
  EXPECT_EQ(places[1].group * 10 + places[1].channel, 1);
  EXPECT_EQ(places[2].group, 7);
  EXPECT_EQ(tolvex_reader_match(reader, nullptr, 0, places, 2, &found), TOLVEX_ERROR_ARGUMENT);
  EXPECT_EQ(reader.error(), "a pointer is null");
}

// Programs that were built with an earlier header, or with a later one.
TEST(MdfColumns, StructsMayHaveMoreOrFewerMembersThanTheLibrary) {
  Reader reader(columnSample(6));
  tolvex_group early;
  std::memset(&early, 0x55, sizeof early);
  early.size = offsetof(tolvex_group, comment);
  EXPECT_EQ(tolvex_reader_group(reader, 0, &early), TOLVEX_OK);
  EXPECT_EQ(early.size, offsetof(tolvex_group, comment));
  EXPECT_STREQ(early.name, "sample");
  EXPECT_EQ(early.rows, 0x5555555555555555U);

  struct {
    tolvex_target known;
    std::uint64_t added;
  } late[2] = {};
  struct {
    tolvex_group known;
    std::uint64_t added;
  } group = {{}, 7};
  group.known.size = sizeof group;
  EXPECT_EQ(tolvex_reader_group(reader, 0, &group.known), TOLVEX_OK);
  EXPECT_EQ(group.known.size, sizeof group.known);
  EXPECT_EQ(group.added, 7U);
  std::uint8_t raw[2][6];
  for (int i = 0; i < 2; ++i) {
    late[i].known.size = sizeof late[i];
    late[i].known.channel = 3;
    late[i].known.values = raw[i];
  }
  std::uint64_t rows = 0;
  EXPECT_EQ(tolvex_reader_read(reader, 0, &late[0].known, 2, 0, 6, nullptr, &rows), TOLVEX_OK);
  EXPECT_EQ(raw[1][5], 0xFB);
}

// Whatever a file claims, a stream gives arrays that hold together.
TEST(MdfColumns, StreamsOfDamagedFilesHoldTogether) {
  const test::CapturedDiagnostics diagnostics;
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (const auto& [name, sample] : test::sampleFiles()) {
    for (int round = 0; round < 8; ++round) {
      FileBuilder file = sample;
      for (int change = 0; change < round; ++change) {
        file.setByte(64 + random() % (file.size() - 64), static_cast<std::uint8_t>(random()));
      }
      Reader reader(file.write());
      if (reader.status() != TOLVEX_OK) continue;
      auto recording = sized<tolvex_recording>();
      ASSERT_EQ(tolvex_reader_recording(reader, &recording), TOLVEX_OK);
      for (std::uint32_t group = 0; group < recording.group_count; ++group) {
        ArrowArrayStream stream =
            streamOf(reader, static_cast<std::int32_t>(group), Wanted{.count = 500}.options());
        static_cast<void>(contentOf(stream));
        stream.release(&stream);
        ASSERT_FALSE(testing::Test::HasFailure()) << name << ", round " << round;
      }
    }
  }
}

}  // namespace
}  // namespace tolvex
