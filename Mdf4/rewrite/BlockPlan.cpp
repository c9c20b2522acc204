#include "Mdf4/rewrite/BlockPlan.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockTraits.h"
#include "Mdf4/rewrite/Notes.h"

namespace tolvex {
namespace {

using namespace block_type;

constexpr std::uint64_t kPiece = 64 * 1024;  // bytes that are copied at a time

}  // namespace

std::size_t BlockPlan::place(Block block) {
  const std::uint64_t data = block.dataSize() + (block.unterminated ? 1 : 0);
  block.position = out_.Allocate(kBlockHeaderSize + block.links.size() * kLinkSize + data, false);
  if (block.source != 0) bySource_[block.source] = blocks_.size();
  blocks_.push_back(std::move(block));
  return blocks_.size() - 1;
}

std::size_t BlockPlan::placeNew(std::uint16_t type, std::size_t links,
                                std::vector<std::uint8_t> data) {
  return place({.type = type, .links = std::vector<Link>(links), .data = std::move(data)});
}

std::size_t BlockPlan::placeText(const std::string& text, std::uint16_t type) {
  return placeNew(type, 0, {text.c_str(), text.c_str() + text.size() + 1});
}

const BlockPlan::Block* BlockPlan::find(std::uint64_t source) const {
  const auto known = bySource_.find(source);
  return known == bySource_.end() || known->second == kNone ? nullptr : &blocks_[known->second];
}

void BlockPlan::standFor(std::uint64_t data, std::uint64_t group, std::size_t copy) {
  dataOfGroup_[group] = blocks_[copy].position;
  dataOfData_.try_emplace(data, blocks_[copy].position);
}

// A link as it stands in the output.
std::uint64_t BlockPlan::resolved(const Block& block, std::size_t index) const {
  const Link& link = block.links[index];
  if (!link.reference || link.position == 0) return link.position;
  if (const auto data = dataOfData_.find(link.position);
      data != dataOfData_.end() && mayLinkTo(block.type, index, kDG)) {
    // Of the channel group that stands behind it, as in a triple of group, group and channel.
    if (index + 1 < block.links.size()) {
      const auto group = dataOfGroup_.find(block.links[index + 1].position);
      if (group != dataOfGroup_.end()) return group->second;
    }
    return data->second;
  }
  const Block* const target = find(link.position);
  return target != nullptr && mayLinkTo(block.type, index, target->type) ? target->position : 0;
}

bool BlockPlan::write() {
  for (const Block& block : blocks_) {
    if (!write(block)) return false;
  }
  return true;
}

bool BlockPlan::write(const Block& block) {
  const std::uint64_t dataBytes = block.dataSize();
  const std::uint8_t nul = 0;
  BlockHeader header;
  header.type = block.type;
  header.linkCount = block.links.size();
  header.length = kBlockHeaderSize + header.linkCount * kLinkSize + dataBytes +
                  (block.unterminated ? sizeof nul : 0);
  std::vector<std::uint64_t> links(block.links.size());
  for (std::size_t i = 0; i < links.size(); ++i) {
    links[i] = resolved(block, i);
    if (links[i] == 0 && block.links[i].position != 0) {
      noteLoss(report_,
               formatText("%s block at %" PRIu64 ": link %zu to %" PRIu64,
                          letters(block.type).c_str(), block.source, i, block.links[i].position));
    }
  }
  std::vector<std::uint8_t> piece = block.data;
  if (piece.empty()) {
    piece.resize(inMemory(std::min(kPiece, dataBytes)));
    if (!in_.ReadAt(block.dataPosition, piece.size(), piece.data())) return writeWithoutData(block);
  }
  const std::array<ByteSpan, 3> pieces = {
      bytesOf(header),
      ByteSpan(reinterpret_cast<const std::uint8_t*>(links.data()), links.size() * kLinkSize),
      ByteSpan(piece)};
  if (!out_.WriteAt(block.position, pieces)) return false;
  std::uint64_t position = out_.position();
  for (std::uint64_t done = piece.size(); done < dataBytes; done += piece.size()) {
    piece.resize(inMemory(std::min(kPiece, dataBytes - done)));
    if (!in_.ReadAt(block.dataPosition + done, piece.size(), piece.data())) {
      return writeWithoutData(block);
    }
    if (!out_.WriteAt(position, piece.size(), piece.data())) return false;
    position = out_.position();
  }
  return !block.unterminated || out_.WriteAt(position, sizeof nul, &nul);
}

// A text or an attachment that cannot be read becomes an empty one.
bool BlockPlan::writeWithoutData(Block block) {
  noteLoss(report_,
           formatText("%s block at %" PRIu64 ": its %s cannot be read", letters(block.type).c_str(),
                      block.source, block.type == kAT ? "attachment" : "text"));
  block.data = block.type == kAT ? dataOf(m4ATRecord{}) : std::vector<std::uint8_t>(1);
  return write(block);
}

}  // namespace tolvex
