#include "Mdf4/reader/ColumnPlan.h"

#include <algorithm>
#include <cinttypes>
#include <span>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/model/Text.h"

namespace tolvex {
namespace {

// What numbers of the type are in a column.
MdfColumnType columnType(NumberType type) {
  return static_cast<MdfColumnType>(static_cast<int>(type) + static_cast<int>(MdfColumnType::Int8));
}

// Of an array whose first element is at `first`: where the element nearest to the front is, and the
// one farthest behind.
std::pair<std::int64_t, std::int64_t> reach(std::span<const ArrayDimension> dimensions,
                                            std::int64_t first,
                                            std::int64_t ArrayDimension::*step) {
  std::pair<std::int64_t, std::int64_t> places = {first, first};
  for (const ArrayDimension& dimension : dimensions) {
    const std::int64_t span = static_cast<std::int64_t>(dimension.size - 1) * (dimension.*step);
    (span < 0 ? places.first : places.second) += span;
  }
  return places;
}

class Planner {
 public:
  Planner(const ModelGroup& group, const ModelChannel& channel)
      : group_(group), channel_(channel), record_(channel.record) {
    plan_.dataType = record_.cn_data_type;
    plan_.dimensions = channel.dimensions;
    plan_.dataBytes = group.record.cg_data_bytes;
  }

  ColumnPlan plan() {
    plan_.fault = channel_.fault;
    if (plan_.fault.empty()) plan_.fault = planValues();
    if (plan_.fault.empty()) plan_.fault = countElements();
    if (plan_.fault.empty()) plan_.fault = planValidity();
    if (plan_.fault.empty()) return std::move(plan_);
    ColumnPlan none;
    none.fault = std::move(plan_.fault);
    return none;
  }

 private:
  // Each of these returns what is wrong, or nothing.
  std::string planValues() {
    switch (record_.cn_type) {
      case channel_type::kVirtualMaster:
      case channel_type::kVirtualData:
        plan_.kind = ColumnPlan::Kind::Index;
        plan_.rawType = MdfColumnType::UInt64;
        return {};
      case channel_type::kVlsd:
        plan_.kind = ColumnPlan::Kind::Value;
        plan_.rawType = typeOfBytes();
        return planOutside();
      case channel_type::kMaximumLength:
        return planSized();
      case channel_type::kFixedLength:
      case channel_type::kMaster:
      case channel_type::kSynchronization:
        return planInside();
      default:
        return formatText("channels of type %u are not supported", unsigned{record_.cn_type});
    }
  }

  std::string planInside() {
    const std::uint8_t type = record_.cn_data_type;
    const std::uint32_t bits = record_.cn_bit_count;
    if (type == data_type::kComplex || type == data_type::kComplexBigEndian) return planComplex();
    if (RawField::isNumber(type, bits)) {
      plan_.kind = ColumnPlan::Kind::Number;
      return placeNumber(type, bits);
    }
    if (bits == 0 && type <= data_type::kFloatBigEndian) {
      plan_.kind = ColumnPlan::Kind::Constant;
      plan_.rawType = MdfColumnType::UInt8;
      return {};
    }
    if (type == data_type::kFloat || type == data_type::kFloatBigEndian) {
      return formatText("floats of %u bits are not supported", bits);
    }
    return planBytes();
  }

  // A real part, and an imaginary one behind it.
  std::string planComplex() {
    const std::uint32_t bits = record_.cn_bit_count / 2;
    const std::uint8_t type = record_.cn_data_type == data_type::kComplex
                                  ? data_type::kFloat
                                  : data_type::kFloatBigEndian;
    if (record_.cn_bit_count % 2 != 0 || !RawField::isNumber(type, bits)) {
      return formatText("complex numbers of %u bits are not supported", record_.cn_bit_count);
    }
    plan_.kind = ColumnPlan::Kind::Number;
    plan_.dimensions.push_back({2, bits / 8, 0});
    return placeNumber(type, bits);
  }

  std::string placeNumber(std::uint8_t type, std::uint32_t bits) {
    plan_.number.emplace(type, bits, record_.cn_byte_offset, record_.cn_bit_offset);
    plan_.rawType = columnType(plan_.number->type());
    return faultOfPlace((bits + record_.cn_bit_offset + 7) / 8);
  }

