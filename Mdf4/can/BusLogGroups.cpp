#include "Mdf4/can/BusLogGroups.h"

#include <algorithm>
#include <cinttypes>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockLoader.h"
#include "Mdf4/format/FieldRules.h"
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

// A channel that may be a field of a frame.
struct FieldChannel {
  std::string_view name;
  const M4CNBlock* block;
};

std::vector<CanFieldSlot> layoutOf(DirectFile& file, FileTexts& texts,
                                   const std::vector<FieldChannel>& fields, int dataGroup,
                                   bool loggerRules) {
  std::vector<CanFieldSlot> layout;
  for (const FieldChannel& channel : fields) {
    const M4CNBlock* const child = channel.block;
    const std::optional<CanFieldName> field = classifyFieldName(channel.name, loggerRules);
    if (!field) continue;
    if (layout.size() == kMostFields) {
      file.report(
          formatText("data group %d: more than %zu fields in a frame", dataGroup, kMostFields));
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
    const bool mayBeConstant =
        slot.field == CanField::BusChannel || (loggerRules && slot.field != CanField::DataBytes);
    if (slot.bitCount == 0 && mayBeConstant) {
      slot.constant = constantOf(texts, *child, largestValue(slot.field));
      if (loggerRules && !slot.constant) {
        reportNoConstant(file, *child, channel.name);
        continue;
      }
    }
    slot.bigEndian = loggerRules && (child->cn_data_type == data_type::kUnsignedBigEndian ||
                                     child->cn_data_type == data_type::kSignedBigEndian);
    layout.push_back(slot);
  }
  return layout;
}

FrameTime loggerTimeOf(FileTexts& texts, const M4CNBlock& master) {
  return FrameTime(describeChannel(master, texts.load(master), Tables::With), true);
}

bool isCanSource(const SignalSource* source) {
  return source != nullptr && source->type == kSiTypeBus && source->bus == kSiBusCan;
}

bool isFrameChannel(const ModelGroup& group, const ModelChannel& channel) {
  if (channel.parent != ModelChannel::kNone || isTimeMaster(channel.record)) return false;
  return isCanSource(group.source.get()) || isCanSource(channel.source.get()) ||
         (channel.name != nullptr && isBusLogName(*channel.name, true));
}

// The frames of the members of one channel, by name.
FrameSource sourceOf(MDF4File& file, FileTexts& texts, const ModelGroup& group,
                     const std::vector<const ModelChannel*>& members) {
  FrameSource source;
  std::vector<std::unique_ptr<M4CNBlock>> blocks;
  std::vector<FieldChannel> fields;
  for (const ModelChannel* const member : members) {
    const std::optional<CanFieldName> field = classifyFieldName(*member->name, true);
    if (!field) continue;
    auto block = loadBlockAs<M4CNBlock>(file, member->position);
    if (block == nullptr) continue;
    const bool isOutside = member->record.cn_type == channel_type::kVlsd;
    if (isOutside && field->field == CanField::DataBytes) source.payloads = member;
    fields.push_back({*member->name, block.get()});
    blocks.push_back(std::move(block));
  }
  source.layout = layoutOf(file, texts, fields, group.dataGroup, true);
  for (CanFieldSlot& slot : source.layout) slot.cn = nullptr;  // which the blocks are gone with
  if (group.master == ModelChannel::kNone) return source;
  const ModelChannel& master = group.channels[static_cast<std::size_t>(group.master)];
  if (!isTimeMaster(master.record)) return source;
  const auto block = loadBlockAs<M4CNBlock>(file, master.position);
  if (block != nullptr) source.time = loggerTimeOf(texts, *block);
  return source;
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
  std::vector<FieldChannel> fields;
  for (const TreeChild& child : *channel.children) {
    fields.push_back({nameOf(child), child.block.get()});
  }
  return layoutOf(state.file, state.texts, fields, channel.dgIndex, state.loggerRules);
}

bool holdsFrames(const ModelGroup& group) {
  return std::ranges::any_of(group.channels, [&](const ModelChannel& member) {
    return member.parent != ModelChannel::kNone && member.name != nullptr &&
           classifyFieldName(*member.name, true).has_value() &&
           isFrameChannel(group, group.channels[static_cast<std::size_t>(member.parent)]);
  });
}

std::vector<FrameSource> frameSources(MDF4File& file, FileTexts& texts, const ModelGroup& group) {
  std::map<std::int32_t, std::vector<const ModelChannel*>> compositions;
  for (const ModelChannel& channel : group.channels) {
    if (channel.parent == ModelChannel::kNone || channel.name == nullptr) continue;
    compositions[channel.parent].push_back(&channel);
  }
  std::vector<FrameSource> sources;
  for (auto& [parent, members] : compositions) {
    if (!isFrameChannel(group, group.channels[static_cast<std::size_t>(parent)])) continue;
    const auto nameOfMember = [](const ModelChannel* member) -> const std::string& {
      return *member->name;
    };
    std::ranges::stable_sort(members, {}, nameOfMember);
    const auto isSame = [](const ModelChannel* a, const ModelChannel* b) {
      return *a->name == *b->name;
    };
    members.erase(std::unique(members.begin(), members.end(), isSame), members.end());
    FrameSource source = sourceOf(file, texts, group, members);
    if (!source.layout.empty()) sources.push_back(std::move(source));
  }
  return sources;
}

FrameTime frameTimeOf(ReaderState& state, const MdfCNInfo& channel) {
  const TreeChannel* const time = state.tree.findTime(channel.dgIndex, channel.cgIndex);
  if (time == nullptr) return {};
  const M4CNBlock& master = *time->block;
  if (state.loggerRules) {
    return loggerTimeOf(state.texts, master);
  }
  ChannelTexts numbers;
  numbers.conversion = state.texts.numbers(master.link(link::cn_cc_conversion));
  return FrameTime(describeChannel(master, numbers, Tables::With));
}

}  // namespace tolvex
