// The check of files: sound ones pass without a finding, each fault is found where it is.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Mdf4/MdfRecorder.h"
#include "Mdf4/format/BlockRecords.h"
#include "Mdf4/format/WorkSizes.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/SampleFiles.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

std::string textOf(const MdfFinding& finding) {
  return std::to_string(finding.position) + (finding.error ? " error: " : " warning: ") +
         finding.what + ": expected " + finding.expected + ", found " + finding.found;
}

std::string textOf(const MdfCheckReport& report) {
  std::string text = report.failure;
  for (const MdfFinding& finding : report.findings) text += textOf(finding) + "\n";
  return text;
}

std::string check(const std::string& path) {
  std::string text = textOf(checkFile(path));
  EXPECT_EQ(textOf(checkFile(path, nullptr, WorkSizes{.piece = 7})), text) << "in small steps";
  return text;
}

// Groups of every way to store records, and what else a file may hold; nothing is wrong with it.
struct Sample {
  FileBuilder file;
  Link group, time, value, name, comment, linear, table, list, firstData, reduction;
  Link sd, records, dz, offsets, columns, columnData, marks, values, unsorted;
  Link hierarchy, attachment, event;

  Sample() {
    addRecords();
    addValues();
    addColumns();
    addUnsorted();
    addOthers();
  }

 private:
  static Bytes times(int first, int count) {
    Bytes bytes;
    for (int i = first; i < first + count; ++i) {
      bytes = joined({bytes, packed(0.5 * i, static_cast<std::uint16_t>(i))});
    }
    return bytes;
  }
  Link timeChannel() {
    return file.cn({.name = "time", .type = 2, .sync = 1, .dataType = 4, .bitCount = 64});
  }
  Link addGroup(const Cg& form, Link data) {
    const Link cg = file.cg(form);
    file.dg({.groups = {cg}, .data = data});
    return cg;
  }
  Link outside(Link data) {
    return file.cn({.name = "v", .type = 1, .byteOffset = 8, .bitCount = 64, .data = data});
  }

  void addRecords() {
    linear = file.cc({.type = 1, .values = {1, 2}});
    comment = file.md("<CNcomment/>");
    const Cn channel = {.name = "value", .byteOffset = 8, .bitCount = 16, .conversion = linear};
    value = file.cn(channel);
    file.setLink(value, 7, comment);
    name = file.link(value, 2);
    table = file.cc({.type = 7, .values = {1, 2}, .refs = {name, name, linear}});
    const Link other = file.cn({.name = "other", .byteOffset = 9, .conversion = table});
    time = timeChannel();
    firstData = file.dt(times(0, 3));
    list = file.dl({firstData, file.dt(times(3, 2))}, 30);
    group = addGroup({.channels = {time, value, other}, .records = 5, .dataBytes = 10}, list);
    reduction =
        file.block("SR", {0, file.rd(Bytes(60))}, packed(std::uint64_t{2}, 1.0, std::uint64_t{1}));
    file.setLink(group, 4, reduction);
  }
  void addValues() {
    sd = file.sd(packed(std::uint32_t{2}, 'a', '\0', std::uint32_t{1}, 'b'));
    records = file.dt(packed(1.0, std::uint64_t{6}, 2.0, std::uint64_t{0}));
    addGroup({.channels = {timeChannel(), outside(sd)}, .records = 2, .dataBytes = 16}, records);
    dz = file.dz(times(0, 4), "DT", 1, 10);
    offsets = file.dl({dz, file.dz(times(4, 1))});
    addGroup({.channels = {timeChannel()}, .records = 5, .dataBytes = 10}, file.hl(offsets, 1));
    file.setByte(file.dataPosition(file.link(offsets, 2)) + 2, 1);  // transposed, one row
    file.setByte(file.dataPosition(file.link(offsets, 2)) + 4, 10);
  }
  void addColumns() {
    columnData = file.dv(times(0, 2));
    marks = file.di({0, 1});
    columns = file.block("LD", {0, columnData, marks},
                         packed(0x80000001U, std::uint32_t{1}, std::uint64_t{2}));
    addGroup({.channels = {timeChannel()}, .records = 2, .dataBytes = 10, .invalBytes = 1},
             columns);
  }
  void addUnsorted() {
    values = file.cg({.records = 1, .dataBytes = 6, .flags = 1, .recordId = 9});
    const std::vector<Link> channels = {timeChannel(), outside(values)};
    const Link cg = file.cg({.channels = channels, .records = 1, .dataBytes = 16, .recordId = 7});
    unsorted = file.dt(joined({packed(std::uint8_t{7}, 1.0, std::uint64_t{0}),
                               packed(std::uint8_t{9}, std::uint32_t{2}, 'a', 'b')}));
    file.dg({.groups = {cg, values}, .data = unsorted, .recordIdSize = 1});
  }
  void addOthers() {
    hierarchy = file.block("CH", {0, 0, name, 0, file.firstOf("DG"), group, value},
                           packed(std::uint32_t{1}, std::uint32_t{0}));
    const Bytes sizes = packed(std::uint64_t{2}, std::uint64_t{2});
    attachment = file.block("AT", {0, name, 0, 0},
                            joined({packed(std::uint64_t{1}), Bytes(16), sizes, Bytes(2)}));
    event = file.block("EV", {0, 0, 0, name, 0, group, attachment},
                       packed(std::uint64_t{0}, std::uint32_t{1}, std::uint16_t{1},
                              std::uint16_t{0}, std::int64_t{0}, 1.0));
    unsigned index = 2;
    for (const Link block : {hierarchy, attachment, event}) file.setLink(64, index++, block);
  }
};

