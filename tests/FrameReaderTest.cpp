// Frames in batches, of one file or several, sorted or not.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
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

}  // namespace
}  // namespace tolvex::test
