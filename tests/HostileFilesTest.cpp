// Files that lie. What a false claim touches counts as absent, the rest is read, in time and memory
// that go with the file's size.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

constexpr Link kHd = 64;
constexpr std::uint64_t kMax = ~std::uint64_t{0};

// Everything that a file showed when all of it was asked for.
struct Seen {
  bool opened = false;
  std::uint64_t groups = 0;
  std::uint64_t channels = 0;
  std::uint64_t textBytes = 0;
  std::uint64_t records = 0;
  std::uint64_t values = 0;  // physical values, texts and variable-length values
  std::uint64_t frames = 0;
  std::uint64_t payloadBytes = 0;

  bool operator==(const Seen&) const = default;
  friend std::ostream& operator<<(std::ostream& out, const Seen& seen) {
    return out << (seen.opened ? "" : "not opened, ") << seen.groups << " groups, " << seen.channels
               << " channels, " << seen.textBytes << " text bytes, " << seen.records << " records, "
               << seen.values << " values, " << seen.frames << " frames, " << seen.payloadBytes
               << " payload bytes";
  }
};

constexpr std::uint64_t kEnough = 1000;  // records or frames of one group

void visitRecords(MdfSigReader& reader, int dg, int cg, int channels, Seen& seen) {
  std::vector<std::uint8_t> bytes;
  int size = 0;
  reader.readSignalDataBlock(dg, cg, 0, reader.getRecordCount(dg, cg), bytes, size);
  reader.readSignalTimeRange(dg, cg);
  reader.findRecordIndexByTime(dg, cg, 1);
  reader.resetDataStream(dg, cg);
  for (std::uint64_t i = 0; i < kEnough; ++i) {
    const auto record = reader.readSignalData(dg, cg);
    if (record == nullptr) return;
    ++seen.records;
    for (int cn = 0; cn < channels; ++cn) {
      MdfSigCCInfo info;
      double value = 0;
      std::string text;
      const Bytes& data = record->data;
      reader.getCCInfo(dg, cg, cn, info);
      seen.values += info.convertToPhysical(data, value, text);
      seen.values += reader.readText(dg, cg, cn, data.data(), data.size(), text);
      seen.values += reader.readValueBytes(dg, cg, cn, data.data(), data.size(), bytes);
      reader.isInvalidSample(dg, cg, cn, data.data(), data.size());
    }
  }
}

Seen visit(const std::string& path) {
  Seen seen;
  MdfSigReader signals(path);
  seen.opened = signals.open();
  for (int dg = 0, dgs = signals.getDGCount(); dg < dgs; ++dg) {
    for (int cg = 0, cgs = signals.getCGCount(dg); cg < cgs; ++cg) {
      const int channels = signals.getCNCount(dg, cg);
      ++seen.groups;
      seen.channels += static_cast<std::uint64_t>(channels);
      seen.textBytes += signals.getCGName(dg, cg).size();
      for (int cn = 0; cn < channels; ++cn) {
        MdfSigCCInfo info;
        signals.getCCInfo(dg, cg, cn, info);
        seen.textBytes += info.name.size() + info.unit.size() + info.comment.size();
        for (const std::string& text : info.texts) seen.textBytes += text.size();
      }
      visitRecords(signals, dg, cg, channels, seen);
    }
  }
  MdfReader reader(path);
  static_cast<void>(reader.open());
  reader.getCanCount();
  reader.getStopTime();
  for (; seen.frames < kEnough; ++seen.frames) {
    const MdfFrame frame = reader.getNext();
    if (const auto* message = std::get_if<0>(&frame)) {
      if (*message == nullptr) break;
      seen.payloadBytes += (*message)->DataBytes().size();
    }
  }
  return seen;
}

Seen visit(const FileBuilder& file) {
  return visit(file.write());
}

class HostileFiles : public testing::Test {
 protected:
  // A reader that runs away ends the test program: no use waiting for all memory and time.
  void SetUp() override {
    alarm(120);
#if !defined(TOLVEX_SANITIZED)
    getrlimit(RLIMIT_AS, &saved_);
    rlimit limit = saved_;
    limit.rlim_cur = rlim_t{512} << 20;
    setrlimit(RLIMIT_AS, &limit);
#endif
  }
  void TearDown() override {
    alarm(0);
#if !defined(TOLVEX_SANITIZED)
    setrlimit(RLIMIT_AS, &saved_);
#endif
  }