// A damage, which gives the position where it is found.
using Damage = std::function<std::uint64_t(Sample&)>;
using Place = Link Sample::*;

Damage atByte(std::uint64_t position, std::uint8_t value, std::uint64_t found) {
  return [=](Sample& s) { return s.file.setByte(position, value), found; };
}
// A number of a block's record.
Damage valueOf(Place block, std::uint64_t offset, std::uint64_t value, unsigned bytes = 1) {
  return [=](Sample& s) {
    const std::uint64_t position = s.file.dataPosition(s.*block) + offset;
    for (unsigned k = 0; k < bytes; ++k) {
      s.file.setByte(position + k, static_cast<std::uint8_t>(value >> 8 * k));
    }
    return position;
  };
}
Damage headerOf(Place block, std::uint64_t offset, std::uint64_t value) {
  return [=](Sample& s) { return s.file.setU64(s.*block + offset, value), s.*block + offset; };
}
Damage linkOf(Place block, unsigned index, Place to, std::uint64_t behind = 0) {
  return [=](Sample& s) {
    s.file.setLink(s.*block, index, (to == nullptr ? 0 : s.*to) + behind);
    return s.*block + 24 + 8 * index;
  };
}
Damage foundAt(Place block, std::uint64_t offset, const Damage& damage) {
  return [=](Sample& s) { return damage(s), s.*block + offset; };
}

