#include "Mdf4/format/BlockTraits.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <iterator>

namespace tolvex {
namespace {

using namespace block_type;
using enum LinkUse;
using enum BlockRole;

// In this order the bits of a set stand for the kinds.
constexpr std::array kKinds = {kHD, kFH, kTX, kMD, kDG, kCG, kCN, kCC, kSI, kSR, kCA, kCH, kAT,
                               kEV, kDL, kLD, kHL, kDZ, kDT, kSD, kRD, kDV, kDI, kRV, kRI};

constexpr KindSet setOf(std::uint16_t type) {
  const auto kind = std::find(kKinds.begin(), kKinds.end(), type);
  return kind == kKinds.end() ? 0 : KindSet{1} << (kind - kKinds.begin());
}
constexpr KindSet setOf(std::initializer_list<std::uint16_t> types) {
  KindSet set = 0;
  for (const std::uint16_t type : types) set |= setOf(type);
  return set;
}

constexpr KindSet kTexts = setOf({kTX, kMD});
constexpr KindSet kLists = setOf({kDL, kLD, kHL});
constexpr KindSet kRecords = kLists | setOf({kDT, kDV, kDZ});
constexpr KindSet kReductions = kLists | setOf({kRD, kRV, kDZ});
constexpr KindSet kGroups = setOf({kDG, kCG, kCN});

constexpr LinkTraits kHdLinks[] = {
    {"hd_dg_first", setOf(kDG), Owns}, {"hd_fh_first", setOf(kFH), Owns},
    {"hd_ch_first", setOf(kCH), Owns}, {"hd_at_first", setOf(kAT), Owns},
    {"hd_ev_first", setOf(kEV), Owns}, {"hd_md_comment", kTexts, Shares},
};
constexpr LinkTraits kFhLinks[] = {
    {"fh_fh_next", setOf(kFH), Owns},
    {"fh_md_comment", kTexts, Shares},
};
constexpr LinkTraits kDgLinks[] = {
    {"dg_dg_next", setOf(kDG), Owns},
    {"dg_cg_first", setOf(kCG), Owns},
    {"dg_data", kRecords, Data},
    {"dg_md_comment", kTexts, Shares},
};
constexpr LinkTraits kCgLinks[] = {
    {"cg_cg_next", setOf(kCG), Owns},     {"cg_cn_first", setOf(kCN), Owns},
    {"cg_tx_acq_name", kTexts, Shares},   {"cg_si_acq_source", setOf(kSI), Shares},
    {"cg_sr_first", setOf(kSR), Owns},    {"cg_md_comment", kTexts, Shares},
    {"cg_cg_master", setOf(kCG), Refers},
};
constexpr LinkTraits kCnLinks[] = {
    {"cn_cn_next", setOf(kCN), Owns},
    {"cn_composition", setOf({kCN, kCA}), Owns},
    {"cn_tx_name", kTexts, Shares},
    {"cn_si_source", setOf(kSI), Shares},
    {"cn_cc_conversion", setOf(kCC), Shares},
    {"cn_data", setOf({kSD, kDZ, kDL, kHL, kCG, kAT, kCN, kEV}), Data},
    {"cn_md_unit", kTexts, Shares},
    {"cn_md_comment", kTexts, Shares},
    {"cn_at_reference[", kGroups | setOf(kAT), Refers},
};
constexpr LinkTraits kCcLinks[] = {
    {"cc_tx_name", kTexts, Shares},           {"cc_md_unit", kTexts, Shares},
    {"cc_md_comment", kTexts, Shares},        {"cc_cc_inverse", setOf(kCC), Shares},
    {"cc_ref[", kTexts | setOf(kCC), Shares},
};
constexpr LinkTraits kSiLinks[] = {
    {"si_tx_name", kTexts, Shares},
    {"si_tx_path", kTexts, Shares},
    {"si_md_comment", kTexts, Shares},
};
constexpr LinkTraits kSrLinks[] = {
    {"sr_sr_next", setOf(kSR), Owns},
    {"sr_data", kReductions, Data},
};
constexpr LinkTraits kEvLinks[] = {
    {"ev_ev_next", setOf(kEV), Owns},    {"ev_ev_parent", setOf(kEV), Refers},
    {"ev_ev_range", setOf(kEV), Refers}, {"ev_tx_name", kTexts, Shares},
    {"ev_md_comment", kTexts, Shares},   {"ev_scope[", kGroups | kTexts | setOf(kAT), Refers},
};
constexpr LinkTraits kAtLinks[] = {
    {"at_at_next", setOf(kAT), Owns},
    {"at_tx_filename", kTexts, Shares},
    {"at_tx_mimetype", kTexts, Shares},
    {"at_md_comment", kTexts, Shares},
};
constexpr LinkTraits kChLinks[] = {
    {"ch_ch_next", setOf(kCH), Owns}, {"ch_ch_first", setOf(kCH), Owns},
    {"ch_tx_name", kTexts, Shares},   {"ch_md_comment", kTexts, Shares},
    {"ch_element[", kGroups, Refers},
};
constexpr LinkTraits kCaLinks[] = {
    {"ca_composition", setOf({kCN, kCA}), Owns},
    {"ca_links[", kRecords | kGroups | setOf({kSD, kCC}), Refers},
};
constexpr LinkTraits kDlLinks[] = {
    {"dl_dl_next", setOf(kDL), Owns},
    {"dl_data[", setOf({kDT, kSD, kRD, kDV, kRV, kDZ}), Owns},
};
constexpr LinkTraits kLdLinks[] = {
    {"ld_ld_next", setOf(kLD), Owns},
    {"ld_data[", setOf({kDV, kDI, kRV, kRI, kDZ}), Owns},
};
constexpr LinkTraits kHlLinks[] = {{"hl_dl_first", setOf({kDL, kLD}), Owns}};

constexpr std::uint64_t kFixed = 64;                    // with room for what later versions add
constexpr std::uint64_t kCounted = (1 << 16) + kFixed;  // as many as a 16-bit count can state
constexpr std::uint64_t kMany = 1 << 20;
constexpr std::uint64_t kAny = ~std::uint64_t{0};

constexpr BlockTraits kTraits[] = {
    {kHD, Tree, sizeof(m4HDRecord), 6, kFixed, kHdLinks, offsetof(m4HDRecord, hd_reserved),
     sizeof(m4HDRecord::hd_reserved)},
    {kFH, Tree, sizeof(m4FHRecord), 2, kFixed, kFhLinks, offsetof(m4FHRecord, fh_reserved),
     sizeof(m4FHRecord::fh_reserved)},
    {kTX, Text, 1, 0, kFixed, {}},
    {kMD, Text, 1, 0, kFixed, {}},
    {kDG, Tree, sizeof(m4DGRecord), 4, kFixed, kDgLinks, offsetof(m4DGRecord, dg_reserved),
     sizeof(m4DGRecord::dg_reserved)},
    {kCG, Tree, sizeof(m4CGRecord), 6, kFixed, kCgLinks, offsetof(m4CGRecord, cg_reserved),
     sizeof(m4CGRecord::cg_reserved)},
    {kCN, Tree, sizeof(m4CNRecord), 8, kCounted, kCnLinks},
    {kCC, Shared, sizeof(m4CCRecord), 4, kCounted, kCcLinks},
    {kSI, Shared, sizeof(m4SIRecord), 3, kFixed, kSiLinks, offsetof(m4SIRecord, si_reserved),
     sizeof(m4SIRecord::si_reserved)},
    {kSR, Tree, sizeof(m4SRRecord), 2, kFixed, kSrLinks, offsetof(m4SRRecord, sr_reserved),
     sizeof(m4SRRecord::sr_reserved)},
    {kCA, Tree, sizeof(m4CARecord), 1, kMany, kCaLinks},
    {kCH, Tree, sizeof(m4CHRecord), 4, kMany, kChLinks},
    {kAT, Tree, sizeof(m4ATRecord), 4, kFixed, kAtLinks},
    {kEV, Tree, sizeof(m4EVRecord), 5, kMany, kEvLinks},
    {kDL, DataList, sizeof(m4DLRecord), 1, kAny, kDlLinks, offsetof(m4DLRecord, dl_reserved),
     sizeof(m4DLRecord::dl_reserved)},
    {kLD, DataList, sizeof(m4LDRecord), 1, kAny, kLdLinks},
    {kHL, DataList, sizeof(m4HLRecord), 1, kFixed, kHlLinks, offsetof(m4HLRecord, hl_reserved),
     sizeof(m4HLRecord::hl_reserved)},
    {kDZ, Compressed, sizeof(m4DZRecord), 0, kFixed, {}},
    {kDT, PlainData, 0, 0, kFixed, {}},
    {kSD, PlainData, 0, 0, kFixed, {}},
    {kRD, PlainData, 0, 0, kFixed, {}},
    {kDV, PlainData, 0, 0, kFixed, {}},
    {kDI, PlainData, 0, 0, kFixed, {}},
    {kRV, PlainData, 0, 0, kFixed, {}},
    {kRI, PlainData, 0, 0, kFixed, {}},
};
static_assert(std::size(kTraits) == kKinds.size());
static_assert(std::ranges::equal(kTraits, kKinds, {}, &BlockTraits::type));

constexpr BlockTraits kNoKind = {0, Tree, 0, 0, 0, {}};
constexpr LinkTraits kUnknownLink = {nullptr, kTexts, Shares};

constexpr bool repeats(const LinkTraits& link) {
  return std::string_view(link.name).ends_with('[');
}

}  // namespace

const LinkTraits& BlockTraits::link(std::size_t index) const {
  if (index < links.size()) return links[index];
  return !links.empty() && repeats(links.back()) ? links.back() : kUnknownLink;
}

const BlockTraits& traitsOf(std::uint16_t type) {
  const auto* const traits = std::ranges::find(kTraits, type, &BlockTraits::type);
  return traits == std::end(kTraits) ? kNoKind : *traits;
}

bool mayLinkTo(std::uint16_t from, std::size_t index, std::uint16_t to) {
  return isKnownBlock(from) && (traitsOf(from).link(index).targets & setOf(to)) != 0;
}

std::string letters(std::uint16_t type) {
  return {static_cast<char>(type & 0xFF), static_cast<char>(type >> 8)};
}

std::string fieldName(std::uint16_t type, std::string_view field) {
  return letters(type).append(" block: ").append(field);
}

std::string linkName(std::uint16_t type, std::size_t index) {
  const BlockTraits& traits = traitsOf(type);
  const LinkTraits& link = traits.link(index);
  if (link.name == nullptr) return "link " + std::to_string(index);
  if (!repeats(link)) return link.name;
  return link.name + std::to_string(index + 1 - traits.links.size()) + "]";
}

std::string allowedKinds(std::uint16_t type, std::size_t index) {
  std::string kinds;
  for (const std::uint16_t kind : kKinds) {
    if (!mayLinkTo(type, index, kind)) continue;
    kinds.append(kinds.empty() ? "" : " or ").append(letters(kind));
  }
  return kinds + " block";
}

}  // namespace tolvex
