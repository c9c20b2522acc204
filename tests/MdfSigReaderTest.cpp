// Records of signal groups and what is needed to decode them.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

using Range = std::pair<double, double>;

// The bytes cut into two at `at`.
std::pair<Bytes, Bytes> halves(const Bytes& bytes, std::ptrdiff_t at) {
  return {{bytes.begin(), bytes.begin() + at}, {bytes.begin() + at, bytes.end()}};
}

// Records of the time, half a second apart, and a 32-bit number from 1000 on.
std::vector<Bytes> rampRecords(std::uint32_t count) {
  std::vector<Bytes> records;
  for (std::uint32_t i = 0; i < count; ++i) records.push_back(packed(0.5 * i, 1000 + i));
  return records;
}

const Cn kNumber = {.name = "number", .byteOffset = 8, .bitCount = 32};

class MdfSigReaderTest : public testing::Test {
 protected:
  MdfSigReader open() {
    MdfSigReader reader(file_.write());
    EXPECT_TRUE(reader.open());
    EXPECT_TRUE(reader.getProblems().empty()) << reader.getProblems()[0];
    return reader;
  }

  MdfSigCCInfo info(int cn) {
    MdfSigReader reader = open();
    MdfSigCCInfo info;
    EXPECT_TRUE(reader.getCCInfo(0, 0, cn, info));
    return info;
  }

  CapturedDiagnostics diagnostics_;
  FileBuilder file_;
};

// Checks that every operation gives these records.
void expectRecords(MdfSigReader& reader, int dg, const std::vector<Bytes>& want) {
  const int n = static_cast<int>(want.size());
  for (int start = 0; start < n; ++start) {
    for (int count = 1; start + count <= n; ++count) {
      const std::vector<Bytes> part(want.begin() + start, want.begin() + start + count);
      Bytes out;
      int recordSize = 0;
      EXPECT_TRUE(reader.readSignalDataBlock(dg, start, count, out, recordSize));
      EXPECT_EQ(out, joined(part)) << count << " records from " << start;
      EXPECT_EQ(recordSize, static_cast<int>(want[0].size()));
    }
  }
  for (int i = n - 1; i >= 0; --i) {
    const auto record = reader.readSignalDataByIndex(dg, 0, i);
    ASSERT_NE(record, nullptr) << i;
    EXPECT_EQ(record->data, want[static_cast<std::size_t>(i)]) << i;
  }
  reader.resetDataStream(dg);
  for (const Bytes& expected : want) {
    const auto record = reader.readSignalData(dg);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->data, expected);
  }
  EXPECT_EQ(reader.readSignalData(dg), nullptr) << "behind the last record";
}

// In column storage the bits lie in blocks of their own, or nowhere when all samples are valid.
TEST_F(MdfSigReaderTest, KnowsInvalidSamplesByTheBitsBehindTheData) {
  const std::vector<Bytes> data = rampRecords(7);
  std::vector<Bytes> records;
  Bytes marks;
  for (std::uint8_t i = 0; i < 7; ++i) {
    records.push_back(joined({data[i], {static_cast<std::uint8_t>(i & 1), 0x80}}));
    marks.insert(marks.end(), records[i].end() - 2, records[i].end());
  }
  std::vector<Bytes> halfMarked = records;
  for (std::size_t i = 0; i < 3; ++i) std::fill_n(halfMarked[i].end() - 2, 2, std::uint8_t{0});
  const auto [a, b] = halves(joined(data), 36);
  const auto [c, d] = halves(marks, 6);
  FileBuilder& f = file_;
  const std::pair<Link, const std::vector<Bytes>&> forms[] = {
      {f.dt(joined(records)), records},
      {f.ld({f.dv(a), f.dz(b, "DV", 1, 12)}, {f.di(c), f.dz(d, "DI")}), records},
      {f.ld({f.dz(a, "DV"), f.dv(b)}, {0, f.di(d)}), halfMarked}};
  const auto channel = [](std::uint32_t flags, std::uint32_t bit) {
    return Cn{.byteOffset = 8, .flags = flags, .invalBitPos = bit};
  };
  const std::vector<Cn> channels = {channel(2, 0), channel(0, 15), channel(1, 1), channel(2, 1),
                                    channel(2, 15)};
  for (const auto& [link, want] : forms) {
    f.signalGroup(channels, {.records = 7, .dataBytes = 12, .invalBytes = 2}, link);
  }
  MdfSigReader reader = open();
  for (int dg = 0; dg < 3; ++dg) {
    expectRecords(reader, dg, forms[dg].second);
    const bool want[] = {true, false, true, false, true};
    for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(reader.isInvalidSample(dg, 0, i + 1, records[5].data(), 14), want[i]) << i;
    }
    EXPECT_FALSE(reader.isInvalidSample(dg, 0, 1, records[6].data(), 14));
  }
}

