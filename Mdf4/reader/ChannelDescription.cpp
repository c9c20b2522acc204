#include "Mdf4/reader/ChannelDescription.h"

#include <algorithm>
#include <cinttypes>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockLoader.h"

namespace tolvex {
namespace {

// The texts of one conversion, repeated ones included, may hold as many bytes as the file and this.
constexpr std::uint64_t kAlwaysText = 1 << 20;

// What stands between the first <TX> and the first </TX>.
std::string_view textOfXml(std::string_view xml) {
  constexpr std::string_view kOpen = "<TX>";
  constexpr std::string_view kClose = "</TX>";
  const std::size_t open = xml.find(kOpen);
  const std::size_t close = xml.find(kClose);
  if (open == std::string_view::npos || close == std::string_view::npos) return {};
  const std::size_t start = open + kOpen.size();
  return close < start ? std::string_view{} : xml.substr(start, close - start);
}

const std::string& valueOf(const SharedText& text) {
  static const std::string kNone;
  return text == nullptr ? kNone : *text;
}

}  // namespace

void FileTexts::clear() {
  texts_.clear();
  xml_.clear();
  conversions_.clear();
  numbers_.clear();
}

const FileTexts::Text& FileTexts::entry(std::uint64_t position) {
  static const Text kNone;
  if (position == 0) return kNone;
  const auto found = texts_.find(position);
  if (found != texts_.end()) return found->second;
  Text entry;
  const std::uint64_t failed = file_.reads().failures();
  const std::unique_ptr<m4Block> block = loadBlock(file_, position);
  if (file_.reads().failures() != failed) return kNone;  // another attempt may succeed
  if (block != nullptr &&
      (block->typeCode() == block_type::kTX || block->typeCode() == block_type::kMD)) {
    entry.isXml = block->typeCode() == block_type::kMD;
    std::string_view text = static_cast<const M4TXBlock&>(*block).text();
    if (entry.isXml) text = textOfXml(text);
    if (!text.empty()) entry.text = std::make_shared<const std::string>(text);
  }
  return texts_.emplace(position, std::move(entry)).first->second;
}

SharedText FileTexts::plain(std::uint64_t position) {
  const Text& text = entry(position);
  return text.isXml ? nullptr : text.text;
}

SharedText FileTexts::whole(std::uint64_t position) {
  const Text& text = entry(position);
  if (!text.isXml) return text.text;
  const auto found = xml_.find(position);
  if (found != xml_.end()) return found->second;
  auto xml = std::make_shared<const std::string>(loadText(file_, position));
  return xml_.emplace(position, std::move(xml)).first->second;
}

std::shared_ptr<const Conversion> FileTexts::numbers(std::uint64_t position) {
  if (position == 0) return nullptr;
  const auto found = numbers_.find(position);
  if (found != numbers_.end()) return found->second;
  auto conversion = std::make_shared<Conversion>();
  const std::uint64_t failed = file_.reads().failures();
  if (loadConversionNumbers(file_, position, *conversion) == nullptr) conversion = nullptr;
  if (file_.reads().failures() != failed) return nullptr;
  return numbers_.emplace(position, std::move(conversion)).first->second;
}

std::unique_ptr<M4CCBlock> loadConversionNumbers(DirectFile& file, std::uint64_t position,
                                                 Conversion& conversion) {
  auto block = loadBlockAs<M4CCBlock>(file, position);
  if (block == nullptr) return nullptr;
  conversion.record = *block;
  const std::size_t values = std::min<std::size_t>(block->cc_val_count, block->extra().size());
  const auto stored = block->extra().first(values);
  conversion.values.assign(stored.begin(), stored.end());
  const std::size_t links = std::max<std::size_t>(block->linkCount(), link::cc_ref) - link::cc_ref;
  if (values < block->cc_val_count || links < block->cc_ref_count) {
    file.report(formatText("conversion at %" PRIu64
                           ": it states %u values and %u references, and has room for %zu and %zu",
                           position, unsigned{block->cc_val_count}, unsigned{block->cc_ref_count},
                           values, links));
  }
  return block;
}

std::shared_ptr<const Conversion> FileTexts::conversion(std::uint64_t position) {
  if (position == 0) return nullptr;
  const auto found = conversions_.find(position);
  if (found != conversions_.end()) return found->second;
  auto conversion = std::make_shared<Conversion>();
  const std::uint64_t failed = file_.reads().failures();
  const auto block = loadConversionNumbers(file_, position, *conversion);
  if (file_.reads().failures() != failed) return nullptr;
  if (block == nullptr) return conversions_.emplace(position, nullptr).first->second;
  std::uint64_t room = file_.end() + kAlwaysText;
  for (std::size_t i = link::cc_ref;
       i < block->linkCount() && conversion->texts.size() < block->cc_ref_count; ++i) {
    SharedText entryText = text(block->link(i));
    const std::uint64_t size = valueOf(entryText).size();
    if (size > room) {
      file_.report(
          formatText("conversion at %" PRIu64 ": its texts are larger than the file", position));
      break;
    }
    room -= size;
    conversion->texts.push_back(std::move(entryText));
  }
  conversion->name = text(block->link(link::cc_tx_name));
  conversion->unit = text(block->link(link::cc_md_unit));
  conversion->comment = text(block->link(link::cc_md_comment));
  return conversions_.emplace(position, std::move(conversion)).first->second;
}

ChannelTexts FileTexts::load(const M4CNBlock& channel) {
  ChannelTexts texts;
  texts.name = text(channel.link(link::cn_tx_name));
  texts.unit = text(channel.link(link::cn_md_unit));
  texts.comment = text(channel.link(link::cn_md_comment));
  texts.conversion = conversion(channel.link(link::cn_cc_conversion));
  return texts;
}

std::string textUpTo(const SharedText& text, std::size_t longest) {
  return valueOf(text).substr(0, longest);
}

MdfSigCCInfo describeChannel(const M4CNBlock& channel, const ChannelTexts& texts, Tables tables,
                             std::size_t longestText) {
  MdfSigCCInfo info;
  info.name = textUpTo(texts.name, longestText);
  info.unit = textUpTo(texts.unit, longestText);
  info.comment = textUpTo(texts.comment, longestText);
  info.dataType = channel.cn_data_type;
  info.bitOffset = channel.cn_bit_offset;
  info.bitCount = static_cast<std::uint8_t>(channel.cn_bit_count);
  info.byteOffset = channel.cn_byte_offset;
  info.flags = channel.cn_flags;
  info.invalidBitPos = channel.cn_inval_bit_pos;
  info.syncType = channel.cn_sync_type;
  info.channelType = channel.cn_type;
  info.attachmentCount = channel.cn_attachment_count;
  info.cnPrecision = channel.cn_precision;
  info.cnPrecisionValid = (channel.cn_flags & kCnFlagPrecision) != 0;
  info.valueRangeMin = channel.cn_val_range_min;
  info.valueRangeMax = channel.cn_val_range_max;
  info.valueRangeValid = (channel.cn_flags & kCnFlagValueRange) != 0;
  info.limitMin = channel.cn_limit_min;
  info.limitMax = channel.cn_limit_max;
  info.limitValid = (channel.cn_flags & kCnFlagLimit) != 0;
  info.limitExtMin = channel.cn_limit_ext_min;
  info.limitExtMax = channel.cn_limit_ext_max;
  info.limitExtValid = (channel.cn_flags & kCnFlagLimitExt) != 0;
  if (texts.conversion != nullptr) {
    const Conversion& conversion = *texts.conversion;
    info.conversionType = conversion.record.cc_type;
    info.ccFlags = conversion.record.cc_flags;
    info.ccPrecision = conversion.record.cc_precision;
    info.ccPrecisionValid = (conversion.record.cc_flags & kCcFlagPrecision) != 0;
    info.physRangeMin = conversion.record.cc_phy_range_min;
    info.physRangeMax = conversion.record.cc_phy_range_max;
    info.physRangeValid = (conversion.record.cc_flags & kCcFlagPhysRange) != 0;
    info.valueCount = conversion.record.cc_val_count;
    info.textCount = conversion.record.cc_ref_count;
    if (tables == Tables::With) {
      info.values = conversion.values;
      for (const SharedText& text : conversion.texts) info.texts.push_back(valueOf(text));
    }
    if (info.unit.empty()) info.unit = textUpTo(conversion.unit, longestText);
    if (conversion.name != nullptr && info.name.size() < longestText && !info.name.empty()) {
      info.name += " [" + textUpTo(conversion.name, longestText) + "]";
    }
    if (info.comment.empty()) info.comment = textUpTo(conversion.comment, longestText);
  }
  info.calculateDisplayPrecision();
  info.initDataTypeInfo();
  return info;
}

}  // namespace tolvex
