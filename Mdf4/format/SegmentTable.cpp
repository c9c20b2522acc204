#include "Mdf4/format/SegmentTable.h"

#include <algorithm>
#include <cinttypes>
#include <initializer_list>
#include <iterator>
#include <numeric>
#include <optional>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockLoader.h"
#include "Mdf4/format/BlockTraits.h"
#include "Mdf4/format/CompressedData.h"
#include "Mdf4/format/ListedBlocks.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kUsualSegments = 1000;
constexpr std::uint64_t kMostReserved = 1 << 16;

// Kinds that a data link may lead to directly.
bool isDirectData(std::uint16_t type) {
  switch (type) {
    case block_type::kDT:
    case block_type::kSR:
    case block_type::kSD:
    case block_type::kRD:
    case block_type::kDZ:
    case block_type::kDV:
      return true;
    default:
      return false;
  }
}

// The header of the list behind this one; nothing where the chain ends.
std::optional<BlockScan> nextList(DirectFile& file, const ListWalk& walk, VisitedBlocks& visited) {
  const std::uint64_t position = walk.list().next;
  if (position == 0 || !visited.enter(position)) return std::nullopt;
  const std::optional<BlockScan> scan = scanBlockAt(file, position);
  return scan && !noteDamage(file, *scan) ? scan : std::nullopt;
}

// How many entries of a list have a link.
std::uint64_t entriesWithLink(DirectFile& file, const DataList& list) {
  const std::uint64_t links = std::max<std::uint64_t>(list.links, 1) - 1;
  if (list.stated <= links) return list.stated;
  file.report(formatText("list at %" PRIu64 ": it counts %" PRIu64
                         " data blocks and has links for %" PRIu64,
                         list.position, list.stated, links));
  return links;
}

// Whether an entry of a list leads into the file: where it does not, the rest of the data is
// absent, as in a file that was cut.
bool namesABlock(DirectFile& file, const ListWalk& walk) {
  const std::uint64_t position = walk.link().target;
  if (position != 0 && file.holds(position, kBlockHeaderSize)) return true;
  file.report(formatText("list at %" PRIu64 ": it names a data block at %" PRIu64
                         ", the file ends at %" PRIu64,
                         walk.list().position, position, file.end()));
  return false;
}

// The type of a data block whose writer did not come to state a length.
std::optional<std::uint16_t> openBlockAt(DirectFile& file, std::uint64_t position) {
  const BlockScan scan = scanBlock(file, position);
  const bool isOpen = scan.isBlock() && isPlainData(scan.header.type) &&
                      scan.header.linkCount == 0 && scan.header.length < kBlockHeaderSize;
  return isOpen ? std::optional(scan.header.type) : std::nullopt;
}

bool isOneOf(const DataSegment& segment, std::initializer_list<std::uint16_t> types,
             const char* refusal) {
  if (std::ranges::find(types, segment.type) != types.end()) return true;
  printDiagnostic("%s", refusal);
  return false;
}

}  // namespace

SegmentTable::SegmentTable(DirectFile& file, std::uint64_t dataLink, std::uint64_t expectedSize,
                           Empty empty)
    : empty_(empty) {
  valid_ = readLists(file, dataLink, expectedSize);
  if (!valid_) {
    if (file.isOpen()) {
      file.report(formatText("data at %" PRIu64 ": a listed block is missing or of a wrong kind",
                             dataLink));
    }
    data_.clear();
    invalidation_.clear();
    totalSize_ = 0;
    presentSize_ = 0;
  }
  finish(file);
}

