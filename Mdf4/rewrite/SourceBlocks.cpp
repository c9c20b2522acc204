#include "Mdf4/rewrite/SourceBlocks.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <optional>
#include <utility>
#include <vector>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockTraits.h"
#include "Mdf4/format/ListedBlocks.h"
#include "Mdf4/rewrite/Notes.h"

namespace tolvex {
namespace {

using namespace block_type;

constexpr int kDeepest = 16;  // conversions that refer to conversions

// Where the data of a text end: with its first NUL, or where the block does; nothing when it cannot
// be read.
std::optional<std::uint64_t> textLength(DirectFile& file, std::uint64_t position,
                                        std::uint64_t bytes, bool& terminated) {
  std::array<std::uint8_t, 1024> piece;
  for (std::uint64_t done = 0; done < bytes; done += piece.size()) {
    const std::uint64_t count = std::min<std::uint64_t>(piece.size(), bytes - done);
    if (!file.ReadAt(position + done, count, piece.data())) return std::nullopt;
    const auto end = piece.begin() + static_cast<std::ptrdiff_t>(count);
    const auto nul = std::find(piece.begin(), end, 0);
    if (nul != end) return done + static_cast<std::uint64_t>(nul - piece.begin()) + 1;
  }
  terminated = false;
  return bytes;
}

// Whether the codes and counts in the block's record can be relied on.
bool hasSoundFields(DirectFile& file, std::uint16_t type, std::uint64_t position, BlockRoom room) {
  const auto sound = [&](auto record) {
    return file.ReadAt(position, sizeof record, &record) && isSound(record, room);
  };
  switch (type) {
    case kCN:
      return sound(m4CNRecord{});
    case kCC:
      return sound(m4CCRecord{});
    case kCA:
      return sound(m4CARecord{});
    case kCH:
      return sound(m4CHRecord{});
    case kEV:
      return sound(m4EVRecord{});
    case kAT:
      return sound(m4ATRecord{});
    default:
      return true;
  }
}

}  // namespace

std::string deadLink(std::uint16_t type, std::uint64_t position, std::size_t index,
                     std::uint64_t target) {
  return formatText("%s block at %" PRIu64 ": link %zu leads to %" PRIu64
                    ", where no fitting block is",
                    letters(type).c_str(), position, index, target);
}

bool SourceBlocks::load(std::uint64_t position, std::uint16_t from, std::size_t index,
                        BlockPlan::Block& block) {
  BlockHeader header;
  std::uint64_t dataBytes = 0;
  if (!readSoundHeader(in_, position, header) || !header.dataLength(dataBytes) ||
      !mayLinkTo(from, index, header.type) || plan_.knows(position) ||
      unfit_.count(position) != 0) {
    return false;
  }
  block.type = header.type;
  block.source = position;
  std::vector<std::uint64_t> links(inMemory(header.linkCount));
  if (!in_.ReadAt(position + kBlockHeaderSize, links.size() * kLinkSize, links.data()))
    return false;
  block.dataPosition = position + kBlockHeaderSize + links.size() * kLinkSize;
  if (!loadData(block, {links.size(), dataBytes}) ||
      !owned_.add(position, block.dataPosition + block.dataBytes)) {
    unfit_.insert(position);
    return false;
  }
  BlockHeader stated;
  if (in_.ReadAt(position, kBlockHeaderSize, &stated) && stated.length != header.length) {
    noteRepair(report_,
               formatText("%s block at %" PRIu64 ": length: found %" PRIu64 ", it needs %" PRIu64,
                          letters(block.type).c_str(), position, stated.length, header.length));
  }
  for (const std::uint64_t target : links) block.links.push_back({target, true});
  return true;
}

// Loads the data of a block that has so much room for them, or finds out how many there are. What
// is long stays in the input until it is written.
bool SourceBlocks::loadData(BlockPlan::Block& block, BlockRoom room) {
  constexpr std::uint64_t kLongest = 1 << 20;  // bytes; no conversion has as many
  block.dataBytes = room.dataBytes;
  if (isText(block.type)) {
    bool terminated = true;
    const auto length = textLength(in_, block.dataPosition, room.dataBytes, terminated);
    if (!length) return false;
    block.dataBytes = *length;
    block.unterminated = !terminated;
  } else if (block.type == kAT) {
    m4ATRecord record = {};
    if (!in_.ReadAt(block.dataPosition, sizeof record, &record) ||
        record.at_embedded_size > room.dataBytes - sizeof record) {
      return false;
    }
    block.dataBytes = sizeof record + record.at_embedded_size;
  } else if (room.dataBytes <= kLongest) {
    block.data.resize(inMemory(room.dataBytes));
    if (!in_.ReadAt(block.dataPosition, room.dataBytes, block.data.data())) return false;
  }
  return hasSoundFields(in_, block.type, block.dataPosition, room);
}

std::uint64_t SourceBlocks::takeOver(std::uint64_t position, std::uint16_t from, std::size_t index,
                                     int depth) {
  if (plan_.knows(position)) {
    const BlockPlan::Block* const known = plan_.find(position);
    if (known == nullptr) return 0;
    // Conversions that refer to conversions: not in a circle.
    const bool circle = known->type == kCC && from == kCC && known->data.empty();
    return mayLinkTo(from, index, known->type) && !circle ? known->position : 0;
  }
  BlockPlan::Block loaded;
  if (depth > kDeepest || !load(position, from, index, loaded)) return 0;
  // While its links are followed the block has no data: that tells that it is on the way.
  std::vector<std::uint8_t> data = std::move(loaded.data);
  if (!data.empty()) loaded.dataBytes = data.size();
  loaded.data.clear();
  const std::size_t block = plan_.place(std::move(loaded));
  for (std::size_t i = 0; i < plan_[block].links.size(); ++i) {
    const std::uint64_t target = plan_[block].links[i].position;
    if (target == 0) {
      plan_.setLink(block, i, 0);
      continue;
    }
    const std::uint16_t type = plan_[block].type;
    const std::uint64_t link = takeOver(target, type, i, depth + 1);
    if (link == 0) noteLoss(report_, deadLink(type, position, i, target));
    plan_.setLink(block, i, link);
  }
  plan_[block].data = std::move(data);
  return plan_[block].position;
}

}  // namespace tolvex
