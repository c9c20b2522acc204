// Whether a channel lies inside its group's records.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mdf4/format/BlockRecords.h"

namespace tolvex {

// Whether the channel's bits lie inside a record of `recordBytes`: its data bytes, which the
// invalidation bytes follow. `name` is the channel's: the two fields of bus-log data frames that
// tolvex places behind the payload, and never fills, may lie anywhere. Virtual channels have none.
bool liesInside(const m4CNRecord& channel, std::string_view name, std::uint64_t recordBytes);
// Whether the channel's invalidation bit, if it has one, is among `invalBytes`.
bool invalidationBitLiesInside(const m4CNRecord& channel, std::uint64_t invalBytes);

}  // namespace tolvex
