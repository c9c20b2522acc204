// Data blocks as one byte sequence, read and written.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>

#include "Mdf4/base/Transposition.h"
#include "Mdf4/format/m4DataStream.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tests/support/MemoryFile.h"

namespace tolvex::test {
namespace {

Bytes randomBytes(std::mt19937& random, std::size_t size) {
  Bytes bytes(size);
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<std::uint8_t>(random()); });
  return bytes;
}

Bytes slice(const Bytes& bytes, std::uint64_t at, std::uint64_t count) {
  const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(at);
  return {begin, begin + static_cast<std::ptrdiff_t>(count)};
}

Bytes read(m4DataStream& stream, std::uint64_t length) {
  Bytes bytes(inMemory(length));
  bytes.resize(inMemory(stream.Read(length, bytes.data())));
  return bytes;
}

Bytes viewed(m4DataStream& stream, std::uint64_t length) {
  const ByteSpan bytes = stream.next(length);
  return {bytes.begin(), bytes.end()};
}

class DataStream : public testing::Test {
 protected:
  m4DataStream open(Link data) {
    EXPECT_TRUE(direct_.open(file_.write(), OpenMode::Read));
    return m4DataStream(direct_, data);
  }

  CapturedDiagnostics diagnostics_;
  FileBuilder file_;
  DirectFile direct_;
};

TEST_F(DataStream, ReadsTheSameBytesHoweverTheyAreStored) {
  const Bytes stored = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  const Bytes a = {1, 2, 3, 4};
  const Bytes b = {5, 6, 7, 8};
  const Bytes c = {9, 10};
  FileBuilder& f = file_;
  const std::pair<const char*, Link> forms[] = {
      {"DT", f.dt(stored)},
      {"SD", f.sd(stored)},
      {"RD", f.rd(stored)},
      {"DV", f.dv(stored)},
      {"DZ", f.dz(stored)},
      {"DZ with a link", f.dz(stored, "DT", 0, 0, {0})},
      {"transposed DZ with a rest", f.dz(stored, "DT", 1, 4)},
      {"transposed DZ of less than a row", f.dz(stored, "DT", 1, 11)},
      {"DL with offsets", f.dl({f.dt({1}), f.dt({2, 3, 4, 5, 6}), f.dt({7, 8, 9, 10})})},
      {"DL of equal lengths", f.dl({f.dt(a), f.dt(b), f.dt(c)}, 4)},
      {"DL chain", f.chain({f.dl({f.dt(a)}, 4), f.dl({f.dt(b), f.dt(c)}, 4)})},
      {"HL of equal DZs", f.hl(f.dl({f.dz(a), f.dz(b, "DT", 1, 2), f.dz(c)}, 4))},
      {"DL of all kinds", f.dl({f.dz(a), f.sd(b), f.dz(c)})},
      {"DL of equal lengths, kinds mixed", f.dl({f.dt(a), f.dz(b), f.dt(c)}, 4)},
      {"DL backwards in the file", [&] {
         const Link last = f.dt(c);
         const Link middle = f.dt(b);
         return f.dl({f.dt(a), middle, last}, 4);
       }()},
      {"LD chain", f.chain({f.ld({f.dv(a)}), f.ld({f.dz(b, "DV"), f.dv(c)})})},
  };
  for (const auto& [name, data] : forms) {
    SCOPED_TRACE(name);
    m4DataStream stream = open(data);
    ASSERT_TRUE(stream.valid());
    ASSERT_EQ(stream.size(), stored.size());
    for (std::size_t at = 0; at < stored.size(); ++at) {
      for (std::size_t count = 1; at + count <= stored.size(); ++count) {
        EXPECT_EQ(stream.Seek(at), at);
        EXPECT_EQ(read(stream, count), slice(stored, at, count)) << count << " bytes at " << at;
        EXPECT_EQ(stream.position(), at + count);
        stream.Seek(at);
        EXPECT_EQ(viewed(stream, count), slice(stored, at, count)) << count << " bytes at " << at;
      }
    }
    stream.Seek(8);
    EXPECT_EQ(read(stream, 5), c);  // and no more
    EXPECT_EQ(direct_.problems().texts().size(), 0U);
  }
}