TEST(FileCheck, FindsEachFaultWhereItIs) {
  EXPECT_EQ(check(Sample().file.write()), "");
  using S = Sample;
  const struct {
    Damage damage;
    const char* finding;  // a part of its text
  } rows[] = {
      {atByte(0, 'm', 0), "error: identification block: id_file"},
      {atByte(60, 2, 60), "found cycle counters of SR"},
      {atByte(9, ',', 8), "warning: identification block: id_vers: expected \"4.10\""},
      {atByte(29, 9, 28), "error: identification block: id_ver: expected 400 to 499"},
      {atByte(40, 1, 30), "warning: identification block: id_reserved2"},
      // Links and blocks.
      {foundAt(&S::name, 4, headerOf(&S::name, 0, 0x0000000158542323)), "warning: TX block: rese"},
      {linkOf(&S::value, 6, nullptr, 1 << 20), "error: CN block: cn_md_unit: expected a position"},
      {linkOf(&S::value, 6, &S::sd), "where \"##SD\" stands"},
      {linkOf(&S::value, 0, &S::time), "error: CN block: cn_cn_next: expected a block that no"},
      {linkOf(&S::table, 5, &S::table), "error: CC block: cc_ref[1]"},
      {headerOf(&S::value, 8, 20), "error: CN block: length: expected at least 24"},
      {headerOf(&S::value, 16, 7), "error: CN block: link count: expected at least 8"},
      {foundAt(&S::name, 0, headerOf(&S::name, 8, 400)), "error: TX block: bytes: expected bytes"},
      {foundAt(&S::name, 24, valueOf(&S::name, 5, 'x')), "error: TX block: text: expected a NUL"},
      {valueOf(&S::comment, 0, 'x'), "warning: MD block: text: expected XML"},
      // Channels.
      {linkOf(&S::value, 2, nullptr), "error: CN block: cn_tx_name: expected a name, found none"},
      {valueOf(&S::value, 0, 8), "error: CN block: cn_type: expected at most 7, found 8"},
      {valueOf(&S::time, 1, 0), "error: CN block: cn_sync_type: expected 1 to 4, of a master"},
      {valueOf(&S::value, 2, 99), "error: CN block: cn_data_type: expected at most 16, found 99"},
      {valueOf(&S::value, 3, 8), "error: CN block: cn_bit_offset: expected at most 7, found 8"},
      {valueOf(&S::value, 4, 9), "record of 10 bytes, found 16 bits at byte 9, bit 0"},
      {valueOf(&S::time, 8, 60), "expected 16, 32 or 64, of a float, found 60"},
      {valueOf(&S::value, 22, 1), "error: CN block: cn_attachment_count: expected at most 0"},
      {foundAt(&S::value, 104, valueOf(&S::value, 12, 2)),
       "expected a bit of 0 invalidation bytes"},
      {foundAt(&S::value, 0, valueOf(&S::value, 0, 0x0000000800000102, 8)), "expected one master"},
      {foundAt(&S::group, 0, valueOf(&S::time, 0, 0)),
       "warning: CG block: channels: expected a ma"},
      // Other blocks.
      {valueOf(&S::linear, 6, 3), "error: CC block: cc_val_count: expected 2, of a conversion of"},
      {foundAt(&S::table, 84, valueOf(&S::table, 0, 11)),
       "error: CC block: cc_ref_count: expected"},
      {valueOf(&S::event, 8, 3), "error: EV block: ev_scope_count: expected at most 2"},
      {valueOf(&S::attachment, 32, 3), "error: AT block: at_embedded_size: expected at most 2"},
      {valueOf(&S::reduction, 0, 3), "error: SR block: sr_cycle_count: expected 2, for 60 bytes"},
      // Lists and data blocks.
      {valueOf(&S::list, 4, 3), "error: DL block: dl_count: expected 2"},
      {valueOf(&S::list, 4, 1), "warning: DL block: dl_count: expected 2"},
      {foundAt(&S::list, 0, linkOf(&S::list, 0, &S::list)), "error: DL block: bytes: expected by"},
      {foundAt(&S::firstData, 0, valueOf(&S::list, 8, 29, 8)),
       "expected 29 bytes, as the list sta"},
      {linkOf(&S::list, 2, nullptr), "error: DL block: dl_data[1]: expected a data block"},
      {valueOf(&S::offsets, 16, 41, 8), "error: DL block: dl_offset: expected 40, the sum"},
      {valueOf(&S::group, 8, 6, 8), "cg_cycle_count: expected 5, for 50 bytes of records of 10"},
      {valueOf(&S::dz, 2, 2), "error: DZ block: dz_zip_type: expected at most 1"},
      {valueOf(&S::dz, 0, 'S'), "error: DZ block: dz_org_block_type: expected DT, found \"ST\""},
      {valueOf(&S::dz, 8, ~std::uint64_t{0}, 8),
       "error: DZ block: dz_org_data_length: expected at"},
      {valueOf(&S::dz, 16, 1 << 20, 8), "error: DZ block: dz_data_length: expected at most"},
      {foundAt(&S::dz, 48, valueOf(&S::dz, 8, 39, 8)), "39 bytes, inflated, found more than 39"},
      {foundAt(&S::dz, 48, valueOf(&S::dz, 40, 0xFF)), "40 bytes, inflated, found damaged behind"},
      {foundAt(&S::columnData, 0, valueOf(&S::columns, 8, 1)), "expected at most 1 records"},
      {foundAt(&S::marks, 0, headerOf(&S::marks, 8, 25)), "expected 2 bytes, for the records bes"},
      // Records and values.
      {valueOf(&S::unsorted, 0, 8),
       "error: DT block: record id: expected that of one of 2 channel"},
      {valueOf(&S::values, 24, 5), "cg_data_bytes and cg_inval_bytes: expected 2, the bytes of"},
      {foundAt(&S::unsorted, 24, valueOf(&S::unsorted, 9, 3)), "a value in 6 bytes of values"},
      {foundAt(&S::records, 24, valueOf(&S::records, 8, 8)), "in 11 bytes of signal data, found 8"},
      {foundAt(&S::records, 24, valueOf(&S::sd, 6, 2)),
       "error: CN block: offset of a variable-len"},
      {foundAt(&S::sd, 30, valueOf(&S::sd, 6, 2)),
       "error: SD block: values: expected whole values"},
      {foundAt(&S::records, 40, valueOf(&S::records, 16, 0, 8)),
       "found 0 in record 1 (1 of 2 times"},
  };
  for (const auto& [damage, text] : rows) {
    Sample sample;
    const std::string place = std::to_string(damage(sample)) + " ";
    const std::string found = check(sample.file.write());
    const std::size_t at = found.find(text);
    const std::size_t line = found.rfind('\n', at) + 1;
    EXPECT_TRUE(at != std::string::npos && found.compare(line, place.size(), place) == 0)
        << text << " at " << place << "in\n"
        << found;
  }
}

