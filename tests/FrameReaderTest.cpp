// Frames in batches, of one file or several, sorted or not.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tests/support/LoggerFile.h"
#include "tests/support/SampleFiles.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfFrameReader.h"

namespace tolvex::test {
namespace {
using Lines = std::vector<std::string>;

std::string hex(const std::uint8_t* bytes, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    for (const int half : {bytes[i] >> 4, bytes[i] & 15}) text += "0123456789abcdef"[half];
  }
  return text;
}

// Any number of numbers.
template <class... Number>
std::string numbers(Number... number) {
  std::string text;
  ((text += std::to_string(number) + " "), ...);
  return text;
}

// Everything that a frame of either reader has; times since the start.
std::string lineOf(const MdfFrame& frame, std::uint64_t startNs) {
  if (const auto* const found = std::get_if<1>(&frame)) {
    const MdfCanError& error = **found;
    const Bytes none;
    const Bytes& payload = error.PayloadMissing() ? none : error.DataBytes();
    return numbers(error.Timestamp() + startNs, error.BusChannel(), error.MessageId(),
                   error.ExtendedId(), error.Dlc(), error.Dir(), error.IsCanFdError(),
                   error.PayloadMissing()) +
           "error " +
           numbers(error.DataLength(), error.ErrorFlags(), error.Tec(), error.Trec(),
                   error.TimeOffsetBRS(), error.TimeOffsetCRCDel(), error.Crc(), error.BtrExtCfg(),
                   static_cast<int>(error.ErrorType())) +
           hex(payload.data(), std::min<std::size_t>(payload.size(), 64));
  }
  const MdfCanMessage& message = *std::get<0>(frame);
  return numbers(message.Timestamp() + startNs, message.BusChannel(), message.CanId(),
                 message.ExtendedId(), message.Dlc(), message.Dir(), message.Edl(),
                 message.PayloadMissing()) +
         (message.Rtr() && !message.Edl() ? "remote " : "data ") +
         numbers(message.Srr(), message.Brs(), message.Esi(), message.WakeUp(),
                 message.SingleWire(), message.Rtr(), message.DataIndex()) +
         hex(message.DataBytes().data(), message.PayloadMissing() ? 0 : message.DataBytes().size());
}

std::string lineOf(const MdfFrameView& frame) {
  const auto has = [&](std::uint16_t flag) { return (frame.flags & flag) != 0; };
  std::string line = numbers(
      static_cast<std::uint64_t>(frame.timeNs), static_cast<std::uint8_t>(frame.bus - 1), frame.id,
      frame.isExtended(), frame.dlc, frame.isTransmitted(), frame.isFd(), frame.isPayloadMissing());
  if (frame.error != nullptr) {
    EXPECT_EQ(frame.kind, frame.isFd() ? MdfFrameKind::FdError : MdfFrameKind::Error);
    const MdfFrameError& error = *frame.error;
    line += "error " + numbers(error.dataLength, error.errorFlags, error.tec, error.rec,
                               error.timeOffsetBrs, error.timeOffsetCrcDel, error.crc,
                               error.btrExtCfg, error.errorType);
  } else {
    line += frame.kind == MdfFrameKind::Remote ? "remote " : "data ";
    line += numbers(has(MdfFrameFlag::kSrr), has(MdfFrameFlag::kBrs), has(MdfFrameFlag::kEsi),
                    has(MdfFrameFlag::kWakeUp), has(MdfFrameFlag::kSingleWire),
                    has(MdfFrameFlag::kRtr), frame.record);
  }
  return line + hex(frame.data, frame.length);
}

Lines linesOneByOne(const std::string& path) {
  Lines lines;
  MdfReader reader(path);
  reader.setLoggerRules(true);
  if (!reader.open()) return lines;
  for (;;) {
    const MdfFrame frame = reader.getNext();
    if (frame.index() == 0 && std::get<0>(frame) == nullptr) return lines;
    lines.push_back(lineOf(frame, reader.getFileInfo().startTimeNs));
  }
}

Lines linesOf(MdfFrameReader& reader, const MdfFrameFilter& filter = {}) {
  Lines lines;
  for (const MdfFrameView& frame : reader.frames(filter)) lines.push_back(lineOf(frame));
  return lines;
}

Lines linesOf(const std::string& path) {
  MdfFrameReader reader(path);
  EXPECT_TRUE(reader.open()) << reader.error();
  return linesOf(reader);
}

class FrameReader : public testing::Test {
 protected:
  CapturedDiagnostics diagnostics_;
};

TEST_F(FrameReader, GivesTheFramesOfTheOtherReader) {
  std::size_t frames = 0;
  for (const auto& [name, file] : sampleFiles()) {
    if (name.starts_with("unsorted")) continue;
    SCOPED_TRACE(name);
    const std::string path = file.write();
    const Lines want = linesOneByOne(path);
    frames += want.size();
    if (want.empty()) continue;
    EXPECT_EQ(linesOf(path), want);
  }
  EXPECT_GT(frames, 40U);
  const std::string path = TOLVEX_TEST_DATA "/raw-00000005.MF4";
  const Lines want = linesOneByOne(path);
  EXPECT_EQ(want.size(), 5477U);
  EXPECT_EQ(linesOf(path), want);
}

// As frameLines has them that were read by hand.
Lines plainLinesOf(const std::string& path, std::size_t problems) {
  MdfFrameReader reader(path);
  EXPECT_TRUE(reader.open()) << reader.error();
  Lines lines;
  for (const MdfFrameView& frame : reader.frames()) {
    char line[64];
    std::snprintf(line, sizeof line, "%lld %X%s %d %d %d%d%d%d ",
                  static_cast<long long>(frame.timeNs - reader.startTimeNs()), frame.id,
                  frame.isExtended() ? "x" : "", frame.bus - 1, frame.dlc, frame.isTransmitted(),
                  frame.isFd(), (frame.flags & MdfFrameFlag::kBrs) != 0,
                  (frame.flags & MdfFrameFlag::kEsi) != 0);
    lines.push_back(line + hex(frame.data, frame.length));
  }
  EXPECT_EQ(reader.problems().size(), problems) << testing::PrintToString(reader.problems());
  return lines;
}

TEST_F(FrameReader, GivesWhatAnUnsortedFileHoldsWhateverWasLeftOpen) {
  const std::uint8_t flags[] = {0, 1 << 0, 1 << 2, 1 << 5, 1 << 6, 0x25, 0x65};
  const std::uint8_t idSizes[] = {1, 2, 4, 8};
  for (const std::uint8_t idSize : idSizes) {
    for (const bool listed : {false, true}) {
      const Lines want =
          frameLines(readLoggerFile(unsortedFile({.idSize = idSize, .listed = listed}).write()));
      EXPECT_EQ(want.size(), 40U);
      for (const std::uint8_t open : flags) {
        SCOPED_TRACE(testing::Message() << "ids of " << int{idSize} << ", flags " << int{open}
                                        << (listed ? ", listed" : ""));
        const auto file = unsortedFile({.idSize = idSize, .unfinalized = open, .listed = listed});
        EXPECT_EQ(plainLinesOf(file.write(), open == 0 ? 0 : 1), want);
      }
    }
  }
  const std::string path = TOLVEX_TEST_DATA "/unfinalized-00000002.MF4";
  const Lines want = frameLines(readLoggerFile(path));
  EXPECT_EQ(want.size(), 9600U);
  EXPECT_EQ(plainLinesOf(path, 1), want);
}

// "bus id" for each frame, in order.
std::string idsOf(MdfFrameReader& reader, const MdfFrameFilter& filter = {}) {
  std::string text;
  for (const MdfFrameView& frame : reader.frames(filter)) {
    text += std::to_string(frame.bus) + "/" + std::to_string(frame.id) + " ";
  }
  return text;
}

Bytes frameAt(double seconds, std::uint64_t id, std::uint64_t bus = 1) {
  return busRecord(dataFrames(), seconds, {{"ID", id}, {"BusChannel", bus}, {"DLC", 0}});
}

TEST_F(FrameReader, OrdersEqualTimesByGroupAndWithinAGroupAsRecorded) {
  FileBuilder file;
  file.busLog(dataFrames(), {frameAt(1, 1), frameAt(1, 2), frameAt(3, 3), frameAt(2, 4)});
  file.busLog(dataFrames(), {frameAt(0, 5), frameAt(1, 6), frameAt(2, 7), frameAt(2, 8)});
  MdfFrameReader reader(file.write());
  ASSERT_TRUE(reader.open());
  EXPECT_EQ(idsOf(reader), "1/5 1/1 1/2 1/6 1/4 1/7 1/8 1/3 ");
  EXPECT_EQ(reader.problems(), std::vector<std::string>());
}

// Frames in disorder, one of them further from its place than there is room to wait for it.
TEST_F(FrameReader, TellsWhatIsTooFarOutOfOrder) {
  std::vector<Bytes> records;
  for (int i = 0; i < 5000; ++i) records.push_back(frameAt(i % 100 == 7 ? i - 5.5 : i, 1));
  records.push_back(frameAt(0.25, 2));
  FileBuilder file;
  file.busLog(dataFrames(), records);
  MdfFrameReader reader(file.write());
  ASSERT_TRUE(reader.open());
  std::vector<std::int64_t> times;
  for (const MdfFrameView& frame : reader.frames()) times.push_back(frame.timeNs);
  ASSERT_EQ(times.size(), 5001U);
  EXPECT_EQ(std::ranges::count_if(times,
                                  [&](const std::int64_t& time) {
                                    return &time != times.data() && time < *(&time - 1);
                                  }),
            1);
  ASSERT_EQ(reader.problems().size(), 1U);
  EXPECT_EQ(reader.problems()[0].find("data group 0: record 5000 is "), 0U);
}

// However much else is wrong.
TEST_F(FrameReader, TellsOfDisorderBehindAHundredProblems) {
  std::vector<Bytes> records;
  for (std::uint64_t i = 0; i < 3000; ++i) {
    const double time = i == 2999 ? 0 : 1e6 * static_cast<double>(i);
    records.push_back(busRecord(loggerFrames(), time, {{"DLC", 1}, {"DataBytes", 100 * i}}));
  }
  FileBuilder file;
  file.busLog(loggerFrames(), records, file.sd({1}));
  MdfFrameReader reader(file.write());
  ASSERT_TRUE(reader.open());
  linesOf(reader);
  const std::vector<std::string> problems = reader.problems();
  EXPECT_GE(problems.size(), 100U);
  EXPECT_TRUE(std::ranges::any_of(problems, [](const std::string& problem) {
    return problem.ends_with("such frames are not in order");
  }));
}

// The same frames sorted and unsorted, in blocks of all kinds; a range of them is what a reading of
// all and a choice by hand gives.
TEST_F(FrameReader, ChoosesBeforeItCopies) {
  constexpr int kFrames = 6000;
  std::vector<Bytes> records;
  std::vector<Bytes> mixed;
  for (int i = 0; i < kFrames; ++i) {
    records.push_back(frameAt(0.001 * i, static_cast<std::uint64_t>(i % 300),
                              static_cast<std::uint64_t>(1 + i % 3)));
    mixed.push_back({9});
    mixed.push_back(records.back());
  }
  const auto blocks = [](FileBuilder& file, const Bytes& bytes) {
    std::vector<Link> all;
    for (std::size_t at = 0; at < bytes.size(); at += 5000) {
      const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(at);
      const Bytes part(begin, begin + std::min<std::ptrdiff_t>(5000, bytes.end() - begin));
      all.push_back(at / 5000 % 2 == 0 ? file.dz(part) : file.dt(part));
    }
    return file.dl(all);
  };
  FileBuilder sorted;
  sorted.busLog(dataFrames(), kFrames, blocks(sorted, joined(records)));
  FileBuilder unsorted;
  const Link group = unsorted.busLog(dataFrames(), kFrames, blocks(unsorted, joined(mixed)));
  unsorted.setByte(unsorted.dataPosition(group), 1);
  unsorted.setU64(unsorted.dataPosition(unsorted.link(group, 1)), 9);

  const struct {
    MdfFrameFilter filter;
    std::size_t frames;
  } cases[] = {
      {{}, 6000},
      {{{}, {}, 1'000'000'000, 2'000'000'000}, 1000},
      {{{}, {}, 5'999'000'000}, 1},
      {{{}, {}, 1'000'000'001, 1'001'000'000}, 0},
      {{{}, {}, std::numeric_limits<std::int64_t>::min(), 1}, 1},
      {{{7, 299, 4000}, {}}, 40},
      {{{7, 8}, {2}, 300'000'000, 600'000'000}, 1},
      {{{}, {3, 4}}, 2000},
  };
  for (const FileBuilder* const file : {&sorted, &unsorted}) {
    MdfFrameReader reader(file->write());
    ASSERT_TRUE(reader.open());
    for (const auto& [filter, frames] : cases) {
      MdfFrameBatch batch;
      std::size_t count = 0;
      reader.select(filter);
      while (reader.next(batch, 700)) {
        for (std::size_t i = 0; i < batch.count; ++i) {
          const MdfFrameView frame = batch.at(i);
          EXPECT_EQ(frame.timeNs, static_cast<std::int64_t>(frame.record) * 1'000'000);
          EXPECT_EQ(frame.id, frame.record % 300);
          EXPECT_EQ(frame.bus, 1 + frame.record % 3);
          EXPECT_TRUE(frame.timeNs >= filter.startNs && frame.timeNs < filter.endNs);
        }
        count += batch.count;
      }
      EXPECT_EQ(count, frames);
    }
    std::int64_t first = -1;
    std::int64_t last = -1;
    EXPECT_TRUE(reader.timeRange(first, last));
    EXPECT_EQ(first, 0);
    EXPECT_EQ(last, 5'999'000'000);
  }
}

// Overlapping files, named in any order, and one without frames.
TEST_F(FrameReader, MergesFilesByTheirStart) {
  const auto fileFrom = [](std::uint64_t second, std::uint64_t id) {
    FileBuilder file({.startTimeNs = second * 1'000'000'000});
    file.busLog(dataFrames(), {frameAt(0, id), frameAt(1, id + 1), frameAt(2, id + 2)});
    return file;
  };
  const FileBuilder first = fileFrom(10, 100);
  const FileBuilder second = fileFrom(11, 200);
  const FileBuilder third = fileFrom(20, 300);
  const FileBuilder empty({.startTimeNs = 5});
  MdfFrameReader reader(
      std::vector<std::string>{third.write(), second.write(), empty.write(), first.write()});
  ASSERT_TRUE(reader.open()) << reader.error();
  EXPECT_EQ(reader.startTimeNs(), 5);
  for (int again = 0; again < 2; ++again) {
    EXPECT_EQ(idsOf(reader), "1/100 1/101 1/200 1/102 1/201 1/202 1/300 1/301 1/302 ");
  }
  MdfFrameFilter filter;
  filter.startNs = 12'000'000'000;
  filter.endNs = 21'000'000'000;
  EXPECT_EQ(idsOf(reader, filter), "1/102 1/201 1/202 1/300 ");
  MdfFrameReader missing(std::vector<std::string>{first.write(), "no-such.mf4"});
  EXPECT_FALSE(missing.open());
  EXPECT_EQ(missing.error(), "no-such.mf4: No such file or directory");
}

// A block that is damaged leaves out its own frames, and those only.
TEST_F(FrameReader, LeavesOutWhatIsDamaged) {
  FileBuilder file;
  std::vector<Link> blocks;
  for (int i = 0; i < 4; ++i) {
    const auto id = static_cast<std::uint64_t>(2 * i);
    blocks.push_back(file.dz(joined({frameAt(i, id), frameAt(i + 0.5, id + 1)})));
  }
  file.busLog(dataFrames(), 8, file.dl(blocks));
  file.setByte(file.dataPosition(blocks[1]) + 30, 0x55);  // in the deflated bytes
  MdfFrameReader reader(file.write());
  ASSERT_TRUE(reader.open());
  EXPECT_EQ(idsOf(reader), "1/0 1/1 1/4 1/5 1/6 1/7 ");
  EXPECT_FALSE(reader.problems().empty());
}

// Payloads far from their frames in the sequence, in front of them and behind them, and one that
// several frames name.
TEST_F(FrameReader, FindsPayloadsWhereverTheyAre) {
  constexpr std::uint64_t kFrames = 20'000;
  for (const bool valuesFirst : {false, true}) {
    FileBuilder file;
    std::vector<Bytes> frames;
    std::vector<Bytes> values;
    for (std::uint64_t i = 0; i < kFrames; ++i) {
      const std::uint64_t named = i % 5 == 4 ? i - 3 : i;
      frames.push_back({1});
      frames.push_back(busRecord(loggerFrames(), static_cast<double>(i),
                                 {{"ID", i % 1000}, {"DLC", 2}, {"DataBytes", 6 * named}}));
      values.push_back(joined({{2}, packed(std::uint32_t{2}, static_cast<std::uint16_t>(i))}));
    }
    const Bytes all = valuesFirst ? joined({joined(values), joined(frames)})
                                  : joined({joined(frames), joined(values)});
    test::Cg holder;
    holder.flags = 1;
    holder.recordId = 2;
    const Link payloads = file.cg(holder);
    const Link group = file.busLog(loggerFrames(), kFrames, file.dt(all), payloads);
    const Link frameGroup = file.link(group, 1);
    file.setByte(file.dataPosition(group), 1);
    file.setU64(file.dataPosition(frameGroup), 1);
    file.chain({frameGroup, payloads});
    MdfFrameReader reader(file.write());
    ASSERT_TRUE(reader.open());
    std::uint64_t count = 0;
    for (const MdfFrameView& frame : reader.frames()) {
      const std::uint64_t named = count % 5 == 4 ? count - 3 : count;
      ASSERT_EQ(frame.record, count);
      ASSERT_EQ(hex(frame.data, frame.length),
                hex(packed(static_cast<std::uint16_t>(named)).data(), 2));
      ++count;
    }
    EXPECT_EQ(count, kFrames);
    EXPECT_EQ(reader.problems(), std::vector<std::string>());
  }
}

}  // namespace
}  // namespace tolvex::test
