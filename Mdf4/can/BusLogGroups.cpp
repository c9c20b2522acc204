#include "Mdf4/can/BusLogGroups.h"

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Mdf4/format/Diagnostics.h"
#include "Mdf4/reader/ChannelDescription.h"

namespace tolvex {
namespace {

// Far more than there are fields: each is looked at for every record.
constexpr std::size_t kMostFields = 1000;

// What a channel of 0 bits stands for when its conversion is a constant.
std::optional<std::uint8_t> constantOf(DirectFile& file, const M4CNBlock& channel) {
  Conversion conversion;
  if (loadConversionNumbers(file, channel.link(link::cn_cc_conversion), conversion) == nullptr) {
    return std::nullopt;
  }
  MdfSigCCInfo info;
  info.conversionType = conversion.record.cc_type;
  info.valueCount = conversion.record.cc_val_count;
  info.values = std::move(conversion.values);
  double value = 0;
  std::string text;
  if (!info.isNumericConversion() || !info.applyConversion(0, value, text) || !(value >= 0) ||
      value > 255) {
    return std::nullopt;
  }
  return static_cast<std::uint8_t>(value);
}

}  // namespace

std::vector<const MdfCNInfo*> busLogChannels(const ReaderState& state, bool requireFields) {
  std::map<std::array<std::int32_t, 3>, const MdfCNInfo*> channels;
  for (const MdfCNInfo& channel : state.canChannels) {
    const bool hasFields =
        std::any_of(channel.children.begin(), channel.children.end(),
                    [](const auto& child) { return classifyFieldName(child.first).has_value(); });
    if (requireFields && !hasFields) continue;
    channels.try_emplace({channel.dgIndex, channel.cgIndex, channel.cnIndex}, &channel);
  }
  std::vector<const MdfCNInfo*> inOrder;
  for (const auto& entry : channels) inOrder.push_back(entry.second);
  return inOrder;
}

std::vector<CanFieldSlot> layoutOf(ReaderState& state, const MdfCNInfo& channel) {
  std::vector<CanFieldSlot> layout;
  for (const auto& [name, child] : channel.children) {
    const std::optional<CanFieldName> field = classifyFieldName(name);
    if (!field) continue;
    if (layout.size() == kMostFields) {
      state.file.report(formatText("data group %d: more than %zu fields in a frame",
                                   int{channel.dgIndex}, kMostFields));
      break;
    }
    CanFieldSlot slot;
    slot.kind = field->kind;
    slot.field = field->field;
    slot.byteOffset = child->cn_byte_offset;
    slot.bitOffset = child->cn_bit_offset;
    slot.bitCount = child->cn_bit_count;
    slot.cn = child;
    slot.variableLength = child->cn_type == channel_type::kVlsd;
    if (slot.field == CanField::BusChannel && slot.bitCount == 0) {
      slot.constant = constantOf(state.file, *child);
    }
    layout.push_back(slot);
  }
  return layout;
}

FrameTime frameTimeOf(ReaderState& state, const MdfCNInfo& channel) {
  const MdfCNInfo* const master = state.findTimeChannel(channel.dgIndex, channel.cgIndex);
  if (master == nullptr) return {};
  ChannelTexts numbers;
  auto conversion = std::make_shared<Conversion>();
  const std::uint64_t link = master->cnBlock->link(link::cn_cc_conversion);
  if (loadConversionNumbers(state.file, link, *conversion) != nullptr) {
    numbers.conversion = std::move(conversion);
  }
  return FrameTime(describeChannel(*master->cnBlock, numbers, Tables::With));
}

}  // namespace tolvex
