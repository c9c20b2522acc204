#include "Mdf4/format/BlockScan.h"

#include <algorithm>
#include <cinttypes>
#include <span>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockTraits.h"

namespace tolvex {

BlockScan scanHeader(const BlockHeader& header, std::uint64_t position, std::uint64_t fileEnd) {
  BlockScan scan = {position, header};
  const auto add = [&](bool wrong, HeaderFault fault) {
    if (wrong) scan.faults |= static_cast<std::uint8_t>(fault);
  };
  const BlockTraits& traits = traitsOf(header.type);
  add(header.marker != kBlockMarker || traits.type == 0, HeaderFault::NoBlock);
  if (!scan.isBlock()) return scan;
  add(!header.dataLength(scan.dataBytes), HeaderFault::LinksDoNotFit);
  add(header.linkCount < traits.leastLinks, HeaderFault::FewLinks);
  add(header.linkCount > traits.mostLinks, HeaderFault::ManyLinks);
  add(scan.dataBytes < traits.leastData, HeaderFault::ShortData);
  add(position > fileEnd || header.length > fileEnd - position, HeaderFault::BeyondEnd);
  return scan;
}

BlockScan scanBlock(DirectFile& file, std::uint64_t position, HeaderRead how) {
  const auto failed = [&](HeaderFault fault) {
    return BlockScan{.position = position, .faults = static_cast<std::uint8_t>(fault)};
  };
  if (!file.holds(position, kBlockHeaderSize)) return failed(HeaderFault::Outside);
  BlockHeader header;
  const WritableBytes bytes = writableBytesOf(header);
  const bool isRead = how == HeaderRead::Kept
                          ? file.ReadAt(position, bytes.size(), bytes.data())
                          : file.readPieces(position, std::span(&bytes, 1)) == bytes.size();
  if (!isRead) return failed(HeaderFault::Unreadable);
  return scanHeader(header, position, file.end());
}

HeaderIssue describe(const BlockScan& scan, HeaderFault fault, std::uint64_t fileEnd) {
  const BlockHeader& header = scan.header;
  const BlockTraits& traits = traitsOf(header.type);
  const auto length = [&](std::string expected) {
    return HeaderIssue{offsetof(BlockHeader, length), "length", std::move(expected),
                       std::to_string(header.length)};
  };
  const auto links = [&](std::string expected) {
    return HeaderIssue{offsetof(BlockHeader, linkCount), "link count", std::move(expected),
                       std::to_string(header.linkCount)};
  };
  switch (fault) {
    case HeaderFault::Outside:
      return {0, "position", formatText("a place inside the file of %" PRIu64 " bytes", fileEnd),
              std::to_string(scan.position)};
    case HeaderFault::Unreadable:
      return {0, "header", "24 bytes", "bytes that cannot be read"};
    case HeaderFault::NoBlock:
      return {0, "header", "a block",
              quoted({reinterpret_cast<const char*>(&header), sizeof(header.marker) * 2})};
    case HeaderFault::LinksDoNotFit:
      return length(formatText("at least 24 and room for %" PRIu64 " links", header.linkCount));
    case HeaderFault::FewLinks:
      return links(formatText("at least %" PRIu64, traits.leastLinks));
    case HeaderFault::ManyLinks:
      return links(formatText("at most %" PRIu64, traits.mostLinks));
    case HeaderFault::ShortData:
      return length(formatText("at least %" PRIu64,
                               kBlockHeaderSize + header.linkCount * kLinkSize + traits.leastData));
    case HeaderFault::BeyondEnd:
      return length(
          formatText("at most %" PRIu64 ", up to the end of the file", fileEnd - scan.position));
  }
  return {};
}

std::string textStart(DirectFile& file, std::uint64_t position, std::uint64_t longest) {
  if (position == 0) return {};
  const BlockScan scan = scanBlock(file, position);
  if (!scan.sound() || !isText(scan.header.type)) return {};
  std::string text(inMemory(std::min(scan.dataBytes, longest)), '\0');
  if (!file.ReadAt(scan.dataPosition(), text.size(), text.data())) return {};
  return text.substr(0, text.find('\0'));
}

bool noteDamage(DirectFile& file, const BlockScan& scan) {
  for (const HeaderFault fault : {HeaderFault::LinksDoNotFit, HeaderFault::BeyondEnd}) {
    if (!scan.has(fault)) continue;
    const HeaderIssue issue = describe(scan, fault, file.end());
    file.report(formatText("block at %" PRIu64 ": %s: expected %s, found %s", scan.position,
                           issue.field, issue.expected.c_str(), issue.found.c_str()));
    return true;
  }
  return false;
}

}  // namespace tolvex
