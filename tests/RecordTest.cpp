// Records filled by channel name, the blocks of channels and conversions, and records in the file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/DataGroup.h"
#include "Mdf4/Record.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/RecordedFile.h"

namespace tolvex::test {
namespace {

ChannelInfo channelOf(const std::string& name, std::uint32_t byteCount, std::uint8_t dataType = 0,
                      std::uint64_t bitMask = 0, std::uint8_t valueType = 0) {
  ChannelInfo info;
  info.name = name;
  info.byteCount = byteCount;
  info.dataType = dataType;
  info.bitMask = bitMask;
  info.valueType = valueType;
  return info;
}

// ---------------------------------------------------------------------------------------------
// Records in memory

// A record of "x" between two other bytes, all 0xEE.
RecordData recordWith(ChannelInfo x) {
  const auto layout = std::make_shared<RecordLayout>();
  layout->add(channelOf("before", 1));
  x.name = "x";
  x.byteOffset = 1;
  layout->add(x);
  ChannelInfo after = channelOf("after", 1);
  after.byteOffset = layout->size();
  layout->add(after);
  RecordData record(layout);
  std::fill_n(record.data(), record.size(), std::uint8_t{0xEE});
  return record;
}

// The bytes of "x" alone; the others must be as they were.
Bytes bytesOfX(const RecordData& record) {
  const std::uint8_t* const end = record.data() + record.size() - 1;
  EXPECT_EQ(int{*record.data()}, 0xEE);
  EXPECT_EQ(int{*end}, 0xEE);
  return {record.data() + 1, end};
}

TEST(RecordData, TakesBytesAsTheChannelIsDescribed) {
  constexpr std::uint64_t kAll = ~std::uint64_t{0};
  const struct {
    const char* name;
    ChannelInfo channel;
    Bytes given;
    bool taken;
    Bytes want;
  } rows[] = {
      {"whole", channelOf("", 3), {1, 2, 3}, true, {1, 2, 3}},
      {"fewer leave the rest", channelOf("", 4), {1, 2}, true, {1, 2, 0xEE, 0xEE}},
      {"none leave all", channelOf("", 2, 0, 0xFF), {}, true, {0xEE, 0xEE}},
      {"more zero it", channelOf("", 4), {1, 2, 3, 4, 5}, false, {0, 0, 0, 0}},
      {"more than a mask's 8", channelOf("", 8, 0, kAll), Bytes(9, 1), false, Bytes(8, 0)},
      {"big endian stays without a mask", channelOf("", 2, 1, 0, 1), {1, 2}, true, {1, 2}},
      {"mask", channelOf("", 2, 0, 0xFF0F), {0xAB, 0xCD}, true, {0x0B, 0xCD}},
      {"mask clears the other bytes", channelOf("", 4, 0, 0xF0), {0xFF}, true, {0xF0, 0, 0, 0}},
      {"big endian", channelOf("", 2, 0, 0xFFFF, 1), {0x34, 0x12}, true, {0x12, 0x34}},
      {"signed big endian", channelOf("", 3, 0, 0x0FFFFF, 3), {1, 2, 3}, true, {3, 2, 1}},
      {"masked once turned around", channelOf("", 2, 0, 0x0F, 1), {0x12, 0x34}, true, {4, 0}},
      {"turns around what is given", channelOf("", 4, 0, kAll, 1), {1, 2}, true, {2, 1, 0, 0}},
      {"little endian", channelOf("", 2, 1, 0xFFFF, 2), {0x34, 0x12}, true, {0x34, 0x12}},
      {"all 64 bits", channelOf("", 8, 0, kAll, 3), Bytes{8, 7, 6, 5, 4, 3, 2, 1}, true,
       Bytes{1, 2, 3, 4, 5, 6, 7, 8}},
      {"too wide for a mask", channelOf("", 9, 0, 1, 1), Bytes(9, 0x5A), true, Bytes(9, 0x5A)},
  };
  for (const auto& [name, channel, given, taken, want] : rows) {
    RecordData record = recordWith(channel);
    EXPECT_EQ(record.setData("x", static_cast<std::uint32_t>(given.size()), given.data()), taken)
        << name;
    EXPECT_EQ(bytesOfX(record), want) << name;
  }
}

TEST(RecordData, RefusesWhatItCannotTake) {
  const CapturedDiagnostics diagnostics;
  RecordData record = recordWith(channelOf("", 2));
  const std::uint8_t bytes[] = {1, 2};
  EXPECT_FALSE(record.setData("y", 1, bytes));
  EXPECT_FALSE(record.setData("x", 1, nullptr));
  EXPECT_TRUE(record.setData("x", 0, nullptr));
  EXPECT_EQ(bytesOfX(record), Bytes(2, 0xEE));
  EXPECT_EQ(diagnostics.text(), "");
}

// ---------------------------------------------------------------------------------------------
// Groups in a file

class DataGroupTest : public testing::Test {
 protected:
  DataGroupTest() {
    EXPECT_TRUE(file_->create(openSystemFile, path_, "", 410, 1));
    group_ = DataGroup::create(file_);
  }

