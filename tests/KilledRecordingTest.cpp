// What comes back of recordings that end at any moment, or lose pages.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/kill/MixedRecording.h"
#include "tests/support/Diagnostics.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfColumnReader.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::test {
namespace {

constexpr std::uint64_t kPage = 4096;
constexpr std::uint64_t kRecord = 113;  // the bytes of the largest records here

// A file of a recording as it stands after some of its writes.
class StandingFile {
 public:
  StandingFile() : descriptor_(::memfd_create("recording", MFD_CLOEXEC)) {}
  ~StandingFile() { ::close(descriptor_); }
  StandingFile(const StandingFile&) = delete;
  StandingFile& operator=(const StandingFile&) = delete;

  std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }
  void write(std::uint64_t position, const Bytes& bytes) const {
    const auto size = static_cast<ssize_t>(bytes.size());
    ASSERT_EQ(::pwrite(descriptor_, bytes.data(), bytes.size(), static_cast<off_t>(position)),
              size);
  }
  void take(const LoggedWrite& write, std::uint64_t bytes = ~std::uint64_t{0}) {
    const auto count = std::min<std::uint64_t>(bytes, write.bytes.size());
    this->write(write.position,
                {write.bytes.begin(), write.bytes.begin() + static_cast<std::ptrdiff_t>(count)});
    size_ = std::max(size_, write.position + count);
    if (count < write.bytes.size()) return;
    if (write.isA("DT")) taken_.push_back({write.position, count});
    const bool describes = write.bytes[0] == '#' && !write.isA("DT") && !write.isA("DL");
    if (describes) described_ = std::max(described_, write.position + count);
  }
  void cut(std::uint64_t size) {
    ASSERT_EQ(::ftruncate(descriptor_, static_cast<off_t>(size)), 0);
    size_ = size;
  }

  std::uint64_t size() const { return size_; }
  std::uint64_t described() const { return described_; }  // where all groups are told
  const std::vector<TakenBlock>& taken() const { return taken_; }

 private:
  int descriptor_;
  std::uint64_t size_ = 0;
  std::uint64_t described_ = 0;
  std::vector<TakenBlock> taken_;
};

// A recorder that stands still after every one of its writes, and within them at the end of a page.
// Where only the last record's end is missing, its zeros may be its own.
TEST(KilledRecording, BringsBackWhatReachedTheFileWhicheverWriteWasTheLast) {
  const CapturedDiagnostics diagnostics;
  for (const std::uint32_t seed : {2U, 5U, 9U}) {
    const MixedRecording recording(seed);
    const std::vector<LoggedWrite> log = logOf(recording);
    const RecoveryCheck check(log);
    auto file = std::make_unique<StandingFile>();
    for (std::size_t i = 0; i < log.size() && !HasFailure(); ++i) {
      SCOPED_TRACE(testing::Message() << recording.description() << ", write " << i);
      if (i != 0 && log[i].file != log[i - 1].file) file = std::make_unique<StandingFile>();
      const std::uint64_t start = log[i].position;
      const std::uint64_t last = start + log[i].bytes.size();
      for (std::uint64_t end = (start / kPage + 1) * kPage; end + kRecord < last; end += kPage) {
        file->take(log[i], end - start);
        EXPECT_EQ(check.faults(file->path(), file->taken(), RecoveryCheck::Allowed::Nothing), "")
            << "up to " << end;
      }
      file->take(log[i]);
      EXPECT_EQ(check.faults(file->path(), file->taken(), RecoveryCheck::Allowed::Nothing), "");
    }
  }
}

// The file after a part of the log that `random` chooses, without pages of its end or the end.
// Gives the blocks of records that are whole.
std::vector<TakenBlock> loseSome(StandingFile& file, const std::vector<LoggedWrite>& log,
                                 std::mt19937& random) {
  const std::size_t last = log.size() / 2 + random() % (log.size() / 2);
  for (std::size_t i = 0; i <= last; ++i) {
    if (log[i].file == log[last].file) file.take(log[i]);
  }
  const std::uint64_t end =
      random() % 2 == 0 ? file.size() : file.size() - random() % file.size() / 2;
  file.cut(end);
  const auto often = random() % 5;
  std::vector<bool> lost(inMemory(end / kPage + 1));
  for (std::size_t page = inMemory(file.described() / kPage + 1); page < lost.size(); ++page) {
    lost[page] = random() % 8 < often;
    if (lost[page]) file.write(page * kPage, Bytes(inMemory(std::min(kPage, end - page * kPage))));
  }
  std::vector<TakenBlock> whole;
  for (const TakenBlock& block : file.taken()) {
    const std::uint64_t blockEnd = block.position + block.size;
    bool isWhole = blockEnd <= end && file.described() <= end;
    for (std::uint64_t page = block.position / kPage; isWhole && page * kPage < blockEnd; ++page) {
      isWhole = !lost[inMemory(page)];
    }
    if (isWhole) whole.push_back(block);
  }
  return whole;
}

