#include "Mdf4/recovery/LooseBlocks.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <string>

#include "Mdf4/format/BlockLoader.h"
#include "Mdf4/format/Diagnostics.h"
#include "Mdf4/reader/ChannelDescription.h"
#include "Mdf4/recovery/LinkRules.h"
#include "Mdf4/recovery/RecoveryNotes.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kAlignment = 8;
constexpr std::uint64_t kLargestRecord = 1 << 20;  // bytes that are looked at

bool isRecordBlock(std::uint16_t type) {
  return type == block_type::kDT || type == block_type::kDV || type == block_type::kDZ;
}

std::uint64_t bitsOf(const std::vector<std::uint8_t>& record, const RecordField& field) {
  std::uint64_t value = 0;
  for (std::uint32_t i = 0; i < std::min<std::uint32_t>(field.bits, 64); ++i) {
    const std::uint64_t at = std::uint64_t{field.byteOffset} * 8 + field.bitOffset + i;
    if (at / 8 >= record.size()) break;
    value |= std::uint64_t{record[at / 8] >> at % 8 & 1U} << i;
  }
  return value;
}

}  // namespace

LooseBlocks::LooseBlocks(DirectFile& in, OwnedRanges& owned, TreeCopy& tree, DataSurvey& survey,
                         bool unfinished)
    : in_(in), owned_(owned), tree_(tree), survey_(survey), unfinished_(unfinished) {}

// The first position of a block's place from `at` on where a header may begin; 0 when there is none
// in front of `end`.
std::uint64_t LooseBlocks::nextMarker(std::uint64_t at, std::uint64_t end) {
  std::array<std::uint8_t, 16 * 1024> piece;
  while (at < end && end - at >= kBlockHeaderSize) {
    const std::uint64_t size = std::min<std::uint64_t>(piece.size(), end - at);
    const WritableBytes bytes = std::span(piece).first(size);
    const std::uint64_t got =
        in_.ReadAt(at, size, piece.data()) ? size : in_.readPieces(at, std::span(&bytes, 1));
    for (std::uint64_t i = 0; i + 1 < got; i += kAlignment) {
      if (piece[i] == '#' && piece[i + 1] == '#') return at + i;
    }
    at += got;
    if (got == size) continue;
    const ByteRange unreadable = in_.nextUnreadable(at, end);
    if (unreadable.start != at) break;
    at = (unreadable.end + kAlignment - 1) / kAlignment * kAlignment;
  }
  return 0;
}

