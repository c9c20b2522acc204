#include "Mdf4/can/BusLogGroups.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/reader/ChannelDescription.h"

namespace tolvex {
namespace {

// Far more than there are fields: each is looked at for every record.
constexpr std::size_t kMostFields = 1000;

constexpr std::uint8_t kUnsignedBigEndian = 1;  // cn_data_type
constexpr std::uint8_t kSignedBigEndian = 3;

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
void reportNoConstant(DirectFile& file, const M4CNBlock& channel, const std::string& name) {
  if (channel.link(link::cn_cc_conversion) == 0) return;
  file.report(formatText("channel at %" PRIu64
                         ": its conversion gives no constant that fits the field %.100s",
                         channel.position(), name.c_str()));
}

}  // namespace

std::vector<const MdfCNInfo*> busLogChannels(const ReaderState& state, bool requireFields) {
  std::map<std::array<std::int32_t, 3>, const MdfCNInfo*> channels;
  for (const MdfCNInfo& channel : state.canChannels) {
    const bool hasFields =
        std::any_of(channel.children.begin(), channel.children.end(), [&](const auto& child) {
          return classifyFieldName(child.first, state.loggerRules).has_value();
        });
    if ((requireFields || state.loggerRules) && !hasFields) continue;
    channels.try_emplace({channel.dgIndex, channel.cgIndex, channel.cnIndex}, &channel);
  }
  std::vector<const MdfCNInfo*> inOrder;
  for (const auto& entry : channels) inOrder.push_back(entry.second);
  return inOrder;
}

std::vector<CanFieldSlot> buildCanLayout(ReaderState& state, const MdfCNInfo& channel) {
  std::vector<CanFieldSlot> layout;
  for (const auto& [name, child] : channel.children) {
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
    slot.bigEndian = state.loggerRules && (child->cn_data_type == kUnsignedBigEndian ||
                                           child->cn_data_type == kSignedBigEndian);
    layout.push_back(slot);
  }
  return layout;
}

FrameTime frameTimeOf(ReaderState& state, const MdfCNInfo& channel) {
  const MdfCNInfo* const master = state.findTimeChannel(channel.dgIndex, channel.cgIndex);
  if (master == nullptr) return {};
  if (state.loggerRules) {
    const ChannelTexts texts = state.texts.load(*master->cnBlock);
    return FrameTime(describeChannel(*master->cnBlock, texts, Tables::With), true);
  }
  ChannelTexts numbers;
  numbers.conversion = state.texts.numbers(master->cnBlock->link(link::cn_cc_conversion));
  return FrameTime(describeChannel(*master->cnBlock, numbers, Tables::With));
}

}  // namespace tolvex
