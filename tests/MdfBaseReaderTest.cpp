// Opening a file and listing its tree, as both readers share it.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

// What only derived readers see.
class Reader : public MdfSigReader {
 public:
  using MdfBaseReader::getCGBlock;
  using MdfBaseReader::getCNBlock;
  using MdfBaseReader::getDGBlock;
  using MdfSigReader::MdfSigReader;
};

class MdfBaseReaderTest : public testing::Test {
 protected:
  // The texts that the callback got while opening the file failed.
  static std::vector<std::string> callbackTexts(MdfBaseReader& reader) {
    std::vector<std::string> texts;
    reader.setErrorCallback([&](const std::string& text) { texts.push_back(text); });
    EXPECT_FALSE(reader.open());
    reader.setErrorCallback({});
    EXPECT_FALSE(reader.open());
    return texts;
  }

  CapturedDiagnostics diagnostics_;
};

TEST_F(MdfBaseReaderTest, RefusesWhatIsNoMeasurementFileAndSaysWhy) {
  const struct {
    const char* name;
    Header header;
    std::uint64_t size;
    std::uint64_t patch;  // position of a byte that is set to 'x'
    const char* why;      // part of the last error
  } rows[] = {
      {"empty", {}, 0, 0, ""},
      {"cut in the identification", {}, 40, 0, ""},
      {"cut behind the identification", {}, 64, 0, ""},
      {"cut in the header block", {}, 80, 0, ""},
      {"no blanks behind the name", {}, 168, 7, "MDF"},
      {"unfinalized", {.id = "UnFinMF "}, 168, 30, "nfinalized"},
      {"version 3.99", {.version = 399}, 168, 30, "399"},
      {"another block for the header block", {}, 168, 67, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FileBuilder file(row.header);
    file.setByte(row.patch, 'x');
    Reader reader(file.write(row.size));
    EXPECT_EQ(callbackTexts(reader),
              std::vector<std::string>{"Failed to open MDF4 file: " + file.write(row.size)});
    EXPECT_NE(reader.getLastError(), "");
    EXPECT_NE(reader.getLastError().find(row.why), std::string::npos) << reader.getLastError();
  }

  Reader noPath("");
  EXPECT_EQ(callbackTexts(noPath), std::vector<std::string>{"File path is empty"});
  for (const std::string path : {"/", "/no such folder/file.mf4"}) {
    Reader reader(path);
    EXPECT_EQ(callbackTexts(reader), std::vector<std::string>{"Failed to open MDF4 file: " + path});
    EXPECT_NE(reader.getLastError(), "");
  }

  const FileBuilder empty({.version = 400, .program = "prog", .startTimeNs = 7});
  Reader reader(empty.write());
  EXPECT_TRUE(reader.open());
  EXPECT_EQ(reader.getLastError(), "");
  EXPECT_TRUE(reader.getProblems().empty());
  const MdfFileInfo info = reader.getFileInfo();
  EXPECT_EQ(info.size, empty.size());
  EXPECT_EQ(info.versionText, "4.00");
  EXPECT_EQ(info.program, "prog");
  EXPECT_EQ(info.startTimeNs, 7U);
}

TEST_F(MdfBaseReaderTest, TakesTheZoneThatTheTimeFlagsNameOffTheStartTime) {
  constexpr std::uint64_t kNoon = 1'600'000'000'000'000'000;
  constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
  const struct {
    const char* zone;  // its sign is that of "behind UTC"
    std::uint8_t flags;
    std::int16_t zoneMinutes, daylightMinutes;
    std::uint64_t stored;
    std::int64_t wantMinutes;  // added to what is stored
  } rows[] = {
      {"XXX-2", 0, 60, 0, kNoon, 0},      {"XXX-2", 1, 60, 0, kNoon, -120},
      {"XXX3:30", 1, 0, 0, kNoon, 210},   {"XXX-0:01:59", 1, 0, 0, kNoon, -1},
      {"XXX-2", 2, -60, 30, kNoon, -150}, {"XXX-2", 3, 60, 0, kNoon, -120},
      {"XXX-2", 1, 0, 0, 5, 0},           {"XXX-2", 2, 60, 0, kMax, -120},
  };
  const char* old = getenv("TZ");
  const std::optional<std::string> saved = old ? std::optional<std::string>(old) : std::nullopt;
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.zone) + ", flags " + std::to_string(row.flags));
    setenv("TZ", row.zone, 1);
    tzset();
    const FileBuilder file({.startTimeNs = row.stored,
                            .zoneMinutes = row.zoneMinutes,
                            .daylightMinutes = row.daylightMinutes,
                            .timeFlags = row.flags});
    Reader reader(file.write());
    EXPECT_TRUE(reader.open());
    EXPECT_EQ(reader.getStartTime(),
              row.stored + static_cast<std::uint64_t>(row.wantMinutes * 60'000'000'000));
    EXPECT_EQ(reader.getFileInfo().startTimeNs, row.stored);
  }
  saved ? setenv("TZ", saved->c_str(), 1) : unsetenv("TZ");
  tzset();
}

