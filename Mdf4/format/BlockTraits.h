// What a sound file looks like, as far as its check and its recovery must agree on it.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mdf4/format/BlockRecords.h"

namespace tolvex {

// Whether the format allows link `index` of a block of kind `from` to lead to a block of kind `to`.
bool mayLinkTo(std::uint16_t from, std::size_t index, std::uint16_t to);

// Whether blocks of this kind are part of the format as the library knows it.
bool isKnownBlock(std::uint16_t type);
// DT, SD, RD, DV, DI, RV, RI: raw bytes and no links.
bool isPlainData(std::uint16_t type);
// DL, LD, HL.
bool isDataList(std::uint16_t type);
// Plain data, DZ and lists: what stands behind a link to data.
bool isData(std::uint16_t type);
// The links that a block of this kind has at least.
std::size_t leastLinks(std::uint16_t type);
std::uint64_t mostLinks(std::uint16_t type);
// The bytes behind the links that it has at least.
std::uint64_t leastData(std::uint16_t type);

// Whether the channel's bits lie inside a record of `recordBytes`: its data bytes, which the
// invalidation bytes follow. `name` is the channel's: the two fields of bus-log data frames that
// tolvex places behind the payload, and fills never, may lie anywhere.
bool liesInside(const m4CNRecord& channel, std::string_view name, std::uint64_t recordBytes);
// Whether the channel's invalidation bit, if it has one, is among `invalBytes`.
bool invalidationBitLiesInside(const m4CNRecord& channel, std::uint64_t invalBytes);

}  // namespace tolvex