SegmentTable SegmentTable::ofWhatIsThere(DirectFile& file, std::uint64_t dataLink,
                                         bool lastIsOpen) {
  SegmentTable table(Empty::IsPassed);
  VisitedBlocks visited(file);
  ListedBlocks blocks(file, dataLink);
  ListedBlock block;
  while (blocks.next(block)) {
    const bool isThere = block.kind != ListedBlock::Missing;
    if (isThere && !visited.enter(block.position)) break;
    if (block.kind == ListedBlock::List) continue;
    const std::optional<std::uint16_t> open =
        lastIsOpen && !isThere ? openBlockAt(file, block.position) : std::nullopt;
    if (open) block.type = *open;
    if (!isThere && !open && block.bytes == 0) {
      file.report(formatText("data at %" PRIu64 ": no data block is at %" PRIu64
                             "; those behind it are not read",
                             dataLink, block.position));
      break;
    }
    table.columnStorage_ |= block.columns;
    DataSegment segment;
    segment.position = block.position + kBlockHeaderSize;
    segment.length = block.bytes;
    segment.type = block.type;
    segment.checked = true;
    segment.damaged = !isThere && !open;
    if (open) segment.length = 0;
    if (!table.append(file, segment, 0) || open) break;
    if (block.columns) table.addInvalidation(file, block.invalidation, visited);
  }
  table.valid_ = true;
  table.finish(file);
  return table;
}

void SegmentTable::extendLast(std::uint64_t end) {
  if (count() == 0) return;
  DataSegment& last = data_[count() - 1];
  if (last.type == block_type::kDZ || last.damaged || end <= last.position + last.length) return;
  const std::uint64_t more = end - last.position - last.length;
  last.length += more;
  presentSize_ += more;
  totalSize_ += more;
  data_.back().start = totalSize_;
  emptyStarts_.back() = totalSize_;
}

void SegmentTable::append(DirectFile& file, std::uint64_t position, std::uint64_t length) {
  data_.pop_back();
  emptyStarts_.pop_back();
  DataSegment segment;
  segment.position = position;
  segment.length = length;
  segment.type = block_type::kDT;
  segment.checked = true;
  if (!byPosition_.empty()) byPosition_.push_back(data_.size());
  static_cast<void>(append(file, segment, 0));
  DataSegment terminator;
  terminator.start = totalSize_;
  data_.push_back(terminator);
  emptyStarts_.push_back(totalSize_);
}

// The invalidation block beside the last segment, as far as it is sound.
void SegmentTable::addInvalidation(DirectFile& file, std::uint64_t position,
                                   VisitedBlocks& visited) {
  DataSegment invalidation;
  if (position != 0) {
    invalidation.damaged = !readSegment(file, position, invalidation) || !visited.enter(position);
  }
  invalidation_.push_back(invalidation);
}

bool SegmentTable::readLists(DirectFile& file, std::uint64_t dataLink, std::uint64_t expectedSize) {
  ListWalk walk(file, dataLink);
  std::optional<BlockScan> first = scanBlockAt(file, dataLink);
  if (first && first->header.type == block_type::kHL) {
    if (noteDamage(file, *first) || !walk.enter(*first)) return true;
    first = scanBlockAt(file, walk.link().target);
  }
  if (!first) return true;
  const std::uint16_t type = first->header.type;
  if (isDirectData(type)) {
    DataSegment segment;
    return readSegment(file, first->position, segment) && append(file, segment, expectedSize);
  }
  if (!isDataList(type) || type == block_type::kHL || noteDamage(file, *first)) return true;
  return readChain(file, walk, *first, expectedSize);
}

bool SegmentTable::readChain(DirectFile& file, ListWalk& walk, const BlockScan& first,
                             std::uint64_t expectedSize) {
  VisitedBlocks visited(file);
  static_cast<void>(visited.enter(first.position));
  for (std::optional<BlockScan> list = first; list;) {
    if (list->header.type != first.header.type) return false;
    if (!file.budget().takeLoad(list->header.length) || !walk.enter(*list)) return true;
    columnStorage_ = walk.list().columns;
    list = nextList(file, walk, visited);
    if (!list) walk.endChain();
    walk.setEntries(entriesWithLink(file, walk.list()));
    for (; walk.link().role == DataLink::Entry; walk.pass()) {
      const Entry entry = columnStorage_ ? readColumnEntry(file, walk, visited, expectedSize)
                                         : readDataEntry(file, walk, expectedSize);
      if (entry != Entry::Listed) return entry == Entry::Absent;
    }
  }
  return true;
}

