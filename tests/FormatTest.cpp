// Positioned file access, block objects and their loading and saving.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>

#include "Mdf4/base/PositionSet.h"
#include "Mdf4/format/BlockLoader.h"
#include "Mdf4/format/DataBlocks.h"
#include "Mdf4/format/DirectFile.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tests/support/MemoryFile.h"

namespace tolvex::test {
namespace {

TEST(DirectFile, PlacesBlocksAtMultiplesOfEightAndAnnouncesThem) {
  const CapturedDiagnostics diagnostics;
  DirectFile file;
  ASSERT_TRUE(file.attach(std::make_unique<MemoryFile>(Bytes(163))));
  EXPECT_EQ(file.Allocate(2, false), 168U);
  EXPECT_EQ(file.end(), 170U);
  M4DLBlock list(5, 100);
  EXPECT_EQ(list.place(file), 176U);  // ends at 264, and 6 for the padding counted again
  M4DTBlock data;
  ASSERT_TRUE(data.reallocate(100));
  EXPECT_EQ(data.place(file), 272U);
  EXPECT_EQ(file.Allocate(24, true), 400U);
  EXPECT_EQ(diagnostics.text(),
            "DirectFile::SetEnd Not Support, size: 270, end: 176\n"
            "##DL (      B0) 176+88=264\n"
            "DirectFile::SetEnd Not Support, size: 398, end: 272\n"
            "##DT (     110) 272+124=396\n"
            "DirectFile::SetEnd Not Support, size: 426, end: 400\n");
}

TEST(DirectFile, MovesItsEndForwardByOneByte) {
  const CapturedDiagnostics diagnostics;
  DirectFile file;
  auto memory = std::make_unique<MemoryFile>(Bytes{1, 2, 3});
  MemoryFile& bytes = *memory;
  ASSERT_TRUE(file.attach(std::move(memory)));
  EXPECT_TRUE(file.SetEnd(6));
  EXPECT_EQ(bytes.bytes(), (Bytes{1, 2, 3, 0, 0, 0}));
  EXPECT_EQ(file.end(), 6U);
  bytes.failAfter(0);
  EXPECT_FALSE(file.SetEnd(9));
  EXPECT_EQ(diagnostics.text(), "DirectFile::SetEnd: fwrite failed to extend file\n");
}

// Small reads come from pages that are kept, large ones from the file: both see every write.
TEST(DirectFile, ReadsWhatWasWrittenLast) {
  const CapturedDiagnostics diagnostics;
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  Bytes model(600'000);
  DirectFile file;
  ASSERT_TRUE(file.attach(std::make_unique<MemoryFile>(model)));
  for (int i = 0; i < 20'000; ++i) {
    const std::uint64_t at = random() % model.size();
    const std::uint64_t longest = random() % 50 == 0 ? 20'000 : 100;
    Bytes bytes(inMemory(std::min<std::uint64_t>(random() % longest, model.size() - at)));
    const Bytes want(model.begin() + static_cast<std::ptrdiff_t>(at),
                     model.begin() + static_cast<std::ptrdiff_t>(at + bytes.size()));
    ASSERT_TRUE(file.ReadAt(at, bytes.size(), bytes.data()));
    ASSERT_EQ(bytes, want) << bytes.size() << " bytes at " << at;
    if (i % 3 == 0) {
      std::generate(bytes.begin(), bytes.end(),
                    [&] { return static_cast<std::uint8_t>(random()); });
      ASSERT_TRUE(file.WriteAt(at, bytes.size(), bytes.data()));
      std::copy(bytes.begin(), bytes.end(), model.begin() + static_cast<std::ptrdiff_t>(at));
    }
  }
  std::uint8_t two[2];
  EXPECT_FALSE(file.ReadAt(model.size() - 1, 2, two));
  EXPECT_FALSE(file.ReadAt(~std::uint64_t{0}, 2, two));
  EXPECT_EQ(diagnostics.text(), "DirectFile::ReadAt failed\nDirectFile::ReadAt failed\n");
}

Bytes numbered(std::size_t size) {
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(i + 1);
  return bytes;
}

// What a data section is shorter or longer than its record, and what is saved again.
TEST(Blocks, EveryKindComesBackAsItStands) {
  const CapturedDiagnostics diagnostics;
  const struct {
    const char* type;
    std::size_t recordSize, element;
  } kinds[] = {{"FH", 16, 1}, {"DG", 8, 1},  {"CG", 32, 1}, {"CN", 72, 1}, {"CC", 24, 8},
               {"SI", 8, 1},  {"SR", 24, 1}, {"CA", 16, 8}, {"CH", 8, 1},  {"AT", 40, 1},
               {"EV", 32, 1}, {"DL", 8, 8},  {"LD", 8, 8},  {"HL", 8, 8},  {"DZ", 24, 1},
               {"DT", 0, 1},  {"SD", 0, 1},  {"RD", 0, 1},  {"DV", 0, 1},  {"DI", 0, 1},
               {"RV", 0, 1},  {"RI", 0, 1}};
  for (const auto& kind : kinds) {
    for (const std::size_t extra : {0U, 12U, 16U}) {
      SCOPED_TRACE(std::string(kind.type) + " with " + std::to_string(extra) + " bytes behind it");
      FileBuilder builder;
      const Bytes section = numbered(kind.recordSize + extra);
      const Link at = builder.block(kind.type, {11, 22, 33}, section);
      DirectFile file;
      ASSERT_TRUE(file.open(builder.write(), OpenMode::Read));
      const auto block = loadBlock(file, at);
      ASSERT_NE(block, nullptr);
      EXPECT_EQ(block->typeCode(), blockType(kind.type[0], kind.type[1]));
      EXPECT_EQ(block->linkCount(), 3U);
      EXPECT_EQ(block->link(1), 22U);
      EXPECT_EQ(block->link(3), 0U);
      EXPECT_EQ(block->recordSize(), kind.recordSize);
      EXPECT_EQ(block->extraSize(), (extra + kind.element - 1) / kind.element * kind.element);

      auto copy = std::make_unique<MemoryFile>();
      const MemoryFile& written = *copy;
      DirectFile out;
      ASSERT_TRUE(out.attach(std::move(copy)));
      ASSERT_NE(block->save(&out, m4Block::kSaveAll), 0U);
      Bytes want = joined({packed('#', '#', kind.type[0], kind.type[1], std::uint32_t{0},
                                  48 + kind.recordSize + block->extraSize(), std::uint64_t{3},
                                  std::uint64_t{11}, std::uint64_t{22}, std::uint64_t{33}),
                           section});
      want.resize(inMemory(48 + kind.recordSize + block->extraSize()));
      EXPECT_EQ(
          Bytes(written.bytes().begin() + static_cast<std::ptrdiff_t>(at), written.bytes().end()),
          want);
    }
    if (kind.recordSize == 0) continue;
    FileBuilder builder;
    const Link at = builder.block(kind.type, {}, numbered(3));
    DirectFile file;
    ASSERT_TRUE(file.open(builder.write(), OpenMode::Read));
    const auto block = loadBlock(file, at);
    ASSERT_NE(block, nullptr);
    Bytes want = numbered(3);
    want.resize(kind.recordSize);
    const auto* const record = static_cast<const std::uint8_t*>(block->recordData());
    EXPECT_EQ(Bytes(record, record + kind.recordSize), want);
    EXPECT_EQ(block->extraSize(), 0U);
  }
}

TEST(Blocks, TextEndsAtItsFirstNul) {
  FileBuilder builder;
  const std::pair<Link, const char*> texts[] = {
      {builder.block("TX", {}, {'a', 'b', 0}), "ab"},
      {builder.block("TX", {}, {'a', 'b', 0, 0, 0, 0, 0, 0}), "ab"},
      {builder.block("MD", {}, {'a', 'b', 'c'}), "ab"},
      {builder.block("TX", {}, {}), ""},
      {builder.block("CN", {}, {'a', 0}), ""},
      {0, ""},
  };
  DirectFile file;
  ASSERT_TRUE(file.open(builder.write(), OpenMode::Read));
  for (const auto& [link, want] : texts) EXPECT_EQ(loadText(file, link), want) << "at " << link;
}

TEST(PositionSet, KnowsPositionsInWhateverOrderTheyCame) {
  PositionSet known;
  std::vector<std::uint64_t> positions(5000);
  for (std::size_t i = 0; i < positions.size(); ++i) positions[i] = 2 * i;
  std::shuffle(positions.begin() + 1000, positions.end(), std::mt19937_64(1));
  for (const std::uint64_t position : positions) {
    ASSERT_FALSE(known.contains(position)) << position;
    known.add(position);
    ASSERT_TRUE(known.contains(position) && !known.contains(position + 1)) << position;
  }
  for (const std::uint64_t position : positions) ASSERT_TRUE(known.contains(position)) << position;
}

TEST(Blocks, OnlyKnownKindsAreLoadedAndTheRestIsNoted) {
  const CapturedDiagnostics diagnostics;
  FileBuilder builder;
  const Link unknown = builder.block("ZZ", {}, {});
  const Link noMarker = builder.dt({});
  builder.setByte(noMarker, '!');
  DirectFile file;
  ASSERT_TRUE(file.open(builder.write(), OpenMode::Read));
  EXPECT_EQ(loadBlock(file, 0), nullptr);
  EXPECT_TRUE(file.problems().texts().empty());
  for (const Link at : {Link{64}, unknown, noMarker, builder.size()}) {
    EXPECT_EQ(loadBlock(file, at), nullptr) << "at " << at;
  }
  ASSERT_EQ(file.problems().texts().size(), 4U);
  EXPECT_EQ(file.problems().texts()[0], "a link leads to 64: expected a block, found \"##HD\"");
}

}  // namespace
}  // namespace tolvex::test
