#include "Mdf4/check/BlockCheck.h"

#include <algorithm>
#include <cinttypes>
#include <string_view>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockTraits.h"

namespace tolvex {
namespace {

constexpr std::size_t kPiece = 4000;  // bytes of text looked at in one go

bool mayLead(const BlockLink& link, std::uint16_t type) {
  return link.from == kNoBlock ? type == block_type::kHD : mayLinkTo(link.from, link.index, type);
}

}  // namespace

bool BlockCheck::lengthIsAnnounced(std::uint16_t type) const {
  return (type == block_type::kDT && announced(Unfinished::LastDataLength)) ||
         (type == block_type::kRD && announced(Unfinished::LastReductionLength));
}

bool BlockCheck::read(std::uint64_t position, std::uint64_t length, void* bytes) {
  return file_.holds(position, length) && file_.ReadAt(position, length, bytes);
}

BlockLink BlockCheck::link(const FoundBlock& block, std::size_t index) {
  BlockLink link = {block.type, index, block.position, 0};
  if (index >= block.links) return link;
  link.position += kBlockHeaderSize + index * kLinkSize;
  if (!read(link.position, sizeof link.target, &link.target)) link.target = 0;
  return link;
}

void BlockCheck::enter(const FoundBlock& block, const FieldFaults& faults) {
  for (const FieldFault& fault : faults) {
    const std::uint64_t position = block.field(fault.offset);
    std::string what = fieldName(block.type, fault.field);
    if (fault.error) {
      findings_.error(position, std::move(what), fault.expected, fault.found);
    } else {
      findings_.warning(position, std::move(what), fault.expected, fault.found);
    }
  }
}

void BlockCheck::checkReserved(const FoundBlock& block) {
  const BlockTraits& traits = traitsOf(block.type);
  const std::uint64_t position = block.field(traits.reserved);
  std::array<std::uint8_t, 8> bytes = {};
  const std::uint64_t length =
      std::min<std::uint64_t>(traits.reservedBytes, block.end() - position);
  if (length == 0 || !read(position, length, bytes.data())) return;
  std::string field = letters(block.type) + "_reserved";
  for (char& letter : std::span(field).first(2)) letter = static_cast<char>(letter | 0x20);
  expectZeros(position, block.type, field, std::span(bytes).first(traits.reservedBytes));
}

void BlockCheck::expectZeros(std::uint64_t position, std::uint16_t type, std::string_view field,
                             ByteSpan bytes) {
  if (areZeros(bytes)) return;
  findings_.warning(position, fieldName(type, field), "0",
                    quoted({reinterpret_cast<const char*>(bytes.data()), bytes.size()}));
}

// The header that the link leads to, if it is that of a block that it may lead to.
std::optional<BlockScan> BlockCheck::leadsTo(const BlockLink& link) {
  const auto wrong = [&](const std::string& expected, const std::string& found) {
    findings_.error(link.position, fieldName(link.from, linkName(link.from, link.index)), expected,
                    found);
  };
  const BlockScan scan = scanBlock(file_, link.target);
  if (scan.has(HeaderFault::Outside)) {
    wrong(formatText("a position inside the file of %" PRIu64 " bytes", file_.end()),
          std::to_string(link.target));
  } else if (scan.has(HeaderFault::Unreadable)) {
    wrong("a block", formatText("%" PRIu64 ", which cannot be read", link.target));
  } else if (!scan.isBlock() || !mayLead(link, scan.header.type)) {
    wrong("a " + allowedKinds(link.from, link.index),
          formatText("%" PRIu64 ", where %s stands", link.target,
                     describe(scan, HeaderFault::NoBlock, file_.end()).found.c_str()));
  } else {
    if (link.target % kBlockAlignment != 0) wrong("a multiple of 8", std::to_string(link.target));
    return scan;
  }
  return std::nullopt;
}

std::uint16_t BlockCheck::kindAt(const BlockLink& link) {
  const BlockScan scan = scanBlock(file_, link.target);
  return link.target != 0 && scan.isBlock() ? scan.header.type : std::uint16_t{0};
}

std::optional<FoundBlock> BlockCheck::look(const BlockLink& link) {
  std::optional<BlockScan> scan = leadsTo(link);
  if (!scan) return std::nullopt;
  const std::uint16_t type = scan->header.type;
  expectZeros(link.target + offsetof(BlockHeader, reserved), type, "reserved bytes",
              bytesOf(scan->header.reserved));
  if (scan->header.length == 0 && lengthIsAnnounced(type)) {
    scan->header.length = kBlockHeaderSize + scan->header.linkCount * kLinkSize;
    *scan = scanHeader(scan->header, link.target, file_.end());
  }
  for (const HeaderFault fault : kClaimFaults) {
    if (!scan->has(fault)) continue;
    HeaderIssue issue = describe(*scan, fault, file_.end());
    findings_.error(link.target + issue.offset, fieldName(type, issue.field),
                    std::move(issue.expected), std::move(issue.found));
    if (fault == HeaderFault::LinksDoNotFit) return std::nullopt;
  }
  FoundBlock block = {link.target, type, scan->header.linkCount, scan->dataBytes};
  if (scan->has(HeaderFault::BeyondEnd)) {
    block.cut = true;
    if (!file_.holds(link.target, kBlockHeaderSize + block.links * kLinkSize)) return std::nullopt;
    block.dataBytes = file_.end() - block.dataPosition();
  }
  if (!isReadable(block)) {
    findings_.error(block.position, fieldName(block.type, "cannot be read"), "", "");
    return std::nullopt;
  }
  return block;
}

// What cannot be read is not judged; of data and attachments that is up to those who look at them.
bool BlockCheck::isReadable(const FoundBlock& block) {
  std::array<std::uint8_t, kPiece> piece;
  const bool isBulk =
      isPlainData(block.type) || block.type == block_type::kDZ || block.type == block_type::kAT;
  const std::uint64_t end = isBulk ? block.dataPosition() : block.end();
  for (std::uint64_t at = block.position; at < end; at += kPiece) {
    if (!read(at, std::min<std::uint64_t>(kPiece, end - at), piece.data())) return false;
  }
  return true;
}

bool BlockCheck::own(const FoundBlock& block) {
  if (owned_.add(block.position, block.end())) return true;
  findings_.error(block.position, fieldName(block.type, "bytes"), "bytes of no other block",
                  formatText("%" PRIu64 " bytes, of which another block has some",
                             block.end() - block.position));
  return false;
}

std::optional<FoundBlock> BlockCheck::firstVisit(const BlockLink& link) {
  std::optional<FoundBlock> block = look(link);
  // What is cut or overlaps another block is no block that can be relied on, data excepted.
  if (block && (block->cut || !own(*block))) block.reset();
  visited_.emplace(link.target, block ? Visit::Right : Visit::Wrong);
  return block;
}

std::optional<FoundBlock> BlockCheck::enterBlock(const BlockLink& link) {
  if (link.target == 0) return std::nullopt;
  const auto visited = visited_.find(link.target);
  if (visited == visited_.end()) return firstVisit(link);
  if (visited->second == Visit::Right && leadsTo(link)) {
    findings_.error(link.position, fieldName(link.from, linkName(link.from, link.index)),
                    "a block that no other link of the tree leads to",
                    formatText("%" PRIu64 ", reached for the second time", link.target));
  }
  return std::nullopt;
}

std::optional<FoundBlock> BlockCheck::shareBlock(const BlockLink& link) {
  if (link.target == 0) return std::nullopt;
  const auto visited = visited_.find(link.target);
  if (visited == visited_.end()) return firstVisit(link);
  if (visited->second == Visit::Right) refer(link);
  return std::nullopt;
}

std::optional<FoundBlock> BlockCheck::enterData(const BlockLink& link) {
  if (link.target == 0) return std::nullopt;
  std::optional<FoundBlock> block = look(link);
  if (block && !own(*block)) block.reset();
  return block;
}

void BlockCheck::refer(const BlockLink& link) {
  if (link.target != 0) leadsTo(link);
}

void BlockCheck::shareText(const BlockLink& link) {
  if (const auto block = shareBlock(link)) checkText(*block);
}

void BlockCheck::checkText(const FoundBlock& block) {
  std::array<char, kPiece> piece = {};
  bool terminated = false;
  for (std::uint64_t done = 0; done < block.dataBytes && !terminated; done += kPiece) {
    const std::size_t length = inMemory(std::min<std::uint64_t>(kPiece, block.dataBytes - done));
    if (!read(block.dataPosition() + done, length, piece.data())) break;
    const std::string_view text(piece.data(), length);
    terminated = text.find('\0') != std::string_view::npos;
    if (block.type != block_type::kMD || done != 0) continue;
    const std::string_view start =
        text.substr(std::min(text.find_first_not_of("\xEF\xBB\xBF \t\r\n"), length));
    if (!start.starts_with('<')) {
      findings_.warning(block.dataPosition(), fieldName(block.type, "text"), "XML",
                        quoted(text.substr(0, std::min(text.find('\0'), std::size_t{16}))));
    }
  }
  if (!terminated && block.dataBytes != 0) {
    findings_.error(block.dataPosition(), fieldName(block.type, "text"), "a NUL at its end",
                    formatText("%" PRIu64 " bytes without", block.dataBytes));
  }
}

}  // namespace tolvex