// What a machine leaves that lost its power. In these recordings groups have records of different
// sizes: without a list that is what tells their blocks apart.
TEST(KilledRecording, BringsBackBlocksThatAreWholeWhateverElseIsLost) {
  const CapturedDiagnostics diagnostics;
  for (const std::uint32_t seed : {2U, 4U, 7U, 8U, 33U, 37U}) {
    const MixedRecording recording(seed);
    const std::vector<LoggedWrite> log = logOf(recording);
    const RecoveryCheck check(log);
    for (std::uint32_t loss = 0; loss < 15 && !HasFailure(); ++loss) {
      SCOPED_TRACE(testing::Message() << recording.description() << ", loss " << loss);
      std::mt19937 random(loss);
      StandingFile file;
      const std::vector<TakenBlock> whole = loseSome(file, log, random);
      EXPECT_EQ(check.faults(file.path(), whole, RecoveryCheck::Allowed::DamagedBlocks), "");
    }
  }
}

// What the file of a process that was killed states is 0 records; its full blocks are there.
TEST(KilledRecording, IsReadForWhatIsThereAndSaysSo) {
  constexpr std::uint64_t kStartUs = 1'700'000'000'000'000;
  const CapturedDiagnostics diagnostics;
  const TempDir folder;
  const std::string path = folder.path("whole.mf4");
  const std::string killed = folder.path("killed.mf4");
  void* const recorder = createRecorder(false);
  startRecord(recorder, path.c_str(), kStartUs);
  const MdfCanMessage message;
  for (std::uint64_t i = 0; i < 3000; ++i) {
    ASSERT_EQ(saveCanMessage(recorder, kStartUs + 1000 * i, &message), 0);
  }
  std::filesystem::copy_file(path, killed);
  stopRecord(recorder, kStartUs + 3'000'000);
  deleteRecorder(recorder);

  const std::pair<std::string, std::uint64_t> files[] = {{killed, 5 * 512}, {path, 3000}};
  for (const auto& [name, records] : files) {
    SCOPED_TRACE(name);
    MdfColumnReader reader(name);
    ASSERT_TRUE(reader.open()) << reader.error();
    std::uint64_t most = 0;
    for (const MdfColumnGroup& group : reader.groups()) most = std::max(most, group.records);
    EXPECT_EQ(most, records);
    EXPECT_EQ(reader.problems(),
              name == path ? std::vector<std::string>()
                           : std::vector<std::string>{
                                 "a recording that was not finished: 1 data group has records and "
                                 "states 0 of them: taken for what is there"});
  }
}

// In a burst the lists are written behind the blocks. Readers find what a recovery finds.
TEST(KilledRecording, IsReadWithTheBlocksThatNoListNames) {
  constexpr std::uint64_t kStartUs = 1'700'000'000'000'000;
  const CapturedDiagnostics diagnostics;
  const TempDir folder;
  const std::string path = folder.path("whole.mf4");
  const std::string killed = folder.path("killed.mf4");
  void* const recorder = createRecorder(false);
  startRecord(recorder, path.c_str(), kStartUs);
  for (std::uint64_t i = 1; i <= 40'000; ++i) {
    MdfCanMessage message;
    message.BusChannel(static_cast<std::uint8_t>(1 + i % 3));
    message.Dir(i % 5 == 0);
    message.MessageId(static_cast<std::uint32_t>(i));
    ASSERT_EQ(saveCanMessage(recorder, kStartUs + 10 * i, &message), 0);
    if (i % 7'777 != 0) continue;
    std::filesystem::copy_file(path, killed, std::filesystem::copy_options::overwrite_existing);
    const MdfRecoveryReport report = recoverFile(killed, folder.path("recovered.mf4"));
    MdfColumnReader reader(killed);
    MdfColumnReader recovered(folder.path("recovered.mf4"));
    ASSERT_TRUE(reader.open() && recovered.open());
    ASSERT_EQ(reader.groups().size(), recovered.groups().size());
    for (std::size_t g = 0; g < reader.groups().size(); ++g) {
      const auto group = static_cast<std::int32_t>(g);
      std::vector<std::int64_t> got(reader.groups()[g].records);
      std::vector<std::int64_t> want(recovered.groups()[g].records);
      EXPECT_EQ(reader.readNanoseconds(group, 0, got.size(), got.data()), std::ssize(got));
      EXPECT_EQ(recovered.readNanoseconds(group, 0, want.size(), want.data()), std::ssize(want));
      EXPECT_TRUE(got == want) << "after " << i << " frames, group " << g << ": " << got.size()
                               << " instead of " << want.size();
    }
  }
  stopRecord(recorder, kStartUs + 3'000'000);
  deleteRecorder(recorder);
}

}  // namespace
}  // namespace tolvex::test