TEST_F(MdfBaseReaderTest, AWrongLinkHidesNoOtherGroup) {
  FileBuilder file;
  for (int i = 0; i < 3; ++i) {
    file.busLog(dataFrames(), {busRecord(dataFrames(), i, {})});
  }
  const std::size_t perGroup = file.blocks().size() / 3;
  for (const Link from : file.blocks()) {
    if (!file.isA(from, "CN") && !file.isA(from, "CG")) continue;
    for (const Link to : file.blocks()) {
      // From the first group into another one, to a block of a kind that does not belong there.
      if (from >= file.blocks()[perGroup] || to < file.blocks()[perGroup + 1]) continue;
      if (!file.isA(to, "DG") && !file.isA(to, "CG")) continue;
      if (file.isA(to, "CG") && file.isA(from, "CG")) continue;
      for (const std::uint64_t link : {0U, 1U}) {
        SCOPED_TRACE(testing::Message() << "link " << link << " of " << from << " to " << to);
        FileBuilder bad = file;
        bad.setLink(from, link, to);
        Reader reader(bad.write());
        ASSERT_TRUE(reader.open());
        ASSERT_EQ(reader.getDGCount(), 3);
        for (const int dg : {1, 2}) EXPECT_EQ(reader.getCNCount(dg, 0), 2);
      }
    }
  }
}

TEST_F(MdfBaseReaderTest, LookingUpABlockThatIsNotThereAddsAnEntry) {
  FileBuilder file;
  file.signalGroup({}, {packed(0.0)});
  file.signalGroup({}, {packed(0.0)});
  Reader reader(file.write());
  ASSERT_TRUE(reader.open());
  EXPECT_EQ(reader.getCGCount(5), 0);
  EXPECT_EQ(reader.getCNCount(6, 1), 0);
  EXPECT_EQ(reader.getDGCount(), 2);
  EXPECT_EQ(reader.getDGBlock(5), nullptr);
  EXPECT_EQ(reader.getCGName(0, 8), "");
  EXPECT_EQ(reader.getCNName(1, 0, -1), "");
  EXPECT_EQ(reader.getDGCount(), 3);
  EXPECT_EQ(reader.getCGCount(0), 2);
  EXPECT_EQ(reader.getCNCount(1, 0), 2);
  MdfGroupInfo info;
  for (const auto& [dg, cg] : {std::pair(30, 0), {1, 5}, {0, 8}}) {
    EXPECT_FALSE(reader.getGroupInfo(dg, cg, info)) << "an added entry is no group";
  }
  EXPECT_EQ(reader.getCGCount(1), 1);
}

// Each channel stands alone in its group. A value channel opens its group for reading, a time
// channel serves as the group's time, a CAN channel counts its group's records as frames.
TEST_F(MdfBaseReaderTest, SortsChannelsIntoValuesTimesAndBusLogs) {
  enum List { kNone, kValue, kTime, kCan };
  const struct {
    const char* name;
    std::uint8_t type, sync, sourceType, busType;
    List want;
  } rows[] = {
      {"speed", 0, 0, 0, 0, kValue},
      {"text of any length", 1, 0, 0, 0, kValue},
      {"time", 2, 1, 0, 0, kTime},
      {"angle", 2, 2, 0, 0, kNone},
      {"index", 3, 0, 0, 0, kNone},
      {"sync", 4, 1, 0, 0, kNone},
      {"bits of other channels", 5, 0, 0, 0, kNone},
      {"CAN_DataFrame", 0, 0, 0, 0, kCan},
      {"can_dataFRAME", 0, 0, 0, 0, kCan},
      {"CAN_ErrorFrame", 3, 0, 0, 0, kCan},
      {"CAN_FdErrorFrame", 2, 1, 0, 0, kCan},
      {"CAN_DataFrame.ID", 0, 0, 0, 0, kValue},
      {"CAN_RemoteFrame", 0, 0, 0, 0, kValue},
      {"CAN_RemoteFrame", 0, 0, 2, 2, kCan},
      {"speed on CAN", 0, 0, 2, 2, kCan},
      {"speed on LIN", 0, 0, 2, 3, kValue},
      {"speed in a unit", 0, 0, 1, 2, kValue},
  };
  FileBuilder file;
  for (const auto& [name, type, sync, sourceType, busType, want] : rows) {
    const Link source = sourceType == 0 ? 0 : file.si(sourceType, busType);
    const Link channel =
        file.cn({.name = name, .type = type, .sync = sync, .bitCount = 64, .source = source});
    const Link group = file.cg({.channels = {channel}, .records = 2, .dataBytes = 8});
    file.dg({.groups = {group}, .data = file.dt(packed(1.0, 2.0))});
  }
  Reader signals(file.write());
  ASSERT_TRUE(signals.open());
  MdfReader frames(file.write());
  ASSERT_TRUE(frames.open());
  const std::vector<int> valueGroups = signals.getDataGroupSigsIndex();
  const std::vector<MdfGroupInfo> canGroups = frames.getBusLogGroups();
  for (int dg = 0; const auto& row : rows) {
    SCOPED_TRACE(row.name);
    MdfSigCCInfo time;
    EXPECT_EQ(std::ranges::count(valueGroups, dg), row.want == kValue ? 1 : 0);
    EXPECT_EQ(signals.getTimeCCInfo(dg, 0, time), row.want == kTime);
    EXPECT_EQ(std::ranges::count(canGroups, dg, &MdfGroupInfo::dgIndex), row.want == kCan ? 1 : 0);
    ++dg;
  }
}

