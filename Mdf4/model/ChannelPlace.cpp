#include "Mdf4/model/ChannelPlace.h"

#include <algorithm>

#include "Mdf4/format/FieldRules.h"
#include "Mdf4/model/BusLogLayout.h"

namespace tolvex {
namespace {

// Bytes that a bit count fills.
constexpr std::uint64_t bytesOfBits(std::uint64_t bits) {
  return bits / 8 + (bits % 8 != 0 ? 1 : 0);
}

// The fields whose place the layout itself puts beyond a record of the smallest payload. The offset
// of a value is no such field.
bool mayLieOutside(const m4CNRecord& channel, std::string_view name) {
  if (channel.cn_type == channel_type::kVlsd) return false;
  return std::ranges::any_of(kCanDataFrames.channels, [&](const BusLogChannel& field) {
    return field.byteOffset == channel.cn_byte_offset && field.bits == channel.cn_bit_count &&
           field.byteOffset + field.bits / 8 > kCanDataFrames.recordSize(0) &&
           name == kCanDataFrames.channelName(field);
  });
}

}  // namespace

bool liesInside(const m4CNRecord& channel, std::string_view name, std::uint64_t recordBytes) {
  const std::uint64_t bits = std::uint64_t{channel.cn_bit_offset} + channel.cn_bit_count;
  if (channel.cn_bit_count == 0 || isVirtual(channel)) return true;
  return channel.cn_byte_offset + bytesOfBits(bits) <= recordBytes || mayLieOutside(channel, name);
}

bool invalidationBitLiesInside(const m4CNRecord& channel, std::uint64_t invalBytes) {
  return (channel.cn_flags & kCnFlagInvalidBit) == 0 || channel.cn_inval_bit_pos / 8 < invalBytes;
}

}  // namespace tolvex
