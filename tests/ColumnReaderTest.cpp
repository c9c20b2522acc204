// Columns of whole files, as the format means them.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
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
  for (std::uint64_t i = 0; i < column.size(); ++i) text += (i == 0 ? "" : " ") + shown(column, i);
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
  EXPECT_EQ(valuesOf(reader, "index"), "0 0.5 1");
  EXPECT_EQ(valuesOf(reader, "time"), "0.5 0.5 0.5");

  std::vector<MdfColumn> columns;
  EXPECT_TRUE(reader.read(0, {0, 5}, 1, 1, columns));
  EXPECT_EQ(shown(columns[1]), "'off'");
  EXPECT_FALSE(reader.read(0, {99}, 0, 1, columns));
  EXPECT_EQ(reader.error(), "there is no channel 99 in group 0");
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
    const std::string word = "w" + std::to_string(i);
    const Bytes record = packed(std::uint16_t{1}, i, offset);
    Bytes value = packed(std::uint16_t{3}, static_cast<std::uint32_t>(word.size()));
    value.insert(value.end(), word.begin(), word.end());
    add(i % 2 == 0 ? record : value);
    if (i % 3 == 0) {
      add(packed(std::uint16_t{2}, static_cast<std::int16_t>(-i)));
      wantOther += (i == 0 ? "" : " ") + std::to_string(-i);
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

}  // namespace
}  // namespace tolvex
