#include "Mdf4/recovery/LooseBlocks.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <string>
#include <utility>

#include "Mdf4/base/BitField.h"
#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockTraits.h"
#include "Mdf4/rewrite/Notes.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kLargestRecord = 1 << 20;  // bytes that are looked at

bool isRecordBlock(std::uint16_t type) {
  return type == block_type::kDT || type == block_type::kDV || type == block_type::kDZ;
}

// Whether the position is where a block is put behind the end of another one.
bool isBehind(std::uint64_t position, std::uint64_t end) {
  constexpr std::uint64_t kPadding = 2 * kBlockAlignment;
  return position >= end && position - end < kPadding;
}

std::uint64_t bitsOf(const std::vector<std::uint8_t>& record, const RecordField& field) {
  return BitField(field.byteOffset, field.bitOffset, field.bits).read(record);
}

}  // namespace

LooseBlocks::LooseBlocks(DirectFile& in, OwnedRanges& owned, TreeCopy& tree, BlockSurvey& survey,
                         bool unfinished)
    : in_(in), owned_(owned), tree_(tree), survey_(survey), unfinished_(unfinished) {}

// The first position of a block's place from `at` on where a header may begin; 0 when there is none
// in front of `end`.
std::uint64_t LooseBlocks::nextMarker(std::uint64_t at, std::uint64_t end) {
  std::array<std::uint8_t, 16 * 1024> piece;
  while (at < end && end - at >= kBlockHeaderSize) {
    const std::uint64_t size = std::min<std::uint64_t>(piece.size(), end - at);
    const WritableBytes bytes = std::span(piece).first(inMemory(size));
    const std::uint64_t got =
        in_.ReadAt(at, size, piece.data()) ? size : in_.readPieces(at, std::span(&bytes, 1));
    for (std::size_t i = 0; i + 1 < got; i += kBlockAlignment) {
      if (piece[i] == '#' && piece[i + 1] == '#') return at + i;
    }
    at += got;
    if (got == size) continue;
    const ByteRange unreadable = in_.reads().nextUnreadable(at, end);
    if (unreadable.start != at) break;
    at = alignUp(unreadable.end);
  }
  return 0;
}

std::uint64_t LooseBlocks::find(std::uint64_t from, bool (*wanted)(std::uint16_t type)) {
  OwnedRanges::Range gap = owned_.nextGap(from, in_.end());
  for (; gap.start < gap.end; gap = owned_.nextGap(gap.end, in_.end())) {
    std::uint64_t at = alignUp(gap.start);
    while ((at = nextMarker(at, gap.end)) != 0) {
      ListedBlock block;
      BlockHeader header;
      if (readSoundHeader(in_, at, header) && header.length <= gap.end - at) {
        if (wanted(header.type)) return at;
        at += alignUp(header.length);
      } else if (ListedBlocks(in_, at).next(block) && block.kind == ListedBlock::Data &&
                 block.size == gap.end - at && gap.end == in_.end() && wanted(block.type)) {
        return at;  // cut by the end of the file
      } else {
        at += kBlockAlignment;
      }
    }
  }
  return 0;
}

std::uint64_t LooseBlocks::findBehind(std::uint64_t position, bool (*wanted)(std::uint16_t type)) {
  BlockHeader header;
  const bool whole = readSoundHeader(in_, position, header);
  return find(position + (whole ? header.length : kBlockHeaderSize), wanted);
}

const SourceGroup* LooseBlocks::sortedGroup(const SourceData& data) {
  return data.isSorted() && data.groups[0]->recordSize() != 0 ? data.groups[0] : nullptr;
}