  // A small sound file with every kind of block that reading uses.
  static FileBuilder sound() {
    FileBuilder file;
    const Link texts = file.cc(
        {.type = 7,
         .values = {0, 1},
         .refs = {file.tx("off"), file.md("<TX>on</TX>"), file.cc({.type = 1, .values = {0, 1}})},
         .name = file.tx("states")});
    Bytes ramp;
    for (int i = 0; i < 10; ++i) {
      ramp = joined({ramp, packed(0.5 * i, static_cast<std::uint8_t>(i % 2))});
    }
    const Bytes first(ramp.begin(), ramp.begin() + 36);
    const Bytes second(ramp.begin() + 36, ramp.end());
    file.signalGroup(
        {{.name = "state", .byteOffset = 8, .conversion = texts, .unit = file.tx("1")}},
        {.name = "states", .records = 10, .dataBytes = 9},
        file.hl(file.chain({file.dl({file.dz(first, "DT", 1, 9)}),
                            file.dl({file.dz(second), file.dt(first)}, 54)})));

    const Bytes texts1 = joined({packed(std::uint32_t{2}), {'a', 'b'}, packed(std::uint32_t{3})});
    const Bytes texts2 = {'c', 'd', 'e'};
    const Bytes pointers = packed(0.0, std::uint64_t{0}, 1.0, std::uint64_t{6});
    file.signalGroup({{.name = "text",
                       .type = 1,
                       .dataType = 7,
                       .byteOffset = 8,
                       .bitCount = 64,
                       .flags = 2,
                       .data = file.dl({file.sd(texts1), file.sd(texts2)})}},
                     {.records = 2, .dataBytes = 16, .invalBytes = 1},
                     file.chain({file.ld({file.dv(pointers)}, {file.di({0, 1})}),
                                 file.ld({file.dz(pointers, "DV")}, {file.dz({0, 1}, "DI")})}));

    BusLayout layout = loggerFrames();
    layout.fields = {{"ID", 8, 3, 29}, {"IDE", 8, 0, 1}, {"DataBytes", 14, 0, 64, 10}};
    const Bytes frame = busRecord(layout, 1, {{"ID", 5}, {"DataBytes", 0}});
    file.busLog(layout, 4,
                file.dl({file.dt(joined({frame, frame})), file.dt(joined({frame, frame}))}, 44),
                file.dz(joined({packed(std::uint32_t{3}), {1, 2, 3}}), "SD"));
    layout = errorFrames();
    layout.fields.resize(2);
    file.busLog(layout, {busRecord(layout, 2, {})});
    return file;
  }

  CapturedDiagnostics diagnostics_;
#if !defined(TOLVEX_SANITIZED)
  rlimit saved_ = {};
#endif
};

TEST_F(HostileFiles, TheSoundFileShowsEverything) {
  const Seen seen = visit(sound());
  EXPECT_EQ(seen.groups, 4U);
  EXPECT_EQ(seen.channels, 8U);
  EXPECT_EQ(seen.records, 14U + 4);
  EXPECT_EQ(seen.frames, 5U);
  EXPECT_EQ(seen.payloadBytes, 12U);
}

// A link that leads nowhere is as good as none. (In a list of columns a link of 0 is an empty
// column. An entry of a list that leads to what is no block spoils the list.)
TEST_F(HostileFiles, LinksThatLeadNowhereAreLinksOfZero) {
  const FileBuilder file = sound();
  for (const Link block : file.blocks()) {
    for (std::uint64_t i = 0; i < (file.isA(block, "LD") ? 1 : file.linkCount(block)); ++i) {
      FileBuilder bad = file;
      bad.setLink(block, i, 0);
      const Seen want = visit(bad);
      for (const Link to : {file.size(), kMax, kMax - 7, std::uint64_t{1} << 63, Link{8}}) {
        if (to == 8 && i > 0 && file.isA(block, "DL")) continue;
        bad.setLink(block, i, to);
        EXPECT_EQ(visit(bad), want) << "link " << i << " of block at " << block << " to " << to;
      }
    }
  }
}

// A block that claims what cannot be is as good as none. Of a block of data only the list that
// names it knows, so there the rest of the file must be whole.
TEST_F(HostileFiles, BlocksOfImpossibleSizeAreAbsent) {
  const FileBuilder file = sound();
  for (const Link block : file.blocks()) {
    FileBuilder without = file;
    for (const Link from : file.blocks()) {
      for (std::uint64_t i = 0; i < file.linkCount(from); ++i) {
        if (file.link(from, i) == block) without.setLink(from, i, 0);
      }
    }
    const Seen want = block == kHd ? Seen{} : visit(without);
    bool isData = false;
    for (const char* type : {"DT", "SD", "DV", "DI", "DZ"}) {
      isData = isData || file.isA(block, type);
    }
    const std::pair<std::uint64_t, std::uint64_t> claims[] = {
        {8, 0}, {8, 23}, {8, file.size() + 1}, {8, kMax}, {16, kMax}, {16, 1ULL << 61}, {16, 1000}};
    for (const auto& [offset, value] : claims) {
      FileBuilder bad = file;
      bad.setU64(block + offset, value);
      const Seen seen = visit(bad);
      SCOPED_TRACE("block at " + std::to_string(block) + ", " + std::to_string(value) + " at " +
                   std::to_string(offset));
      if (isData) {
        EXPECT_EQ(seen.channels, want.channels);
        EXPECT_EQ(seen.textBytes, want.textBytes);
      } else {
        EXPECT_EQ(seen, want);
      }
    }
  }
}

