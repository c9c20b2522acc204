#include "Mdf4/Channel.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <utility>

#include "Mdf4/Blocks.h"
#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockRecords.h"

namespace tolvex {
namespace {

using namespace conversion_type;

constexpr std::size_t kLinearParameters = 2;
constexpr std::size_t kRationalParameters = 6;

// The values and references of one conversion block.
struct Conversion {
  std::vector<double> values;
  std::vector<const std::string*> texts;  // null: an empty reference
};

void take(Conversion& conversion, const std::vector<double>& parameters, std::size_t count) {
  conversion.values.assign(parameters.begin(),
                           parameters.begin() + static_cast<std::ptrdiff_t>(count));
}

// As many whole entries, of `perEntry` parameters each, as the formula has, and not more than
// `most`.
std::size_t wholeEntries(const Formula& formula, std::size_t perEntry,
                         std::size_t most = std::numeric_limits<std::size_t>::max()) {
  return std::min(formula.parameters.size() / perEntry, most);
}

// One text for each entry, then the default.
void takeTexts(Conversion& conversion, const Formula& formula, std::size_t entries) {
  for (std::size_t i = 0; i < entries; ++i) conversion.texts.push_back(&formula.texts[i]);
  conversion.texts.push_back(formula.defaultText.empty() ? nullptr : &formula.defaultText);
}

// False for a kind that is not supported and for a formula that is missing what its kind needs.
bool describe(const Formula& formula, Conversion& conversion) {
  const std::vector<double>& parameters = formula.parameters;
  switch (formula.kind) {
    case kLinear:
    case kRational: {
      const std::size_t needed = formula.kind == kLinear ? kLinearParameters : kRationalParameters;
      if (parameters.size() < needed) {
        printDiagnostic("[fatal] %s, %d: Formula of type %d needs %zu parameters, has %zu\n",
                        __FILE__, __LINE__, int{formula.kind}, needed, parameters.size());
        return false;
      }
      take(conversion, parameters, needed);
      return true;
    }
    case kFormula:
      conversion.texts.push_back(&formula.formulaText);
      return true;
    case kN2NInterpol:
    case kN2N:
      take(conversion, parameters, 2 * wholeEntries(formula, 2));
      return true;
    case kR2N:
      take(conversion, parameters, 3 * wholeEntries(formula, 3));
      conversion.values.push_back(formula.defaultValue);
      return true;
    case kN2T:
    case kR2T: {
      const std::size_t perEntry = formula.kind == kN2T ? 1 : 2;
      const std::size_t entries = wholeEntries(formula, perEntry, formula.texts.size());
      take(conversion, parameters, perEntry * entries);
      takeTexts(conversion, formula, entries);
      return true;
    }
    default:
      printDiagnostic("[fatal] %s, %d: Formula type not support: %d\n", __FILE__, __LINE__,
                      int{formula.kind});
      return false;
  }
}

// The block's counts have 16 bits.
bool fits(const Conversion& conversion) {
  constexpr std::size_t kMost = std::numeric_limits<std::uint16_t>::max();
  if (conversion.values.size() <= kMost && conversion.texts.size() <= kMost) return true;
  printDiagnostic("[fatal] %s, %d: Formula too large: %zu values, %zu texts, at most %zu\n",
                  __FILE__, __LINE__, conversion.values.size(), conversion.texts.size(), kMost);
  return false;
}

// Writes the formula's conversion block behind its texts. `position` receives its position, 0 when
// the formula makes none. False when a write fails.
bool writeFormula(DirectFile& file, const Formula& formula, std::uint64_t& position) {
  position = 0;
  Conversion conversion;
  if (!describe(formula, conversion) || !fits(conversion)) return true;
  M4CCBlock block;
  block.cc_type = formula.kind;
  block.cc_val_count = static_cast<std::uint16_t>(conversion.values.size());
  block.cc_ref_count = static_cast<std::uint16_t>(conversion.texts.size());
  block.setExtra(std::move(conversion.values));
  for (std::size_t i = 0; i < conversion.texts.size(); ++i) {
    std::uint64_t text = 0;
    if (conversion.texts[i] != nullptr) {
      text = writeText(file, *conversion.texts[i]);
      if (text == 0) return false;
    }
    block.setLink(link::cc_ref + i, text);
  }
  position = block.save(&file, m4Block::kSaveAll);
  return position != 0;
}

}  // namespace

ChannelInfo float64Channel(std::string_view name) {
  constexpr std::uint8_t kFloat = 4;  // cn_data_type, little-endian
  ChannelInfo info;
  info.name = name;
  info.dataType = kFloat;
  info.byteCount = sizeof(double);
  return info;
}

ChannelInfo timeChannel() {
  ChannelInfo info = float64Channel("time");
  info.channelType = channel_type::kMaster;
  info.syncType = kSyncTime;
  info.unit = std::string("s");
  return info;
}

Channel::Channel(ChannelInfo info) : info_(std::move(info)), block_(std::make_unique<M4CNBlock>()) {
  block_->cn_type = info_.channelType;
  block_->cn_sync_type = info_.syncType;
  block_->cn_flags = kCnFlagLimit | info_.extraFlags;
  block_->cn_limit_min = info_.limitMin;
  block_->cn_limit_max = info_.limitMax;
  block_->cn_precision = info_.precision;
  block_->cn_val_range_min = info_.valueRangeMin;
  block_->cn_val_range_max = info_.valueRangeMax;
  block_->cn_limit_ext_min = info_.limitExtMin;
  block_->cn_limit_ext_max = info_.limitExtMax;
  place();
}

Channel::~Channel() = default;

std::uint64_t Channel::position() const {
  return block_->position();
}

void Channel::place() {
  constexpr std::uint8_t kUnsigned = 0;  // cn_data_type, little-endian as the next
  constexpr std::uint8_t kSigned = 2;
  constexpr std::uint8_t kSignedBigEndian = 3;
  std::uint64_t bit = std::uint64_t{info_.byteOffset} * 8;
  if (info_.bitMask != 0) {
    // RecordData::setData has put the bytes in little-endian order.
    const bool isSigned = info_.dataType == kSigned || info_.dataType == kSignedBigEndian;
    const int lowest = std::countr_zero(info_.bitMask);
    block_->cn_data_type = isSigned ? kSigned : kUnsigned;
    block_->cn_bit_count =
        static_cast<std::uint32_t>(64 - std::countl_zero(info_.bitMask) - lowest);
    bit += static_cast<std::uint64_t>(lowest);
  } else {
    block_->cn_data_type = info_.dataType;
    block_->cn_bit_count = info_.byteCount == 0 ? info_.bitCount : info_.byteCount * 8;
    if (info_.byteCount == 0) bit += info_.bitOffset;
  }
  block_->cn_byte_offset = static_cast<std::uint32_t>(bit / 8);
  block_->cn_bit_offset = static_cast<std::uint8_t>(bit % 8);
}

bool Channel::write(DirectFile& file) {
  if (block_->save(&file, 0) == 0) return false;  // its place is in front of what it links to
  const auto writeLink = [&](std::size_t index, const std::string& text) {
    block_->setLink(index, writeText(file, text));
    return block_->link(index) != 0;
  };
  if (!writeLink(link::cn_tx_name, info_.name)) return false;
  if (!info_.unit.empty() && !writeLink(link::cn_md_unit, info_.unit)) return false;
  if (!info_.comment.empty() && !writeLink(link::cn_md_comment, info_.comment)) return false;
  std::uint64_t conversion = 0;
  if (info_.formula != nullptr && !writeFormula(file, *info_.formula, conversion)) return false;
  block_->setLink(link::cn_cc_conversion, conversion);
  return block_->save(nullptr, m4Block::kSaveAll) != 0;
}

bool Channel::linkNext(const Channel& next) {
  return writeLink(*block_, link::cn_cn_next, next.position());
}

bool Channel::linkComposition(const Channel& first) {
  return writeLink(*block_, link::cn_composition, first.position());
}

}  // namespace tolvex
