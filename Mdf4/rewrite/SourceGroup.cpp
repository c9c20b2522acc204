#include "Mdf4/rewrite/SourceGroup.h"

#include <algorithm>
#include <optional>

#include "Mdf4/model/BusLogLayout.h"
#include "Mdf4/model/ChannelPlace.h"

namespace tolvex {

const char* SourceGroup::misfit(const m4CNRecord& channel, std::string_view name) const {
  if ((masters & masterBit(channel)) != 0) return "no second master";
  if (!liesInside(channel, name, record.cg_data_bytes)) return "it inside its record";
  if (!invalidationBitLiesInside(channel, record.cg_inval_bytes)) {
    return "its invalidation bit inside its record";
  }
  if (channel.cn_type == channel_type::kVlsd &&
      (channel.cn_bit_offset != 0 || channel.cn_bit_count % 8 != 0 || channel.cn_bit_count > 64)) {
    return "an offset of whole bytes";
  }
  // Values are given offsets of their own.
  const auto shares = [&](const ValueChannel& other) {
    return channel.cn_byte_offset < other.byteOffset + other.bytes &&
           other.byteOffset < channel.cn_byte_offset + channel.cn_bit_count / 8;
  };
  if (channel.cn_type == channel_type::kVlsd && std::ranges::any_of(values, shares)) {
    return "no offset that another channel uses";
  }
  return nullptr;
}

void SourceGroup::add(const m4CNRecord& channel, std::string_view name, std::size_t block,
                      std::uint64_t source, std::uint64_t dataLink) {
  masters |= masterBit(channel);
  const RecordField place = {channel.cn_byte_offset, channel.cn_bit_offset, channel.cn_bit_count};
  if (isTimeMaster(channel)) {
    master = source;
    time = place;
  }
  if (channel.cn_type == channel_type::kVlsd) {
    values.push_back({block, dataLink, channel.cn_byte_offset, channel.cn_bit_count / 8,
                      channel.cn_flags, channel.cn_inval_bit_pos});
  }
  const std::optional<CanFieldName> field = classifyFieldName(name);
  if (!field) return;
  if (field->field == CanField::BusChannel) busChannel = place;
  if (field->field == CanField::Dir) direction = place;
}

}  // namespace tolvex
