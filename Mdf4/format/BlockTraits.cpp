#include "Mdf4/format/BlockTraits.h"

#include <algorithm>
#include <array>
#include <initializer_list>

#include "Mdf4/can/BusLogLayout.h"

namespace tolvex {
namespace {

using namespace block_type;

using Kinds = std::initializer_list<std::uint16_t>;

bool isOneOf(std::uint16_t type, Kinds kinds) {
  return std::find(kinds.begin(), kinds.end(), type) != kinds.end();
}

bool isText(std::uint16_t type) {
  return type == kTX || type == kMD;
}

bool isRecords(std::uint16_t type) {
  return isOneOf(type, {kDT, kDV, kDZ, kDL, kLD, kHL});
}

bool isListed(std::uint16_t type) {
  return isOneOf(type, {kDT, kSD, kRD, kDV, kRV, kDZ});
}

bool isGroupOrChannel(std::uint16_t type) {
  return isOneOf(type, {kDG, kCG, kCN});
}

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

bool mayLinkTo(std::uint16_t from, std::size_t index, std::uint16_t to) {
  using namespace link;
  switch (from) {
    case kHD: {
      constexpr std::array kFirst = {kDG, kFH, kCH, kAT, kEV};
      return index < kFirst.size() ? to == kFirst[index] : isText(to);
    }
    case kFH:
      return index == fh_fh_next ? to == kFH : isText(to);
    case kDG:
      return index == dg_dg_next    ? to == kDG
             : index == dg_cg_first ? to == kCG
             : index == dg_data     ? isRecords(to)
                                    : isText(to);
    case kCG:
      switch (index) {
        case cg_cn_first:
          return to == kCN;
        case cg_si_acq_source:
          return to == kSI;
        case cg_sr_first:
          return to == kSR;
        case cg_cg_next:
        case cg_cg_master:
          return to == kCG;
        default:
          return isText(to);
      }
    case kCN:
      switch (index) {
        case cn_cn_next:
          return to == kCN;
        case cn_composition:
          return to == kCN || to == kCA;
        case cn_si_source:
          return to == kSI;
        case cn_cc_conversion:
          return to == kCC;
        case cn_data:
          return isOneOf(to, {kSD, kDZ, kDL, kHL, kCG, kAT, kCN, kEV});
        case cn_tx_name:
        case cn_md_unit:
        case cn_md_comment:
          return isText(to);
        default:
          return to == kAT || isGroupOrChannel(to);
      }
    case kCC:
      return index == cc_cc_inverse ? to == kCC
             : index < cc_ref       ? isText(to)
                                    : isText(to) || to == kCC;
    case kSI:
      return isText(to);
    case kSR:
      return index == sr_sr_next ? to == kSR : isOneOf(to, {kRD, kRV, kDZ, kDL, kLD, kHL});
    case kEV:
      return index <= ev_ev_range     ? to == kEV
             : index <= ev_md_comment ? isText(to)
                                      : to == kAT || isText(to) || isGroupOrChannel(to);
    case kAT:
      return index == at_at_next ? to == kAT : isText(to);
    case kCH:
      return index <= ch_ch_first     ? to == kCH
             : index <= ch_md_comment ? isText(to)
                                      : isGroupOrChannel(to);
    case kCA:
      return index == ca_composition
                 ? to == kCN || to == kCA
                 : isRecords(to) || to == kSD || to == kCC || isGroupOrChannel(to);
    case kDL:
      return index == dl_dl_next ? to == kDL : isListed(to);
    case kLD:
      return index == ld_ld_next ? to == kLD : isOneOf(to, {kDV, kDI, kRV, kRI, kDZ});
    case kHL:
      return to == kDL || to == kLD;
    default:
      return false;
  }
}

bool isKnownBlock(std::uint16_t type) {
  return isData(type) || isText(type) || isGroupOrChannel(type) ||
         isOneOf(type, {kHD, kFH, kCC, kSI, kSR, kEV, kAT, kCH, kCA});
}

bool isPlainData(std::uint16_t type) {
  return isOneOf(type, {kDT, kSD, kRD, kDV, kDI, kRV, kRI});
}

bool isDataList(std::uint16_t type) {
  return isOneOf(type, {kDL, kLD, kHL});
}

bool isData(std::uint16_t type) {
  return isPlainData(type) || isDataList(type) || type == kDZ;
}

std::size_t leastLinks(std::uint16_t type) {
  switch (type) {
    case kHD:
    case kCG:
      return 6;
    case kCN:
      return 8;
    case kEV:
      return 5;
    case kDG:
    case kCC:
    case kAT:
    case kCH:
      return 4;
    case kSI:
      return 3;
    case kFH:
    case kSR:
      return 2;
    case kCA:
    case kDL:
    case kLD:
    case kHL:
      return 1;
    default:
      return 0;
  }
}

std::uint64_t mostLinks(std::uint16_t type) {
  constexpr std::uint64_t kFixed = 64;  // room for what later versions of the format add
  switch (type) {
    case kDL:
    case kLD:
      return ~std::uint64_t{0};
    case kCA:
    case kCH:
    case kEV:
      return 1 << 20;
    case kCN:
    case kCC:
      return (1 << 16) + kFixed;  // as many as their counts can state
    default:
      return kFixed;
  }
}

std::uint64_t leastData(std::uint16_t type) {
  switch (type) {
    case kHD:
      return sizeof(m4HDRecord);
    case kFH:
      return sizeof(m4FHRecord);
    case kDG:
      return sizeof(m4DGRecord);
    case kCG:
      return sizeof(m4CGRecord);
    case kCN:
      return sizeof(m4CNRecord);
    case kCC:
      return sizeof(m4CCRecord);
    case kSI:
      return sizeof(m4SIRecord);
    case kSR:
      return sizeof(m4SRRecord);
    case kEV:
      return sizeof(m4EVRecord);
    case kAT:
      return sizeof(m4ATRecord);
    case kCH:
      return sizeof(m4CHRecord);
    case kCA:
      return sizeof(m4CARecord);
    case kDL:
      return sizeof(m4DLRecord);
    case kLD:
      return sizeof(m4LDRecord);
    case kHL:
      return sizeof(m4HLRecord);
    case kDZ:
      return sizeof(m4DZRecord);
    default:
      return isText(type) ? 1 : 0;
  }
}

bool liesInside(const m4CNRecord& channel, std::string_view name, std::uint64_t recordBytes) {
  const std::uint64_t bits = std::uint64_t{channel.cn_bit_offset} + channel.cn_bit_count;
  if (channel.cn_bit_count == 0) return true;
  return channel.cn_byte_offset + bytesOfBits(bits) <= recordBytes || mayLieOutside(channel, name);
}

bool invalidationBitLiesInside(const m4CNRecord& channel, std::uint64_t invalBytes) {
  return (channel.cn_flags & kCnFlagInvalidBit) == 0 || channel.cn_inval_bit_pos / 8 < invalBytes;
}

}  // namespace tolvex