SegmentTable::Entry SegmentTable::readDataEntry(DirectFile& file, const ListWalk& walk,
                                                std::uint64_t expectedSize) {
  if (!namesABlock(file, walk)) return Entry::Absent;
  const std::uint64_t position = walk.link().target;
  DataSegment segment;
  if (walk.list().equalLength != 0 && !walk.isLastEntry()) {
    segment.position = position + kBlockHeaderSize;
    segment.length = walk.list().equalLength;
  } else if (!readSegment(file, position, segment)) {
    return Entry::Wrong;
  }
  return append(file, segment, expectedSize) ? Entry::Listed : Entry::Wrong;
}

SegmentTable::Entry SegmentTable::readColumnEntry(DirectFile& file, const ListWalk& walk,
                                                  VisitedBlocks& visited,
                                                  std::uint64_t expectedSize) {
  using namespace block_type;
  DataSegment segment;
  if (walk.link().target != 0) {
    if (!namesABlock(file, walk)) return Entry::Absent;
    if (!readSegment(file, walk.link().target, segment) ||
        !isOneOf(segment, {kDV, kRV, kDZ},
                 "m4DataStream::initSize: blk.hdr_id!=M4ID_DV | M4ID_RV | M4ID_DZ\n")) {
      return Entry::Wrong;
    }
  }
  if (!append(file, segment, expectedSize)) return Entry::Wrong;
  DataSegment invalidation;
  if (const std::uint64_t beside = walk.invalidationLink(walk.list().stated); beside != 0) {
    if (!readSegment(file, beside, invalidation) ||
        !isOneOf(invalidation, {kDI, kRI, kDZ},
                 "m4DataStream::initSize: blk.hdr_id!=M4ID_DV | M4ID_DI | M4ID_RV | M4ID_RI | "
                 "M4ID_DZ\n")) {
      return Entry::Wrong;
    }
    invalidation.damaged |= !visited.enter(beside);
  }
  invalidation_.push_back(invalidation);
  return Entry::Listed;
}

// Position, length and type from the block's own header.
bool SegmentTable::readSegment(DirectFile& file, std::uint64_t blockPosition,
                               DataSegment& segment) {
  BlockHeader header;
  if (!readBlockHeader(file, blockPosition, header)) return false;
  segment.position = blockPosition + kBlockHeaderSize;
  segment.type = header.type;
  if (!header.dataLength(segment.length)) return false;
  if (header.type == block_type::kDZ) {
    CompressedData data;
    if (!data.read(file, blockPosition, header)) return false;
    segment.length = data.record.dz_org_data_length;
    if (!data.mayGive(segment.length)) {
      segment.checked = true;
      damage(file, segment, mostInflated(data.record.dz_data_length));
    }
  } else if (!file.holds(segment.position, segment.length)) {
    file.report(formatText("data block at %" PRIu64 ": it states %" PRIu64
                           " bytes of data, the file ends at %" PRIu64,
                           blockPosition, segment.length, file.end()));
  }
  return true;
}

bool SegmentTable::append(DirectFile& file, const DataSegment& segment,
                          std::uint64_t expectedSize) {
  if (segment.length > ~std::uint64_t{0} - totalSize_) return false;
  if (data_.empty()) {
    // Only to spare small tables the growing: what was expected and the file's size may be lies.
    const std::uint64_t wanted = expectedSize == 0 || segment.length == 0
                                     ? kUsualSegments
                                     : expectedSize / segment.length + 2;
    data_.reserve(inMemory(std::min(wanted, kMostReserved)));
  }
  data_.push_back(segment);
  data_.back().start = totalSize_;
  totalSize_ += segment.length;
  if (segment.type == block_type::kDZ || segment.type == 0) {
    // Possibly compressed: what the whole file can inflate to bounds it.
    if (!segment.damaged) presentSize_ += std::min(segment.length, mostInflated(file.end()));
  } else if (segment.position < file.end()) {
    presentSize_ += std::min(segment.length, file.end() - segment.position);
  }
  return true;
}

