// The writing side of TreeCopy.
#include <algorithm>
#include <array>
#include <cinttypes>
#include <vector>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/base/System.h"
#include "Mdf4/format/BlockParts.h"
#include "Mdf4/format/BlockTraits.h"
#include "Mdf4/rewrite/Notes.h"
#include "Mdf4/rewrite/TreeCopy.h"

namespace tolvex {
namespace {

using namespace block_type;

constexpr std::uint64_t kPiece = 64 * 1024;  // bytes that are copied at a time

}  // namespace

void TreeCopy::addHistory(const std::string& comment) {
  m4FHRecord record = {};
  constexpr std::uint64_t kNsPerTick = 100;
  record.fh_time_ns = systemTicks() * kNsPerTick;
  PlannedBlock block;
  block.type = kFH;
  block.links.resize(2);
  block.links[link::fh_md_comment] = {newText(comment, kMD), false};
  block.data = dataOf(record);
  const std::size_t entry = place(std::move(block));
  const std::size_t before = lastHistory_ == kNone ? 0 : lastHistory_;
  const std::size_t index =
      before == 0 ? std::size_t{link::hd_fh_first} : std::size_t{link::fh_fh_next};
  blocks_[before].links[index] = {blocks_[entry].position, false};
}

void TreeCopy::setLink(std::size_t block, std::size_t index, std::uint64_t position) {
  blocks_[block].links[index] = {position, false};
}

void TreeCopy::setCycleCount(const SourceGroup& group, std::uint64_t records) {
  auto record = recordOf<m4CGRecord>(blocks_[group.groupBlock].data);
  record.cg_cycle_count = records;
  blocks_[group.groupBlock].data = dataOf(record);
}

void TreeCopy::setReduction(std::size_t block, std::uint64_t cycles, std::uint64_t dataLink) {
  auto record = recordOf<m4SRRecord>(blocks_[block].data);
  record.sr_cycle_count = cycles;
  blocks_[block].data = dataOf(record);
  setLink(block, link::sr_data, dataLink);
}

// A link as it stands in the output.
std::uint64_t TreeCopy::resolved(const PlannedBlock& block, std::size_t index) const {
  const PlannedLink& link = block.links[index];
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
  const auto known = bySource_.find(link.position);
  if (known == bySource_.end() || known->second == kNone) return 0;
  const PlannedBlock& target = blocks_[known->second];
  return mayLinkTo(block.type, index, target.type) ? target.position : 0;
}

bool TreeCopy::write() {
  for (const PlannedBlock& block : blocks_) {
    if (!write(block)) return false;
  }
  return true;
}

bool TreeCopy::write(const PlannedBlock& block) {
  const std::uint64_t dataBytes = block.data.empty() ? block.dataBytes : block.data.size();
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
  std::uint64_t done = 0;
  if (piece.empty()) {
    piece.resize(std::min(kPiece, dataBytes));
    if (!in_.ReadAt(block.dataPosition, piece.size(), piece.data())) return writeWithoutData(block);
  }
  const std::array<ByteSpan, 3> pieces = {
      bytesOf(header),
      ByteSpan(reinterpret_cast<const std::uint8_t*>(links.data()), links.size() * kLinkSize),
      ByteSpan(piece)};
  if (!out_.WriteAt(block.position, pieces)) return false;
  std::uint64_t position = out_.position();
  for (done = piece.size(); done < dataBytes; done += piece.size()) {
    piece.resize(std::min(kPiece, dataBytes - done));
    if (!in_.ReadAt(block.dataPosition + done, piece.size(), piece.data())) {
      return writeWithoutData(block);
    }
    if (!out_.WriteAt(position, piece.size(), piece.data())) return false;
    position = out_.position();
  }
  return !block.unterminated || out_.WriteAt(position, sizeof nul, &nul);
}

// A text or an attachment that cannot be read becomes an empty one.
bool TreeCopy::writeWithoutData(PlannedBlock block) {
  noteLoss(report_,
           formatText("%s block at %" PRIu64 ": its %s cannot be read", letters(block.type).c_str(),
                      block.source, block.type == kAT ? "attachment" : "text"));
  block.data = block.type == kAT ? dataOf(m4ATRecord{}) : std::vector<std::uint8_t>(1);
  return write(block);
}

}  // namespace tolvex