// More than is read ahead, in blocks that follow each other closely, with a gap or not at all.
TEST_F(DataStream, ReadsAnyPieceOfManyBlocks) {
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  Bytes stored;
  std::vector<Link> lists;
  for (int list = 0; list < 60; ++list) {
    std::vector<Link> blocks;
    for (int i = 0; i < 5; ++i) {
      const Bytes bytes = randomBytes(random, 2300);
      stored.insert(stored.end(), bytes.begin(), bytes.end());
      blocks.push_back(random() % 40 == 0 ? file_.dz(bytes, "DT", random() % 2, 23)
                                          : file_.dt(bytes));
      if (random() % 20 == 0) file_.tx(std::string(random() % 3000, 'x'));
    }
    lists.push_back(file_.dl(blocks, list % 2 == 0 ? 2300 : 0));
  }
  m4DataStream stream = open(file_.chain(lists));
  ASSERT_EQ(stream.size(), stored.size());
  for (std::uint64_t at = 0; at < stored.size();) {
    const Bytes bytes = viewed(stream, 23);
    ASSERT_EQ(bytes, slice(stored, at, std::min<std::uint64_t>(23, stored.size() - at)));
    at += bytes.size();
  }
  for (int i = 0; i < 2000; ++i) {
    const std::uint64_t at = random() % stored.size();
    const std::uint64_t longest = random() % 10 == 0 ? stored.size() : 100;
    const std::uint64_t count = std::min<std::uint64_t>(random() % longest, stored.size() - at);
    stream.Seek(at);
    m4DataStream copy = stream;
    ASSERT_EQ(read(stream, count), slice(stored, at, count)) << count << " bytes at " << at;
    ASSERT_EQ(viewed(copy, count), slice(stored, at, count)) << count << " bytes at " << at;
  }
}

TEST_F(DataStream, SeekingPastTheEndRewindsAndKeepsTheOffsetInTheBlock) {
  const Link data = file_.dl({file_.dt({1, 2, 3}), file_.dt({4, 5, 6, 7, 8})});
  const struct {
    std::uint64_t before;  // read up to here first
    Bytes after;           // what reading then finds from the first block on
  } rows[] = {{0, {1, 2}}, {2, {3, 4}}, {3, {1, 2}}, {4, {2, 3}}, {6, {}}, {8, {1, 2}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.before);
    m4DataStream stream = open(data);
    read(stream, row.before);
    EXPECT_EQ(stream.Seek(8), 0U);
    EXPECT_EQ(stream.position(), 0U);
    EXPECT_EQ(read(stream, 2), row.after);
    EXPECT_EQ(stream.position(), row.after.size());
    EXPECT_EQ(stream.Seek(100), 0U);
    EXPECT_EQ(stream.Seek(3), 3U);
    EXPECT_EQ(read(stream, 2), (Bytes{4, 5}));
  }
}

TEST_F(DataStream, EndsAtAnEmptyBlockUntilASeekPassesIt) {
  m4DataStream stream = open(file_.dl({file_.dt({1, 2}), file_.dt({}), file_.dt({3, 4})}));
  EXPECT_EQ(read(stream, 4), (Bytes{1, 2}));
  EXPECT_EQ(read(stream, 4), Bytes{});
  EXPECT_EQ(stream.Seek(2), 2U);
  EXPECT_EQ(read(stream, 4), (Bytes{3, 4}));
  EXPECT_EQ(direct_.problems().texts().size(),
            1U);  // two bytes that reading in order does not reach
}