  // Inserts records of that size, numbered in each byte, and keeps what the file should hold.
  void insert(std::uint32_t count, std::uint32_t size) {
    for (std::uint32_t i = 0; i < count; ++i) {
      const Bytes record(size, static_cast<std::uint8_t>(++inserted_));
      ASSERT_TRUE(group_->insert(size, record.data())) << inserted_;
      all_.insert(all_.end(), record.begin(), record.end());
    }
  }
  // Completes the file and reads the group back.
  RecordedGroup finish() {
    EXPECT_TRUE(group_->flush());
    group_ = nullptr;
    EXPECT_TRUE(file_->Close());
    return RecordedFile(path_).groups.at(0);
  }

  CapturedDiagnostics diagnostics_;
  TempDir dir_;
  std::string path_ = dir_.path("group.mf4");
  std::shared_ptr<Mdf4File> file_ = std::make_shared<Mdf4File>();
  std::shared_ptr<DataGroup> group_;
  std::uint32_t inserted_ = 0;
  Bytes all_;
};

TEST_F(DataGroupTest, PlacesChannelsByBytesBitsOrMask) {
  const auto bits = [](const char* name, std::uint8_t bitOffset, std::uint32_t bitCount,
                       std::uint32_t byteCount = 0) {
    ChannelInfo info = channelOf(name, byteCount, 1);
    info.bitOffset = bitOffset;
    info.bitCount = bitCount;
    return info;
  };
  // Each begins where the bytes of those in front of it end.
  const std::pair<ChannelInfo, RecordedPlace> rows[] = {
      {channelOf("float", 8, 4), {4, 0, 0, 64}},
      {bits("bytes", 3, 5, 3), {1, 8, 0, 24}},
      {bits("bits", 3, 5), {1, 11, 3, 5}},
      {bits("further bits", 13, 2), {1, 12, 5, 2}},
      {channelOf("inner bits", 2, 1, 0x0FF0), {0, 11, 4, 8}},
      {channelOf("high byte", 2, 2, 0xFF00), {2, 14, 0, 8}},
      {channelOf("with holes", 2, 3, 0x8001), {2, 15, 0, 16}},
      {channelOf("float with a mask", 4, 4, 0xC), {0, 17, 2, 2}},
      {channelOf("highest bit", 8, 10, std::uint64_t{1} << 63), {0, 28, 7, 1}},
  };
  for (const auto& [info, place] : rows) EXPECT_TRUE(group_->addChannel(info)) << info.name;
  const RecordedGroup group = finish();
  EXPECT_EQ(group.cg.cg_data_bytes, 29U);
  ASSERT_EQ(group.channels.size(), std::size(rows));
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    const auto& [info, place] = rows[i];
    EXPECT_EQ(group.channels[i].place(), place) << i << " " << info.name;
  }
}

TEST_F(DataGroupTest, FormulasBecomeConversions) {
  const auto formula = [](std::uint8_t kind, std::vector<double> parameters,
                          std::vector<std::string> texts = {}, const char* text = "",
                          double number = 0) {
    return Formula{kind, std::move(parameters), std::move(texts), text, number, text};
  };
  constexpr std::size_t kMany = 66'000;
  using Wanted = std::optional<RecordedConversion>;
  const struct {
    const char* name;
    Formula formula;
    Wanted want;
  } rows[] = {
      {"linear", formula(1, {5, 2}), {{1, {5, 2}}}},
      {"linear, too few", formula(1, {5}), {}},
      {"rational", formula(2, {1, 2, 3, 4, 5, 6, 7}), {{2, {1, 2, 3, 4, 5, 6}}}},
      {"rational, too few", formula(2, {1, 2, 3, 4, 5}), {}},
      {"algebraic", formula(3, {}, {}, "2*X"), {{3, {}, {"2*X"}}}},
      {"lines", formula(4, {1, 10, 2, 20}), {{4, {1, 10, 2, 20}}}},
      {"steps, half an entry", formula(5, {1, 10, 2}), {{5, {1, 10}}}},
      {"ranges", formula(6, {1, 2, 10, 3, 4, 20}, {}, "", 7), {{6, {1, 2, 10, 3, 4, 20, 7}}}},
      {"ranges, half an entry", formula(6, {1, 2, 10, 3, 4}), {{6, {1, 2, 10, 0}}}},
      {"texts", formula(7, {1, 2}, {"on", ""}, "else"), {{7, {1, 2}, {"on", "", "else"}}}},
      {"texts, no default", formula(7, {1}, {"on"}), {{7, {1}, {"on", kNoText}}}},
      {"texts, too few", formula(7, {1, 2}, {"on"}), {{7, {1}, {"on", kNoText}}}},
      {"ranged texts",
       formula(8, {1, 2, 3, 4}, {"a", "b"}, "c"),
       {{8, {1, 2, 3, 4}, {"a", "b", "c"}}}},
      {"ranged texts, half", formula(8, {1, 2, 3}, {"a", "b"}), {{8, {1, 2}, {"a", kNoText}}}},
      {"text to value", formula(9, {1}, {"a"}), {}},
      {"as many as a block counts",
       formula(5, std::vector<double>(65534)),
       {{5, std::vector<double>(65534)}}},
      {"more", formula(5, std::vector<double>(65536)), {}},
      {"too many ranges", formula(6, std::vector<double>(65535)), {}},
      {"too many texts",
       formula(7, std::vector<double>(kMany), std::vector<std::string>(kMany)),
       {}},
  };
  for (const auto& row : rows) {
    ChannelInfo info = channelOf(row.name, 1);
    info.formula = std::make_shared<Formula>(row.formula);
    EXPECT_TRUE(group_->addChannel(info)) << row.name;
  }
  for (const char* text :
       {"Formula of type 1 needs 2 parameters, has 1\n", "Formula type not support: 9\n",
        "Formula too large: 66000 values, 66001 texts, at most 65535\n"}) {
    EXPECT_NE(diagnostics_.text().find(text), std::string::npos) << text;
  }
  const RecordedGroup group = finish();
  ASSERT_EQ(group.channels.size(), std::size(rows));
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    EXPECT_TRUE(group.channels[i].conversion == rows[i].want) << rows[i].name;
  }
}

