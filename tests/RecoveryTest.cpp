// What recovery brings back: unfinalized files of loggers, recordings that end at any moment or
// lose pages, and sound files, which stay what they are.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>

#include "Mdf4/MdfRecorder.h"
#include "Mdf4/format/WorkSizes.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/LoggerFile.h"
#include "tests/support/RecoveredContent.h"
#include "tests/support/SampleFiles.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

std::string data(const char* name) {
  return std::string(TOLVEX_TEST_DATA "/") + name;
}

// The record, without what says where its values lie.
Bytes withoutPlaces(const LoggerGroup& group, Bytes record) {
  for (const LoggerChannel& channel : group.channels) {
    if (!channel.variable) continue;
    const auto start = record.begin() + static_cast<std::ptrdiff_t>(channel.firstBit / 8);
    std::fill(start, start + channel.bitCount / 8, 0);
  }
  return record;
}

std::vector<std::string> frameLinesOf(const std::string& path) {
  MdfReader reader(path);
  static_cast<void>(reader.open());
  reader.setPayloadByDlc(true);
  reader.setRequireFields(true);
  std::vector<std::string> lines;
  while (const auto frame = reader.getCanMessage()) {
    char line[64];
    std::snprintf(line, sizeof line, "%lld %X%s %u %u %u%u%u%u ",
                  static_cast<long long>(frame->Timestamp()), frame->CanId(),
                  frame->ExtendedId() ? "x" : "", frame->BusChannel(), frame->Dlc(), frame->Dir(),
                  frame->Edl(), frame->Brs(), frame->Esi());
    lines.emplace_back(line);
    for (const std::uint8_t byte : frame->DataBytes()) {
      std::snprintf(line, sizeof line, "%02x", byte);
      lines.back() += line;
    }
  }
  return lines;
}

// Holds what the library reads of a file against what was read of another one by hand.
void expectGroups(const std::vector<LoggerGroup>& want, const std::string& path) {
  EXPECT_EQ(firstError(path), "");
  MdfSigReader reader(path);
  reader.setReadAllGroups(true);
  ASSERT_TRUE(reader.open()) << reader.getLastError();
  ASSERT_EQ(static_cast<std::size_t>(reader.getDGCount()), want.size());
  const std::vector<LoggerGroup> byHand = readLoggerFile(path);
  for (std::size_t i = 0; i < want.size(); ++i) {
    SCOPED_TRACE(testing::Message() << "group " << i << ", " << want[i].name);
    const int dg = static_cast<int>(i);
    const auto count = static_cast<int>(want[i].records.size());
    EXPECT_EQ(reader.getCGName(dg, 0), want[i].name);
    EXPECT_EQ(byHand.at(i).description, want[i].description);
    ASSERT_EQ(reader.getRecordCount(dg, 0), count);
    ASSERT_EQ(reader.getStoredRecordCount(dg, 0), want[i].records.size());
    Bytes all;
    int size = 0;
    if (count == 0) continue;
    ASSERT_TRUE(reader.readSignalDataBlock(dg, 0, 0, count, all, size));
    for (std::size_t r = 0; r < want[i].records.size(); ++r) {
      const auto start = all.begin() + static_cast<std::ptrdiff_t>(r) * size;
      const Bytes record(start, start + size);
      ASSERT_EQ(withoutPlaces(want[i], record), withoutPlaces(want[i], want[i].records[r])) << r;
      for (int cn = 0; cn < reader.getCNCount(dg, 0); ++cn) {
        const LoggerChannel* const channel = want[i].channel(reader.getCNName(dg, 0, cn));
        ASSERT_NE(channel, nullptr) << reader.getCNName(dg, 0, cn);
        if (!channel->variable) continue;
        Bytes value;
        ASSERT_TRUE(reader.readValueBytes(dg, 0, cn, record.data(), record.size(), value)) << r;
        ASSERT_EQ(value, channel->values[r]) << r;
      }
    }
  }
  EXPECT_TRUE(reader.getProblems().empty());
  EXPECT_EQ(frameLinesOf(path), frameLines(want));
}