// Whether there should be more records than were found. A recording that never saw its end has
// not counted them.
bool LooseBlocks::misses(const SourceData& data) const {
  const FoundData& found = *data.found;
  const SourceGroup* const group = sortedGroup(data);
  if (data.isLost) return true;
  if (!found.broken && found.lastList == 0 && found.blocks != 0) return false;  // one block is all
  if (group == nullptr) return found.broken || unfinished_;
  const std::uint64_t counted = group->record.cg_cycle_count;
  if (counted == 0) return data.dataLink != 0;
  return counted > (found.bytes + found.lostBytes) / group->recordSize();
}

bool LooseBlocks::readRecord(const SourceGroup& group, const ListedBlock& block,
                             std::uint64_t number, std::vector<std::uint8_t>& record) {
  const std::uint64_t size = group.recordSize();
  if (!isPlainData(block.type) || size > kLargestRecord || block.bytes / size <= number) {
    return false;
  }
  record.resize(inMemory(size));
  return in_.ReadAt(block.position + kBlockHeaderSize + number * size, size, record.data());
}

// Whether the blocks are of one source. Records that are lost do not tell.
LooseBlocks::Claim LooseBlocks::sameBus(const SourceGroup& group, const ListedBlock& a,
                                        const ListedBlock& b) {
  std::vector<std::uint8_t> first;
  std::vector<std::uint8_t> second;
  for (const auto& [block, record] : {std::pair(&a, &first), std::pair(&b, &second)}) {
    if (!readRecord(group, *block, 0, *record) || areZeros(*record)) return Claim::Possible;
  }
  const bool same = bitsOf(first, group.busChannel) == bitsOf(second, group.busChannel) &&
                    bitsOf(first, group.direction) == bitsOf(second, group.direction);
  return same ? Claim::Certain : Claim::None;
}

// Whether another group holds the same kind of frames: then each has those of one source.
bool LooseBlocks::sharesItsLayout(const SourceGroup& group) const {
  return std::ranges::any_of(tree_.groups(), [&](const SourceGroup& other) {
    return &other != &group && other.recordSize() == group.recordSize() &&
           other.report.name == group.report.name;
  });
}

// Whether a block is the group's. Its blocks, and all those of its list if it `isListed`, hold
// `expected` bytes but for the last.
LooseBlocks::Claim LooseBlocks::claimOf(const SourceData& data, const ListedBlock& block,
                                        std::uint64_t expected, bool isListed) {
  const FoundData& found = *data.found;
  const bool hasLink = !isListed || data.dataLink != 0;
  if (hasLink && !misses(data)) return Claim::None;
  const std::uint64_t end = std::max(found.lastNamed, found.lastList);
  if (block.position < std::min(found.openFrom, end)) return Claim::None;
  const SourceGroup* const group = sortedGroup(data);
  if (group == nullptr) return Claim::Possible;

  constexpr std::uint64_t kRecordsPerBlock = 512;  // as tolvex records
  const std::uint64_t size = group->recordSize();
  const std::uint64_t counted = group->record.cg_cycle_count;
  const std::uint64_t records = (found.bytes + found.lostBytes + expected) / size;
  // A chain that has an end lacks no list.
  const bool hasEnd = found.lastList != 0 && found.openFrom == FoundData::kNowhere;
  if (isListed && hasEnd && counted == 0) return Claim::None;
  if (expected < size || expected % size != 0 || (counted != 0 && records > counted)) {
    return Claim::None;
  }
  if (!isListed && counted != 0 && records == counted) return Claim::Certain;
  const std::uint64_t full = found.equalLength != 0 ? found.equalLength : kRecordsPerBlock * size;
  if (found.equalLength != 0 && expected > full) return Claim::None;
  const bool isFirst =
      found.lastList != 0 && (!found.last || found.last->position < found.lastList);
  if (isFirst && isBehind(block.position, found.lastListEnd)) return Claim::Certain;
  // A shorter block is the last one, and what the recording counted at its end tells how long it
  // is.
  if (expected != full && expected != counted * size % full) return Claim::None;
  if (found.first && (group->busChannel.bits != 0 || group->direction.bits != 0) &&
      sharesItsLayout(*group)) {
    return sameBus(*group, *found.first, block);
  }
  return Claim::Possible;
}