  // Lengths or offsets, which `channel` has.
  std::string placeInteger(const m4CNRecord& channel) {
    const std::uint32_t bits = channel.cn_bit_count;
    if (bits == 0 || bits > 64) {
      return formatText("lengths and offsets of %u bits are not supported", bits);
    }
    const bool isBigEndian = channel.cn_data_type == data_type::kUnsignedBigEndian &&
                             channel.cn_type != channel_type::kVlsd;
    plan_.number.emplace(isBigEndian ? data_type::kUnsignedBigEndian : data_type::kUnsigned, bits,
                         channel.cn_byte_offset, channel.cn_bit_offset);
    return {};
  }

  std::string planOutside() {
    std::string fault = placeInteger(record_);
    if (!fault.empty()) return fault;
    return faultOfPlace((record_.cn_bit_count + record_.cn_bit_offset + 7) / 8);
  }

  MdfColumnType typeOfBytes() const {
    const std::uint8_t type = record_.cn_data_type;
    const bool isDate = type == data_type::kCanOpenDate || type == data_type::kCanOpenTime;
    return isTextType(type) || isDate ? MdfColumnType::Text : MdfColumnType::Bytes;
  }

  std::string planBytes() {
    if (record_.cn_bit_offset != 0) return "bytes that begin inside a byte are not supported";
    plan_.kind = ColumnPlan::Kind::Bytes;
    plan_.rawType = typeOfBytes();
    plan_.size = record_.cn_bit_count / 8 + (record_.cn_bit_count % 8 != 0 ? 1 : 0);
    plan_.byte = record_.cn_byte_offset;
    return faultOfPlace(plan_.size);
  }

  std::string planSized() {
    const auto length = std::ranges::find(group_.channels, channel_.data, &ModelChannel::position);
    if (channel_.data == 0 || length == group_.channels.end()) {
      return formatText("expected the channel of its length at %" PRIu64 ", found none",
                        channel_.data);
    }
    std::string fault = planBytes();
    if (fault.empty()) fault = placeInteger(length->record);
    if (fault.empty()) fault = planLengths(*length);
    plan_.kind = ColumnPlan::Kind::Sized;
    return fault;
  }

  // One length for each element, or for those of its inner dimensions together.
  std::string planLengths(const ModelChannel& length) {
    const std::vector<ArrayDimension>& outer = length.dimensions;
    if (outer.size() > plan_.dimensions.size() ||
        !std::equal(outer.begin(), outer.end(), plan_.dimensions.begin())) {
      return "lengths in an array of another shape are not supported";
    }
    plan_.lengthDimensions = outer.size();
    const m4CNRecord& place = length.record;
    return faultOfPlace(place, (place.cn_bit_count + place.cn_bit_offset + 7) / 8, outer);
  }

  // Whether all elements are inside the record, with so many bytes each.
  std::string faultOfPlace(std::uint64_t size) const {
    return faultOfPlace(record_, size, plan_.dimensions);
  }
  std::string faultOfPlace(const m4CNRecord& place, std::uint64_t size,
                           std::span<const ArrayDimension> dimensions) const {
    const auto [first, last] = reach(dimensions, place.cn_byte_offset, &ArrayDimension::byteStep);
    const bool isInside = first >= 0 && size <= plan_.dataBytes &&
                          last <= std::int64_t{plan_.dataBytes} - static_cast<std::int64_t>(size);
    if (isInside) return {};
    return formatText("expected %s inside its record of %u bytes, found %u bits at byte %" PRId64,
                      &place == &record_ ? "it" : "its length", plan_.dataBytes, place.cn_bit_count,
                      first < 0 ? first : last);
  }

  // Elements that lie on each other are none: so a column has hardly more bytes than its records.
  std::string countElements() {
    std::uint64_t elements = 1;
    for (const ArrayDimension& dimension : plan_.dimensions) elements *= dimension.size;
    if (elements > std::max<std::uint64_t>(plan_.dataBytes, 1)) {
      return formatText("expected its elements inside its record of %u bytes, found %" PRIu64
                        " of them",
                        plan_.dataBytes, elements);
    }
    plan_.elements = inMemory(elements);
    return {};
  }

