// How a check goes from link to block: what every block must be, whatever its kind.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Mdf4/check/Findings.h"
#include "Mdf4/format/BlockRecords.h"
#include "Mdf4/format/BlockScan.h"
#include "Mdf4/format/BlockTraits.h"
#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/FieldRules.h"
#include "Mdf4/format/OwnedRanges.h"

namespace tolvex {

// The kind of the block in which the link to the header block stands.
inline constexpr std::uint16_t kNoBlock = 0;

// A link: the block that it stands in, and where it leads.
struct BlockLink {
  std::uint16_t from = kNoBlock;  // kind
  std::size_t index = 0;
  std::uint64_t position = 0;  // of the link itself
  std::uint64_t target = 0;
};

// A block whose marker and kind are right, with what of its length lies inside the file.
struct FoundBlock {
  std::uint64_t position = 0;
  std::uint16_t type = 0;
  std::uint64_t links = 0;
  std::uint64_t dataBytes = 0;  // behind the links
  bool cut = false;             // the file ends in front of its end

  std::uint64_t dataPosition() const { return position + kBlockHeaderSize + links * kLinkSize; }
  std::uint64_t end() const { return dataPosition() + dataBytes; }
  // Of a field of the record, as far as the block goes.
  std::uint64_t field(std::size_t offset) const {
    return std::min<std::uint64_t>(dataPosition() + offset, end());
  }
  BlockRoom room() const { return {links, dataBytes}; }
  BlockScan scan() const {
    return {position, {.type = type, .length = end() - position, .linkCount = links}, dataBytes};
  }
};

// Follows links and enters what is wrong with them, and with the blocks that they lead to. A link
// of 0 leads to nothing. A block that is wrong is entered once, however many links lead to it.
class BlockCheck {
 public:
  BlockCheck(DirectFile& file, Findings& findings) : file_(file), findings_(findings) {}

  DirectFile& file() { return file_; }
  Findings& findings() { return findings_; }
  OwnedRanges& owned() { return owned_; }

  void setUnfinished(std::uint16_t flags) { unfinished_ = flags; }
  // Whether the file itself says that this is not up to date.
  bool announced(Unfinished fault) const { return has(unfinished_, fault); }
  // The same of the length of the last block of that kind.
  bool lengthIsAnnounced(std::uint16_t type) const;

  BlockLink link(const FoundBlock& block, std::size_t index);
  // Reads bytes of the file; false, without a text, when it does not hold them.
  [[nodiscard]] bool read(std::uint64_t position, std::uint64_t length, void* bytes);
  // A short block's record is 0 where it ends; one that cannot be read is 0.
  template <class Record>
  Record record(const FoundBlock& block) {
    Record record = {};
    if (!read(block.dataPosition(), std::min<std::uint64_t>(sizeof record, block.dataBytes),
              &record))
      record = {};
    return record;
  }
  // Enters the faults of a record that has reserved bytes and fields.
  void enter(const FoundBlock& block, const FieldFaults& faults);
  // Reserved bytes of the record that are not 0.
  void checkReserved(const FoundBlock& block);

  // The block of a link that a tree or chain is made of: no other such link leads to it.
  [[nodiscard]] std::optional<FoundBlock> enterBlock(const BlockLink& link);
  // A block that many may use (texts, sources, conversions): given the first time only.
  [[nodiscard]] std::optional<FoundBlock> shareBlock(const BlockLink& link);
  // A data block or a list of such.
  [[nodiscard]] std::optional<FoundBlock> enterData(const BlockLink& link);
  // Room that a writer left behind a block, unless other blocks stand there.
  void reserve(std::uint64_t start, std::uint64_t end) { reserved_.push_back({start, end}); }
  const std::vector<OwnedRanges::Range>& reserved() const { return reserved_; }
  // A block that stands elsewhere in the tree.
  void refer(const BlockLink& link);

  // A text or XML block that many may use.
  void shareText(const BlockLink& link);
  // The kind that the link leads to; 0 when there is no block.
  std::uint16_t kindAt(const BlockLink& link);

 private:
  enum class Visit : std::uint8_t { Wrong, Right };

  void expectZeros(std::uint64_t position, std::uint16_t type, std::string_view field,
                   ByteSpan bytes);
  std::optional<BlockScan> leadsTo(const BlockLink& link);
  std::optional<FoundBlock> look(const BlockLink& link);
  bool isReadable(const FoundBlock& block);
  bool own(const FoundBlock& block);
  std::optional<FoundBlock> firstVisit(const BlockLink& link);
  void checkText(const FoundBlock& block);

  DirectFile& file_;
  Findings& findings_;
  OwnedRanges owned_;
  std::vector<OwnedRanges::Range> reserved_;
  std::unordered_map<std::uint64_t, Visit> visited_;
  std::uint16_t unfinished_ = 0;
};

}  // namespace tolvex
