#include "Mdf4/format/FieldRules.h"

#include <algorithm>
#include <initializer_list>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/CompressedData.h"

namespace tolvex {
namespace {

enum class ValueKind : std::uint8_t { Integer, Float, Bytes, Complex };

ValueKind valueKind(std::uint8_t dataType) {
  return dataType < data_type::kFloat     ? ValueKind::Integer
         : dataType < data_type::kLatin1  ? ValueKind::Float
         : dataType < data_type::kComplex ? ValueKind::Bytes
                                          : ValueKind::Complex;
}

std::string upTo(std::uint64_t most) {
  return "at most " + std::to_string(most);
}

// Collects the faults of one record.
class Faults {
 public:
  void error(std::size_t offset, const char* field, std::string expected, std::uint64_t found) {
    list_.push_back({true, offset, field, std::move(expected), std::to_string(found)});
  }
  void warning(std::size_t offset, const char* field, std::string expected, std::uint64_t found) {
    list_.push_back({false, offset, field, std::move(expected), std::to_string(found)});
  }
  void atMost(std::uint64_t most, std::size_t offset, const char* field, std::uint64_t found) {
    if (found > most) error(offset, field, upTo(most), found);
  }
  // A count of what the block has room for `room` of.
  void fits(std::uint64_t room, std::size_t offset, const char* field, std::uint64_t found) {
    if (found > room) {
      error(offset, field, upTo(room) + ", for which the block has room", found);
    }
  }
  FieldFaults take() { return std::move(list_); }

