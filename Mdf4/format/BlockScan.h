// Reading the header of a block, and holding it against what the format and the file allow.
#pragma once

#include <cstdint>
#include <string>

#include "Mdf4/format/BlockRecords.h"
#include "Mdf4/format/DirectFile.h"

namespace tolvex {

// What can be wrong with a header. What a fault leaves open is told by those behind it.
enum class HeaderFault : std::uint8_t {
  Outside = 1 << 0,     // the file ends in front of its end
  Unreadable = 1 << 1,  // a read failed
  NoBlock = 1 << 2,     // no marker, or a kind that the format does not know
  LinksDoNotFit = 1 << 3,
  FewLinks = 1 << 4,
  ManyLinks = 1 << 5,
  ShortData = 1 << 6,  // than the kind's record
  BeyondEnd = 1 << 7,  // the file ends in front of the block's end
};

// A header as it stands in the file, and what is wrong with it. After a fault up to NoBlock the
// header is not to be used.
struct BlockScan {
  std::uint64_t position = 0;
  BlockHeader header = {.marker = 0};
  std::uint64_t dataBytes = 0;  // behind the links, as stated; 0 when the links do not fit
  std::uint8_t faults = 0;

  bool has(HeaderFault fault) const { return (faults & static_cast<std::uint8_t>(fault)) != 0; }
  bool sound() const { return faults == 0; }
  // Whether a block begins there, whatever it states of itself.
  bool isBlock() const {
    return !has(HeaderFault::Outside) && !has(HeaderFault::Unreadable) &&
           !has(HeaderFault::NoBlock);
  }
  std::uint64_t linkPosition(std::uint64_t index) const {
    return position + kBlockHeaderSize + index * kLinkSize;
  }
  std::uint64_t dataPosition() const { return linkPosition(header.linkCount); }
};

// How a header is read: through the pages that a file keeps, or past them, as is right for the
// headers of data blocks, which are far apart.
enum class HeaderRead : std::uint8_t { Kept, Passing };

[[nodiscard]] BlockScan scanBlock(DirectFile& file, std::uint64_t position,
                                  HeaderRead how = HeaderRead::Kept);
// The same of a header that was read already, in a file that ends at `fileEnd`.
[[nodiscard]] BlockScan scanHeader(const BlockHeader& header, std::uint64_t position,
                                   std::uint64_t fileEnd);

// A fault in words: the field at `offset` of the block, what it should be and what it is.
struct HeaderIssue {
  std::size_t offset = 0;
  const char* field = "";
  std::string expected;
  std::string found;
};
HeaderIssue describe(const BlockScan& scan, HeaderFault fault, std::uint64_t fileEnd);
inline constexpr HeaderFault kClaimFaults[] = {HeaderFault::LinksDoNotFit, HeaderFault::FewLinks,
                                               HeaderFault::ManyLinks, HeaderFault::ShortData,
                                               HeaderFault::BeyondEnd};

// The start of the text in the TX or MD block at the position, at most `longest` bytes; "" where no
// sound one is.
std::string textStart(DirectFile& file, std::uint64_t position, std::uint64_t longest);

// Whether links or data do not lie inside the block and the file; noted in the file's problems.
[[nodiscard]] bool noteDamage(DirectFile& file, const BlockScan& scan);

}  // namespace tolvex