// All that the readers show of a file, a line for each thing.
std::vector<std::string> contentsOf(const std::string& path) {
  std::vector<std::string> lines = frameLinesOf(path);
  MdfSigReader reader(path);
  reader.setReadAllGroups(true);
  EXPECT_TRUE(reader.open());
  lines.push_back(std::to_string(reader.getFileInfo().startTimeNs));
  for (int dg = 0; dg < reader.getDGCount(); ++dg) {
    const int count = reader.getRecordCount(dg, 0);
    lines.push_back(reader.getCGName(dg, 0) + " " + std::to_string(count));
    Bytes all;
    int size = 0;
    EXPECT_EQ(reader.readSignalDataBlock(dg, 0, 0, count, all, size), count != 0);
    for (int cn = 0; cn < reader.getCNCount(dg, 0); ++cn) {
      MdfSigCCInfo info;
      lines.push_back(reader.getCNName(dg, 0, cn));
      EXPECT_TRUE(reader.getCCInfo(dg, 0, cn, info));
      for (std::size_t at = 0; at < all.size(); at += static_cast<std::size_t>(size)) {
        const auto width = static_cast<std::size_t>(size);
        Bytes value;
        double number = 0;
        std::string& line = lines.emplace_back();
        reader.readText(dg, 0, cn, all.data() + at, width, line);
        reader.readValueBytes(dg, 0, cn, all.data() + at, width, value);
        line.append(value.begin(), value.end());
        const std::vector<std::uint8_t> record(all.data() + at, all.data() + at + width);
        if (info.convertToPhysical(record, number)) line.append(std::to_string(number));
      }
    }
  }
  EXPECT_TRUE(reader.getProblems().empty());
  return lines;
}

class Recovery : public testing::Test {
 protected:
  // The path of the result, which the next one replaces.
  const std::string& recovered(const std::string& input) {
    const MdfRecoveryReport report = recoverFile(input, recovered_);
    EXPECT_EQ(report.failure, "");
    EXPECT_TRUE(report.lossless());
    return recovered_;
  }
  void write(const Bytes& damaged) const {
    std::filesystem::remove(damaged_);  // a new file: overwriting one waits for the disk
    std::ofstream(damaged_, std::ios::binary)
        .write(reinterpret_cast<const char*>(damaged.data()),
               static_cast<std::streamsize>(damaged.size()));
  }

  TempDir dir_;
  std::string recovered_ = dir_.path("recovered.mf4");
  std::string damaged_ = dir_.path("damaged.mf4");
  CapturedDiagnostics diagnostics_;
};

TEST_F(Recovery, GivesWhatALoggerWroteBeforeItWasCutOff) {
  const std::pair<const char*, std::size_t> files[] = {{"unfinalized-00000002.MF4", 9600},
                                                       {"unfinalized-00000170.MF4", 2010}};
  for (const auto& [name, frames] : files) {
    SCOPED_TRACE(name);
    const std::vector<LoggerGroup> want = readLoggerFile(data(name));
    EXPECT_EQ(frameLines(want).size(), frames);
    expectGroups(want, recovered(data(name)));
  }
}

TEST_F(Recovery, FinishesUnsortedFilesWhateverWasLeftOpen) {
  const std::uint8_t flags[] = {0, 1 << 0, 1 << 2, 1 << 5, 1 << 6, 0x25, 0x65, 0x7F};
  for (const std::uint8_t idSize :
       {std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{4}, std::uint8_t{8}}) {
    for (const bool listed : {false, true}) {
      const auto want = readLoggerFile(unsortedFile({.idSize = idSize, .listed = listed}).write());
      for (const std::uint8_t open : flags) {
        SCOPED_TRACE(testing::Message() << "ids of " << int{idSize} << ", flags " << int{open}
                                        << (listed ? ", listed" : ""));
        const auto file = unsortedFile({.idSize = idSize, .unfinalized = open, .listed = listed});
        expectGroups(want, recovered(file.write()));
      }
    }
  }
}