 private:
  FieldFaults list_;
};

std::uint64_t beyond(std::uint64_t all, std::uint64_t first) {
  return all - std::min(all, first);
}

void checkBits(const m4CNRecord& channel, Faults& faults) {
  const std::size_t at = offsetof(m4CNRecord, cn_bit_count);
  const std::uint32_t bits = channel.cn_bit_count;
  const auto oneOf = [bits](std::initializer_list<std::uint32_t> sizes) {
    return std::find(sizes.begin(), sizes.end(), bits) != sizes.end();
  };
  if (isVirtual(channel) || channel.cn_data_type > data_type::kComplexBigEndian) return;
  if (channel.cn_type == channel_type::kVlsd) {  // the bits are those of an offset
    if (bits == 0 || bits > 64) faults.error(at, "cn_bit_count", "1 to 64, of an offset", bits);
    return;
  }
  switch (valueKind(channel.cn_data_type)) {
    case ValueKind::Integer:
      if (bits > 64) faults.warning(at, "cn_bit_count", "at most 64, of an integer", bits);
      break;
    case ValueKind::Float:
      if (!oneOf({16, 32, 64})) {
        faults.error(at, "cn_bit_count", "16, 32 or 64, of a float", bits);
      }
      break;
    case ValueKind::Complex:
      if (!oneOf({32, 64, 128})) {
        faults.error(at, "cn_bit_count", "32, 64 or 128, of a complex number", bits);
      }
      break;
    case ValueKind::Bytes:
      if (bits % 8 != 0) faults.warning(at, "cn_bit_count", "whole bytes", bits);
      break;
  }
}

struct Counts {
  std::uint64_t values;
  std::uint64_t refs;
  bool operator==(const Counts&) const = default;
};

// The counts of a conversion of that kind with about as many entries as one that states `given`.
Counts countsOf(std::uint8_t kind, Counts given) {
  using namespace conversion_type;
  const auto less = [](std::uint64_t count) { return count - std::min<std::uint64_t>(count, 1); };
  switch (kind) {
    case kLinear:
      return {2, 0};
    case kRational:
      return {6, 0};
    case kFormula:
      return {0, 1};
    case kN2NInterpol:
    case kN2N:
      return {given.values / 2 * 2, 0};
    case kR2N:
      return {less(given.values) / 3 * 3 + 1, 0};
    case kN2T:
      return {given.values, given.values + 1};
    case kR2T:
      return {given.values / 2 * 2, given.values / 2 + 1};
    case kT2N:
      return {given.refs + 1, given.refs};
    case kT2T:
      return {0, less(given.refs) / 2 * 2 + 1};
    case kBTT:
      return {given.values, given.values};
    default:
      return {0, 0};
  }
}

// Whether all that is missing is the value or text for what is in no entry.
bool lacksDefault(std::uint8_t kind, Counts given) {
  using namespace conversion_type;
  switch (kind) {
    case kR2N:
    case kT2N:
      ++given.values;
      break;
    case kN2T:
    case kR2T:
    case kT2T:
      ++given.refs;
      break;
    default:
      return false;
  }
  return countsOf(kind, given) == given;
}

}  // namespace

FieldFaults faultsOf(const m4CNRecord& channel, BlockRoom room) {
  Faults faults;
  faults.atMost(channel_type::kVlsc, offsetof(m4CNRecord, cn_type), "cn_type", channel.cn_type);
  faults.atMost(kSyncIndex, offsetof(m4CNRecord, cn_sync_type), "cn_sync_type",
                channel.cn_sync_type);
  if (isMaster(channel) && channel.cn_sync_type == 0) {
    faults.error(offsetof(m4CNRecord, cn_sync_type), "cn_sync_type", "1 to 4, of a master", 0);
  }
  faults.atMost(data_type::kComplexBigEndian, offsetof(m4CNRecord, cn_data_type), "cn_data_type",
                channel.cn_data_type);
  faults.atMost(7, offsetof(m4CNRecord, cn_bit_offset), "cn_bit_offset", channel.cn_bit_offset);
  checkBits(channel, faults);
  const std::uint64_t defaultX = (channel.cn_flags & kCnFlagDefaultX) != 0 ? 3 : 0;
  faults.fits(beyond(room.links, link::cn_md_comment + 1 + defaultX),
              offsetof(m4CNRecord, cn_attachment_count), "cn_attachment_count",
              channel.cn_attachment_count);
  return faults.take();
}

FieldFaults faultsOf(const m4CCRecord& conversion, BlockRoom room) {
  Faults faults;
  constexpr std::size_t kRefs = offsetof(m4CCRecord, cc_ref_count);
  constexpr std::size_t kValues = offsetof(m4CCRecord, cc_val_count);
  const Counts given = {conversion.cc_val_count, conversion.cc_ref_count};
  faults.fits(beyond(room.links, link::cc_ref), kRefs, "cc_ref_count", given.refs);
  faults.fits(beyond(room.dataBytes, sizeof(m4CCRecord)) / sizeof(double), kValues, "cc_val_count",
              given.values);
  if (conversion.cc_type > conversion_type::kBTT) {
    faults.atMost(conversion_type::kBTT, offsetof(m4CCRecord, cc_type), "cc_type",
                  conversion.cc_type);
    return faults.take();
  }
  const std::string ofKind = formatText(", of a conversion of type %u", conversion.cc_type);
  if (lacksDefault(conversion.cc_type, given)) {
    faults.warning(kRefs, "cc_ref_count", "entries and a default" + ofKind, given.refs);
    return faults.take();
  }
  const Counts right = countsOf(conversion.cc_type, given);
  if (given.values != right.values) {
    faults.error(kValues, "cc_val_count", std::to_string(right.values) + ofKind, given.values);
  }
  if (given.refs != right.refs) {
    faults.error(kRefs, "cc_ref_count", std::to_string(right.refs) + ofKind, given.refs);
  }
  return faults.take();
}

FieldFaults faultsOf(const m4CARecord& array, BlockRoom room) {
  constexpr std::uint8_t kLastType = 4;
  constexpr std::uint8_t kLastStorage = 2;
  enum Flag : std::uint32_t {
    DynamicSize = 0x01,
    Input = 0x02,
    Output = 0x04,
    Comparison = 0x08,
    Axis = 0x10,
    FixedAxis = 0x20,
  };
  Faults faults;
  faults.atMost(kLastType, offsetof(m4CARecord, ca_type), "ca_type", array.ca_type);
  faults.atMost(kLastStorage, offsetof(m4CARecord, ca_storage), "ca_storage", array.ca_storage);
  constexpr std::size_t kDimensions = offsetof(m4CARecord, ca_ndim);
  const std::uint64_t dimensions = array.ca_ndim;
  if (dimensions == 0) faults.error(kDimensions, "ca_ndim", "at least 1", 0);
  faults.fits(beyond(room.dataBytes, sizeof(m4CARecord)) / sizeof(std::uint64_t), kDimensions,
              "ca_ndim", dimensions);
  const auto has = [&](Flag flag) { return (array.ca_flags & flag) != 0; };
  const std::uint64_t links = 1 + (has(DynamicSize) ? 3 * dimensions : 0) +
                              (has(Input) ? 3 * dimensions : 0) + (has(Output) ? 3 : 0) +
                              (has(Comparison) ? 3 : 0) + (has(Axis) ? dimensions : 0) +
                              (has(Axis) && !has(FixedAxis) ? 3 * dimensions : 0);
  if (links > room.links) {
    faults.error(offsetof(m4CARecord, ca_flags), "ca_flags",
                 formatText("flags that need at most %llu links",
                            static_cast<unsigned long long>(room.links)),
                 array.ca_flags);
  }
  return faults.take();
}

FieldFaults faultsOf(const m4CHRecord& hierarchy, BlockRoom room) {
  Faults faults;
  faults.fits(beyond(room.links, link::ch_md_comment + 1) / 3,
              offsetof(m4CHRecord, ch_element_count), "ch_element_count",
              hierarchy.ch_element_count);
  return faults.take();
}

FieldFaults faultsOf(const m4EVRecord& event, BlockRoom room) {
  Faults faults;
  const std::uint64_t links = beyond(room.links, link::ev_md_comment + 1);
  faults.fits(links, offsetof(m4EVRecord, ev_scope_count), "ev_scope_count", event.ev_scope_count);
  faults.fits(beyond(links, event.ev_scope_count), offsetof(m4EVRecord, ev_attachment_count),
              "ev_attachment_count", event.ev_attachment_count);
  return faults.take();
}

FieldFaults faultsOf(const m4ATRecord& attachment, BlockRoom room) {
  Faults faults;
  faults.fits(beyond(room.dataBytes, sizeof(m4ATRecord)), offsetof(m4ATRecord, at_embedded_size),
              "at_embedded_size", attachment.at_embedded_size);
  const bool plain =
      (attachment.at_flags & (kAtFlagEmbedded | kAtFlagCompressed)) == kAtFlagEmbedded;
  if (plain && attachment.at_original_size != attachment.at_embedded_size) {
    faults.error(offsetof(m4ATRecord, at_original_size), "at_original_size",
                 std::to_string(attachment.at_embedded_size) + ", as at_embedded_size",
                 attachment.at_original_size);
  }
  return faults.take();
}

FieldFaults faultsOf(const m4DZRecord& compressed, BlockRoom room) {
  Faults faults;
  faults.atMost(kZipTransposeDeflate, offsetof(m4DZRecord, dz_zip_type), "dz_zip_type",
                compressed.dz_zip_type);
  if (compressed.dz_zip_type == kZipTransposeDeflate && compressed.dz_zip_parameter == 0) {
    faults.error(offsetof(m4DZRecord, dz_zip_parameter), "dz_zip_parameter",
                 "at least 1, the columns of a transposition", 0);
  }
  faults.fits(beyond(room.dataBytes, sizeof(m4DZRecord)), offsetof(m4DZRecord, dz_data_length),
              "dz_data_length", compressed.dz_data_length);
  if (compressed.dz_org_data_length > mostInflated(compressed.dz_data_length)) {
    faults.error(offsetof(m4DZRecord, dz_org_data_length), "dz_org_data_length",
                 upTo(mostInflated(compressed.dz_data_length)) + ", of so few compressed bytes",
                 compressed.dz_org_data_length);
  }
  return faults.take();
}

}  // namespace tolvex
