#include "Mdf4/reader/ChannelDescription.h"

namespace tolvex {
namespace {

const std::string& valueOf(const SharedText& text) {
  static const std::string kNone;
  return text == nullptr ? kNone : *text;
}

}  // namespace

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