TEST_F(Recovery, GivesTheSameInStepsOfAnySize) {
  for (const std::uint64_t piece : {1U, 7U, 64U, 500U}) {
    const WorkSizes sizes = {.piece = piece, .block = piece, .blocksPerList = 2, .farthest = piece};
    for (const std::uint8_t idSize : {std::uint8_t{1}, std::uint8_t{4}, std::uint8_t{8}}) {
      SCOPED_TRACE(testing::Message() << "ids of " << int{idSize} << ", " << piece << " bytes");
      const auto file = unsortedFile({.idSize = idSize, .unfinalized = 0x25, .listed = true});
      const std::string input = file.write();
      EXPECT_TRUE(recoverFile(input, recovered_, {true, nullptr}, sizes).lossless());
      expectGroups(readLoggerFile(input), recovered_);
    }
    for (const char* name : {"raw-00000005.MF4", "decoded-00000005.mf4"}) {
      SCOPED_TRACE(testing::Message() << name << ", " << piece << " bytes");
      EXPECT_TRUE(recoverFile(data(name), recovered_, {true, nullptr}, sizes).lossless());
      EXPECT_TRUE(contentsOf(recovered_) == contentsOf(data(name)));
    }
  }
}

TEST_F(Recovery, DropsTheRecordThatAnUnsortedFileEndsIn) {
  const FileBuilder whole = unsortedFile({.unfinalized = 0x25});
  for (std::uint64_t cut = 1; cut < 60; ++cut) {
    SCOPED_TRACE(testing::Message() << cut << " bytes cut");
    const std::string input = whole.write(whole.size() - cut);
    std::vector<LoggerGroup> want = readLoggerFile(input);
    static_cast<void>(recoverFile(input, recovered_));
    expectGroups(want, recovered_);
  }
}

TEST_F(Recovery, LeavesSoundFilesWhatTheyAre) {
  FileBuilder constants;  // of a logger whose fields without bits are all said by their conversion
  constants.busLog({"CAN_DataFrame", 12, {{"IDE", 8, 0, 0, 0, {1, 0}}, {"ID", 8, 0, 32}}}, {});
  FileBuilder zeros;  // begin where a page begins, but for the end of the block's header
  zeros.tx(std::string(inMemory(2 * 4096 - 25 - 16 - zeros.size()), 'x'));
  zeros.signalGroup({{.name = "v", .byteOffset = 8}}, {.records = 2, .dataBytes = 1000},
                    zeros.dt(joined({Bytes(1000), packed(1.0), Bytes(992, 1)})));
  for (const std::string& path :
       {data("raw-00000005.MF4"), data("decoded-00000005.mf4"), constants.write(), zeros.write()}) {
    SCOPED_TRACE(path);
    const std::vector<std::string> want = contentsOf(path);
    const std::string once = dir_.path("once.mf4");
    std::filesystem::rename(recovered(path), once);
    EXPECT_TRUE(contentsOf(once) == want);
    EXPECT_EQ(firstError(once), "");
    EXPECT_TRUE(contentsOf(recovered(once)) == want);
  }
}

// Every block of a file of nine groups in turn.
TEST_F(Recovery, LosesWithABlockWhatThatHeldAlone) {
  const std::vector<LoggerGroup> want = readLoggerFile(data("decoded-00000005.mf4"));
  const Bytes whole = fileBytes(data("decoded-00000005.mf4"));
  for (std::size_t at = 64; at < whole.size(); at += 8) {
    if (whole[at] != '#' || whole[at + 1] != '#') continue;
    const std::string type = {static_cast<char>(whole[at + 2]), static_cast<char>(whole[at + 3])};
    SCOPED_TRACE(testing::Message() << type << " block at " << at);
    Bytes damaged = whole;
    std::fill_n(damaged.begin() + static_cast<std::ptrdiff_t>(at), 24, 0);
    write(damaged);
    static_cast<void>(recoverFile(damaged_, recovered_));
    EXPECT_EQ(firstError(recovered_), "");
    std::size_t found = 0;
    for (const LoggerGroup& group : readLoggerFile(recovered_)) {
      found += std::ranges::any_of(want, [&](const LoggerGroup& wanted) {
        return wanted.records == group.records && !group.records.empty();
      });
    }
    EXPECT_EQ(found, type == "CG" || type == "DT" ? want.size() - 1 : want.size());
  }
}