// The data group that a block belongs to; null when more than one may be it.
SourceData* LooseBlocks::ownerOf(const ListedBlock& block, std::uint64_t expected, bool isListed) {
  constexpr std::uint64_t kMostEffort = 20'000'000;
  effort_ += tree_.data().size();
  if (effort_ > kMostEffort) return nullptr;
  Claim best = Claim::None;
  SourceData* owner = nullptr;
  std::size_t equals = 0;
  for (SourceData& data : tree_.data()) {
    const Claim claim = claimOf(data, block, expected, isListed);
    if (claim == Claim::None || claim < best) continue;
    equals = claim == best ? equals + 1 : 1;
    best = claim;
    owner = &data;
  }
  if (equals != 1) return nullptr;
  const bool mayBeLost = groupIsLost_ || block.position > tree_.firstLost();
  return best != Claim::Certain && mayBeLost ? nullptr : owner;
}

// A list that names nothing yet may have its first block behind it.
SourceData* LooseBlocks::ownerOfList(std::uint64_t position) {
  ListedBlocks chain(in_, position);
  ListedBlock list;
  ListedBlock block;
  if (!chain.next(list) || list.kind != ListedBlock::List) return nullptr;
  const std::uint64_t end = list.position + list.size;
  if (!chain.next(block) || block.kind != ListedBlock::Data || !isRecordBlock(block.type)) {
    groupIsLost_ |= isBehind(find(end, isRecordBlock), end);
    return nullptr;
  }
  SourceData* const owner =
      ownerOf(block, chain.equalLength() != 0 ? chain.equalLength() : block.bytes, true);
  groupIsLost_ |= owner == nullptr;
  return owner;
}

// Gives a block whose length was not written yet all bytes up to the next block.
void LooseBlocks::extend(ListedBlock& block) {
  const std::uint64_t end = block.position + block.size;
  std::uint64_t limit = owned_.nextOwned(end, in_.end());
  if (const std::uint64_t next = find(end, isKnownBlock); next != 0) limit = std::min(limit, next);
  if (limit - end < kBlockHeaderSize) return;
  block.size += limit - end;
  block.bytes += limit - end;
}

void LooseBlocks::assign(bool openEnds, MdfRecoveryReport& report) {
  std::uint64_t blocks = 0;
  std::uint64_t bytes = 0;
  std::uint64_t first = 0;
  for (std::uint64_t at = find(0, isRecordBlock); at != 0;) {
    ListedBlock block;
    if (!ListedBlocks(in_, at).next(block)) break;
    block.uncounted = true;
    if (openEnds && isPlainData(block.type)) extend(block);
    // A block that is cut still states how long it was to be.
    const std::uint64_t stated =
        block.cut ? scanBlock(in_, at).header.length - kBlockHeaderSize : block.bytes;
    const SourceData* const owner =
        block.kind == ListedBlock::Data ? ownerOf(block, stated, false) : nullptr;
    if (owner != nullptr) {
      survey_.addLoose(*owner->found, block);
    } else if (block.bytes != 0) {
      if (blocks++ == 0) first = at;
      bytes += block.bytes;
    }
    at = find(at + std::max(block.size, kBlockHeaderSize), isRecordBlock);
  }
  if (blocks == 0) return;
  std::string text = formatText("%" PRIu64 " data blocks from %" PRIu64 " on: %" PRIu64
                                " bytes that belong to no group for certain",
                                blocks, first, bytes);
  const bool wanted =
      groupIsLost_ || !report.losses.empty() ||
      std::ranges::any_of(tree_.data(), [this](const SourceData& data) { return misses(data); });
  if (wanted) {
    noteLoss(report, std::move(text));
  } else {
    noteRepair(report, std::move(text));
  }
}

}  // namespace tolvex