TEST(FileCheck, FinishedRecordingsAreSound) {
  const CapturedDiagnostics diagnostics;
  const TempDir dir;
  recorderSettings.splitSize = 150'000;
  MdfRecorder recorder;
  ASSERT_EQ(recorder.startRecord(dir.path("log.mf4"), 1'700'000'000'000'000), 0);
  EXPECT_EQ(recorder.addDataGroup("never a record"), 0);
  EXPECT_EQ(recorder.addDataGroup("every conversion"), 1);
  EXPECT_EQ(recorder.addChannel(1, timeChannel()), 0);
  for (std::uint8_t kind = 1; kind <= 8; ++kind) {
    ChannelInfo channel = float64Channel("conversion " + std::to_string(kind));
    channel.formula = std::make_shared<const Formula>(
        Formula{kind, {1, 2, 3, 4, 5, 6}, {"a", "b", "c"}, "X1 * 2", 7, kind == 7 ? "" : "else"});
    channel.comment = "a comment";
    EXPECT_EQ(recorder.addChannel(1, channel), 0);
  }
  for (unsigned i = 0; i < 6000; ++i) {
    const std::uint64_t time = 1'700'000'000'000'000 + 10 * i;
    MdfCanMessage frame;
    frame.BusChannel(static_cast<std::uint8_t>(1 + i % 2));
    frame.Dir(i % 3 == 0);
    EXPECT_TRUE(recorder.saveCanMessage(time, frame));
    MdfCanError error;
    error.ErrorFlags(i % 2);
    EXPECT_TRUE(i % 50 != 0 || recorder.saveCanError(time, error));
    const std::unique_ptr<RecordData> record = recorder.createRecordData(1);
    record->setTime(1e-5 * i);
    EXPECT_TRUE(i % 7 != 0 || recorder.insertRecord(*record, 1));
  }
  recorder.stopRecord(1'700'000'001'000'000);
  recorderSettings.splitSize = 0;
  EXPECT_EQ(check(dir.path("log.mf4")) + check(dir.path("log_1.mf4")), "");
}

TEST(FileCheck, RealFilesAreAsTheirLoggersLeftThem) {
  EXPECT_EQ(check(TOLVEX_TEST_DATA "/raw-00000005.MF4"), "");
  EXPECT_EQ(check(TOLVEX_TEST_DATA "/decoded-00000005.mf4"), "");
  const std::string unfinalized =
      "60 error: identification block: id_unfin_flags: expected a finalized file, \"MDF     \" "
      "without flags, found unfinalized: \"UnFinMF \", cycle counters of CG, length of the last "
      "DT, byte counts of VLSD channel groups\n";
  EXPECT_EQ(check(TOLVEX_TEST_DATA "/unfinalized-00000002.MF4"), unfinalized);
  EXPECT_EQ(check(TOLVEX_TEST_DATA "/unfinalized-00000170.MF4"), unfinalized);
}

TEST(FileCheck, FilesCutAnywhereHaveAnError) {
  const Sample sample;
  std::vector<std::uint64_t> sizes = {0, 1, 63, 64};
  for (const Link block : sample.file.blocks()) {
    for (const unsigned offset : {0U, 8U, 24U, 30U}) sizes.push_back(block + offset);
  }
  for (const std::uint64_t size : sizes) {
    EXPECT_GT(checkFile(sample.file.write(size)).errors, 0U) << size;
  }
}

// An offset inside a value is none, however plausible the length is that seems to stand there.
TEST(FileCheck, FollowsValuesFromLengthToLength) {
  Bytes values;
  std::vector<std::uint64_t> starts;
  for (std::uint32_t i = 0; i < 3000; ++i) {
    starts.push_back(values.size());
    const Bytes value = joined({packed(i % 50), Bytes(i % 50)});
    values.insert(values.end(), value.begin(), value.end());
  }
  for (const bool compressed : {false, true}) {
    for (const std::uint64_t wrong : {0U, 5U}) {
      FileBuilder file;
      const Cn channel = {.name = "v",
                          .type = 1,
                          .byteOffset = 8,
                          .bitCount = 64,
                          .data = compressed ? file.dz(values, "SD") : file.sd(values)};
      std::vector<Bytes> records;
      for (const std::size_t i : {2999U, 0U, 1500U, 1501U, 7U, 2998U, 49U}) {
        records.push_back(packed(1.0, starts[i]));
      }
      records.push_back(packed(1.0, starts[2049] + wrong));
      file.signalGroup({channel}, records);
      EXPECT_EQ(check(file.write()).find("offset of a variable-length value") != std::string::npos,
                wrong != 0);
    }
  }
}

// Whatever the offset of a value claims to be.
TEST(FileCheck, LooksAtNoValueWhoseBitsBeginBehindTheirByte) {
  for (const std::uint8_t bitOffset : Bytes{8, 64, 255}) {
    FileBuilder file;
    const Cn value = {.name = "v",
                      .type = 1,
                      .byteOffset = 8,
                      .bitOffset = bitOffset,
                      .bitCount = 64,
                      .data = file.sd(Bytes(8))};
    file.signalGroup({value}, std::vector<Bytes>(2, joined({packed(1.0), Bytes(60)})));
    EXPECT_EQ(checkFile(file.write()).errors, 1U) << int{bitOffset};
  }
}

// Links that lead to the same blocks again and again, and counts of billions.
TEST(FileCheck, HostileFilesCostNoMoreThanTheirSize) {
  FileBuilder file;
  Link inner = file.cc({.type = 7, .refs = {0}});
  for (int i = 0; i < 2000; ++i) {
    inner = file.cc({.type = 7, .values = {1}, .refs = {inner, inner}});
  }
  const Link bomb = file.dz(Bytes(std::size_t{1} << 24), "DT", 1, 1 << 23);
  Bytes many = packed(std::uint32_t{0}, ~std::uint32_t{0});
  many.resize(8 + 8 * 2000);
  std::vector<Link> links(2001, bomb);
  links[0] = 0;
  file.signalGroup({{.name = "v", .conversion = inner}},
                   {.records = ~std::uint64_t{0}, .dataBytes = ~std::uint32_t{0}},
                   file.block("DL", links, many));
  for (int i = 0; i < 1500; ++i) file.dg({.recordIdSize = 3});
  const MdfCheckReport report = checkFile(file.write());
  EXPECT_EQ(report.findings.size(), 1000U);
  EXPECT_EQ(report.errors, 1500U + 1 + 1999);  // ids, the count of the list, its same blocks
}

}  // namespace
}  // namespace tolvex::test