TEST_F(DataGroupTest, RefusesVariableLengthSignalsAtEveryLevel) {
  ChannelInfo variable = channelOf("text", 8);
  variable.channelType = 1;
  EXPECT_FALSE(group_->addChannel(variable));
  EXPECT_FALSE(group_->channelGroup().addChannel(variable));
  RecordData without = recordWith(variable);
  EXPECT_EQ(without.size(), 2U) << "has no bytes for it";
  EXPECT_FALSE(without.setData("x", 2, Bytes(2).data()));
  for (const char* text : {"[fatal] Mdf4/DataGroup.cpp, ", ": DataGroup::addChannel: VLSD write",
                           "[fatal] Mdf4/ChannelGroup.cpp, ",
                           ": ChannelGroup::addChannel: VLSD write is not supported\n",
                           ": RecordData::setData: VLSD write is not supported\n"}) {
    EXPECT_NE(diagnostics_.text().find(text), std::string::npos) << text;
  }
  EXPECT_EQ(finish().channels.size(), 0U);
}

// The gap is part of no record, so what comes behind it cannot be filled.
TEST_F(DataGroupTest, AChannelThatFailsLeavesAGap) {
  EXPECT_TRUE(group_->addChannel(channelOf("a", 1)));
  EXPECT_FALSE(group_->addChannel(channelOf("too large", 0x20000000)));
  EXPECT_TRUE(group_->addChannel(channelOf("b", 1)));
  RecordData record(group_->layout());
  const std::uint8_t byte = 7;
  EXPECT_FALSE(record.setData("too large", 1, &byte));
  EXPECT_FALSE(record.setData("b", 1, &byte));
  EXPECT_TRUE(record.setData("a", 1, &byte));
  ASSERT_EQ(record.size(), 2U);
  EXPECT_TRUE(group_->insert(2, record.data()));
  const RecordedGroup group = finish();
  EXPECT_EQ(group.bytes, (Bytes{7, 0}));
  EXPECT_EQ(group.channels.at(1).place(), (RecordedPlace{0, 0x20000001, 0, 8}));
}