// As readers do: one whose stream ends before the length that it states.
TEST_F(Recovery, GivesWhatACompressedBlockHolds) {
  constexpr std::size_t kSize = 9;
  Bytes rows;
  for (std::uint8_t i = 0; i < 40; ++i) rows = joined({rows, packed(0.5 * i, i)});
  const auto row = [&](int i) { return rows.begin() + static_cast<std::ptrdiff_t>(kSize) * i; };
  const Bytes want = joined({{rows.begin(), row(15)}, {row(20), rows.end()}});
  for (const std::uint8_t zipType : {std::uint8_t{0}, std::uint8_t{1}}) {
    FileBuilder file;
    const Link block = file.dz({rows.begin(), row(15) + 4}, "DT", zipType, kSize);
    file.setU64(block + 24 + 8, 20 * kSize);  // dz_org_data_length
    file.signalGroup({{.name = "v", .byteOffset = 8}}, {.records = 40, .dataBytes = kSize},
                     file.dl({block, file.dt({row(20), rows.end()})}));
    EXPECT_EQ(recoverFile(file.write(), recovered_).groups.at(0).lostRecords, 5U);
    EXPECT_EQ(joined(readLoggerFile(recovered_).at(0).records), want);
  }
}

// What else the file says leaves one way to read it.
TEST_F(Recovery, FindsAllBehindOneWrongNumber) {
  const struct Case {
    const char* file;
    const char* type;  // of the block, the first one of it
    std::uint64_t offset;
    std::uint8_t value;
  } cases[] = {
      {"data-dl-empty", "DL", 24 + 2 * 8 + 5, 1},   // the link to the empty block
      {"data-dl-empty", "DT", 8, 214},              // the length
      {"data-dl-mixed", "DZ", 24 + 8, 238},         // dz_org_data_length
      {"data-ld", "LD", 24 + 3 * 8 + 6, 1},         // ld_count
      {"data-ld-unmarked", "DV", 8, 91},            // the length
      {"unsorted-lists", "DL", 24 + 4 * 8 + 5, 1},  // dl_count
  };
  for (const Case& wrong : cases) {
    SCOPED_TRACE(testing::Message()
                 << wrong.file << ": byte " << wrong.offset << " of " << wrong.type);
    auto samples = sampleFiles();
    FileBuilder& file =
        std::ranges::find(samples, wrong.file, &decltype(samples)::value_type::first)->second;
    const RecoveredContent want = recoveredContent(recovered(file.write()));
    file.setByte(file.firstOf(wrong.type) + wrong.offset, wrong.value);
    static_cast<void>(recoverFile(file.write(), recovered_));
    const RecoveredContent got = recoveredContent(recovered_);
    EXPECT_TRUE(isPart(got, want));
    EXPECT_EQ(count(got), count(want));
  }
}

// What lies in front of damaged records and behind them, whether it is a whole page of zeros or a
// length that leads nowhere.
TEST_F(Recovery, FindsItsWayBackIntoUnsortedRecords) {
  const std::vector<std::string> want =
      frameLines(readLoggerFile(data("unfinalized-00000170.MF4")));
  const Bytes whole = fileBytes(data("unfinalized-00000170.MF4"));
  std::mt19937 random(1);
  for (const std::size_t size : {1U, 4U, 24U, 500U, 4096U}) {
    for (const int byte : {0, 1, 2, 0xFF}) {
      const std::size_t at = 10'000 + random() % 60'000;
      SCOPED_TRACE(testing::Message() << size << " bytes of " << byte << " at " << at);
      Bytes damaged = whole;
      std::fill_n(damaged.begin() + static_cast<std::ptrdiff_t>(at), size, byte);
      write(damaged);
      static_cast<void>(recoverFile(damaged_, recovered_));
      EXPECT_EQ(firstError(recovered_), "");
      std::vector<std::string> common;
      std::ranges::set_intersection(want, frameLinesOf(recovered_), std::back_inserter(common));
      EXPECT_GE(common.size() + size / 36 + 3, want.size());  // a frame fills 36 bytes
    }
  }
}

