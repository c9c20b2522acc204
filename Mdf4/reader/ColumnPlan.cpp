#include "Mdf4/reader/ColumnPlan.h"

#include <algorithm>
#include <cinttypes>
#include <optional>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/model/Text.h"

namespace tolvex {
namespace {

// Of an array: more of them would need more memory than records that can be made sense of.
constexpr std::uint64_t kMostElements = std::uint64_t{1} << 24;

// What numbers of the type are in a column.
MdfColumnType columnType(NumberType type) {
  return static_cast<MdfColumnType>(static_cast<int>(type) + static_cast<int>(MdfColumnType::Int8));
}

// Calls `isInside` with the place of each element, the last index changing fastest, until it is
// false for one: that place.
template <class IsInside>
std::optional<std::int64_t> firstOutside(const std::vector<ArrayDimension>& dimensions,
                                         std::int64_t first, std::int64_t ArrayDimension::*step,
                                         IsInside isInside) {
  std::vector<std::uint64_t> index(dimensions.size());
  for (;;) {
    std::int64_t place = first;
    for (std::size_t i = 0; i < index.size(); ++i) {
      place += static_cast<std::int64_t>(index[i]) * (dimensions[i].*step);
    }
    if (!isInside(place)) return place;
    std::size_t last = index.size();
    while (last > 0 && ++index[last - 1] == dimensions[last - 1].size) index[--last] = 0;
    if (last == 0) return std::nullopt;
  }
}

class Planner {
 public:
  Planner(const ModelGroup& group, const ModelChannel& channel)
      : group_(group), channel_(channel), record_(channel.record) {
    plan_.dataType = record_.cn_data_type;
    plan_.elements = channel.elements();
  }

  ColumnPlan plan() {
    plan_.fault = channel_.fault;
    if (plan_.fault.empty() && plan_.elements > kMostElements) {
      plan_.fault = formatText("arrays of %" PRIu64 " elements are not supported", plan_.elements);
    }
    if (plan_.fault.empty()) plan_.fault = planValues();
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
        return addIntegers(record_);
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
      return addNumbers(type, bits, {0});
    }
    if (bits == 0) {
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
    plan_.elements *= 2;
    return addNumbers(type, bits, {0, bits / 8});
  }

  std::string addNumbers(std::uint8_t type, std::uint32_t bits,
                         const std::vector<std::uint32_t>& parts) {
    const std::string fault = forEachElement([&](std::uint32_t byteOffset) {
      for (const std::uint32_t part : parts) {
        plan_.numbers.emplace_back(type, bits, byteOffset + part, record_.cn_bit_offset);
        if (!plan_.numbers.back().isInside(group_.record.cg_data_bytes)) return false;
      }
      return true;
    });
    if (fault.empty()) plan_.rawType = columnType(plan_.numbers.front().type());
    return fault;
  }

  // Lengths or offsets, which `channel` has.
  std::string addIntegers(const m4CNRecord& channel) {
    if (channel.cn_bit_count == 0 || channel.cn_bit_count > 64) {
      return formatText("lengths and offsets of %u bits are not supported", channel.cn_bit_count);
    }
    const std::uint8_t type = channel.cn_data_type == data_type::kUnsignedBigEndian &&
                                      channel.cn_type != channel_type::kVlsd
                                  ? data_type::kUnsignedBigEndian
                                  : data_type::kUnsigned;
    return forEachElement([&](std::uint32_t byteOffset) {
      const std::uint32_t place = &channel == &record_ ? byteOffset : channel.cn_byte_offset;
      plan_.numbers.emplace_back(type, channel.cn_bit_count, place, channel.cn_bit_offset);
      return plan_.numbers.back().isInside(group_.record.cg_data_bytes);
    });
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
    plan_.size = std::uint64_t{record_.cn_bit_count} / 8 + (record_.cn_bit_count % 8 != 0 ? 1 : 0);
    const std::uint64_t inRecord = group_.record.cg_data_bytes;
    return forEachElement([&](std::uint32_t byteOffset) {
      plan_.bytes.push_back(byteOffset);
      return byteOffset <= inRecord && plan_.size <= inRecord - byteOffset;
    });
  }

  std::string planSized() {
    const auto length = std::ranges::find(group_.channels, channel_.data, &ModelChannel::position);
    if (channel_.data == 0 || length == group_.channels.end()) {
      return formatText("expected the channel of its length at %" PRIu64 ", found none",
                        channel_.data);
    }
    std::string fault = planBytes();
    if (fault.empty()) fault = addIntegers(length->record);
    plan_.kind = ColumnPlan::Kind::Sized;
    return fault;
  }

  // Calls `visit` with the byte offset of each element, until one is not inside its record.
  template <class Visit>
  std::string forEachElement(Visit visit) const {
    const auto isInside = [&](std::int64_t place) {
      return place >= 0 && place <= ~std::uint32_t{0} && visit(static_cast<std::uint32_t>(place));
    };
    const auto outside = firstOutside(channel_.dimensions, record_.cn_byte_offset,
                                      &ArrayDimension::byteStep, isInside);
    if (!outside) return {};
    return formatText("expected it inside its record of %u bytes, found %u bits at byte %" PRId64,
                      group_.record.cg_data_bytes, record_.cn_bit_count, *outside);
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
    ColumnPlan::InvalidBits bits;
    const auto add = [&](std::int64_t bit) {
      if (bit < 0 || bit / 8 >= group_.record.cg_inval_bytes) return false;
      const auto position = static_cast<std::uint64_t>(bit);
      bits.push_back({group_.record.cg_data_bytes + position / 8,
                      static_cast<std::uint8_t>(1U << position % 8)});
      return true;
    };
    const auto outside = firstOutside(channel.dimensions, channel.record.cn_inval_bit_pos,
                                      &ArrayDimension::invalidBitStep, add);
    if (outside) {
      return formatText("expected its invalidation bit inside %u bytes, found bit %" PRId64,
                        group_.record.cg_inval_bytes, *outside);
    }
    plan_.invalidBits.push_back(std::move(bits));
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