  // The bits of the channel, and of those around it.
  std::string planValidity() {
    for (const ModelChannel* channel = &channel_; channel != nullptr;
         channel = channel->parent < 0
                       ? nullptr
                       : &group_.channels[static_cast<std::size_t>(channel->parent)]) {
      const std::uint32_t flags = channel->record.cn_flags;
      if ((flags & kCnFlagAllInvalid) != 0) plan_.allInvalid = true;
      if ((flags & kCnFlagInvalidBit) == 0) continue;
      std::string fault = addInvalidBits(*channel);
      if (!fault.empty()) return fault;
    }
    return {};
  }

  std::string addInvalidBits(const ModelChannel& channel) {
    const std::int64_t bits = std::int64_t{group_.record.cg_inval_bytes} * 8;
    const auto [first, last] =
        reach(channel.dimensions, channel.record.cn_inval_bit_pos, &ArrayDimension::invalidBitStep);
    if (first < 0 || last >= bits) {
      return formatText("expected its invalidation bit inside %u bytes, found bit %" PRId64,
                        group_.record.cg_inval_bytes, first < 0 ? first : last);
    }
    plan_.invalidBits.push_back({channel.record.cn_inval_bit_pos, channel.dimensions.size()});
    return {};
  }

  const ModelGroup& group_;
  const ModelChannel& channel_;
  const m4CNRecord& record_;
  ColumnPlan plan_;
};

}  // namespace

ColumnPlan planColumn(const ModelGroup& group, const ModelChannel& channel) {
  return Planner(group, channel).plan();
}

void addBytes(const ColumnPlan& plan, std::vector<RecordBytes>& ranges) {
  const auto add = [&](std::size_t dimensions, std::int64_t first, std::int64_t size,
                       std::int64_t ArrayDimension::*step, std::int64_t perByte) {
    const auto [low, high] = reach({plan.dimensions.data(), dimensions}, first, step);
    const auto begin = static_cast<std::size_t>(low / perByte);
    ranges.push_back({begin, static_cast<std::size_t>((high + size - 1) / perByte + 1) - begin});
  };
  using Kind = ColumnPlan::Kind;
  if (plan.kind == Kind::Number || plan.kind == Kind::Value) {
    add(plan.dimensions.size(), static_cast<std::int64_t>(plan.number->byte()),
        static_cast<std::int64_t>(plan.number->touched()), &ArrayDimension::byteStep, 1);
  } else if (plan.kind == Kind::Bytes || plan.kind == Kind::Sized) {
    add(plan.dimensions.size(), plan.byte, static_cast<std::int64_t>(plan.size),
        &ArrayDimension::byteStep, 1);
  }
  if (plan.kind == Kind::Sized) {
    add(plan.lengthDimensions, static_cast<std::int64_t>(plan.number->byte()),
        static_cast<std::int64_t>(plan.number->touched()), &ArrayDimension::byteStep, 1);
  }
  for (const ColumnPlan::InvalidBits& bits : plan.invalidBits) {
    add(bits.dimensions, std::int64_t{plan.dataBytes} * 8 + static_cast<std::int64_t>(bits.first),
        1, &ArrayDimension::invalidBitStep, 8);
  }
}

void planConversion(ColumnPlan& plan, std::uint64_t conversion, ConversionLoader& conversions) {
  if (plan.kind == ColumnPlan::Kind::None) return;
  using Input = ValueConversion::Input;
  const bool isNumber = plan.rawType < MdfColumnType::Text;
  const bool isFloat =
      plan.rawType == MdfColumnType::Float32 || plan.rawType == MdfColumnType::Float64;
  const Input input = !isNumber ? Input::Text : isFloat ? Input::Float : Input::Integer;
  plan.conversion = conversions.load(conversion, input);
  if (plan.conversion == nullptr) {
    plan.fault = formatText("its conversion at %" PRIu64 " cannot be applied", conversion);
  } else if (plan.conversion->isIdentity()) {
    plan.type = plan.rawType;
  } else if (plan.rawType == MdfColumnType::Bytes) {
    plan.fault = "bytes have no conversion";
  } else {
    plan.type = plan.conversion->givesTexts() ? MdfColumnType::Dictionary : MdfColumnType::Float64;
  }
}

void planTime(ColumnPlan& plan, const TimeScale::Base& base) {
  if (plan.conversion == nullptr || plan.elements != 1 || plan.rawType >= MdfColumnType::Text) {
    return;
  }
  plan.time.emplace(base, plan.conversion->line());
}

}  // namespace tolvex