TEST_F(DataStream, ListsOfTheWrongKindGiveNothing) {
  FileBuilder& f = file_;
  const Link dt = f.dt({1});
  const struct {
    const char* name;
    Link data;
    bool valid;
    const char* text;
  } rows[] = {
      {"nothing", 0, true, ""},
      {"a channel group", f.cg({}), true, ""},
      {"an HL without a list", f.hl(0), true, ""},
      {"a DL chain that goes on in an LD", f.chain({f.dl({dt}), f.ld({})}), false, ""},
      {"a DL entry that is no block", f.dl({dt + 8}), false, "LoadBlkHdr @0x"},
      {"an LD of DTs", f.ld({dt}), false,
       "m4DataStream::initSize: blk.hdr_id!=M4ID_DV | M4ID_RV | M4ID_DZ\n"},
      {"invalidation in DVs", f.ld({f.dv({1})}, {f.dv({1})}), false,
       "m4DataStream::initSize: blk.hdr_id!=M4ID_DV | M4ID_DI | M4ID_RV | M4ID_RI | M4ID_DZ\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const CapturedDiagnostics diagnostics;
    m4DataStream stream = open(row.data);
    EXPECT_EQ(stream.valid(), row.valid);
    EXPECT_EQ(stream.size(), 0U);
    EXPECT_EQ(read(stream, 1), Bytes{});
    EXPECT_EQ(diagnostics.text().substr(0, std::string(row.text).size()), row.text);
  }
}

TEST_F(DataStream, EndsWhereAListLeadsOutOfTheFile) {
  for (const Link to : {Link{0}, ~Link{0}, Link{1} << 40}) {
    for (const std::uint64_t equal : {0U, 2U}) {
      const Link list = file_.dl({file_.dt({1, 2}), file_.dt({3, 4}), file_.dt({5, 6})}, equal);
      file_.setLink(list, 2, to);
      m4DataStream stream = open(list);
      EXPECT_EQ(read(stream, 6), (Bytes{1, 2}));
      EXPECT_FALSE(direct_.problems().texts().empty());
    }
  }
}

TEST_F(DataStream, ReadsABlockThatIsListedTwiceOnce) {
  const Link first = file_.dt({1, 2});
  const Link second = file_.dt({3, 4});
  const Link third = file_.dz({5, 6});
  const struct {
    std::vector<Link> blocks;
    Bytes want;
    Bytes behind;  // read from the last block
  } rows[] = {{{first, second, second}, {1, 2, 3, 4}, {}},
              {{first, first, second}, {1, 2}, {3, 4}},
              {{third, second, third, first}, {5, 6, 3, 4}, {1, 2}},
              {{second, third, third, third, first}, {3, 4, 5, 6}, {1, 2}}};
  for (const auto& row : rows) {
    for (const std::uint64_t equal : {0U, 2U}) {
      m4DataStream stream = open(file_.dl(row.blocks, equal));
      EXPECT_EQ(read(stream, 100), row.want);
      EXPECT_FALSE(direct_.problems().texts().empty());
      stream.Seek(2 * row.blocks.size() - 2);
      EXPECT_EQ(read(stream, 100), row.behind);
    }
  }
  const Link marks = file_.di({9, 8});
  m4DataStream columns = open(file_.ld({file_.dv({1, 2}), file_.dv({3, 4})}, {marks, marks}));
  columns.mergeInvalidation(1, 1);
  Bytes records(8);
  EXPECT_EQ(columns.Read(4, records.data(), 2), 4U);
  EXPECT_EQ(slice(records, 0, 4), (Bytes{1, 9, 2, 8}));
}

TEST_F(DataStream, ReadsACompressedBlockAsFarAsItsStreamGoes) {
  const Bytes rows = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14};
  for (const std::uint8_t zipType : {std::uint8_t{0}, std::uint8_t{1}}) {
    const Link block = file_.dz(rows, "DT", zipType, 6);
    const Link next = file_.dt({20, 21});
    file_.setU64(block + 24 + 8, 22);  // dz_org_data_length
    m4DataStream stream = open(file_.dl({block, next}));
    EXPECT_EQ(viewed(stream, 6), slice(rows, 0, 6));
    EXPECT_EQ(viewed(stream, 10), slice(rows, 6, 8));
    EXPECT_EQ(viewed(stream, 1), Bytes{});
    EXPECT_FALSE(direct_.problems().texts().empty());
    stream.Seek(0);
    EXPECT_EQ(read(stream, 100), rows);
    for (const std::uint64_t beyond : {14U, 17U}) {
      stream.Seek(beyond);
      EXPECT_EQ(read(stream, 1), Bytes{}) << beyond;
    }
    stream.Seek(22);
    EXPECT_EQ(read(stream, 2), (Bytes{20, 21}));
  }
}

TEST_F(DataStream, InflatesForValuesWithinABudget) {
  Bytes large(20 << 20);  // two of these are more than is held at first
  large[0] = 2;
  const Link list = file_.dl({file_.dz(large, "SD"), file_.dz(large, "SD")});
  m4DataStream stream = open(list);
  Bytes value;
  EXPECT_TRUE(stream.readValue(0, value));
  EXPECT_TRUE(stream.readValue(large.size(), value));
  EXPECT_TRUE(stream.readValue(0, value)) << "inflated again";
  EXPECT_TRUE(direct_.problems().texts().empty());
  while (direct_.budget().takeAgain(1 << 20)) {
  }
  EXPECT_EQ(direct_.problems().texts().size(), 1U);
  EXPECT_TRUE(stream.readValue(100, value)) << "still held";
  EXPECT_FALSE(stream.readValue(large.size(), value));
  EXPECT_EQ(direct_.problems().texts().size(), 2U) << "the value is told";
  m4DataStream records(direct_, list);
  records.Seek(large.size());
  EXPECT_EQ(read(records, 2), (Bytes{2, 0})) << "who reads bytes in order pays nothing";
}