TEST_F(DataGroupTest, RecordsFillBlocksAndBlocksFillLists) {
  constexpr std::uint64_t kFull = 512 * 20;
  const std::vector<std::uint64_t> five(5, kFull);
  const std::pair<std::uint32_t, std::vector<std::vector<std::uint64_t>>> rows[] = {
      {0, {}},
      {1, {{20}}},
      {511, {{511 * 20}}},
      {512, {{kFull}}},
      {513, {{kFull, 20}}},
      {2560, {five}},
      {2561, {five, {20}}},
      {5121, {five, five, {20}}},
  };
  for (const auto& [count, lists] : rows) {
    SCOPED_TRACE(count);
    ASSERT_TRUE(file_->create(openSystemFile, path_, "", 410, 1));
    group_ = DataGroup::create(file_);
    EXPECT_TRUE(group_->addChannel(channelOf("a", 20)));
    all_.clear();
    insert(count, 20);
    EXPECT_FALSE(group_->insert(19, Bytes(19).data()));
    EXPECT_FALSE(group_->insert(20, nullptr));
    const RecordedGroup group = finish();
    EXPECT_EQ(group.cg.cg_cycle_count, count);
    EXPECT_EQ(group.lists, lists);
    EXPECT_EQ(group.equalLength, count == 0 ? 0 : kFull);
    EXPECT_EQ(group.bytes, all_);
    file_ = std::make_shared<Mdf4File>();
  }
}

TEST_F(DataGroupTest, RefusesChannelsThatWouldSpoilRecords) {
  EXPECT_TRUE(group_->addChannel(channelOf("a", 2)));
  EXPECT_TRUE(group_->addChannel(channelOf("all bits", 2, 0, 0xFFFF)));
  const std::pair<ChannelInfo, const char*> rows[] = {
      {channelOf("a", 4), "\"a\": the group has a channel of this name\n"},
      {channelOf("b", 2, 0, 0x10000), "\"b\": its bit mask is wider than its bytes\n"},
      {channelOf("c", 0, 0, 1), "\"c\": its bit mask is wider than its bytes\n"},
      {channelOf("late", 1), "\"late\": the group has records already\n"},
  };
  for (const auto& [info, text] : rows) {
    if (info.name == "late") insert(1, 4);
    EXPECT_FALSE(group_->addChannel(info)) << info.name;
    EXPECT_TRUE(diagnostics_.text().ends_with(text)) << diagnostics_.text();
  }
  insert(1, 4);
  const RecordedGroup group = finish();
  EXPECT_EQ(group.channels.size(), 2U);
  EXPECT_EQ(group.bytes, all_);
}

}  // namespace
}  // namespace tolvex::test