// Records whose values lie in three blocks at the end of the file, and end anywhere in them.
struct ValuesFile {
  static constexpr std::uint32_t kCount = 60;

  FileBuilder file;
  std::vector<Bytes> values;
  std::vector<Link> blocks;
  std::vector<std::uint64_t> offsets;

  ValuesFile() {
    Bytes all;
    for (std::uint32_t i = 0; i < kCount; ++i) {
      values.emplace_back(i * 7 % 23, static_cast<std::uint8_t>(i + 1));
      offsets.push_back(all.size());
      all = joined({all, packed(static_cast<std::uint32_t>(values[i].size())), values[i]});
    }
    std::vector<Bytes> records;
    for (std::uint32_t i = 0; i < kCount; ++i) records.push_back(packed(1.0 * i, offsets[i]));
    const Bytes starts = packed(std::uint32_t{0}, std::uint32_t{3}, std::uint64_t{0},
                                std::uint64_t{200}, std::uint64_t{501});
    const Link list = file.block("DL", {0, 0, 0, 0}, starts);
    const Cn channel = {
        .name = "v", .type = 1, .dataType = 10, .byteOffset = 8, .bitCount = 64, .data = list};
    file.signalGroup({channel}, records);
    const std::ptrdiff_t ends[] = {0, 200, 501, static_cast<std::ptrdiff_t>(all.size())};
    for (unsigned i = 0; i < 3; ++i) {
      blocks.push_back(file.sd({all.begin() + ends[i], all.begin() + ends[i + 1]}));
      file.setLink(list, i + 1, blocks[i]);
    }
  }

  // The number of values that come back; the others are to be empty, but for a spoilt one.
  unsigned comeBack(const std::string& recovered, std::uint32_t spoilt = kCount) const {
    MdfSigReader reader(recovered);
    EXPECT_TRUE(reader.open());
    unsigned count = 0;
    for (std::uint32_t i = 0; i < kCount; ++i) {
      Bytes record;
      Bytes value;
      int size = 0;
      EXPECT_TRUE(reader.readSignalDataBlock(0, static_cast<int>(i), 1, record, size));
      EXPECT_TRUE(reader.readValueBytes(0, 0, 1, record.data(), record.size(), value));
      EXPECT_TRUE(value == values[i] || value.empty() || i == spoilt) << i;
      count += value == values[i] ? 1 : 0;
    }
    return count;
  }
};

TEST_F(Recovery, GivesWholeValuesWhereverTheirDataAreDamaged) {
  const ValuesFile whole;
  const std::uint64_t end = whole.file.size();
  for (const WorkSizes& sizes : {WorkSizes{}, WorkSizes{.piece = 7, .block = 16}}) {
    const auto recover = [&](const std::string& input, std::uint32_t spoilt = ValuesFile::kCount) {
      EXPECT_EQ(recoverFile(input, recovered_, {true, nullptr}, sizes).failure, "");
      EXPECT_EQ(firstError(recovered_), "");
      return whole.comeBack(recovered_, spoilt);
    };
    EXPECT_EQ(recover(whole.file.write()), ValuesFile::kCount);
    for (std::uint64_t cut = 1; cut < end - whole.blocks[1]; cut += 11) {
      SCOPED_TRACE(testing::Message() << cut << " bytes cut");
      const std::string input = whole.file.write(end - cut);
      const std::uint64_t lost = cut < end - whole.blocks[2] ? cut : cut + 24 + 16;
      EXPECT_GE(recover(input) + lost / 4 + 2, ValuesFile::kCount);
    }
    for (const std::uint32_t i : {0U, 5U, 30U, 59U}) {
      for (const std::uint8_t length : Bytes{0, 17, 90, 255}) {
        SCOPED_TRACE(testing::Message() << "length " << int{length} << " of value " << i);
        ValuesFile damaged;
        const std::uint64_t at = damaged.offsets[i];
        const auto [block, start] = at < 200   ? std::pair{0U, 0U}
                                    : at < 501 ? std::pair{1U, 200U}
                                               : std::pair{2U, 501U};
        damaged.file.setByte(damaged.blocks[block] + 24 + at - start, length);
        // With it go at most two where the length stands that covers what is no sequence.
        EXPECT_GE(recover(damaged.file.write(), i) + 3, ValuesFile::kCount);
      }
    }
    ValuesFile damaged;
    damaged.file.setByte(damaged.blocks[1], 0);
    EXPECT_GE(recover(damaged.file.write()), 36U);
  }
}