TEST_F(DataStream, CutFilesGiveTheWholeSharesThatAreLeft) {
  const Bytes stored = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  const Link data = file_.dl({file_.dt(slice(stored, 0, 5)), file_.dt(slice(stored, 5, 5))}, 5);
  const Link behind = file_.dt(stored);
  const std::uint64_t size = file_.size();
  ASSERT_TRUE(direct_.open(file_.write(size - 6), OpenMode::Read));
  m4DataStream stream(direct_, behind);
  EXPECT_EQ(read(stream, 3), slice(stored, 0, 3));
  EXPECT_EQ(read(stream, 3), Bytes{});  // its third byte is gone
  EXPECT_FALSE(direct_.problems().texts().empty());
  // A block whose header states less than its list does not lend its neighbour's bytes.
  file_.setLength(file_.blocks()[1], 24 + 4);
  m4DataStream shorter = open(data);
  EXPECT_EQ(read(shorter, 10), Bytes{});
}

TEST_F(DataStream, ReadsBeyondFourGigabytes) {
  constexpr std::uint64_t kFar = std::uint64_t{5} << 30;
  const Bytes stored = {1, 2, 3, 4};
  const Link near = file_.dt(stored);
  const Link list = file_.dl({near, kFar}, 4);
  ASSERT_TRUE(direct_.open(file_.write(), OpenMode::Update));
  BlockHeader header;
  header.type = block_type::kDT;
  header.length = kBlockHeaderSize + 4;
  ASSERT_TRUE(direct_.WriteAt(kFar, sizeof header, &header));
  ASSERT_TRUE(direct_.WriteAt(kFar + sizeof header, 4, stored.data()));
  m4DataStream stream(direct_, list);
  EXPECT_EQ(read(stream, 8), joined({stored, stored}));
}

TEST(Transposition, IsUndoneForAnyShape) {
  std::mt19937 random(1);
  for (const std::uint64_t columns : {0U, 1U, 2U, 15U, 16U, 17U, 23U, 33U, 64U, 512U}) {
    for (const std::uint64_t rows : {0U, 1U, 15U, 16U, 17U, 40U}) {
      const Bytes want = randomBytes(random, inMemory(rows * columns + columns / 2));
      Bytes stored = want;
      for (std::uint64_t r = 0; r < rows; ++r) {
        for (std::uint64_t c = 0; c < columns; ++c)
          stored[inMemory(c * rows + r)] = want[inMemory(r * columns + c)];
      }
      Bytes out(stored.size());
      undoTransposition(stored, columns, out);
      EXPECT_EQ(out, want) << rows << " rows of " << columns;
    }
  }
}

// Three blocks of ten bytes a list: what was written comes back, however it was handed over.
TEST(WritingDataStream, ReadsBackWhatWasWritten) {
  const CapturedDiagnostics diagnostics;
  std::mt19937 random(1);
  for (std::uint64_t size = 1; size < 75; ++size) {
    for (const bool full : {false, true}) {
      SCOPED_TRACE(size);
      auto memory = std::make_unique<MemoryFile>(Bytes(64));
      const MemoryFile& written = *memory;
      DirectFile file;
      ASSERT_TRUE(file.attach(std::move(memory)));
      m4DataStream::Blocks blocks;
      blocks.data = std::make_unique<M4DTBlock>();
      ASSERT_TRUE(blocks.data->reallocate(10));
      blocks.dataList = std::make_unique<M4DLBlock>(3, 10);
      const Bytes stored = randomBytes(random, inMemory(size));
      m4DataStream writer(file, std::move(blocks));
      writer.addPendingLink(8, writer.firstList());
      for (std::uint64_t at = 0; at < size;) {
        const std::uint64_t count = std::min<std::uint64_t>(1 + random() % 25, size - at);
        ASSERT_TRUE(writer.write(stored.data() + at, count, nullptr, 0));
        at += count;
      }
      ASSERT_TRUE(writer.finish(full));
      EXPECT_EQ(loadNumber<std::uint64_t>(written.bytes().data() + 8), writer.firstList());
      m4DataStream reader(file, writer.firstList());
      EXPECT_EQ(read(reader, size + 1), stored);
      EXPECT_TRUE(file.problems().texts().empty());
    }
  }
}

}  // namespace
}  // namespace tolvex::test
