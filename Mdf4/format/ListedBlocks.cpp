#include "Mdf4/format/ListedBlocks.h"

#include <algorithm>
#include <iterator>

#include "Mdf4/format/BlockBytes.h"
#include "Mdf4/format/BlockScan.h"
#include "Mdf4/format/BlockTraits.h"
#include "Mdf4/format/CompressedData.h"
#include "Mdf4/format/m4DataStream.h"

namespace tolvex {
namespace {

// Bytes that a block may have behind its record, for what later versions of the format add.
constexpr std::uint64_t kMostSurplus = 4096;

constexpr std::uint16_t kAsLongAsTheirRecord[] = {
    block_type::kHD, block_type::kFH, block_type::kDG, block_type::kCG, block_type::kCN,
    block_type::kSI, block_type::kSR, block_type::kEV, block_type::kCH, block_type::kHL};

// The length of a block as its record's counts need it; 0 when they do not tell, or when so much
// lies not in the file.
std::uint64_t neededLength(DirectFile& file, std::uint64_t position, const BlockHeader& header) {
  using namespace block_type;
  const std::uint64_t room = file.end() - position;
  if (header.linkCount > room / kLinkSize) return 0;
  std::uint64_t length = kBlockHeaderSize + header.linkCount * kLinkSize;
  const auto record = [&](auto& bytes) {
    return file.holds(position + length, sizeof bytes) &&
           file.ReadAt(position + length, sizeof bytes, &bytes);
  };
  std::uint64_t behind = 0;  // the record
  m4CCRecord conversion = {};
  m4DLRecord list = {};
  if (header.type == kCC) {
    if (!record(conversion)) return 0;
    behind = conversion.cc_val_count * sizeof(double);
  } else if (header.type == kDL) {
    // With times, angles or distances it has more of them.
    if (!record(list) || list.dl_count >= header.linkCount || list.dl_flags > kDlFlagEqualLength) {
      return 0;
    }
    const bool isEqual = (list.dl_flags & kDlFlagEqualLength) != 0;
    behind = (isEqual ? 1 : list.dl_count) * sizeof(std::uint64_t);
  } else if (std::ranges::find(kAsLongAsTheirRecord, header.type) ==
             std::end(kAsLongAsTheirRecord)) {
    return 0;
  }
  length += traitsOf(header.type).leastData + behind;
  return length <= room ? length : 0;
}

// Whether a block, or the file's end, stands where one that ends at `end` would be followed.
bool isFollowed(DirectFile& file, std::uint64_t end) {
  const std::uint64_t position = alignUp(end);
  return end == file.end() || position == file.end() || scanBlock(file, position).isBlock();
}

}  // namespace

bool readSoundHeader(DirectFile& file, std::uint64_t position, BlockHeader& header) {
  if (position == 0) return false;
  const BlockScan scan = scanBlock(file, position);
  header = scan.header;
  if (!scan.isBlock() || scan.has(HeaderFault::FewLinks) || scan.has(HeaderFault::ManyLinks)) {
    return false;
  }
  const bool fits = scan.sound();
  const std::uint64_t needed = neededLength(file, position, header);
  if (needed == 0 || header.length == needed) return fits;
  // Of two lengths the one is right behind whose end a block stands.
  const bool followed = isFollowed(file, position + needed);
  const bool right = header.length > needed
                         ? !followed && header.length - needed <= kMostSurplus
                         : !followed || isFollowed(file, position + header.length);
  if (fits ? right : !followed) return fits;
  header.length = needed;
  return true;
}

bool ListedBlocks::next(ListedBlock& block) {
  while (!walk_.done()) {
    const DataLink& link = walk_.link();
    if (link.role != DataLink::Entry) {
      enter(link.target, block);
      return true;
    }
    const bool isUsed = readEntry(block);
    walk_.pass();
    if (isUsed) return true;
  }
  if (!nextIsUnreadable_) return false;
  nextIsUnreadable_ = false;  // there may be more, nobody knows where
  block = {};
  block.position = walk_.list().position;
  block.elsewhere = true;
  block.ends = true;
  return true;
}

// A list, or the one data block of the chain.
void ListedBlocks::enter(std::uint64_t position, ListedBlock& block) {
  block = {};
  block.position = position;
  block.elsewhere = true;
  block.ends = true;
  BlockHeader header;
  nextIsUnreadable_ = false;
  if (!readSoundHeader(file_, position, header) || !isDataList(header.type)) {
    settle(block, true);
    block.elsewhere = block.kind == ListedBlock::Missing && !isUnwritten(position);
    walk_.pass();
    return;
  }
  if (!walk_.enter(scanHeader(header, position, file_.end()))) {
    walk_.pass();
    return;
  }
  block.kind = ListedBlock::List;
  block.type = header.type;
  block.size = header.length;
  if (header.type != block_type::kHL) countEntries();
}

// Entries are what has a link: a count can be damaged, or older than the links; one behind the
// count names the block that was being written.
void ListedBlocks::countEntries() {
  const DataList& list = walk_.list();
  nextIsUnreadable_ = list.nextIsUnreadable;
  counted_ = std::min(list.stated, list.room);
  if (list.columns) return;
  const bool possible = list.stated <= list.room;
  std::uint64_t entries = list.room;
  while (entries > (possible ? list.stated : 0) && walk_.linkAt(entries) == 0) --entries;
  if (!possible) counted_ = entries;
  hasOffsets_ = list.lengthCount >= entries;
  walk_.setEntries(entries);
}

std::optional<std::uint64_t> ListedBlocks::expectedBytes() const {
  const DataList& list = walk_.list();
  if (equalLength() != 0) return equalLength();
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  if (list.columns || (!list.hasEqualLength && !hasOffsets_) ||
      !walk_.readLength(walk_.entry(), start) || !walk_.readLength(walk_.entry() + 1, end) ||
      end < start) {
    return std::nullopt;
  }
  return end - start;
}

// False for an entry that is not used yet, or that misses a block without data.
bool ListedBlocks::readEntry(ListedBlock& block) {
  block = {};
  block.position = walk_.link().target;
  block.columns = walk_.list().columns;
  if (block.columns) block.invalidation = walk_.invalidationLink(counted_);
  if (block.position == 0 && block.columns) return false;
  block.expected = expectedBytes();
  settle(block, walk_.isLastEntry());
  block.uncounted = walk_.entry() >= counted_;
  block.elsewhere = block.kind == ListedBlock::Missing && !isUnwritten(block.position);
  return block.kind == ListedBlock::Data || (!block.uncounted && block.expected != 0);
}

// Whether a block, or the file's end, stands where one that ends at `end` would be followed.
bool ListedBlocks::followedByBlock(std::uint64_t end) const {
  const std::uint64_t position = alignUp(end);
  if (end == file_.end() || position == file_.end()) return true;
  BlockHeader header;
  return end < file_.end() && readSoundHeader(file_, position, header);
}

// The same where the writer may have padded the block twice.
bool ListedBlocks::followedBehindPadding(std::uint64_t end) const {
  return followedByBlock(end) || followedByBlock(end + kBlockAlignment);
}

// Whether nothing was written behind the kind of a data block.
bool ListedBlocks::beginsWithZeros(std::uint64_t position) const {
  return file_.areZeros(position + offsetof(BlockHeader, reserved), position + 128);
}

// Whether a block that is missing at the position never came to it, or was lost there.
bool ListedBlocks::isUnwritten(std::uint64_t position) const {
  return position >= file_.end() || beginsWithZeros(position);
}

// Whether that many bytes come out of the compressed block.
bool ListedBlocks::inflatesTo(std::uint64_t position, std::uint64_t bytes) const {
  if (bytes == 0 || bytes > BlockBytes::kLargestInflated) return false;
  m4DataStream stream(file_, position);
  while (bytes != 0) {
    const std::uint64_t got = stream.next(bytes).size();
    if (got == 0) return false;
    bytes -= got;
  }
  return true;
}

// Finds out how much data the block holds: what its list states, or less if it `mayBeShorter`.
void ListedBlocks::settle(ListedBlock& block, bool mayBeShorter) {
  block.kind = ListedBlock::Missing;
  std::optional<std::uint64_t>& expected = block.expected;
  if (expected > mostInflated(file_.end())) expected.reset();
  block.bytes = expected.value_or(0);
  if (block.position == 0) return;
  const BlockScan scan = scanBlock(file_, block.position, HeaderRead::Passing);
  if (scan.has(HeaderFault::Unreadable)) settleHeadless(block);
  if (!scan.isBlock()) return;
  const BlockHeader& header = scan.header;
  const std::uint64_t present = file_.end() - block.position - kBlockHeaderSize;
  std::uint64_t stated = 0;
  if (header.type == block_type::kDZ) {
    CompressedData data;
    if (!data.read(file_, block.position, header) || header.linkCount != 0 || !data.hasRecord() ||
        data.dataBytes > present || !data.mayGive(data.record.dz_org_data_length)) {
      return;
    }
    stated = data.dataBytes;
    block.bytes = data.record.dz_org_data_length;
    if (expected && block.bytes != expected && !inflatesTo(block.position, block.bytes)) {
      block.bytes = *expected;
      block.repaired = true;
    }
  } else if (isPlainData(header.type)) {
    if (!header.dataLength(stated) || header.linkCount != 0) {
      if (!expected || expected > present || beginsWithZeros(block.position)) return;
      stated = *expected;
    }
    const std::uint64_t start = block.position + kBlockHeaderSize;
    if (expected && stated != expected && expected <= present &&
        (stated > present || !followedByBlock(start + stated)) &&
        (mayBeShorter ? followedByBlock(start + *expected)
                      : followedBehindPadding(start + *expected))) {
      stated = *expected;
      block.repaired = true;
    }
    block.cut = stated > present;
    stated = std::min(stated, present);
    block.bytes = stated;
  } else {
    return;
  }
  block.kind = ListedBlock::Data;
  block.type = header.type;
  block.size = kBlockHeaderSize + stated;
}

// Of a block whose header cannot be read, the list knows how long it is; where another block stands
// behind so many bytes, they are not compressed.
void ListedBlocks::settleHeadless(ListedBlock& block) const {
  const std::uint64_t start = block.position + kBlockHeaderSize;
  if (block.bytes == 0 || !file_.holds(start, block.bytes)) return;
  const std::uint64_t end = start + block.bytes;
  if (!followedBehindPadding(end)) return;
  block.kind = ListedBlock::Data;
  block.type = block_type::kDT;
  block.size = kBlockHeaderSize + block.bytes;
  block.headless = true;
}

}  // namespace tolvex
