// Columns of whole files, as the format means them.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "support/FileBuilder.h"
#include "tolvex/MdfColumnReader.h"

namespace tolvex {
namespace {

using test::Bytes;
using test::Cc;
using test::Cn;
using test::FileBuilder;
using test::Link;
using test::packed;

// A value as a user would write it down; "-" where there is none.
std::string shown(const MdfColumn& column, std::uint64_t i) {
  if (!column.isValid(i)) return "-";
  const auto number = [](auto value) {
    std::string text = std::to_string(value);
    if (text.find('.') == std::string::npos) return text;
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text;
  };
  switch (column.type()) {
    case MdfColumnType::Int8:
      return number(column.as<std::int8_t>()[i]);
    case MdfColumnType::Int16:
      return number(column.as<std::int16_t>()[i]);
    case MdfColumnType::Int32:
      return number(column.as<std::int32_t>()[i]);
    case MdfColumnType::Int64:
      return number(column.as<std::int64_t>()[i]);
    case MdfColumnType::UInt8:
      return number(column.as<std::uint8_t>()[i]);
    case MdfColumnType::UInt16:
      return number(column.as<std::uint16_t>()[i]);
    case MdfColumnType::UInt32:
      return number(column.as<std::uint32_t>()[i]);
    case MdfColumnType::UInt64:
      return number(column.as<std::uint64_t>()[i]);
    case MdfColumnType::Float32:
      return number(column.as<float>()[i]);
    case MdfColumnType::Float64:
      return number(column.as<double>()[i]);
    case MdfColumnType::Text:
      return "'" + std::string(column.text(i)) + "'";
    case MdfColumnType::Bytes: {
      std::string text = "0x";
      for (const char byte : column.text(i)) {
        for (const int half : {byte >> 4 & 15, byte & 15}) text += "0123456789abcdef"[half];
      }
      return text;
    }
    case MdfColumnType::Dictionary:
      if (column.as<std::int32_t>()[i] >= 0) return "'" + std::string(column.text(i)) + "'";
      return number(column.numbers()[i]);
    case MdfColumnType::None:
      break;
  }
  return "none";
}

std::string shown(const MdfColumn& column) {
  std::string text;
  for (std::uint64_t i = 0; i < column.size(); ++i)
    text.append(i == 0 ? "" : " ").append(shown(column, i));
  return text;
}

// All values of the channel of that name.
std::string valuesOf(MdfColumnReader& reader, const std::string& name, bool raw = false) {
  const std::vector<MdfChannelRef> found = reader.find(name);
  if (found.size() != 1) return std::to_string(found.size()) + " channels";
  std::vector<MdfColumn> columns;
  if (!reader.read(found[0].group, {found[0].channel}, 0, ~std::uint64_t{0}, columns, {raw})) {
    return reader.error();
  }
  const MdfColumnChannel& channel = reader.groups()[static_cast<std::size_t>(found[0].group)]
                                        .channels[static_cast<std::size_t>(found[0].channel)];
  return channel.fault.empty() ? shown(columns[0]) : channel.fault;
}

Cn field(const std::string& name, std::uint8_t dataType, std::uint32_t byte, std::uint32_t bits,
         std::uint8_t bit = 0) {
  Cn channel;
  channel.name = name;
  channel.dataType = dataType;
  channel.byteOffset = byte;
  channel.bitOffset = bit;
  channel.bitCount = bits;
  return channel;
}

TEST(ColumnReader, GivesEachKindOfValue) {
  FileBuilder builder;
  Cc status;
  status.type = 7;
  status.values = {1, 2};
  Cc half;
  half.type = 1;
  half.values = {0, 0.5};
  status.refs = {builder.tx("on"), builder.tx("off"), builder.cc(half)};
  Cc words;
  words.type = 9;
  words.refs = {builder.tx("one"), builder.tx("two")};
  words.values = {1, 2, -1};
  Cc letters;
  letters.type = 10;
  letters.refs = {builder.tx("abc"), builder.tx("letters"), 0};

  std::vector<Cn> channels;
  channels.push_back(field("motorola", 1, 8, 12, 2));
  channels.push_back(field("wide", 0, 10, 64));
  channels.push_back(field("half", 4, 18, 16));
  channels.push_back(field("small", 2, 20, 4, 3));
  channels.push_back(field("status", 0, 21, 8));
  channels.back().conversion = builder.cc(status);
  channels.push_back(field("latin", 6, 22, 24));
  channels.push_back(field("word", 7, 25, 24));
  channels.push_back(field("number", 7, 25, 24));
  channels.back().conversion = builder.cc(words);
  channels.push_back(field("outside", 7, 28, 32));
  channels.back().type = 1;
  channels.back().data = builder.sd(packed(std::uint32_t{3}, 'a', 'b', 'c', std::uint32_t{0}));
  for (const Link table : {builder.cc(letters), builder.cc(words)}) {
    channels.push_back(channels.back());
    channels.back().name += '>';
    channels.back().conversion = table;
  }
  channels.push_back(field("blob", 10, 22, 24));
  channels.push_back(field("day", 13, 32, 56));
  channels.push_back(field("moment", 14, 39, 48));
  channels.push_back(field("complex", 15, 45, 64));
  channels.push_back(field("checked", 0, 21, 8));
  channels.back().flags = 2;
  channels.back().invalBitPos = 3;
  channels.push_back(field("absent", 0, 21, 8));
  channels.back().flags = 1;
  channels.push_back(field("beyond", 0, 53, 8));
  channels.push_back(field("scaled", 4, 0, 64));  // no other type than its raw values
  channels.back().conversion = builder.cc(half);
  channels.push_back(field("index", 0, 0, 0));
  channels.back().type = 6;
  channels.back().conversion = builder.cc(half);

  const auto record = [](std::uint8_t state, const char* word, std::uint32_t offset,
                         std::uint8_t invalid) {
    return packed(0.5, std::uint8_t{0x12}, std::uint8_t{0x34}, ~std::uint64_t{0},
                  std::uint16_t{0xC000}, std::uint8_t{0x78}, state, '\xE4', 'b', '\0', word[0],
                  word[1], word[2], offset, std::uint16_t{8123}, std::uint8_t{7}, std::uint8_t{6},
                  std::uint8_t{5}, std::uint8_t{4}, std::uint8_t{24}, std::uint32_t{1500},
                  std::uint16_t{1}, 1.5F, -2.0F, invalid);
  };
  test::Cg group;
  group.records = 3;
  group.dataBytes = 53;
  group.invalBytes = 1;
  builder.signalGroup(channels, group,
                      builder.dt(test::joined({record(1, "one", 0, 0), record(2, "two", 7, 8),
                                               record(9, "xxx", 99, 0xF7)})));

  MdfColumnReader reader(builder.write());
  ASSERT_TRUE(reader.open()) << reader.error();
  ASSERT_EQ(reader.groups().size(), 1U);
  EXPECT_EQ(reader.groups()[0].records, 3U);
  EXPECT_EQ(reader.groups()[0].master, 0);
  // 0x1234 >> 2, its low 12 bits.
  EXPECT_EQ(valuesOf(reader, "motorola"), "1165 1165 1165");
  EXPECT_EQ(valuesOf(reader, "wide"),
            "18446744073709551615 18446744073709551615 18446744073709551615");
  EXPECT_EQ(valuesOf(reader, "half"), "-2 -2 -2");
  EXPECT_EQ(valuesOf(reader, "small"), "-1 -1 -1");
  EXPECT_EQ(valuesOf(reader, "status"), "'on' 'off' 4.5");
  EXPECT_EQ(valuesOf(reader, "status", true), "1 2 9");
  EXPECT_EQ(valuesOf(reader, "latin"), "'\u00E4b' '\u00E4b' '\u00E4b'");
  EXPECT_EQ(valuesOf(reader, "word"), "'one' 'two' 'xxx'");
  EXPECT_EQ(valuesOf(reader, "number"), "1 2 -1");
  EXPECT_EQ(valuesOf(reader, "outside"), "'abc' '' -");
  EXPECT_EQ(valuesOf(reader, "outside>"), "'letters' '' -");
  EXPECT_EQ(valuesOf(reader, "outside>>"), "-1 -1 -");
  EXPECT_EQ(valuesOf(reader, "blob"), "0xe46200 0xe46200 0xe46200");
  EXPECT_EQ(valuesOf(reader, "day"),
            "'2024-04-05T06:07:08.123' '2024-04-05T06:07:08.123' '2024-04-05T06:07:08.123'");
  EXPECT_EQ(valuesOf(reader, "moment"),
            "'1984-01-02T00:00:01.500' '1984-01-02T00:00:01.500' '1984-01-02T00:00:01.500'");
  EXPECT_EQ(valuesOf(reader, "complex"), "1.5 -2 1.5 -2 1.5 -2");
  EXPECT_EQ(valuesOf(reader, "checked"), "1 - 9");
  EXPECT_EQ(valuesOf(reader, "absent"), "- - -");
  EXPECT_EQ(valuesOf(reader, "beyond"),
            "expected it inside its record of 53 bytes, found 8 bits at byte 53");
  EXPECT_EQ(valuesOf(reader, "scaled"), "0.25 0.25 0.25");
  EXPECT_EQ(valuesOf(reader, "scaled", true), "0.5 0.5 0.5");
  EXPECT_EQ(valuesOf(reader, "index"), "0 0.5 1");
  EXPECT_EQ(valuesOf(reader, "time"), "0.5 0.5 0.5");

  std::vector<MdfColumn> columns;
  EXPECT_TRUE(reader.read(0, {0, 5}, 1, 1, columns));
  EXPECT_EQ(shown(columns[1]), "'off'");
  EXPECT_FALSE(reader.read(0, {99}, 0, 1, columns));
  EXPECT_EQ(reader.error(), "there is no channel 99 in group 0");
}

TEST(ColumnReader, GivesNoTimesWhereTheMasterHasNoValues) {
  FileBuilder builder;
  builder.signalGroup({}, {packed(0.5), packed(1.5)});
  builder.setByte(builder.dataPosition(builder.firstOf("CN")) + 8, 24);  // a float of 24 bits
  MdfColumnReader reader(builder.write());
  ASSERT_TRUE(reader.open()) << reader.error();
  double seconds[2];
  std::int64_t nanoseconds[2];
  EXPECT_EQ(reader.readSeconds(0, 0, 2, seconds), -1);
  EXPECT_EQ(reader.error(), "group 0 has no master of time");
  EXPECT_EQ(reader.readNanoseconds(0, 0, 2, nanoseconds), -1);
}

// An array of so many elements, `distance` bytes and `bits` invalidation bits apart.
Link array(FileBuilder& builder, std::vector<std::uint64_t> sizes, std::int32_t distance,
           std::uint32_t bits = 0, std::uint32_t flags = 0, Link elements = 0) {
  Bytes data = packed(std::uint8_t{0}, std::uint8_t{0}, static_cast<std::uint16_t>(sizes.size()),
                      flags, distance, bits);
  for (const std::uint64_t size : sizes) {
    const Bytes more = packed(size);
    data.insert(data.end(), more.begin(), more.end());
  }
  return builder.block("CA", {elements}, data);
}

TEST(ColumnReader, TakesApartStructuresAndArrays) {
  constexpr std::uint32_t kInverse = 0x40;
  FileBuilder builder;
  std::vector<Cn> channels(7, field("", 0, 8, 16));
  channels[0].name = "rows";
  channels[0].children = {array(builder, {2, 3}, 2)};
  channels[0].flags = 2;
  channels[0].invalBitPos = 2;
  channels[1].name = "columns";
  channels[1].children = {array(builder, {2, 3}, 2, 1, kInverse)};
  channels[1].flags = 2;
  channels[2].name = "backwards";
  channels[2].byteOffset = 18;
  channels[2].children = {array(builder, {6}, -2)};
  channels[3].name = "pairs";
  const Link high = builder.cn(field("pairs.high", 0, 9, 8));
  const Link low = builder.cn(field("low", 0, 8, 8));
  channels[3].children = {array(builder, {3}, 4, 4, 0, builder.chain({low, high}))};
  channels[3].bitCount = 32;
  channels[3].flags = 2;
  channels[3].invalBitPos = 1;
  channels[3].dataType = 10;
  channels[4].name = "outside";
  channels[4].children = {array(builder, {7}, 2)};
  channels[5].name = "crowded";
  channels[5].children = {array(builder, {1 << 20}, 0)};
  channels[6].name = "complex";
  channels[6].dataType = 15;
  channels[6].byteOffset = 0;
  channels[6].bitCount = 64;
  channels[6].children = {array(builder, {2}, 8)};
  test::Cg group;
  group.records = 2;
  group.dataBytes = 20;
  group.invalBytes = 2;
  builder.signalGroup(
      channels, group,
      builder.dt(test::joined(
          {packed(1.0F, 2.0F, 1, 2, std::uint16_t{5}, std::uint16_t{6}, std::uint16_t{0}),
           packed(3.0F, 4.0F, 0x10002, 0x30004, 0x50006, std::uint16_t{0x22})})));
  MdfColumnReader reader(builder.write());
  ASSERT_TRUE(reader.open()) << reader.error();
  const auto& described = reader.groups()[0].channels;
  EXPECT_EQ(described[1].shape, (std::vector<std::uint64_t>{2, 3}));
  EXPECT_EQ(valuesOf(reader, "rows"), "1 0 2 0 5 6 2 1 4 3 6 5");
  EXPECT_EQ(valuesOf(reader, "columns"), "1 2 5 0 0 6 2 4 6 - 3 -");
  EXPECT_EQ(valuesOf(reader, "backwards"), "6 5 0 2 0 1 5 6 3 4 1 2");
  EXPECT_EQ(valuesOf(reader, "pairs.low"), "1 2 5 - - 6");
  EXPECT_EQ(valuesOf(reader, "pairs.high"), "0 0 0 - - 0");
  EXPECT_EQ(described[static_cast<std::size_t>(reader.find("pairs.low")[0].channel)].parent, 4);
  EXPECT_EQ(valuesOf(reader, "pairs"), "0x01000000 0x02000000 0x05000600 - - 0x06000500");
  EXPECT_EQ(valuesOf(reader, "outside"),
            "expected it inside its record of 20 bytes, found 16 bits at byte 20");
  EXPECT_EQ(valuesOf(reader, "crowded"),
            "expected its elements inside its record of 20 bytes, found 1048576 of them");
  EXPECT_EQ(described.back().shape, (std::vector<std::uint64_t>{2, 2}));
}

// A text of the record may be shorter than its place; in an array of structures each has a length.
TEST(ColumnReader, TakesTextsAsLongAsTheirChannelOfLengthSays) {
  FileBuilder builder;
  Cn text = field("text", 7, 1, 24);
  text.type = 5;
  const Link length = builder.cn(field("length", 0, 0, 8));
  text.data = length;
  std::vector<Cn> channels = {field("pairs", 10, 0, 32), field("none", 7, 0, 0)};
  channels[0].children = {array(builder, {3}, 4, 0, 0, builder.chain({length, builder.cn(text)}))};
  test::Cg group;
  group.records = 2;
  group.dataBytes = 12;
  const std::string records =
      std::string("\1abc\2def\3ghi") + std::string("\4abc\0def\2gh\xFF", 12);
  builder.signalGroup(channels, group, builder.dt({records.begin(), records.end()}));
  MdfColumnReader reader(builder.write());
  ASSERT_TRUE(reader.open()) << reader.error();
  EXPECT_EQ(valuesOf(reader, "pairs.text"), "'a' 'de' 'ghi' - '' 'gh'");
  EXPECT_EQ(valuesOf(reader, "none"), "'' ''");
}

// One U+FFFD for each character that breaks off, and for each byte that begins none.
TEST(ColumnReader, ReplacesWhatIsNoUtf8) {
  const std::pair<std::string, std::string> texts[] = {
      {"\xE2\x82", "\uFFFD"},
      {"\xF0\x9F\x9A|\xF0\x9F\x9A\x97", "\uFFFD|\U0001F697"},
      {"\xC3\xC3\xA4", "\uFFFD\u00E4"},
      {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},
      {"\xC0\x80", "\uFFFD\uFFFD"},
      {"\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"\xE0\x80\xAF", "\uFFFD\uFFFD\uFFFD"}};
  FileBuilder builder;
  std::vector<Cn> channels;
  Bytes record;
  std::string want;
  for (const auto& [stored, meant] : texts) {
    channels.push_back(field("t" + std::to_string(channels.size()), 7,
                             static_cast<std::uint32_t>(record.size()), 80));
    record.insert(record.end(), stored.begin(), stored.end());
    record.resize(channels.size() * 10);
    want += "'" + meant + "'";
  }
  Cc table;
  table.type = 7;
  table.values = {0};
  table.refs = {builder.tx("\xB5")};
  channels.push_back(field("\xE4", 0, 9, 8));
  channels.back().conversion = builder.cc(table);
  channels.back().unit = builder.tx("\xB0\x43");
  builder.setByte(16, 0xFC);  // of the program's name
  test::Cg group;
  group.records = 1;
  group.dataBytes = static_cast<std::uint32_t>(record.size());
  builder.signalGroup(channels, group, builder.dt(record));
  MdfColumnReader reader(builder.write());
  ASSERT_TRUE(reader.open()) << reader.error();
  std::string got;
  for (std::size_t i = 0; i < std::size(texts); ++i) {
    got += valuesOf(reader, std::string("t").append(std::to_string(i)));
  }
  EXPECT_EQ(got, want);
  EXPECT_EQ(valuesOf(reader, "\uFFFD"), "'\uFFFD'");
  EXPECT_EQ(reader.groups()[0].channels.back().unit,
            "\uFFFD"
            "C");
  EXPECT_TRUE(reader.info().program.starts_with("\uFFFD"));
}

// Each value has a text of its own, made of one long text: there are not more than a small file may
// ask for.
TEST(ColumnReader, BoundsTheTextsOfDictionaries) {
  FileBuilder builder;
  Cc part;
  part.type = 7;
  part.refs = {builder.tx(std::string(15'000, 'x'))};
  Cc number;
  number.type = 1;
  number.values = {0, 1};
  Cc bits;
  bits.type = 11;
  bits.values = {0, std::bit_cast<double>(std::uint64_t{0xFFFF})};
  bits.refs = {builder.cc(part), builder.cc(number)};
  std::vector<Cn> channels = {field("bits", 0, 0, 16)};
  channels[0].conversion = builder.cc(bits);
  test::Cg group;
  group.dataBytes = 2;
  Bytes records;
  for (; group.records < 2'000; ++group.records) {
    const Bytes record = packed(static_cast<std::uint16_t>(group.records));
    records.insert(records.end(), record.begin(), record.end());
  }
  builder.signalGroup(channels, group, builder.dt(records));
  MdfColumnReader reader(builder.write());
  ASSERT_TRUE(reader.open()) << reader.error();
  std::vector<MdfColumn> columns;
  ASSERT_TRUE(reader.read(0, {1}, 0, 2'000, columns));
  EXPECT_TRUE(columns[0].isValid(100));
  EXPECT_FALSE(columns[0].isValid(1'999));
  ASSERT_TRUE(reader.read(0, {1}, 1'999, 1, columns));
  EXPECT_TRUE(columns[0].text(0).ends_with("x|1999"));
}

// Records of two groups in turns, the texts of one in a group of values, in front of its record or
// behind it; more of them than the distance between the places that a reader keeps in mind.
TEST(ColumnReader, TakesApartWhatIsUnsorted) {
  constexpr int kRecords = 10'000;
  FileBuilder builder;
  Cn text = field("text", 7, 4, 64);
  text.type = 1;
  test::Cg values;
  values.flags = 1;
  values.recordId = 3;
  const Link valueGroup = builder.cg(values);
  text.data = valueGroup;
  test::Cg first;
  first.recordId = 1;
  first.dataBytes = 12;
  first.channels = {builder.cn(field("count", 0, 0, 32)), builder.cn(text)};
  test::Cg second;
  second.recordId = 2;
  second.dataBytes = 2;
  second.channels = {builder.cn(field("other", 2, 0, 16))};

  Bytes data;
  const auto add = [&](const Bytes& bytes) { data.insert(data.end(), bytes.begin(), bytes.end()); };
  std::uint64_t offset = 0;
  std::string want;
  std::string wantOther;
  for (int i = 0; i < kRecords; ++i) {
    const std::string word = std::string("w").append(std::to_string(i));
    const Bytes record = packed(std::uint16_t{1}, i, offset);
    Bytes value = packed(std::uint16_t{3}, static_cast<std::uint32_t>(word.size()));
    for (const char letter : word) value.push_back(static_cast<std::uint8_t>(letter));
    add(i % 2 == 0 ? record : value);
    if (i % 3 == 0) {
      add(packed(std::uint16_t{2}, static_cast<std::int16_t>(-i)));
      wantOther.append(i == 0 ? "" : " ").append(std::to_string(-i));
    }
    add(i % 2 == 0 ? value : record);
    offset += 4 + word.size();
    want += (i == 0 ? "'" : " '") + word + "'";
  }
  std::vector<Link> blocks;
  for (std::size_t at = 0; at < data.size(); at += 1001) {
    const auto begin = data.begin() + static_cast<std::ptrdiff_t>(at);
    blocks.push_back(
        builder.dz({begin, begin + std::min<std::ptrdiff_t>(1001, data.end() - begin)}));
  }
  test::Dg group;
  group.recordIdSize = 2;
  group.groups = {builder.cg(first), valueGroup, builder.cg(second)};
  group.data = builder.hl(builder.dl(blocks));
  builder.dg(group);

  MdfColumnReader reader(builder.write());
  ASSERT_TRUE(reader.open()) << reader.error();
  ASSERT_EQ(reader.groups().size(), 3U);
  EXPECT_EQ(reader.groups()[0].records, std::uint64_t{kRecords});
  EXPECT_EQ(valuesOf(reader, "other"), wantOther);
  EXPECT_EQ(valuesOf(reader, "text"), want);
  std::vector<MdfColumn> columns;
  ASSERT_TRUE(reader.read(0, {0, 1}, 9'990, 3, columns));
  EXPECT_EQ(shown(columns[0]), "9990 9991 9992");
  EXPECT_EQ(shown(columns[1]), "'w9990' 'w9991' 'w9992'");
  EXPECT_EQ(reader.problems(),
            std::vector<std::string>{"a recording that was not finished: 1 data group has records "
                                     "and states 0 of them: taken for what is there"});
}

TEST(ColumnReader, SaysWhichRecordsItCannotTellApart) {
  FileBuilder builder;
  const auto group = [&builder](std::uint32_t bytes) {
    return builder.cg(
        {.channels = {builder.cn(field("x", 0, 0, 32))}, .records = 2, .dataBytes = bytes});
  };
  const Link data = builder.dt(packed(1, 2));
  builder.dg({.groups = {group(4)}, .data = data, .recordIdSize = 3});
  builder.dg({.groups = {group(4), group(4)}, .data = data});
  builder.dg({.groups = {group(1 << 21)}, .data = data});

  MdfColumnReader reader(builder.write());
  ASSERT_TRUE(reader.open()) << reader.error();
  EXPECT_EQ(reader.problems(),
            (std::vector<std::string>{
                "data group 0: its records cannot be read: their ids have 3 bytes; expected 1, 2, "
                "4 or 8",
                "data group 1: its records cannot be read: 2 channel groups share them without "
                "record ids, so nothing tells whose they are",
                "data group 2: its records cannot be read: each has 2097152 bytes; expected at "
                "most 1048576"}));
}

// What a logger leaves that never finalized its file: a length of the last block that was never
// written, or is too short, with other blocks behind it; and offsets of values that are all 0.
TEST(ColumnReader, TakesApartWhatWasNeverFinalized) {
  struct Case {
    std::uint16_t flags;
    std::uint64_t length;  // that the last block states
  };
  const Bytes records =
      packed(std::uint8_t{1}, std::uint64_t{0}, std::uint8_t{2}, std::uint32_t{2}, 'a', 'b',
             std::uint8_t{2}, std::uint32_t{1}, 'c', std::uint8_t{1}, std::uint64_t{0});
  for (const Case& one : {Case{0x45, 0}, Case{0x45, 24}, Case{0x45, 31},
                          Case{0x45, 24 + records.size()}, Case{0x41, 24 + records.size()}}) {
    SCOPED_TRACE(testing::Message() << "flags " << one.flags << ", length " << one.length);
    FileBuilder builder;
    const std::string_view id = "UnFinMF ";
    for (std::size_t i = 0; i < id.size(); ++i)
      builder.setByte(i, static_cast<std::uint8_t>(id[i]));
    builder.setByte(60, static_cast<std::uint8_t>(one.flags));
    const Link values = builder.cg({.flags = 1, .recordId = 2});
    Cn text = field("text", 7, 0, 64);
    text.type = 1;
    text.data = values;
    test::Cg holder;
    holder.recordId = 1;
    holder.dataBytes = 8;
    holder.channels = {builder.cn(text)};
    const Link first = builder.dt({records.begin(), records.begin() + 9});
    const Link last = builder.dt({records.begin() + 9, records.end()});
    builder.setU64(last + 8, one.length == 24 + records.size() ? one.length - 9 : one.length);
    builder.dg({.groups = {builder.cg(holder), values},
                .data = builder.dl({first, last}),
                .recordIdSize = 1});
    MdfColumnReader reader(builder.write());
    ASSERT_TRUE(reader.open()) << reader.error();
    EXPECT_EQ(reader.groups()[0].records, 2U);
    EXPECT_EQ(valuesOf(reader, "text"), "'ab' 'c'");
  }
}

// Values in a group of their own, that records name in any order.
TEST(ColumnReader, FindsValuesInAnyOrder) {
  constexpr int kValues = 9'001;
  FileBuilder builder;
  const Link values = builder.cg({.flags = 1, .recordId = 2});
  Cn text = field("text", 7, 0, 64);
  text.type = 1;
  text.data = values;
  test::Cg holder;
  holder.recordId = 1;
  holder.records = kValues;
  holder.dataBytes = 8;
  holder.channels = {builder.cn(text)};
  Bytes data;
  const auto add = [&](const Bytes& bytes) { data.insert(data.end(), bytes.begin(), bytes.end()); };
  std::vector<std::uint64_t> offsets;
  std::uint64_t offset = 0;
  for (int i = 0; i < kValues; ++i) {
    const std::string word = std::to_string(i);
    add(packed(std::uint8_t{2}, static_cast<std::uint32_t>(word.size())));
    add({word.begin(), word.end()});
    offsets.push_back(offset);
    offset += 4 + word.size();
  }
  std::string want;
  for (int i = 0, value = kValues - 1; i < kValues; ++i, value = (value + 3'571) % kValues) {
    const bool isWrong = i % 1'000 == 999;
    add(packed(std::uint8_t{1}, offsets[static_cast<std::size_t>(value)] + (isWrong ? 1 : 0)));
    want.append(i == 0 ? "" : " ").append(isWrong ? "-" : "'");
    if (!isWrong) want.append(std::to_string(value)).append("'");
  }
  builder.dg({.groups = {builder.cg(holder), values}, .data = builder.dt(data), .recordIdSize = 1});
  MdfColumnReader reader(builder.write());
  ASSERT_TRUE(reader.open()) << reader.error();
  EXPECT_TRUE(valuesOf(reader, "text") == want);
  ASSERT_EQ(reader.problems().size(), 9U);
  EXPECT_TRUE(reader.problems()[0].ends_with("expected one at offset 23147, found none"))
      << reader.problems()[0];
}

// Blocks that are stored column by column, of whole records or not, for records of that size or for
// another one: their columns are those of the same bytes as they are.
TEST(ColumnReader, TakesColumnsOutOfTransposedBlocks) {
  constexpr std::uint32_t kSize = 16;
  constexpr std::uint64_t kRecords = 9'000;
  Bytes bytes(kRecords * kSize);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * 2'654'435'761U >> 24);
  }
  struct Case {
    std::size_t block;  // bytes
    std::uint32_t columns;
  };
  std::string want;
  for (const Case& one : {Case{bytes.size(), 0}, Case{1600 * kSize, kSize}, Case{24'000, kSize},
                          Case{7777, kSize}, Case{1600 * kSize, 24}}) {
    FileBuilder builder;
    std::vector<Link> blocks;
    for (std::size_t at = 0; at < bytes.size(); at += one.block) {
      const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(at);
      const Bytes part(begin,
                       begin + static_cast<std::ptrdiff_t>(std::min(one.block, bytes.size() - at)));
      blocks.push_back(one.columns == 0 ? builder.dt(part)
                                        : builder.dz(part, "DT", 1, one.columns));
    }
    test::Cg group;
    group.records = kRecords;
    group.dataBytes = kSize - 1;
    group.invalBytes = 1;
    std::vector<Cn> channels = {field("few", 1, 9, 12, 2), field("all", 10, 0, 120)};
    channels[0].flags = 2;
    channels[0].invalBitPos = 7;
    builder.signalGroup(channels, group, builder.dl(blocks));
    MdfColumnReader reader(builder.write());
    ASSERT_TRUE(reader.open()) << reader.error();
    std::vector<MdfColumn> few;
    std::string got = valuesOf(reader, "few") + valuesOf(reader, "all");
    for (const std::uint64_t first : {1599U, 1600U, 2999U, 8999U}) {
      ASSERT_TRUE(reader.read(0, {1}, first, 5, few));
      got += shown(few[0]);
    }
    if (want.empty()) want = got;
    EXPECT_TRUE(got == want) << "blocks of " << one.block << ", columns of " << one.columns;
    EXPECT_EQ(reader.problems(), std::vector<std::string>());
  }
}

// A recording that started then: of each record its time in ticks, the status and a text of its
// number, and that number.
FileBuilder timedFile(std::int64_t startNs, int first, int records, double factor = 1e-9,
                      const std::string& unit = {}) {
  FileBuilder builder;
  builder.setU64(136, static_cast<std::uint64_t>(startNs));
  Cc status;
  status.type = 7;
  status.values = {0, 1};
  status.refs = {builder.tx("even"), builder.tx("odd")};
  std::vector<Cn> channels = {field("time", 0, 0, 64), field("status", 0, 8, 8),
                              field("text", 7, 9, 64), field("number", 2, 17, 16)};
  channels[0].type = 2;
  channels[0].sync = 1;
  if (factor != 1) channels[0].conversion = builder.cc({.type = 1, .values = {0, factor}});
  if (!unit.empty()) channels[0].unit = builder.tx(unit);
  channels[1].conversion = builder.cc(status);
  for (const std::size_t checked : {1U, 3U}) channels[checked].flags = 2;
  test::Cg group;
  group.name = "timed";
  group.records = static_cast<std::uint64_t>(records);
  group.dataBytes = 19;
  group.invalBytes = 1;
  for (const Cn& channel : channels) group.channels.push_back(builder.cn(channel));
  std::vector<Bytes> rows;
  for (int i = first; i < first + records; ++i) {
    rows.push_back(packed(std::uint64_t(i - first), static_cast<std::uint8_t>(i % 3),
                          std::uint64_t{0}, static_cast<std::int16_t>(-i),
                          static_cast<std::uint8_t>(i % 7 == 0)));
    const std::string text = std::string("t").append(std::to_string(i));
    std::copy(text.begin(), text.end(), rows.back().begin() + 9);
  }
  builder.dg({.groups = {builder.cg(group)}, .data = builder.dt(test::joined(rows))});
  return builder;
}

TEST(ColumnReader, GivesTimesOnTheClock) {
  constexpr std::int64_t kStart = 1'700'000'000'123'456'789;
  struct Case {
    double factor;
    std::string unit;
    double seconds;      // of the third record
    std::int64_t since;  // the start, likewise: ns
  };
  for (const Case& one : {Case{1e-9, "s", 2e-9, 2}, Case{1e-6, "", 2e-6, 2000},
                          Case{1, "ms", 2e-3, 2'000'000}, Case{0.5, "us", 1e-6, 1000},
                          Case{1.0 / 3, "s", 2.0 / 3, 666'666'667}, Case{1e10, "s", 2e10, 0}}) {
    const FileBuilder builder = timedFile(kStart, 0, 5, one.factor, one.unit);
    MdfColumnReader reader(builder.write());
    ASSERT_TRUE(reader.open()) << reader.error();
    double seconds[2] = {};
    EXPECT_EQ(reader.readSeconds(0, 2, 2, seconds), 2);
    EXPECT_DOUBLE_EQ(seconds[0], one.seconds);
    std::int64_t ns[3] = {};
    EXPECT_EQ(reader.readNanoseconds(0, 2, 9, ns), 3);
    EXPECT_EQ(ns[0], one.since == 0 ? kMdfNoTime : kStart + one.since);
    double alongSeconds[3] = {};
    std::int64_t alongNs[3] = {};
    MdfReadOptions options;
    options.seconds = alongSeconds;
    options.nanoseconds = alongNs;
    std::vector<MdfColumn> columns;
    ASSERT_TRUE(reader.read(0, {1}, 2, 9, columns, options));
    EXPECT_EQ(columns.size(), 1U);
    EXPECT_EQ(alongSeconds[0], seconds[0]);
    EXPECT_TRUE(std::equal(ns, ns + 3, alongNs));
  }
  FileBuilder builder;
  builder.setU64(136, kStart);
  builder.signalGroup({}, {packed(0.25)});
  test::Cg group;
  group.channels = {builder.cn(field("value", 0, 0, 8))};
  group.dataBytes = 1;
  group.records = 1;
  builder.dg({.groups = {builder.cg(group)}, .data = builder.dt({1})});
  MdfColumnReader reader(builder.write());
  ASSERT_TRUE(reader.open());
  std::int64_t ns = 0;
  EXPECT_EQ(reader.readNanoseconds(0, 0, 1, &ns), 1);
  EXPECT_EQ(ns, kStart + 250'000'000);
  EXPECT_EQ(reader.readNanoseconds(1, 0, 1, &ns), -1);
  EXPECT_EQ(reader.error(), "group 1 has no master of time");
  MdfReadOptions options;
  options.nanoseconds = &ns;
  std::vector<MdfColumn> columns;
  EXPECT_FALSE(reader.read(1, {0}, 0, 1, columns, options));
  EXPECT_EQ(columns.size(), 0U);
}

TEST(ColumnReader, FillsTheArraysOfItsCaller) {
  const FileBuilder builder = timedFile(0, 0, 12);
  MdfColumnReader reader(builder.write());
  ASSERT_TRUE(reader.open());
  std::int16_t numbers[4] = {};
  double doubles[4] = {};
  double status[4] = {};
  std::uint8_t validity[1] = {};
  EXPECT_EQ(
      reader.read(0,
                  {{3, numbers, validity}, {3, doubles, nullptr, true}, {1, status, nullptr, true}},
                  6, 4),
      4);
  EXPECT_EQ(numbers[0], -6);
  EXPECT_EQ(numbers[3], -9);
  EXPECT_EQ(validity[0], 0xFD);
  EXPECT_EQ(doubles[0], -6);
  EXPECT_TRUE(std::isnan(doubles[1]));
  EXPECT_TRUE(std::isnan(status[0])) << "a text is no number";
  EXPECT_EQ(reader.read(0, {{2, doubles, nullptr, true}}, 0, 1), -1);
  EXPECT_EQ(reader.error(), "channel 2: its values are no numbers");
  EXPECT_EQ(reader.read(0, {{1, doubles}}, 0, 1), -1);
}

// Several files give what one file of all of their records gives, and so do several threads.
TEST(ColumnReader, TakesSeveralFilesForOne) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  constexpr int kFirst = 13;
  constexpr int kSecondPart = 200'000;
  const FileBuilder a = timedFile(5 * kSecond, 0, kFirst);
  const FileBuilder b = timedFile(9 * kSecond, kFirst, kSecondPart);
  const FileBuilder other = timedFile(7 * kSecond, 0, 3, 1e-9, "m");
  const FileBuilder all = timedFile(5 * kSecond, 0, kFirst + kSecondPart);
  MdfColumnReader parts({b.write(), other.write(), a.write()});
  MdfColumnReader whole(all.write());
  ASSERT_TRUE(parts.open()) << parts.error();
  ASSERT_TRUE(whole.open()) << whole.error();
  ASSERT_EQ(parts.groups().size(), 2U) << "another unit makes another group";
  EXPECT_EQ(parts.groups()[0].records, std::uint64_t{kFirst + kSecondPart});
  for (const unsigned threads : {1U, 3U}) {
    for (const std::uint64_t first : {std::uint64_t{0}, std::uint64_t{5}}) {
      std::vector<MdfColumn> got;
      std::vector<MdfColumn> want;
      MdfReadOptions options;
      options.threads = threads;
      ASSERT_TRUE(parts.read(0, {1, 2, 3}, first, ~std::uint64_t{0}, got, options));
      ASSERT_TRUE(whole.read(0, {1, 2, 3}, first, ~std::uint64_t{0}, want));
      for (std::size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(shown(got[i]), shown(want[i])) << "column " << i + 1 << ", threads " << threads;
      }
    }
  }
  std::vector<std::int64_t> ns(kFirst + 2);
  EXPECT_EQ(parts.readNanoseconds(0, 0, ns.size(), ns.data()), kFirst + 2);
  EXPECT_EQ(ns[kFirst - 1], 5 * kSecond + kFirst - 1);
  EXPECT_EQ(ns[kFirst + 1], 9 * kSecond + 1);
  std::vector<MdfColumn> master;
  ASSERT_TRUE(parts.read(0, {0}, kFirst + 1, 1, master));
  EXPECT_DOUBLE_EQ(master[0].as<double>()[0], 4.000000001);
}

// Within a record: an empty block has no part in it, and of a damaged one only its own is lost.
TEST(ColumnReader, ReadsOnBehindBlocksThatHaveNothing) {
  for (const bool isDamaged : {false, true}) {
    FileBuilder builder;
    const Link group =
        builder.cg({.channels = {builder.cn(field("x", 0, 0, 32))}, .records = 6, .dataBytes = 4});
    const Bytes data = packed(1, 2, 3, 4, 5, 6);
    std::vector<Link> blocks = {builder.dt({data.begin(), data.begin() + 9}),
                                builder.dz(isDamaged ? Bytes{data[9]} : Bytes{}),
                                builder.dt({data.begin() + (isDamaged ? 10 : 9), data.end()})};
    if (isDamaged) {
      builder.setByte(builder.dataPosition(blocks[1]) + 24, 0xFF);  // of the stream
    } else {
      blocks[1] = builder.dt({});
    }
    builder.dg({.groups = {group}, .data = builder.dl(blocks)});
    MdfColumnReader reader(builder.write());
    ASSERT_TRUE(reader.open()) << reader.error();
    EXPECT_EQ(valuesOf(reader, "x"), isDamaged ? "1 2 - 4 5 6" : "1 2 3 4 5 6");
    EXPECT_EQ(reader.problems().size(), isDamaged ? 1U : 0U);
  }
}

// Also where a whole stretch that is read at once has none of its texts.
TEST(ColumnReader, HasNoTextsInDamagedBlocks) {
  constexpr std::size_t kPerBlock = 30'000;
  FileBuilder builder;
  Cn channel = field("x", 0, 0, 8);
  channel.conversion =
      builder.cc({.type = 7, .values = {0, 1}, .refs = {builder.tx("off"), builder.tx("on"), 0}});
  std::vector<Link> blocks;
  for (int i = 0; i < 10; ++i) blocks.push_back(builder.dt(Bytes(kPerBlock, i % 2 == 0 ? 1 : 0)));
  for (std::size_t i = 2; i < 9; ++i) builder.setByte(blocks[i], 'X');
  const Link group =
      builder.cg({.channels = {builder.cn(channel)}, .records = 10 * kPerBlock, .dataBytes = 1});
  builder.dg({.groups = {group}, .data = builder.dl(blocks)});
  MdfColumnReader reader(builder.write());
  ASSERT_TRUE(reader.open()) << reader.error();
  for (const unsigned threads : {1U, 4U}) {
    std::vector<MdfColumn> columns;
    ASSERT_TRUE(reader.read(0, {0}, 0, 10 * kPerBlock, columns, {.threads = threads}));
    const std::int32_t* const codes = columns[0].as<std::int32_t>();
    for (std::size_t i = 0; i < 10 * kPerBlock; i += 999) {
      const std::size_t block = i / kPerBlock;
      const bool isLost = block >= 2 && block < 9;
      ASSERT_EQ(columns[0].isValid(i), !isLost) << i;
      const std::string text =
          codes[i] < 0 ? "-" : columns[0].texts()[static_cast<std::size_t>(codes[i])];
      ASSERT_EQ(text, isLost ? "-" : block % 2 == 0 ? "on" : "off") << i;
    }
  }
}

// Whether a value is valid is not known where its invalidation bytes are missing.
TEST(ColumnReader, GivesNoValuesWithoutTheirInvalidation) {
  FileBuilder builder;
  Cn channel = field("x", 0, 0, 16);
  channel.flags = 2;
  const Link group = builder.cg(
      {.channels = {builder.cn(channel)}, .records = 8, .dataBytes = 2, .invalBytes = 1});
  const Link first =
      builder.dv(packed(std::uint16_t{1}, std::uint16_t{2}, std::uint16_t{3}, std::uint16_t{4}));
  const Link second =
      builder.dv(packed(std::uint16_t{5}, std::uint16_t{6}, std::uint16_t{7}, std::uint16_t{8}));
  const Link data = builder.ld({first, second}, {builder.di({0, 1}), builder.di({0, 0, 1, 0})});
  builder.dg({.groups = {group}, .data = data});
  MdfColumnReader reader(builder.write());
  ASSERT_TRUE(reader.open()) << reader.error();
  EXPECT_EQ(valuesOf(reader, "x"), "1 - - - 5 6 - 8");
  std::vector<MdfColumn> part;
  ASSERT_TRUE(reader.read(0, {0}, 1, 4, part));
  EXPECT_EQ(shown(part[0]), "- - - 5");
}

// Nothing can shift it to the start of the first file.
TEST(ColumnReader, GivesAMasterThatIsNoNumberAsItIsDescribed) {
  for (const std::uint8_t dataType : {std::uint8_t{7}, std::uint8_t{132}}) {
    FileBuilder builder;
    Cn master = field("time", dataType, 0, 16);
    master.type = 2;
    master.sync = 1;
    const Link group = builder.cg({.channels = {builder.cn(master)}, .records = 1, .dataBytes = 2});
    builder.dg({.groups = {group}, .data = builder.dt({'a', 'b'})});
    const std::string path = builder.write();
    MdfColumnReader reader({path, path});
    ASSERT_TRUE(reader.open()) << reader.error();
    std::vector<MdfColumn> columns;
    ASSERT_TRUE(reader.read(0, {0}, 0, 2, columns));
    EXPECT_EQ(columns[0].type(), reader.groups()[0].channels[0].type);
    EXPECT_EQ(columns[0].type(), dataType == 7 ? MdfColumnType::Text : MdfColumnType::Bytes);
  }
}

// More files than a process may have open.
TEST(ColumnReader, KeepsFewOfManyFilesOpen) {
  constexpr int kFiles = 100;
  constexpr int kLong = 7;  // has more records than the others
  constexpr int kLongRecords = 30'000;
  const auto openFiles = [] {
    std::error_code none;  // where the system does not tell: none
    const std::filesystem::directory_iterator all("/proc/self/fd", none);
    return std::distance(begin(all), end(all));
  };
  const test::TempDir dir;
  std::vector<std::string> paths;
  for (int i = 0; i < kFiles; ++i) {
    paths.push_back(dir.path(std::to_string(i).append(".mf4")));
    const FileBuilder file =
        timedFile(i * std::int64_t{1'000'000'000}, i, i == kLong ? kLongRecords : 1);
    std::filesystem::copy_file(file.write(), paths.back());
  }
  const auto before = openFiles();
  const std::filesystem::path folder = std::filesystem::current_path();
  std::filesystem::current_path(std::filesystem::path(paths[0]).parent_path());
  paths[0] = "0.mf4";
  MdfColumnReader reader(paths);
  const bool isOpen = reader.open();
  std::filesystem::current_path(folder);
  ASSERT_TRUE(isOpen) << reader.error();
  EXPECT_EQ(openFiles(), before);
  MdfReadOptions options;
  options.threads = 3;
  std::vector<MdfColumn> columns;
  ASSERT_TRUE(reader.read(0, {3}, 0, ~std::uint64_t{0}, columns, options));
  EXPECT_EQ(openFiles(), before);
  EXPECT_EQ(columns[0].rows(), std::uint64_t{kFiles - 1 + kLongRecords});
  EXPECT_TRUE(shown(columns[0]).ends_with(" -97 - -99"));
  EXPECT_EQ(reader.problems(), std::vector<std::string>());

  std::filesystem::copy_file(timedFile(0, 0, 2).write(), paths[kLong],
                             std::filesystem::copy_options::overwrite_existing);
  ASSERT_TRUE(reader.read(0, {3}, kLong, 1, columns));
  ASSERT_EQ(reader.problems().size(), 1U);
  EXPECT_TRUE(reader.problems()[0].ends_with("it has changed since it was opened"))
      << reader.problems()[0];
}

TEST(ColumnReader, FindsThePartsOfASplit) {
  const test::TempDir dir;
  for (const char* name : {"d.mf4", "d_1.mf4", "d_2.mf4", "d_10.mf4", "d_02.mf4", "d_x.mf4",
                           "d_3.mf", "e_1.mf4", "d_1_1.mf4"}) {
    std::ofstream(dir.path(name)).put('x');
  }
  EXPECT_EQ(mdfPartsOf(dir.path("d.mf4")),
            (std::vector<std::string>{dir.path("d.mf4"), dir.path("d_1.mf4"), dir.path("d_2.mf4"),
                                      dir.path("d_10.mf4")}));
}

}  // namespace
}  // namespace tolvex