// One flipped bit in the length of a block that says itself how long it is.
TEST_F(Recovery, TakesALengthThatIsWrongFromTheBlocksOwnCounts) {
  MdfRecorder recorder;
  ASSERT_EQ(recorder.startRecord(damaged_, 1'700'000'000'000'000), 0);
  MdfCanMessage frame;
  frame.DataBytes({1, 2, 3});
  for (unsigned i = 0; i < 600; ++i) recorder.saveCanMessage(1'700'000'000'000'000U + i, frame);
  recorder.stopRecord(0);
  const Bytes whole = fileBytes(damaged_);
  const std::vector<std::string> want = frameLinesOf(damaged_);
  ASSERT_EQ(want.size(), 600U);
  for (std::size_t at = 64; at < whole.size(); at += 8) {
    const std::string type(whole.begin() + static_cast<std::ptrdiff_t>(at),
                           whole.begin() + static_cast<std::ptrdiff_t>(at + 4));
    const bool isText = type == "##TX";
    if (!isText && type != "##CN" && type != "##CC" && type != "##CG" && type != "##DG") continue;
    for (const unsigned bit : {3U, 4U, 5U, 8U, 13U, 40U, 63U}) {
      SCOPED_TRACE(testing::Message() << type << " at " << at << ", bit " << bit);
      Bytes damaged = whole;
      damaged[at + 8 + bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
      write(damaged);
      const MdfRecoveryReport report = recoverFile(damaged_, recovered_);
      EXPECT_EQ(firstError(recovered_), "");
      EXPECT_TRUE(isText || report.lossless());
      EXPECT_TRUE(isText || frameLinesOf(recovered_) == want);
    }
  }
}

// A name that the layout of frames puts beyond short records makes no room for an offset there.
TEST_F(Recovery, LeavesOutAChannelOfValuesThatLiesBeyondItsRecord) {
  FileBuilder file;
  const Cn beyond = {.name = "CAN_DataFrame.FrameDuration",
                     .type = 1,
                     .byteOffset = 22,
                     .bitCount = 32,
                     .data = file.sd(Bytes(8))};
  file.signalGroup({beyond}, std::vector<Bytes>(3, packed(1.0, std::uint8_t{0})));
  const MdfRecoveryReport report = recoverFile(file.write(), recovered_);
  ASSERT_EQ(report.groups.size(), 1U);
  EXPECT_EQ(report.groups[0].records, 3U);
  EXPECT_EQ(report.groups[0].losses.size(), 1U);
  EXPECT_EQ(firstError(recovered_), "");
}

// Before every single read or write.
TEST_F(Recovery, LeavesNothingBehindWhereverItIsStopped) {
  write({'o', 'l', 'd'});
  bool finished = false;
  for (int calls = 0; !finished; ++calls) {
    MdfRecoverOptions options;
    options.verify = true;
    options.cancelled = [left = calls]() mutable { return left-- == 0; };
    const MdfRecoveryReport report =
        recoverFile(data("unfinalized-00000170.MF4"), damaged_, options);
    finished = report.failure.empty();
    ASSERT_TRUE(finished || report.failure == "cancelled") << report.failure;
    ASSERT_EQ(fileBytes(damaged_).size() == 3, !finished);
    ASSERT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path("")), {}), 1);
  }
}

TEST_F(Recovery, WritesNoMoreThanItIsAllowed) {
  const std::string input = data("raw-00000005.MF4");
  const std::uint64_t size = std::filesystem::file_size(recovered(input));
  MdfRecoverOptions options;
  options.maxOutput = size;
  EXPECT_EQ(recoverFile(input, damaged_, options).failure, "");
  options.maxOutput = size - 1;
  const MdfRecoveryReport report = recoverFile(input, dir_.path("more"), options);
  EXPECT_TRUE(report.beyondLimit);
  EXPECT_NE(report.failure.find(std::to_string(size - 1)), std::string::npos) << report.failure;
  EXPECT_FALSE(std::filesystem::exists(dir_.path("more")));
}

// Each page of a block's data in turn is one that a machine without power had not written.
TEST_F(Recovery, LeavesOutTheRecordsThatReachIntoALostPage) {
  constexpr std::uint64_t kPage = 4096;
  std::vector<Bytes> records;
  Bytes all;
  for (std::uint64_t i = 1; i <= 600; ++i) {
    records.push_back(packed(static_cast<double>(i), i));
    all.insert(all.end(), records.back().begin(), records.back().end());
  }
  for (const std::uint64_t inFront :
       {24U, 16U}) {  // bytes of the block's header, of its first page
    FileBuilder file;
    file.tx(std::string((3 * kPage - 25 - inFront - file.size()) % kPage, 'x'));
    const std::uint64_t start = file.dt(all) + 24;
    ASSERT_EQ((start - 24 + inFront) % kPage, 0U);
    file.signalGroup({{.name = "n", .byteOffset = 8, .bitCount = 64}}, {.dataBytes = 16},
                     start - 24);
    const Bytes whole = fileBytes(file.write());
    for (std::uint64_t page = start / kPage * kPage; page < start + all.size(); page += kPage) {
      SCOPED_TRACE(testing::Message() << inFront << ": the page at " << page);
      Bytes damaged = whole;
      const std::uint64_t end = std::min(page + kPage, start + all.size());
      std::fill(damaged.begin() + static_cast<std::ptrdiff_t>(page),
                damaged.begin() + static_cast<std::ptrdiff_t>(end), std::uint8_t{0});
      write(damaged);
      EXPECT_FALSE(recoverFile(damaged_, recovered_).lossless());
      std::vector<Bytes> kept;
      for (std::size_t i = 0; i < records.size(); ++i) {
        const std::uint64_t at = start + 16 * i;
        if (at + 16 <= page || at >= end) kept.push_back(records[i]);
      }
      EXPECT_EQ(readLoggerFile(recovered_)[0].records, kept);
    }
  }
}

// A block that no list names is no substitute for one that is named and lost.
TEST_F(Recovery, GivesNoOtherBlockForALostOne) {
  constexpr std::size_t kBytes = 240;  // of 20 records
  FileBuilder file;
  const Link first = file.dt(Bytes(kBytes, 1));
  const Link lost = file.dt(Bytes(kBytes, 2));
  file.signalGroup({{.name = "n", .byteOffset = 8, .bitCount = 32}},
                   {.records = 40, .dataBytes = 12}, file.dl({first, lost}, kBytes));
  file.dt(Bytes(kBytes, 3));
  for (Link at = lost; at < lost + 24 + kBytes; ++at) file.setByte(at, 0);
  const auto report = recoverFile(file.write(), dir_.path("found.mf4"));
  ASSERT_EQ(report.groups.size(), 1U);
  EXPECT_EQ(report.groups[0].records, 20U);
  EXPECT_EQ(report.groups[0].lostRecords, 20U);
}

// Of two groups only the channel groups are found; a third one never had records.
TEST_F(Recovery, GivesGroupsThatLostTheirDataGroupTheirOwnRecords) {
  FileBuilder file;
  const Link narrow = file.signalGroup({{.name = "narrow", .byteOffset = 8}},
                                       std::vector<Bytes>(3, packed(1.0, std::uint8_t{1})));
  const Link wide = file.signalGroup({{.name = "wide", .byteOffset = 8, .bitCount = 32}},
                                     std::vector<Bytes>(2, packed(1.0, 1U)));
  file.signalGroup({{.name = "never", .byteOffset = 8}}, {.dataBytes = 9}, 0);
  for (const Link group : {narrow, wide}) file.setByte(group, 0);
  std::multiset<std::uint64_t> records;
  for (const auto& group : recoverFile(file.write(), dir_.path("found.mf4")).groups) {
    records.insert(group.records);
  }
  EXPECT_EQ(records, (std::multiset<std::uint64_t>{0, 2, 3}));
}

}  // namespace
}  // namespace tolvex::test
