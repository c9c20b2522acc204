// What comes back of recordings after a loss of power, and what flushing makes of that.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Mdf4/format/BlockRecords.h"
#include "tests/kill/MixedRecording.h"
#include "tests/support/Diagnostics.h"

namespace tolvex::test {
namespace {

constexpr std::uint64_t kPage = 4096;  // bytes

// A disk with a cache. What was written before a flush is on it; of what came later it has, page by
// page, as much as it likes, in whatever order.
class CachingDisk {
 public:
  void write(const LoggedWrite& write) { cached_.push_back(&write); }
  void flush() {
    for (const LoggedWrite* write : cached_) apply(*write, 0, kAll);
    cached_.clear();
  }
  // The flushed bytes.
  const Bytes& bytes() const { return bytes_; }
  void losePower(std::mt19937& random) {
    const std::size_t flushed = bytes_.size();
    std::map<std::uint64_t, std::size_t> applied;  // writes, by page
    for (std::size_t i = 0; i < cached_.size(); ++i) {
      const std::uint64_t end = cached_[i]->position + cached_[i]->bytes.size();
      for (std::uint64_t page = cached_[i]->position / kPage; page * kPage < end; ++page) {
        const auto [entry, isNew] = applied.try_emplace(page, 0);
        if (isNew) entry->second = versionOf(random);
        if (i < entry->second) apply(*cached_[i], page * kPage, (page + 1) * kPage);
      }
    }
    std::size_t longest = flushed;
    for (const LoggedWrite* write : cached_) {
      longest = std::max(longest, inMemory(write->position + write->bytes.size()));
    }
    const std::size_t some = flushed + random() % (longest - flushed + 1);
    bytes_.resize(random() % 2 == 0 ? longest : some);
  }

 private:
  static constexpr std::uint64_t kAll = ~std::uint64_t{0};

  // How many of the writes a page has: none, all or some.
  std::size_t versionOf(std::mt19937& random) const {
    const auto choice = random() % 3;
    return choice == 0 ? 0 : choice == 1 ? cached_.size() : random() % (cached_.size() + 1);
  }
  // The part of the write between two positions.
  void apply(const LoggedWrite& write, std::uint64_t from, std::uint64_t to) {
    from = std::max(from, write.position);
    to = std::min(to, write.position + write.bytes.size());
    if (bytes_.size() < to) bytes_.resize(inMemory(to));
    std::copy_n(write.bytes.begin() + static_cast<std::ptrdiff_t>(from - write.position), to - from,
                bytes_.begin() + static_cast<std::ptrdiff_t>(from));
  }

  Bytes bytes_;
  std::vector<const LoggedWrite*> cached_;
};

// The blocks of records that lists count.
std::vector<TakenBlock> countedBlocks(const Bytes& file) {
  std::vector<TakenBlock> blocks;
  const auto headerAt = [&](Link at) {
    BlockHeader header = {};
    std::memcpy(&header, file.data() + at, sizeof header);
    return header;
  };
  for (Link at = kIdBlockSize; at + kBlockHeaderSize <= file.size(); at += 8) {
    const BlockHeader header = headerAt(at);
    if (header.marker != kBlockMarker || header.type != block_type::kDL) continue;
    const std::uint8_t* const links = file.data() + at + kBlockHeaderSize;
    const std::uint8_t* const record = links + header.linkCount * kLinkSize;
    const auto count = loadNumber<std::uint32_t>(record + offsetof(m4DLRecord, dl_count));
    for (std::size_t i = link::dl_data; i < link::dl_data + count; ++i) {
      const auto block = loadNumber<Link>(links + i * kLinkSize);
      blocks.push_back({block, headerAt(block).length});
    }
  }
  return blocks;
}

class FileInMemory {
 public:
  explicit FileInMemory(const Bytes& bytes) : descriptor_(::memfd_create("log", MFD_CLOEXEC)) {
    const auto size = static_cast<ssize_t>(bytes.size());
    EXPECT_EQ(::write(descriptor_, bytes.data(), bytes.size()), size);
  }
  ~FileInMemory() { ::close(descriptor_); }
  FileInMemory(const FileInMemory&) = delete;
  FileInMemory& operator=(const FileInMemory&) = delete;

  std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

 private:
  int descriptor_;
};

// All records of blocks that were on the disk with the list that counts them, and none twice,
// whatever else is lost.
TEST(PowerLoss, KeepsWhatWasFlushed) {
  const CapturedDiagnostics diagnostics;
  const char* const chosen = std::getenv("TOLVEX_POWER_LOSS_SEEDS");
  const unsigned long seeds = chosen != nullptr ? std::strtoul(chosen, nullptr, 10) : 8;
  std::size_t kept = 0;
  std::size_t losses = 0;
  for (std::uint32_t seed = 1; seed <= seeds; ++seed) {
    const MixedRecording recording(seed);
    const std::vector<LoggedWrite> log = logOf(recording);
    const RecoveryCheck check(log);
    std::mt19937 random(seed);
    for (int loss = 0; loss < 30; ++loss) {
      // Most writes describe groups: of two losses one falls behind those.
      const std::size_t some = random() % 2 == 0 ? 0 : log.size() - 60;
      const std::size_t last = some + random() % (log.size() - some);
      std::size_t first = last;  // of the file
      while (first > 0 && log[first - 1].file == log[last].file) --first;
      const std::size_t flushed = random() % 4 == 0 ? first : first + random() % (last - first + 1);
      SCOPED_TRACE(testing::Message()
                   << recording.description() << ", loss " << loss << " behind write " << last
                   << ", flushed before " << flushed);
      CachingDisk disk;
      for (std::size_t i = first; i <= last; ++i) {
        if (i == flushed) disk.flush();
        disk.write(log[i]);
      }
      const std::vector<TakenBlock> promised = countedBlocks(disk.bytes());
      disk.losePower(random);
      const FileInMemory file(disk.bytes());
      EXPECT_EQ(check.faults(file.path(), promised, RecoveryCheck::Allowed::LostPages), "");
      kept += promised.size();
      ++losses;
    }
  }
  EXPECT_GT(kept, 0U) << "nothing was there to keep";
  std::printf("[   INFO   ] %zu losses, %zu flushed blocks\n", losses, kept);
}

}  // namespace
}  // namespace tolvex::test
