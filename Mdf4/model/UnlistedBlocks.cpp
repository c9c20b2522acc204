#include "Mdf4/model/UnlistedBlocks.h"

#include <algorithm>
#include <cstring>

#include "Mdf4/model/BusLogLayout.h"
#include "Mdf4/model/RawField.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kRecordsPerBlock = 512;

}  // namespace

void UnlistedBlocks::add(const ModelGroup& group, SegmentTable& table) {
  std::uint64_t last = 0;
  for (std::size_t i = 0; i < table.count(); ++i) {
    listed_.push_back(table[i].position - kBlockHeaderSize);
    last = std::max(last, listed_.back());
  }
  const std::uint64_t size = group.recordSize();
  if (group.record.cg_cycle_count != 0 || size == 0 || table.columnStorage()) return;
  owners_.push_back({&group, &table, kRecordsPerBlock * size, last});
}

void UnlistedBlocks::assign() {
  std::ranges::sort(listed_);
  BlockHeader header;
  for (std::uint64_t at = kHeaderBlockPosition; findBlock(at, header); at += header.length) {
    if (header.type != block_type::kDT || std::ranges::binary_search(listed_, at)) continue;
    const std::uint64_t bytes = header.length - kBlockHeaderSize;
    if (Owner* const owner = ownerOf(at, bytes)) {
      owner->table->append(file_, at + kBlockHeaderSize, bytes);
    }
  }
}

// Moves `at` on to the next block that is whole. Blocks stand nearly back to back, but for those
// that were given a place and not yet written.
bool UnlistedBlocks::findBlock(std::uint64_t& at, BlockHeader& header) {
  constexpr std::uint64_t kPiece = 64 * 1024;
  std::uint64_t wanted = 2 * kBlockHeaderSize;
  while (file_.holds(at, kBlockHeaderSize)) {
    piece_.resize(inMemory(std::min(wanted, file_.end() - at)));
    if (!file_.ReadAt(at, piece_.size(), piece_.data())) return false;
    for (std::size_t i = 0; i + kBlockHeaderSize <= piece_.size(); ++i) {
      const auto* const found = static_cast<const std::uint8_t*>(
          std::memchr(piece_.data() + i, '#', piece_.size() - kBlockHeaderSize + 1 - i));
      if (found == nullptr) break;
      i = static_cast<std::size_t>(found - piece_.data());
      std::memcpy(&header, found, kBlockHeaderSize);
      const bool isBlock = header.marker == kBlockMarker && header.length >= kBlockHeaderSize &&
                           file_.holds(at + i, header.length);
      if (!isBlock) continue;
      at += i;
      return true;
    }
    at += piece_.size() - kBlockHeaderSize + 1;
    wanted = kPiece;
  }
  return false;
}

UnlistedBlocks::Owner* UnlistedBlocks::ownerOf(std::uint64_t position, std::uint64_t bytes) {
  const auto mayOwn = [&](const Owner& owner) {
    return owner.blockBytes == bytes && owner.last < position;
  };
  const auto first = std::ranges::find_if(owners_, mayOwn);
  if (first == owners_.end()) return nullptr;
  if (std::ranges::none_of(first + 1, owners_.end(), mayOwn)) return &*first;
  Owner* found = nullptr;
  for (Owner& owner : owners_) {
    if (!mayOwn(owner) || !hasSameBus(owner, position)) continue;
    if (found != nullptr) return nullptr;
    found = &owner;
  }
  return found;
}

// Whether the first record of the block has the bus and the direction of the group's first one.
bool UnlistedBlocks::hasSameBus(const Owner& owner, std::uint64_t position) {
  if (owner.table->count() == 0) return false;
  const std::size_t size = inMemory(owner.group->recordSize());
  std::vector<std::uint8_t> own(size);
  std::vector<std::uint8_t> other(size);
  if (!file_.ReadAt((*owner.table)[0].position, size, own.data()) ||
      !file_.ReadAt(position + kBlockHeaderSize, size, other.data())) {
    return false;
  }
  std::size_t compared = 0;
  for (const ModelChannel& channel : owner.group->channels) {
    if (channel.name == nullptr) continue;
    const auto field = classifyFieldName(*channel.name);
    if (!field || (field->field != CanField::BusChannel && field->field != CanField::Dir)) continue;
    const m4CNRecord& place = channel.record;
    if (!RawField::isNumber(place.cn_data_type, place.cn_bit_count)) return false;
    const RawField number(place.cn_data_type, place.cn_bit_count, place.cn_byte_offset,
                          place.cn_bit_offset);
    if (!number.isInside(size) || number.read(own.data()) != number.read(other.data())) {
      return false;
    }
    ++compared;
  }
  return compared == 2;
}

}  // namespace tolvex