std::uint64_t LooseBlocks::find(std::uint64_t from, bool (*wanted)(std::uint16_t type)) {
  OwnedRanges::Range gap = owned_.nextGap(from, in_.end());
  for (; gap.start < gap.end; gap = owned_.nextGap(gap.end, in_.end())) {
    std::uint64_t at = (gap.start + kAlignment - 1) / kAlignment * kAlignment;
    while ((at = nextMarker(at, gap.end)) != 0) {
      ChainBlock block;
      BlockHeader header;
      if (readSoundHeader(in_, at, header) && header.length <= gap.end - at) {
        if (wanted(header.type)) return at;
        at += (header.length + kAlignment - 1) / kAlignment * kAlignment;
      } else if (DataChain(in_, at).next(block) && block.kind == ChainBlock::Data &&
                 block.size == gap.end - at && gap.end == in_.end() && wanted(block.type)) {
        return at;  // cut by the end of the file
      } else {
        at += kAlignment;
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

const SourceGroup* LooseBlocks::sortedGroup(const SourceData& data) const {
  if (data.groups.size() != 1 || data.recordIdSize != 0) return nullptr;
  const SourceGroup& group = tree_.groups()[data.groups[0]];
  return group.holdsValues() || group.recordSize() == 0 ? nullptr : &group;
}

// Whether there should be more records than the run has. A recording that never saw its end has not
// counted them.
bool LooseBlocks::misses(const SourceData& data, const DataRun& run) const {
  const SourceGroup* const group = sortedGroup(data);
  if (data.isLost) return true;
  if (!run.broken && run.lastList == 0 && run.blocks != 0) return false;  // one block is all
  if (group == nullptr) return run.broken || unfinished_;
  const std::uint64_t counted = group->record.cg_cycle_count;
  if (counted == 0) return data.dataLink != 0;
  return counted > run.bytes / group->recordSize();
}

bool LooseBlocks::readRecord(const SourceGroup& group, const ChainBlock& block,
                             std::uint64_t number, std::vector<std::uint8_t>& record) {
  const std::uint64_t size = group.recordSize();
  if (!isPlainData(block.type) || size > kLargestRecord || block.bytes / size <= number) {
    return false;
  }
  record.resize(size);
  return in_.ReadAt(block.position + kBlockHeaderSize + number * size, size, record.data());
}

bool LooseBlocks::sameBus(const SourceGroup& group, const ChainBlock& a, const ChainBlock& b) {
  std::vector<std::uint8_t> first;
  std::vector<std::uint8_t> second;
  if (!readRecord(group, a, 0, first) || !readRecord(group, b, 0, second)) return false;
  return bitsOf(first, group.busChannel) == bitsOf(second, group.busChannel) &&
         bitsOf(first, group.direction) == bitsOf(second, group.direction);
}

std::optional<LooseBlocks::Times> LooseBlocks::timesOf(const SourceGroup& group,
                                                       const ChainBlock& block) {
  if (group.master == 0 || !isPlainData(block.type)) return std::nullopt;
  const auto [entry, isNew] = masters_.try_emplace(group.master);
  if (isNew) {
    const auto channel = loadBlockAs<M4CNBlock>(in_, group.master);
    ChannelTexts numbers;
    auto conversion = std::make_shared<Conversion>();
    if (channel == nullptr) return std::nullopt;
    if (loadConversionNumbers(in_, channel->link(link::cn_cc_conversion), *conversion) != nullptr) {
      numbers.conversion = std::move(conversion);
    }
    entry->second = describeChannel(*channel, numbers, Tables::With);
  }
  const std::uint64_t records = block.bytes / group.recordSize();
  if (records == 0) return std::nullopt;
  Times times;
  std::vector<std::uint8_t> record;
  std::string text;
  if (!readRecord(group, block, 0, record) ||
      !entry->second.convertToPhysical(record.data(), record.size(), times.first, text) ||
      !readRecord(group, block, records - 1, record) ||
      !entry->second.convertToPhysical(record.data(), record.size(), times.last, text)) {
    return std::nullopt;
  }
  if (records > 1) times.spacing = (times.last - times.first) / static_cast<double>(records - 1);
  return times;
}

// Whether another group holds the same kind of frames: then each has those of one source.
bool LooseBlocks::sharesItsLayout(const SourceGroup& group) const {
  return std::ranges::any_of(tree_.groups(), [&](const SourceGroup& other) {
    return &other != &group && other.recordSize() == group.recordSize() &&
           other.report.name == group.report.name;
  });
}

// How well a block goes with a sorted group whose blocks hold `expected` bytes, but for the last;
// nothing when it does not.
std::optional<LooseBlocks::Rank> LooseBlocks::rankOf(const SourceGroup& group, const DataRun& run,
                                                     const ChainBlock& block,
                                                     std::uint64_t expected) {
  constexpr std::uint64_t kRecordsPerBlock = 512;  // as tolvex records
  const std::uint64_t size = group.recordSize();
  const std::uint64_t counted = group.record.cg_cycle_count;
  const std::uint64_t records = (run.bytes + block.bytes) / size;
  if (expected < size) return std::nullopt;
  Rank rank;
  if (run.equalLength != 0) {
    rank.full = expected == run.equalLength;
    if (!rank.full && (expected > run.equalLength || expected % size != 0)) return std::nullopt;
  } else {
    // Its lists are lost. It may end in a shorter block.
    rank.full = expected == kRecordsPerBlock * size;
    const bool isLast = run.blocks != 0 && expected < kRecordsPerBlock * size;
    if (counted != 0 ? records > counted : !rank.full && !isLast) return std::nullopt;
    if (!rank.full && expected % size != 0) return std::nullopt;
  }
  if (run.first && (group.busChannel.bits != 0 || group.direction.bits != 0)) {
    rank.sameBus = sameBus(group, *run.first, block);
    if (!rank.sameBus && sharesItsLayout(group)) return std::nullopt;
  }
  // The first block of a list is put directly behind it.
  constexpr std::uint64_t kPadding = 2 * kAlignment;
  rank.behindList = run.lastList != 0 && (!run.last || run.last->position < run.lastList) &&
                    block.position >= run.lastListEnd &&
                    block.position - run.lastListEnd < kPadding;
  rank.complete = counted != 0 && counted == records;
  const std::optional<Times> times = timesOf(group, block);
  const std::optional<Times> before = run.last ? timesOf(group, *run.last) : std::nullopt;
  rank.rises = !times || times->last >= times->first;
  if (times && before) {
    const bool paced = times->spacing > 0 && before->spacing > 0;
    const double slower = paced ? std::abs(std::log2(times->spacing / before->spacing)) : 0;
    const double pause = times->first - before->last;
    rank.goesOn = pause >= 0 && slower < 1;
    rank.nearness = -std::abs(pause);
  }
  if (run.last) rank.waiting = -static_cast<double>(run.last->position);
  return rank;
}

// The data group that a block belongs to.
std::optional<std::size_t> LooseBlocks::ownerOf(const ChainBlock& block, std::uint64_t expected,
                                                const std::vector<std::size_t>& runs) {
  constexpr std::uint64_t kMostEffort = 20'000'000;
  effort_ += runs.size();
  if (effort_ > kMostEffort) return std::nullopt;
  std::optional<std::size_t> owner;
  Rank best;
  for (std::size_t i = 0; i < runs.size(); ++i) {
    const SourceData& data = tree_.data()[i];
    const DataRun& run = survey_.runs()[runs[i]];
    if (!misses(data, run)) continue;
    if (!run.broken && run.last && block.position < run.last->position) continue;
    if (!run.broken && block.position < run.lastList) continue;
    std::optional<Rank> rank;
    if (const SourceGroup* const group = sortedGroup(data)) {
      rank = rankOf(*group, run, block, expected);
    } else {
      rank.emplace().nearness = -static_cast<double>(block.position - run.lastList);
    }
    if (!rank || (owner && !(best < *rank))) continue;
    owner = i;
    best = *rank;
  }
  return owner;
}

std::optional<std::size_t> LooseBlocks::ownerOfList(std::uint64_t position,
                                                    const std::vector<std::size_t>& runs) {
  DataChain chain(in_, position);
  ChainBlock list;
  ChainBlock block;
  if (!chain.next(list) || list.kind != ChainBlock::List || !chain.next(block) ||
      block.kind != ChainBlock::Data || !isRecordBlock(block.type)) {
    return std::nullopt;
  }
  return ownerOf(block, chain.equalLength() != 0 ? chain.equalLength() : block.bytes, runs);
}

// Gives a block whose length was not written yet all bytes up to the next block.
void LooseBlocks::extend(ChainBlock& block) {
  const std::uint64_t end = block.position + block.size;
  std::uint64_t limit = owned_.nextOwned(end, in_.end());
  if (const std::uint64_t next = find(end, isKnownBlock); next != 0) limit = std::min(limit, next);
  if (limit - end < kBlockHeaderSize) return;
  block.size += limit - end;
  block.bytes += limit - end;
}

void LooseBlocks::assign(const std::vector<std::size_t>& runs, bool openEnds,
                         MdfRecoveryReport& report) {
  std::uint64_t blocks = 0;
  std::uint64_t bytes = 0;
  std::uint64_t first = 0;
  for (std::uint64_t at = find(0, isRecordBlock); at != 0;) {
    ChainBlock block;
    DataChain(in_, at).next(block);
    block.uncounted = true;
    // A block that is cut still states how long it was to be.
    BlockHeader header;
    in_.ReadAt(at, kBlockHeaderSize, &header);
    if (openEnds && isPlainData(block.type)) extend(block);
    const std::uint64_t stated = block.cut ? header.length - kBlockHeaderSize : block.bytes;
    const std::optional<std::size_t> owner =
        block.kind == ChainBlock::Data ? ownerOf(block, stated, runs) : std::nullopt;
    if (owner) {
      survey_.addLoose(runs[*owner], block);
    } else if (block.bytes != 0) {
      if (blocks++ == 0) first = at;
      bytes += block.bytes;
    }
    at = find(at + std::max(block.size, kBlockHeaderSize), isRecordBlock);
  }
  if (blocks == 0) return;
  std::string text = formatText("%" PRIu64 " data blocks from %" PRIu64 " on: %" PRIu64
                                " bytes that belong to no group that misses them",
                                blocks, first, bytes);
  bool wanted = !report.losses.empty();
  for (std::size_t i = 0; i < runs.size(); ++i) {
    wanted = wanted || misses(tree_.data()[i], survey_.runs()[runs[i]]);
  }
  if (wanted) {
    noteLoss(report, std::move(text));
  } else {
    noteRepair(report, std::move(text));
  }
}

}  // namespace tolvex
