#include "Mdf4/can/BusLogGroups.h"

#include <algorithm>
#include <cinttypes>
#include <optional>
#include <string>
#include <string_view>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/reader/ChannelDescription.h"

namespace tolvex {
namespace {

// Far more than there are fields: each is looked at for every record.
constexpr std::size_t kMostFields = 1000;
constexpr std::size_t kLongestName = 100;  // in a problem

// The largest number that a frame holds for the field.
double largestValue(CanField field) {
  switch (field) {
    case CanField::BusChannel:
    case CanField::DLC:
    case CanField::TEC:
    case CanField::TREC:
    case CanField::ErrorType:
      return 0xFF;
    default:
      return 0xFFFFFFFF;
  }
}

// What a channel of 0 bits stands for when its conversion is a constant from 0 to `largest`. A
// formula is none: formulas are not evaluated.
std::optional<std::uint32_t> constantOf(FileTexts& texts, const M4CNBlock& channel,
                                        double largest) {
  const auto conversion = texts.numbers(channel.link(link::cn_cc_conversion));
  if (conversion == nullptr) return std::nullopt;
  MdfSigCCInfo info;
  info.conversionType = conversion->record.cc_type;
  info.valueCount = conversion->record.cc_val_count;
  info.values = conversion->values;
  double value = 0;
  std::string text;
  const bool isNumber =
      info.isNumericConversion() && info.conversionType != conversion_type::kFormula;
  if (!isNumber || !info.applyConversion(0, value, text) || !(value >= 0) || value > largest) {
    return std::nullopt;
  }
  return static_cast<std::uint32_t>(value);
}

// A field that states nothing is no damage; one whose statement is lost is.
void reportNoConstant(DirectFile& file, const M4CNBlock& channel, std::string_view name) {
  if (channel.link(link::cn_cc_conversion) == 0) return;
  file.report(formatText(
      "channel at %" PRIu64 ": its conversion gives no constant that fits the field %.*s",
      channel.position(), static_cast<int>(std::min(name.size(), kLongestName)), name.data()));
}

}  // namespace

std::vector<MdfCNInfo> busLogChannels(const ReaderState& state, bool requireFields) {
  std::vector<MdfCNInfo> channels = state.tree.list(ChannelUse::Can);
  if (!requireFields && !state.loggerRules) return channels;
  std::erase_if(channels, [&](const MdfCNInfo& channel) {
    return std::ranges::none_of(*channel.children, [&](const TreeChild& child) {
      return classifyFieldName(nameOf(child), state.loggerRules).has_value();
    });
  });
  return channels;
}

std::vector<CanFieldSlot> buildCanLayout(ReaderState& state, const MdfCNInfo& channel) {
  std::vector<CanFieldSlot> layout;
  for (const TreeChild& entry : *channel.children) {
    const std::string_view name = nameOf(entry);
    const M4CNBlock* const child = entry.block.get();
    const std::optional<CanFieldName> field = classifyFieldName(name, state.loggerRules);
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
    const bool mayBeConstant = slot.field == CanField::BusChannel ||
                               (state.loggerRules && slot.field != CanField::DataBytes);
    if (slot.bitCount == 0 && mayBeConstant) {
      slot.constant = constantOf(state.texts, *child, largestValue(slot.field));
      if (state.loggerRules && !slot.constant) {
        reportNoConstant(state.file, *child, name);
        continue;
      }
    }
    slot.bigEndian = state.loggerRules && (child->cn_data_type == data_type::kUnsignedBigEndian ||
                                           child->cn_data_type == data_type::kSignedBigEndian);
    layout.push_back(slot);
  }
  return layout;
}

FrameTime frameTimeOf(ReaderState& state, const MdfCNInfo& channel) {
  const TreeChannel* const time = state.tree.findTime(channel.dgIndex, channel.cgIndex);
  if (time == nullptr) return {};
  const M4CNBlock& master = *time->block;
  if (state.loggerRules) {
    return FrameTime(describeChannel(master, state.texts.load(master), Tables::With), true);
  }
  ChannelTexts numbers;
  numbers.conversion = state.texts.numbers(master.link(link::cn_cc_conversion));
  return FrameTime(describeChannel(master, numbers, Tables::With));
}

}  // namespace tolvex
