// The kinds of blocks of the format, and what holds for every block of a kind.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Mdf4/format/BlockRecords.h"

namespace tolvex {

// A set of kinds: a bit for each.
using KindSet = std::uint32_t;

// What a link is for.
enum class LinkUse : std::uint8_t {
  Owns,    // the one link that makes the block part of the tree
  Shares,  // one of any number of links to a text, a source or a conversion
  Data,    // leads to data blocks or lists of them
  Refers,  // to a block that stands elsewhere in the tree
};

struct LinkTraits {
  const char* name;  // ends in "[" when it stands for all links from here on
  KindSet targets;   // the kinds that the link may lead to
  LinkUse use;
};

enum class BlockRole : std::uint8_t { Tree, Shared, Text, PlainData, Compressed, DataList };

// One kind of block.
struct BlockTraits {
  std::uint16_t type;
  BlockRole role;
  std::uint64_t leastData;  // bytes of the fixed record, or of the shortest text
  std::uint64_t leastLinks;
  std::uint64_t mostLinks;
  std::span<const LinkTraits> links;
  std::size_t reserved = 0;  // where reserved bytes of the record begin
  std::size_t reservedBytes = 0;

  // The link with that index. Of links that the format does not know yet: they may lead to texts.
  const LinkTraits& link(std::size_t index) const;
};

// The traits of a kind; those of no kind, type 0, for one that the format does not know.
const BlockTraits& traitsOf(std::uint16_t type);

// Whether link `index` of a block of kind `from` may lead to a block of kind `to`.
bool mayLinkTo(std::uint16_t from, std::size_t index, std::uint16_t to);

inline bool isKnownBlock(std::uint16_t type) {
  return traitsOf(type).type != 0;
}
// TX, MD.
inline bool isText(std::uint16_t type) {
  return traitsOf(type).role == BlockRole::Text;
}
// Blocks that any number of links may lead to: TX, MD, SI, CC.
inline bool isShared(std::uint16_t type) {
  return isText(type) || traitsOf(type).role == BlockRole::Shared;
}
// DT, SD, RD, DV, DI, RV, RI: raw bytes and no links.
inline bool isPlainData(std::uint16_t type) {
  return traitsOf(type).role == BlockRole::PlainData;
}
// DL, LD, HL.
inline bool isDataList(std::uint16_t type) {
  return traitsOf(type).role == BlockRole::DataList;
}
// Plain data, DZ and lists: what a link to data leads to.
inline bool isData(std::uint16_t type) {
  return isPlainData(type) || isDataList(type) || type == block_type::kDZ;
}

// The two letters of a kind.
std::string letters(std::uint16_t type);
// "CN block: cn_data_type".
std::string fieldName(std::uint16_t type, std::string_view field);
// The name of a link, e.g. "cn_tx_name" or "dl_data[3]".
std::string linkName(std::uint16_t type, std::size_t index);
// "TX or MD block": what link `index` may lead to.
std::string allowedKinds(std::uint16_t type, std::size_t index);

}  // namespace tolvex