void SegmentTable::finish(DirectFile& file) {
  DataSegment terminator;
  terminator.start = totalSize_;
  for (const DataSegment& segment : data_) {
    if (segment.length == 0 && empty_ == Empty::EndsReading) emptyStarts_.push_back(segment.start);
  }
  if (!emptyStarts_.empty() && emptyStarts_.front() != totalSize_) {
    file.report(formatText("data of %" PRIu64
                           " bytes: reading ends at an empty block after %" PRIu64 " bytes",
                           totalSize_, emptyStarts_.front()));
  }
  emptyStarts_.push_back(totalSize_);
  const auto byPosition = [](const DataSegment& a, const DataSegment& b) {
    return a.position < b.position;
  };
  if (!std::is_sorted(data_.begin(), data_.end(), byPosition)) {
    byPosition_.resize(data_.size());
    std::iota(byPosition_.begin(), byPosition_.end(), std::size_t{0});
    std::ranges::stable_sort(byPosition_, {},
                             [this](std::size_t index) { return data_[index].position; });
  }
  data_.push_back(terminator);
  if (!invalidation_.empty()) invalidation_.push_back({});
  if (data_.capacity() > data_.size() + data_.size() / 4) data_.shrink_to_fit();
}

DataSegment& SegmentTable::invalidation(std::size_t index) {
  return index < invalidation_.size() ? invalidation_[index] : data_.back();
}

std::size_t SegmentTable::find(std::uint64_t offset) const {
  if (offset >= totalSize_) return count();
  // The last segment that starts at or before the offset; empty ones start where the next does.
  const auto after = std::upper_bound(
      data_.begin(), data_.end() - 1, offset,
      [](std::uint64_t value, const DataSegment& segment) { return value < segment.start; });
  return static_cast<std::size_t>(std::distance(data_.begin(), after)) - 1;
}

std::uint64_t SegmentTable::limitAfter(std::uint64_t offset) const {
  const auto limit = std::upper_bound(emptyStarts_.begin(), emptyStarts_.end(), offset);
  return limit == emptyStarts_.end() ? totalSize_ : *limit;
}

bool SegmentTable::damage(DirectFile& file, DataSegment& segment, std::uint64_t found) {
  segment.damaged = true;
  file.report(formatText("data block at %" PRIu64 ": expected %" PRIu64
                         " bytes of data, found %" PRIu64,
                         segment.position - kBlockHeaderSize, segment.length, found));
  return false;
}

bool SegmentTable::settle(DirectFile& file, std::size_t index) {
  DataSegment& segment = data_[index];
  if (segment.checked) return !segment.damaged;
  BlockHeader header = {.marker = 0};
  const std::uint64_t failed = file.reads().failures();
  if (!file.ReadAt(segment.position - kBlockHeaderSize, kBlockHeaderSize, &header)) {
    if (file.reads().failures() != failed) return false;  // it may be sound
    segment.checked = true;
    return damage(file, segment, 0);
  }
  return settle(file, index, header);
}

bool SegmentTable::settle(DirectFile& file, std::size_t index, const BlockHeader& header) {
  DataSegment& segment = data_[index];
  if (segment.checked) return !segment.damaged;
  segment.checked = true;
  segment.type = header.type;
  std::uint64_t dataLength = 0;
  if (!isBlockHeader(header, segment.position - kBlockHeaderSize) ||
      !header.dataLength(dataLength)) {
    return damage(file, segment, 0);
  }
  if (segment.type != block_type::kDZ && dataLength < segment.length) {
    return damage(file, segment, dataLength);
  }
  const std::uint64_t room = roomOf(index);
  if (header.length > room) return damage(file, segment, room);
  return true;
}

// The distance to the next listed block. None for a block that is listed a second time.
std::uint64_t SegmentTable::roomOf(std::size_t index) const {
  constexpr std::uint64_t kNoLimit = ~std::uint64_t{0};
  const std::uint64_t position = data_[index].position;
  if (byPosition_.empty()) {
    if (index != 0 && data_[index - 1].position == position) return 0;
    const auto next = std::upper_bound(
        data_.begin() + static_cast<std::ptrdiff_t>(index), data_.end() - 1, position,
        [](std::uint64_t value, const DataSegment& segment) { return value < segment.position; });
    return next == data_.end() - 1 ? kNoLimit : next->position - position;
  }
  const auto positionOf = [this](std::size_t other) { return data_[other].position; };
  if (*std::ranges::lower_bound(byPosition_, position, {}, positionOf) != index) return 0;
  const auto next = std::ranges::upper_bound(byPosition_, position, {}, positionOf);
  return next == byPosition_.end() ? kNoLimit : data_[*next].position - position;
}

}  // namespace tolvex
