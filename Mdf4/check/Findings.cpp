#include "Mdf4/check/Findings.h"

#include <initializer_list>
#include <span>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockParts.h"
#include "Mdf4/format/BlockRecords.h"
#include "Mdf4/format/BlockTraits.h"

namespace tolvex {
namespace {

using namespace block_type;

constexpr std::uint16_t kKinds[] = {kHD, kFH, kTX, kMD, kDG, kCG, kCN, kCC, kSI, kSR, kCA, kCH, kAT,
                                    kEV, kDL, kLD, kHL, kDZ, kDT, kSD, kRD, kDV, kDI, kRV, kRI};

// The links of a kind in order. The last name stands for all that follow when it ends in "[".
std::span<const char* const> namesOf(std::uint16_t type) {
  static constexpr const char* kHdNames[] = {"hd_dg_first", "hd_fh_first", "hd_ch_first",
                                             "hd_at_first", "hd_ev_first", "hd_md_comment"};
  static constexpr const char* kFhNames[] = {"fh_fh_next", "fh_md_comment"};
  static constexpr const char* kDgNames[] = {"dg_dg_next", "dg_cg_first", "dg_data",
                                             "dg_md_comment"};
  static constexpr const char* kCgNames[] = {"cg_cg_next",       "cg_cn_first", "cg_tx_acq_name",
                                             "cg_si_acq_source", "cg_sr_first", "cg_md_comment",
                                             "cg_cg_master"};
  static constexpr const char* kCnNames[] = {
      "cn_cn_next", "cn_composition", "cn_tx_name",    "cn_si_source",    "cn_cc_conversion",
      "cn_data",    "cn_md_unit",     "cn_md_comment", "cn_at_reference["};
  static constexpr const char* kCcNames[] = {"cc_tx_name", "cc_md_unit", "cc_md_comment",
                                             "cc_cc_inverse", "cc_ref["};
  static constexpr const char* kSiNames[] = {"si_tx_name", "si_tx_path", "si_md_comment"};
  static constexpr const char* kSrNames[] = {"sr_sr_next", "sr_data"};
  static constexpr const char* kEvNames[] = {"ev_ev_next", "ev_ev_parent",  "ev_ev_range",
                                             "ev_tx_name", "ev_md_comment", "ev_scope["};
  static constexpr const char* kAtNames[] = {"at_at_next", "at_tx_filename", "at_tx_mimetype",
                                             "at_md_comment"};
  static constexpr const char* kChNames[] = {"ch_ch_next", "ch_ch_first", "ch_tx_name",
                                             "ch_md_comment", "ch_element["};
  static constexpr const char* kCaNames[] = {"ca_composition", "ca_links["};
  static constexpr const char* kDlNames[] = {"dl_dl_next", "dl_data["};
  static constexpr const char* kLdNames[] = {"ld_ld_next", "ld_data["};
  static constexpr const char* kHlNames[] = {"hl_dl_first"};
  switch (type) {
    case kHD:
      return kHdNames;
    case kFH:
      return kFhNames;
    case kDG:
      return kDgNames;
    case kCG:
      return kCgNames;
    case kCN:
      return kCnNames;
    case kCC:
      return kCcNames;
    case kSI:
      return kSiNames;
    case kSR:
      return kSrNames;
    case kEV:
      return kEvNames;
    case kAT:
      return kAtNames;
    case kCH:
      return kChNames;
    case kCA:
      return kCaNames;
    case kDL:
      return kDlNames;
    case kLD:
      return kLdNames;
    case kHL:
      return kHlNames;
    default:
      return {};
  }
}

}  // namespace

void Findings::enter(bool error, std::uint64_t position, std::string what, std::string expected,
                     std::string found) {
  constexpr std::size_t kMostKept = 1000;
  ++(error ? report_.errors : report_.warnings);
  if (report_.findings.size() >= kMostKept) return;
  report_.findings.push_back(
      {error, position, std::move(what), std::move(expected), std::move(found)});
}

std::string fieldName(std::uint16_t blockType, std::string_view field) {
  return letters(blockType).append(" block: ").append(field);
}

std::string linkName(std::uint16_t blockType, std::size_t index) {
  const std::span<const char* const> names = namesOf(blockType);
  const std::size_t last = names.empty() ? 0 : names.size() - 1;
  const std::string name = names.empty() ? "" : names[index < last ? index : last];
  if (name.ends_with('[')) {
    return index < last ? name : name + std::to_string(index - last) + "]";
  }
  return index < names.size() ? name : "link " + std::to_string(index);
}

std::string allowedKinds(std::uint16_t blockType, std::size_t index) {
  std::string kinds;
  for (const std::uint16_t kind : kKinds) {
    if (!mayLinkTo(blockType, index, kind)) continue;
    kinds.append(kinds.empty() ? "" : " or ").append(letters(kind));
  }
  return kinds + " block";
}

std::string quoted(std::string_view bytes) {
  std::string text = "\"";
  for (const char c : bytes) {
    if (c >= 0x20 && c < 0x7F) {
      text += c;
    } else {
      text += formatText("\\x%02X", unsigned{static_cast<unsigned char>(c)});
    }
  }
  return text + '"';
}

}  // namespace tolvex