TEST_F(MdfBaseReaderTest, NamesGroupsAndChannels) {
  FileBuilder file;
  const auto group = [&](const std::string& name, Link comment) {
    return file.cg({.name = name, .comment = comment});
  };
  const Link padded = file.block("TX", {}, {'s', 'p', 'e', 'e', 'd', 0, 0, 0});
  const Link channel = file.cn({});
  file.setLink(channel, 2, padded);
  const Link misnamed = group("", file.tx("comment"));
  file.setLink(misnamed, 2, file.si(0, 0));
  file.dg({.groups = {group("acquired", file.tx("comment")), group("", file.tx("comment")),
                      group("", file.md("<CGcomment><TX>marked</TX></CGcomment>")), misnamed,
                      file.cg({.channels = {channel, file.cn({})}})}});
  Reader reader(file.write());
  ASSERT_TRUE(reader.open());
  EXPECT_EQ(reader.getCGName(0, 0), "acquired");
  EXPECT_EQ(reader.getCGName(0, 1), "comment");
  EXPECT_EQ(reader.getCGName(0, 2), "<CGcomment><TX>marked</TX></CGcomment>");
  EXPECT_EQ(reader.getCGName(0, 3), "") << "only a link of 0 leads to the comment";
  EXPECT_EQ(reader.getCGName(0, 4), "");
  EXPECT_EQ(reader.getCNName(0, 4, 0), "speed");
  EXPECT_EQ(reader.getCNName(0, 4, 1), "");
}

TEST_F(MdfBaseReaderTest, DescribesGroupsAndMarksUnsortedOnes) {
  FileBuilder file;
  const Cg full = {
      .name = "full", .records = 0x100000002, .dataBytes = 8, .invalBytes = 2, .flags = 6};
  Cg values = full;
  values.flags = 1;
  const Link data = file.dt(packed(0.0));
  file.dg({.groups = {file.cg(full)}, .data = data});
  file.dg({.groups = {file.cg(full)}, .data = data, .recordIdSize = 1});
  file.dg({.groups = {file.cg(full), file.cg(values)}, .data = data});
  Reader reader(file.write());
  ASSERT_TRUE(reader.open());
  using Numbers = std::array<std::uint64_t, 8>;
  const std::tuple<int, int, Numbers> rows[] = {{0, 0, {0, 0, 0x100000002, 10, 8, 2, 6, 0}},
                                                {1, 0, {1, 0, 0x100000002, 10, 8, 2, 6, 1}},
                                                // no invalidation bytes beside signal data
                                                {2, 1, {2, 1, 0x100000002, 8, 8, 2, 1, 0}}};
  for (const auto& [dg, cg, want] : rows) {
    MdfGroupInfo info;
    ASSERT_TRUE(reader.getGroupInfo(dg, cg, info));
    EXPECT_EQ((Numbers{static_cast<std::uint64_t>(info.dgIndex),
                       static_cast<std::uint64_t>(info.cgIndex), info.recordCount, info.recordSize,
                       info.dataBytes, info.invalBytes, info.flags, info.recordIdSize}),
              want);
    EXPECT_EQ(info.name, "full");
    EXPECT_EQ(info.unsorted, dg > 0);
  }
}

TEST_F(MdfBaseReaderTest, OpensTwiceAndKeepsItsListsWhenClosed) {
  FileBuilder file;
  file.signalGroup({{.name = "v", .byteOffset = 8}}, {packed(1.0, std::uint8_t{7})});
  file.busLog(dataFrames(), {busRecord(dataFrames(), 1, {})});
  const std::string path = file.write();
  Reader reader(path);
  MdfReader frames(path);
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(reader.open());
    ASSERT_TRUE(frames.open());
    EXPECT_EQ(reader.getDGCount(), 2);
    EXPECT_EQ(reader.getCNCount(0, 0), 2);
    EXPECT_EQ(reader.getDataGroupSigsIndex(), std::vector<int>{0});
    EXPECT_NE(reader.readSignalDataByIndex(0, 0), nullptr);
    EXPECT_EQ(frames.getCanCount(), 1U);
  }
  EXPECT_EQ(frames.getCanMessages(10).size(), 1U) << "a group listed twice is read once";

  reader.close();
  frames.close();
  EXPECT_EQ(reader.getDGCount(), 2);
  EXPECT_EQ(reader.readSignalDataByIndex(0, 0), nullptr);
  EXPECT_EQ(frames.getCanMessage(), nullptr);
}

}  // namespace
}  // namespace tolvex::test