TEST_F(HostileFiles, ChainsEndWhereTheyMeetThemselves) {
  const FileBuilder file = sound();
  const Seen want = visit(file);
  for (const std::string type : {"DG", "CG", "CN", "DL", "LD"}) {
    std::vector<Link> ends;  // the last block of each chain
    for (const Link block : file.blocks()) {
      if (file.isA(block, type) && file.link(block, 0) == 0) ends.push_back(block);
    }
    ASSERT_FALSE(ends.empty());
    for (const Link end : ends) {
      FileBuilder bad = file;
      bad.setLink(end, 0, end);
      EXPECT_EQ(visit(bad), want) << type << " at " << end << " to itself";
    }
  }
}

TEST_F(HostileFiles, CompressedBlocksThatLieHoldNothing) {
  const Bytes data(9000, 7);
  const struct {
    const char* name;
    std::uint64_t offset;  // in the record
    std::uint64_t value;
    std::uint64_t records;
  } rows[] = {
      {"the truth", 8, 9000, 1000},
      {"longer than the stream", 8, 9009, 1000},
      {"beyond what can be compressed", 8, 1ULL << 40, 0},
      {"beyond everything", 8, kMax, 0},
      {"shorter than the stream", 8, 8991, 0},
      {"no data", 8, 0, 0},
      {"more compressed bytes than the block has", 16, 200, 0},
      {"compressed bytes beyond everything", 16, kMax, 0},
      {"no compressed bytes", 16, 0, 0},
      {"no stream", 24, 0, 0},
      {"no columns", 0, 0x0000'0000'0001'5444, 1000},
      {"more columns than bytes", 0, 0xFFFF'FFFF'0001'5444, 1000},
  };
  for (const auto& row : rows) {
    for (const bool listed : {false, true}) {
      SCOPED_TRACE(row.name);
      FileBuilder file;
      const Link zipped = file.dz(data);
      file.signalGroup({{.name = "v"}}, {.records = 1000, .dataBytes = 9},
                       listed ? file.hl(file.dl({zipped})) : zipped);
      file.setU64(zipped + 24 + row.offset, row.value);
      EXPECT_EQ(visit(file).records, row.records);
    }
  }
}

TEST_F(HostileFiles, RecordsHaveASizeWithinLimits) {
  const Bytes data(std::size_t{1} << 21);
  const std::tuple<std::uint32_t, std::uint32_t, std::uint64_t> rows[] = {
      {0, 0, 0},        {0x100000, 0, 2},   {0xFFFFF, 1, 2},
      {0x100000, 1, 0}, {0xFFFFFFFF, 0, 0}, {0xFFFFFFFF, 2, 0}};
  for (const auto& [dataBytes, invalBytes, want] : rows) {
    FileBuilder file;
    file.busLog(dataFrames(), 2, file.dz(data));
    const Link group = file.firstOf("CG");
    file.setU64(file.dataPosition(group) + 24, dataBytes | std::uint64_t{invalBytes} << 32);
    EXPECT_EQ(visit(file).frames, want) << dataBytes << "+" << invalBytes;
  }
  for (const std::uint32_t dataBytes : {0U, 0xFFFFFFFFU}) {
    FileBuilder file;
    file.signalGroup({{.name = "v"}}, {.records = 5, .dataBytes = dataBytes}, file.dt(Bytes(90)));
    EXPECT_EQ(visit(file).records, 0U) << dataBytes;
  }
}

// Few blocks that many others name would make much of little.
TEST_F(HostileFiles, SharedChainsAreNotMultiplied) {
  constexpr std::size_t kMany = 2000;
  const auto chainOf = [](FileBuilder& file, const auto& make) {
    std::vector<Link> blocks;
    for (std::size_t i = 0; i < kMany; ++i) blocks.push_back(make());
    return file.chain(blocks);
  };
  FileBuilder groups;
  const Link cgs = chainOf(groups, [&] { return groups.cg({}); });
  for (std::size_t i = 0; i < kMany; ++i) {
    groups.dg({.groups = {cgs}});
  }
  FileBuilder channels;
  const Link cns = chainOf(channels, [&] { return channels.cn({}); });
  channels.dg({.groups = {chainOf(channels, [&] { return channels.cg({.channels = {cns}}); })}});
  FileBuilder children;
  const Link shared = chainOf(children, [&] { return children.cn({.name = "CAN_DataFrame.ID"}); });
  const Link parents = chainOf(
      children, [&] { return children.cn({.name = "CAN_DataFrame", .children = {shared}}); });
  children.dg({.groups = {children.cg({.channels = {parents}})}});
  for (const FileBuilder* file : {&groups, &channels, &children}) {
    const Seen seen = visit(*file);
    EXPECT_TRUE(seen.opened);
    EXPECT_GT(seen.groups, 0U);
    EXPECT_LE(seen.groups + seen.channels, file->size() / 24);
  }

  FileBuilder data;
  const std::vector<Link> dts(kMany, data.dt(packed(1.0)));
  const Link list = data.dl(dts);
  for (std::size_t i = 0; i < kMany; ++i) {
    data.signalGroup({{.name = "v"}}, {.records = kMany, .dataBytes = 8}, list);
  }
  MdfSigReader reader(data.write());
  ASSERT_TRUE(reader.open());
  EXPECT_EQ(reader.getDGCount(), static_cast<int>(kMany));
  for (const int dg : {0, 1999}) {
    ASSERT_NE(reader.readSignalDataByIndex(dg, 0), nullptr) << dg;
    EXPECT_EQ(reader.readSignalDataByIndex(dg, 0)->data, packed(1.0));
    EXPECT_EQ(reader.readSignalDataByIndex(dg, 1), nullptr) << "a block is read once";
  }
}

TEST_F(HostileFiles, SharedTextsAreNotMultiplied) {
  FileBuilder file;
  const Link big = file.tx(std::string(std::size_t{1} << 20, 'x'));
  const Link conversion = file.cc({.type = 7, .values = {}, .refs = std::vector<Link>(65535, big)});
  std::vector<Cn> channels(100, Cn{.name = "v", .conversion = conversion, .unit = big});
  file.signalGroup(channels, {packed(0.0)});
  const std::string path = file.write();
  MdfSigReader reader(path);
  ASSERT_TRUE(reader.open());
  EXPECT_EQ(reader.getCNCount(0, 0), 101);
  for (const int cn : {1, 100}) {
    std::uint64_t textBytes = 0;
    MdfSigCCInfo info;
    ASSERT_TRUE(reader.getCCInfo(0, 0, cn, info));
    EXPECT_EQ(info.textCount, 65535);
    for (const std::string& text : info.texts) textBytes += text.size();
    EXPECT_LE(textBytes, 64 * file.size());
  }
}

// One name of a MiB for many channels and groups is loaded once.
TEST_F(HostileFiles, SharedNamesAreNotMultiplied) {
  constexpr int kMany = 5000;
  FileBuilder file;
  const std::string name(std::size_t{1} << 20, 'x');
  const Link big = file.tx(name);
  file.signalGroup(std::vector<Cn>(kMany), {packed(0.0)});
  BusLayout bus = dataFrames();
  bus.fields.assign(kMany, {"ID", 8, 0, 8});
  file.busLog(bus, {busRecord(bus, 0, {})});
  for (int i = 0; i < kMany; ++i) file.dg({.groups = {file.cg({})}});
  for (const Link block : file.blocks()) {
    if (file.isA(block, "CN") || file.isA(block, "CG")) file.setLink(block, 2, big);
  }
  MdfSigReader reader(file.write());
  reader.setLongestText(100);
  ASSERT_TRUE(reader.open());
  std::size_t bytes = 0;
  for (int cn = 0; cn <= kMany; ++cn) {
    MdfSigCCInfo info;
    ASSERT_TRUE(reader.getChannelInfo(0, 0, cn, info));
    bytes += info.name.size() + reader.getCNName(0, 0, cn).size();
  }
  for (int dg = 0; dg < kMany + 2; ++dg) bytes += reader.getCGName(dg, 0).size();
  EXPECT_EQ(bytes, 100U * (2 * (kMany + 1) + kMany + 2));
  EXPECT_TRUE(reader.getProblems().empty()) << reader.getProblems()[0];
  reader.setLongestText(std::string::npos);
  EXPECT_EQ(reader.getCNName(0, 0, 1), name);
}

}  // namespace
}  // namespace tolvex::test