TEST_F(MdfSigReaderTest, FindsTheFirstRecordAtOrAfterATime) {
  std::vector<Bytes> records;
  for (const double milliseconds : {500.0, 1000.0, 1000.0, 2000.0, 4000.0}) {
    records.push_back(packed(milliseconds, 0));
  }
  const Link group = file_.signalGroup({kNumber}, records);
  file_.setLink(file_.link(file_.link(group, 1), 1), 4,
                file_.cc({.type = 1, .values = {0, 0.001}}));
  MdfSigReader reader = open();
  const std::pair<double, int> rows[] = {{-1, 0},  {0.5, 0}, {0.75, 1}, {1, 1},
                                         {1.5, 3}, {4, 4},   {4.25, -1}};
  for (const auto& [seconds, want] : rows) {
    EXPECT_EQ(reader.findRecordIndexByTime(0, 0, seconds), want) << seconds;
  }
  EXPECT_EQ(reader.findRecordIndexByTime(0, 1, 1.5), -1);
  EXPECT_EQ(reader.readSignalTimeRange(0, 0), Range(0.5, 4));
}

TEST_F(MdfSigReaderTest, CycleCountsBeyondTheDataEndInFailure) {
  file_.signalGroup({kNumber}, {.records = 0x100000004, .dataBytes = 12},
                    file_.dt(joined({joined(rampRecords(3)), {1, 2, 3}})));
  MdfSigReader reader = open();
  EXPECT_EQ(reader.getRecordCount(0, 0), 4) << "the low 32 bits";
  EXPECT_EQ(reader.readSignalTimeRange(0, 0), Range(0, 0));
  EXPECT_EQ(reader.findRecordIndexByTime(0, 0, 0.25), -1);
  Bytes out = {1};
  int size = 0;
  EXPECT_FALSE(reader.readSignalDataBlock(0, 2, 2, out, size));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(size, 12);
  reader.resetDataStream(0);
  EXPECT_FALSE(reader.readSignalDataBlock(0, 1, 2'000'000'000, out, size));
  EXPECT_EQ(reader.readSignalData(0), nullptr) << "what there was has been read";
}

TEST_F(MdfSigReaderTest, GroupsWithoutATimeChannelGiveNoNextRecord) {
  const Link time = file_.cn({.name = "time", .type = 2, .sync = 1, .dataType = 4, .bitCount = 64});
  file_.dg({.groups = {file_.cg({.channels = {file_.cn(kNumber)}, .records = 3, .dataBytes = 12}),
                       file_.cg({.channels = {time}, .records = 3, .dataBytes = 12})},
            .data = file_.dt(joined(rampRecords(3)))});
  MdfSigReader reader = open();
  EXPECT_EQ(reader.readSignalData(0, 0), nullptr);
  EXPECT_EQ(reader.readSignalData(0, 1), nullptr) << "no value channel, so no stream";
  const auto next = reader.readSignalData(0);
  ASSERT_NE(next, nullptr) << "any group of the data group has a time channel";
  EXPECT_EQ(next->data, rampRecords(3)[1]) << "the null result took a record";
  EXPECT_NE(reader.readSignalDataByIndex(0, 0, 2), nullptr);
  MdfSigCCInfo time0;
  EXPECT_FALSE(reader.getTimeCCInfo(0, 0, time0));
  EXPECT_TRUE(reader.getTimeCCInfo(0, 1, time0));
}

TEST_F(MdfSigReaderTest, ASecondOpeningTakesThePlaceOfTheFirst) {
  const Link half = file_.cc({.type = 1, .values = {0, 0.5}});
  file_.signalGroup({kNumber}, {packed(0.0, 7U)});
  const std::string path = file_.write();
  MdfSigReader reader(path);
  ASSERT_TRUE(reader.open());
  Cn number = kNumber;
  number.conversion = half;
  file_.signalGroup({number}, rampRecords(4));
  std::size_t held = 0;
  for (int opening = 0; opening < 100; ++opening) {
    ASSERT_EQ(file_.write(), path);
    ASSERT_TRUE(reader.open());
    MdfSigCCInfo info;
    ASSERT_TRUE(reader.getCCInfo(1, 0, 1, info));
    EXPECT_EQ(info.values, (std::vector<double>{0, 0.5}));
    EXPECT_EQ(reader.getCNCount(1, 0), 2);
    EXPECT_EQ(reader.readSignalTimeRange(1, 0), Range(0, 1.5));
    EXPECT_EQ(reader.readSignalDataByIndex(0, 0)->data, packed(0.0, 7U));
    if (opening == 10) held = mallinfo2().uordblks;
  }
  EXPECT_LT(mallinfo2().uordblks, held + 10'000);
  const FileBuilder empty;
  std::ofstream(path, std::ios::binary) << std::ifstream(empty.write(), std::ios::binary).rdbuf();
  ASSERT_TRUE(reader.open());
  EXPECT_EQ(reader.getDGCount(), 2) << "what was listed stays";
  EXPECT_EQ(reader.getRecordCount(1, 0), 4);
}

TEST_F(MdfSigReaderTest, CopiesOfAnUnopenedReaderHaveTheirOwnFile) {
  file_.signalGroup({kNumber}, rampRecords(2));
  MdfSigReader first(file_.write());
  first.getCGCount(3);
  MdfSigReader second = first;
  MdfSigReader third("");
  third = first;
  ASSERT_TRUE(first.open());
  EXPECT_EQ(second.getDGCount(), 0);
  EXPECT_EQ(second.readSignalData(0), nullptr);
  for (MdfSigReader* const reader : {&second, &third}) ASSERT_TRUE(reader->open());
  for (MdfSigReader* const reader : {&first, &second, &third}) {
    ASSERT_NE(reader->readSignalData(0), nullptr);
    EXPECT_EQ(reader->readSignalData(0)->data, rampRecords(2)[1]) << "each goes on by itself";
  }
  second.close();
  EXPECT_NE(first.readSignalDataByIndex(0, 0), nullptr);
}

TEST_F(MdfSigReaderTest, AnswersForWhatIsNotThere) {
  file_.signalGroup({kNumber, {.name = "text", .type = 1}}, rampRecords(2));
  file_.signalGroup({kNumber}, {.records = 2, .dataBytes = 12}, 0);
  MdfSigReader reader = open();
  EXPECT_EQ(reader.getDataGroupSigsIndex(), std::vector<int>{0}) << "the second has no data";
  EXPECT_EQ(reader.readSignalData(1), nullptr);
  EXPECT_EQ(reader.readSignalDataByIndex(0, 1, 0), nullptr);
  for (const auto& [dg, start, count] : {std::array{0, 0, 0}, {0, -1, 1}, {1, 0, 1}}) {
    Bytes out = {1};
    int size = 5;
    EXPECT_FALSE(reader.readSignalDataBlock(dg, start, count, out, size));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(size, 0);
  }
  EXPECT_EQ(reader.getRecordCount(0, 4), 0);
  EXPECT_FALSE(reader.isDataType(0, 0, 0)) << "a master";
  EXPECT_TRUE(reader.isDataType(0, 0, 1));
  EXPECT_FALSE(reader.isDataType(0, 0, 2)) << "variable length";
  EXPECT_FALSE(reader.isValidSig(0, 0, 3));
  MdfSigCCInfo unchanged;
  unchanged.name = "kept";
  EXPECT_FALSE(reader.getCCInfo(0, 0, 5, unchanged));
  EXPECT_EQ(unchanged.name, "kept");
}

TEST_F(MdfSigReaderTest, DescribesAChannelAndItsConversion) {
  const Link conversion = file_.cc({.type = 8,
                                    .values = {0, 1, 2, 3, 4, 5},
                                    .refs = {file_.tx("low"), 0, file_.md("<X><TX>high</TX></X>"),
                                             file_.cc({.type = 1, .values = {0, 1}})},
                                    .precision = 4,
                                    .flags = 3,
                                    .rangeMin = -7,
                                    .rangeMax = 8,
                                    .name = file_.tx("levels")});
  Cn channel = {.name = "level", .type = 1, .sync = 2, .dataType = 3};
  channel.byteOffset = 9;
  channel.bitOffset = 5;
  channel.bitCount = 0x110;
  channel.flags = 0x3C;
  channel.invalBitPos = 6;
  channel.precision = 2;
  channel.attachmentCount = 3;
  channel.ranges = {1, 2, 3, 4, 5, 6};
  channel.conversion = conversion;
  file_.signalGroup({channel, {.name = "plain"}}, rampRecords(1));

  const MdfSigCCInfo got = info(1);
  EXPECT_EQ(got.name, "level [levels]");
  EXPECT_EQ(
      (std::array<std::uint32_t, 15>{
          got.dataType, got.valueKind, got.byteOrder, got.byteOffset, got.bitOffset, got.bitCount,
          got.flags, got.invalidBitPos, got.channelType, got.syncType, got.attachmentCount,
          got.conversionType, got.ccFlags, got.valueCount, got.textCount}),
      (std::array<std::uint32_t, 15>{3, 1, 2, 9, 5, 0x10 /* the low 8 bits */, 0x3C, 6, 1, 2, 3, 8,
                                     3, 6, 4}));
  EXPECT_TRUE(got.valueRangeValid && got.limitValid && got.limitExtValid && got.physRangeValid);
  EXPECT_EQ((std::array{got.valueRangeMin, got.valueRangeMax, got.limitMin, got.limitMax,
                        got.limitExtMin, got.limitExtMax, got.physRangeMin, got.physRangeMax}),
            (std::array{1.0, 2.0, 3.0, 4.0, 5.0, 6.0, -7.0, 8.0}));
  EXPECT_EQ(got.values, (std::vector<double>{0, 1, 2, 3, 4, 5}));
  EXPECT_EQ(got.texts, (std::vector<std::string>{"low", "", "high", ""}));
  EXPECT_TRUE(got.cnPrecisionValid && got.ccPrecisionValid && got.hasDisplayPrecision);
  EXPECT_EQ((std::array{got.cnPrecision, got.ccPrecision, got.displayPrecision}),
            (std::array<std::uint8_t, 3>{2, 4, 2}));

  const MdfSigCCInfo plain = info(2);
  EXPECT_FALSE(plain.valueRangeValid || plain.limitValid || plain.limitExtValid);
  EXPECT_FALSE(plain.cnPrecisionValid || plain.hasDisplayPrecision);
  EXPECT_EQ(plain.conversionType, 0);

  const MdfSigAttr attributes = open().getSigAttr(0, 0, 1);
  EXPECT_EQ(attributes.name, "level");
  EXPECT_EQ((std::array<std::uint32_t, 3>{attributes.byteOffset, attributes.bitOffset,
                                          attributes.bitCount}),
            (std::array<std::uint32_t, 3>{9, 5, 0x110}));
  EXPECT_EQ(attributes.cnIndex, 1);
}

TEST_F(MdfSigReaderTest, TakesTextsFromPlainAndMarkedUpBlocks) {
  FileBuilder& f = file_;
  const std::pair<Link, const char*> rows[] = {
      {0, "fallback"},
      {f.tx("plain"), "plain"},
      {f.tx("<TX>plain</TX>"), "<TX>plain</TX>"},
      {f.md("<a>x<TX>first</TX><TX>second</TX></a>"), "first"},
      {f.md("<TX></TX>"), "fallback"},
      {f.md("<TX>no end"), "fallback"},
      {f.md("no start</TX>"), "fallback"},
      {f.si(1, 2), "fallback"},
      {f.block("TX", {}, {}), "fallback"},
  };
  const Link conversion = f.cc({.type = 1,
                                .name = f.tx("conversion"),
                                .unit = f.md("<TX>fallback</TX>"),
                                .comment = f.tx("fallback")});
  std::vector<Cn> channels;
  for (const auto& [text, want] : rows) {
    channels.push_back({.conversion = conversion, .unit = text, .comment = text});
  }
  f.signalGroup(channels, rampRecords(1));
  for (int cn = 1; const auto& [text, want] : rows) {
    const MdfSigCCInfo got = info(cn++);
    EXPECT_EQ(got.unit, want) << cn;
    EXPECT_EQ(got.comment, want) << cn;
    EXPECT_EQ(got.name, "") << "an empty name is not decorated";
  }
}

TEST_F(MdfSigReaderTest, AnyNumberOfChannelsMayShareATextAndAConversion) {
  const std::string text(20'000, 'c');
  Cn channel = {.name = "v"};
  channel.comment = file_.md("<TX>" + text + "</TX>");
  channel.conversion = file_.cc({.type = 1, .values = {0, 1}, .unit = file_.tx(text)});
  file_.signalGroup(std::vector<Cn>(1000, channel), rampRecords(1));
  for (const int cn : {1, 500, 1000}) {
    EXPECT_EQ(info(cn).comment, text);
    EXPECT_EQ(info(cn).unit, text);
  }
}

TEST_F(MdfSigReaderTest, ReadsVariableLengthValuesHoweverTheyAreStored) {
  FileBuilder& f = file_;
  const std::vector<std::string> texts = {"alpha", "", std::string(300, 'x'), "omega"};
  Bytes stored;
  std::vector<Bytes> records;
  for (const std::string& text : texts) {
    records.push_back(packed(0.0, std::uint64_t{stored.size()}));
    stored = joined(
        {stored, packed(static_cast<std::uint32_t>(text.size())), Bytes(text.begin(), text.end())});
  }
  const auto [a, b] = halves(stored, 15);  // inside a length
  const auto [c, d] = halves(b, 100);      // inside a value
  const Link forms[] = {
      f.sd(stored), f.dl({f.sd(a), f.sd(c), f.sd(d)}), f.dz(stored, "SD"),
      f.hl(f.chain({f.dl({f.dz(a, "SD")}), f.dl({f.dz(c, "SD", 1, 4), f.dz(d, "SD")})}))};
  for (const Link data : forms) {
    const Cn text = {.type = 1, .dataType = 7, .byteOffset = 8, .bitCount = 64, .data = data};
    const Cn tooWide = {.type = 1, .byteOffset = 7, .bitCount = 72, .data = data};
    f.signalGroup({text, tooWide}, records);
  }
  MdfSigReader reader = open();
  for (int dg = 0; dg < 4; ++dg) {
    for (const std::size_t i : {3U, 0U, 1U, 2U}) {
      Bytes bytes;
      std::string text;
      EXPECT_TRUE(reader.readValueBytes(dg, 0, 1, records[i].data(), 16, bytes));
      EXPECT_EQ(bytes, Bytes(texts[i].begin(), texts[i].end()));
      EXPECT_TRUE(reader.readText(dg, 0, 1, records[i].data(), 16, text));
      EXPECT_EQ(text, texts[i]);
    }
    Bytes none;
    EXPECT_FALSE(reader.readValueBytes(dg, 0, 2, records[0].data(), 16, none));
    // Behind the end, half a length, a length that leads beyond the end, nonsense.
    const std::uint64_t size = stored.size();
    for (const std::uint64_t offset : {size, size - 2, std::uint64_t{14}, ~std::uint64_t{0}}) {
      EXPECT_FALSE(reader.readValueBytes(dg, 0, 1, packed(0.0, offset).data(), 16, none));
    }
  }
}

TEST_F(MdfSigReaderTest, ReadsWholeTextsOfEveryEncoding) {
  const std::string wide(40, 'w');
  const Bytes latin = {'n', 0xE4, 'h'};
  const Bytes little = {'A', 0, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE, 0, 0, 'x', 0};
  const Bytes big = {0, 'A', 0x20, 0xAC, 0xD8, 0x3D, 0xDE, 0x00};
  const Bytes record =
      joined({packed(0.0), Bytes(wide.begin(), wide.end()), Bytes(8), latin, little, big});
  const struct {
    Cn channel;
    bool isText;
    std::string want;
  } rows[] = {
      {{.dataType = 7, .byteOffset = 8, .bitCount = 48 * 8}, true, wide},
      {{.dataType = 6, .byteOffset = 56, .bitCount = 3 * 8}, true, "n\xC3\xA4h"},
      {{.dataType = 8, .byteOffset = 59, .bitCount = 12 * 8},
       true,
       "A\xE2\x82\xAC\xF0\x9F\x98\x80"},
      {{.dataType = 9, .byteOffset = 71, .bitCount = 8 * 8}, true, "A\xE2\x82\xAC\xF0\x9F\x98\x80"},
      {{.dataType = 0, .byteOffset = 8, .bitCount = 8}, false, ""},
      {{.dataType = 7, .byteOffset = 78, .bitCount = 2 * 8}, false, ""},
  };
  std::vector<Cn> channels;
  for (const auto& row : rows) channels.push_back(row.channel);
  file_.signalGroup(channels, {record});
  MdfSigReader reader = open();
  for (int i = 0; i < static_cast<int>(std::size(rows)); ++i) {
    std::string text;
    EXPECT_EQ(reader.readText(0, 0, i + 1, record.data(), record.size(), text), rows[i].isText);
    EXPECT_EQ(text, rows[i].want) << i;
  }
}

TEST_F(MdfSigReaderTest, ServesSeveralThreads) {
  const std::vector<Bytes> records = rampRecords(200);
  file_.signalGroup({kNumber}, records);
  MdfSigReader reader = open();
  std::atomic<int> wrong = 0;
  const auto readAll = [&](int step) {
    for (int i = 0; i < 200; ++i) {
      const int index = i * step % 200;
      const auto record = reader.readSignalDataByIndex(0, index);
      if (record == nullptr || record->data != records[static_cast<std::size_t>(index)]) ++wrong;
    }
  };
  std::thread other(readAll, 7);
  readAll(11);
  other.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace tolvex::test
