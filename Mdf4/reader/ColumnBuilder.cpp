#include "Mdf4/reader/ColumnBuilder.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <string_view>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/model/Text.h"
#include "Mdf4/reader/ColumnMemory.h"

namespace tolvex {
namespace {

NumberType numberType(MdfColumnType type) {
  return static_cast<NumberType>(static_cast<int>(type) - static_cast<int>(MdfColumnType::Int8));
}

bool isNumber(MdfColumnType type) {
  return type >= MdfColumnType::Int8 && type <= MdfColumnType::Float64;
}

// A point in time without a zone; "" when there is no such day.
std::string isoTime(std::chrono::year_month_day day, std::uint64_t milliseconds) {
  if (!day.ok() || milliseconds >= 86'400'000) return {};
  return formatText("%04d-%02u-%02uT%02u:%02u:%02u.%03u", static_cast<int>(day.year()),
                    static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()),
                    static_cast<unsigned>(milliseconds / 3'600'000),
                    static_cast<unsigned>(milliseconds / 60'000 % 60),
                    static_cast<unsigned>(milliseconds / 1000 % 60),
                    static_cast<unsigned>(milliseconds % 1000));
}

// CANopen date: milliseconds of the minute, minute, hour, day, month, year of the century.
std::string dateText(ByteSpan bytes) {
  constexpr std::size_t kBytes = 7;
  if (bytes.size() < kBytes) return {};
  const std::uint64_t ofMinute = loadNumber<std::uint16_t>(bytes.data());
  const std::uint64_t minute = bytes[2] & 0x3FU;
  const std::uint64_t hour = bytes[3] & 0x1FU;
  if (ofMinute >= 60'000 || minute >= 60) return {};
  const std::chrono::year_month_day day{std::chrono::year{2000 + (bytes[6] & 0x7F)},
                                        std::chrono::month{bytes[5] & 0x3FU},
                                        std::chrono::day{bytes[4] & 0x1FU}};
  return isoTime(day, (hour * 60 + minute) * 60'000 + ofMinute);
}

// CANopen time: milliseconds of the day, days since 1984.
std::string timeText(ByteSpan bytes) {
  constexpr std::size_t kBytes = 6;
  using namespace std::chrono_literals;
  if (bytes.size() < kBytes) return {};
  const std::uint32_t ofDay = loadNumber<std::uint32_t>(bytes.data()) & 0x0FFFFFFF;
  const std::chrono::days days{loadNumber<std::uint16_t>(bytes.data() + 4)};
  return isoTime(std::chrono::sys_days{1984y / 1 / 1} + days, ofDay);
}

}  // namespace

std::string_view MdfColumn::text(std::uint64_t index) const {
  if (type_ == MdfColumnType::Dictionary) {
    const std::int32_t code = as<std::int32_t>()[static_cast<std::size_t>(index)];
    return code < 0 ? std::string_view() : texts_[static_cast<std::size_t>(code)];
  }
  if (offsets_ == nullptr) return {};
  const auto at = static_cast<std::size_t>(index);
  return {as<char>() + offsets_[at], static_cast<std::size_t>(offsets_[at + 1] - offsets_[at])};
}

MdfColumnType typeIn(ColumnForm form, const ColumnPlan& plan) {
  const bool isRaw = form == ColumnForm::Raw || form == ColumnForm::RawDoubles;
  const MdfColumnType type = isRaw ? plan.rawType : plan.type;
  const bool isTime = plan.time && isNumber(type);
  const bool isText = type == MdfColumnType::Text || type == MdfColumnType::Bytes;
  switch (form) {
    case ColumnForm::Doubles:
    case ColumnForm::RawDoubles:
      return isText || type == MdfColumnType::None ? MdfColumnType::None : MdfColumnType::Float64;
    case ColumnForm::Seconds:
      return isTime ? MdfColumnType::Float64 : MdfColumnType::None;
    case ColumnForm::Nanoseconds:
      return isTime ? MdfColumnType::Int64 : MdfColumnType::None;
    default:
      return type;
  }
}

std::size_t widthOf(MdfColumnType type) {
  if (type == MdfColumnType::Dictionary) return sizeof(std::int32_t);
  return isNumber(type) ? sizeOf(numberType(type)) : 0;
}

namespace {

// Null: the values are taken as they are.
const ValueConversion* conversionFor(ColumnForm form, const ColumnPlan& plan) {
  const bool isRaw = form == ColumnForm::Raw || form == ColumnForm::RawDoubles;
  const ValueConversion* const conversion = plan.conversion.get();
  return isRaw || conversion == nullptr || conversion->isIdentity() ? nullptr : conversion;
}

}  // namespace

ColumnBuilder::ColumnBuilder(const ColumnPlan& plan, ColumnForm form, std::uint64_t rows,
                             ValueSource* values, ColumnWorkspace& workspace, void* out)
    : plan_(plan),
      form_(form),
      conversion_(conversionFor(form, plan)),
      values_(values),
      raw_(workspace.raw),
      doubles_(workspace.doubles),
      valid_(workspace.valid) {
  column_.type_ = typeIn(form, plan);
  column_.rows_ = rows;
  column_.elements_ = plan_.elements;
  if (column_.type_ != MdfColumnType::None) setUp(rows, out);
}

void ColumnBuilder::setUp(std::uint64_t rows, void* out) {
  constexpr std::uint64_t kPerRow = 1024;
  constexpr std::uint64_t kAlways = 1 << 20;
  constexpr std::uint64_t kAlwaysOfTables = 1 << 22;
  constexpr std::uint64_t kMost = std::uint64_t{1} << 56;
  checkSize(rows, plan_.elements);
  if (plan_.elements != 1 && rows != 0) placeElements();
  width_ = widthOf(column_.type_);
  out_ = static_cast<std::uint8_t*>(out);
  // Values may recur, and texts be made of others, but a small file cannot make a huge column.
  most_ = (width_ == 0 ? kAlways : kAlwaysOfTables) + rows * plan_.elements * kPerRow;
  if (values_ != nullptr) most_ += 16 * std::min(values_->size(), kMost);
  if (width_ == 0) {
    allocate(column_.offsets_, column_.size() + 1);
    column_.offsets_[0] = 0;
  } else if (out_ == nullptr) {
    allocate(column_.data_, column_.size() * width_);
    out_ = column_.data_.get();
  }
}

void ColumnBuilder::placeElements() {
  const auto place = [&](std::size_t dimensions, std::int64_t ArrayDimension::*step,
                         auto& offsets) {
    // The last index changes fastest; inner dimensions that do not count repeat what is there.
    offsets.assign(1, 0);
    for (std::size_t i = 0; i < plan_.dimensions.size(); ++i) {
      const ArrayDimension& dimension = plan_.dimensions[i];
      const std::int64_t distance = i < dimensions ? dimension.*step : 0;
      const auto outer = std::exchange(offsets, {});
      offsets.reserve(outer.size() * inMemory(dimension.size));
      for (const auto offset : outer) {
        for (std::uint64_t k = 0; k < dimension.size; ++k) {
          offsets.push_back(
              static_cast<std::ptrdiff_t>(offset + static_cast<std::int64_t>(k) * distance));
        }
      }
    }
  };
  place(plan_.dimensions.size(), &ArrayDimension::byteStep, byteOffsets_);
  if (plan_.kind == ColumnPlan::Kind::Sized) {
    place(plan_.lengthDimensions, &ArrayDimension::byteStep, lengthOffsets_);
  }
  for (const ColumnPlan::InvalidBits& bits : plan_.invalidBits) {
    place(bits.dimensions, &ArrayDimension::invalidBitStep, bitOffsets_.emplace_back());
  }
}

void ColumnBuilder::append(const RecordRows& records, std::uint64_t first) {
  if (column_.type_ == MdfColumnType::None) return appendLost(records.count);
  for (std::size_t done = 0; done < records.count;) {
    RecordRows some = records.from(done);
    some.count = std::min(some.count, kAtOnce);
    if (isNumber(plan_.rawType)) {
      for (std::size_t e = 0; e < plan_.elements; ++e) appendNumbers(some, first + done, e);
      row_ += some.count;
    } else {
      for (std::size_t i = 0; i < some.count; ++i, ++row_) {
        for (std::size_t e = 0; e < plan_.elements; ++e) {
          appendBytes(some.first + i * some.stride, first + done + i, e);
        }
      }
    }
    done += some.count;
  }
}

void ColumnBuilder::appendLost(std::uint64_t count) {
  const std::size_t start = indexOf(0);
  const std::size_t end = start + inMemory(count) * plan_.elements;
  if (width_ != 0) std::memset(out_ + start * width_, 0, (end - start) * width_);
  for (std::size_t i = start; i < end; ++i) {
    if (column_.offsets_ != nullptr) column_.offsets_[i + 1] = static_cast<std::int64_t>(used_);
    markInvalid(i);
  }
  row_ += inMemory(count);
}

MdfColumn ColumnBuilder::finish() {
  column_.rows_ = row_;
  return std::move(column_);
}

// ---------------------------------------------------------------------------------------------
// Numbers

void ColumnBuilder::appendNumbers(const RecordRows& records, std::uint64_t first,
                                  std::size_t element) {
  findInvalid(records, element);
  const bool isExact = conversion_ == nullptr && form_ <= ColumnForm::Raw;
  if (isExact && plan_.elements == 1 && plan_.kind == ColumnPlan::Kind::Number) {
    plan_.number->gather(records, out_ + row_ * width_);
  } else {
    const NumberType type = gatherRaw(records, first, element);
    if (isExact) {
      store(raw_.data(), records.count, element);
    } else if (form_ == ColumnForm::Nanoseconds) {
      appendTimes(type, records.count);
    } else if (conversion_ != nullptr && conversion_->givesTexts()) {
      return lookUp(type, records.count, element);
    } else {
      appendDoubles(type, records.count, element);
    }
  }
  const auto* const valid = valid_.data();
  const auto* at = valid;
  while ((at = static_cast<const std::uint8_t*>(std::memchr(
              at, 0, records.count - static_cast<std::size_t>(at - valid)))) != nullptr) {
    markInvalid(indexOf(element) + static_cast<std::size_t>(at - valid) * plan_.elements);
    ++at;
  }
}

void ColumnBuilder::appendDoubles(NumberType type, std::size_t count, std::size_t element) {
  const bool isInPlace = plan_.elements == 1;
  double* const doubles = isInPlace ? reinterpret_cast<double*>(out_) + row_ : doubles_.data();
  toDoubles(type, raw_.data(), count, doubles);
  if (conversion_ != nullptr) conversion_->convert({doubles, count}, {valid_.data(), count});
  if (form_ == ColumnForm::Seconds) plan_.time->toSeconds({doubles, count});
  if (!isInPlace) store(doubles, count, element);
}

void ColumnBuilder::appendTimes(NumberType type, std::size_t count) {
  auto* const times = reinterpret_cast<std::int64_t*>(out_) + row_;
  if (plan_.time->isExact(type)) {
    plan_.time->ofTicks(type, {raw_.data(), count}, times);
  } else {
    toDoubles(type, raw_.data(), count, doubles_.data());
    if (conversion_ != nullptr) {
      conversion_->convert({doubles_.data(), count}, {valid_.data(), count});
    }
    plan_.time->ofValues({doubles_.data(), count}, times);
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (times[i] == TimeScale::kNone) valid_[i] = 0;
  }
}

NumberType ColumnBuilder::gatherRaw(const RecordRows& records, std::uint64_t first,
                                    std::size_t element) {
  switch (plan_.kind) {
    case ColumnPlan::Kind::Index:
      for (std::size_t i = 0; i < records.count; ++i) raw_[i] = first + i;
      return NumberType::UInt64;
    case ColumnPlan::Kind::Number:
      plan_.number->gather(plan_.elements == 1 ? records : records.shifted(byteOffsets_[element]),
                           raw_.data());
      return plan_.number->type();
    default:
      raw_.fill(0);
      return NumberType::UInt8;
  }
}

void ColumnBuilder::store(const void* numbers, std::size_t count, std::size_t element) {
  const auto* from = static_cast<const std::uint8_t*>(numbers);
  std::uint8_t* to = out_ + indexOf(element) * width_;
  const std::size_t step = plan_.elements * width_;
  if (plan_.elements == 1) {
    std::memcpy(to, from, count * width_);
    return;
  }
  for (std::size_t i = 0; i < count; ++i, from += width_, to += step) std::memcpy(to, from, width_);
}

// Texts for numbers, each of which is looked up once.
void ColumnBuilder::lookUp(NumberType type, std::size_t count, std::size_t element) {
  toDoubles(type, raw_.data(), count, doubles_.data());
  const bool isFloat = type >= NumberType::Float32;
  const std::size_t width = sizeOf(type);
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(raw_.data());
  for (std::size_t i = 0; i < count; ++i) {
    RawValue value;
    value.number = doubles_[i];
    std::uint64_t key = 0;
    std::memcpy(&key, bytes + i * width, width);
    value.bits = key;
    if (isFloat) {
      const bool fits = value.number >= 0 && value.number < 0x1p64;
      value.bits = fits ? static_cast<std::uint64_t>(value.number) : 0;
    } else if (type <= NumberType::Int64 && width < sizeof key) {
      const unsigned above = static_cast<unsigned>(8 * (sizeof key - width));
      value.bits = static_cast<std::uint64_t>(static_cast<std::int64_t>(key << above) >> above);
    }
    const std::size_t index = indexOf(element) + i * plan_.elements;
    storeMeant(valid_[i] != 0 ? meantBy(key, value) : Meant(), index);
  }
}

const ColumnBuilder::Meant& ColumnBuilder::meantBy(std::uint64_t key, const RawValue& value) {
  constexpr std::size_t kMostKnown = 1 << 16;
  if (meant_.size() > kMostKnown) meant_.clear();
  const auto [found, isNew] = meant_.try_emplace(key);
  if (isNew) found->second = meantBy(value);
  return found->second;
}

ColumnBuilder::Meant ColumnBuilder::meantBy(const RawValue& value) {
  Meaning meaning = conversion_->meaningOf(value);
  Meant meant;
  meant.hasNumber = meaning.hasNumber;
  meant.number = meaning.number;
  if (meaning.hasText) {
    const auto known = codes_.find(meaning.text);
    if (known != codes_.end()) {
      meant.code = known->second;
    } else if (meaning.text.size() <= most_ - used_) {
      used_ += meaning.text.size();
      meant.code = static_cast<std::int32_t>(column_.texts_.size());
      column_.texts_.push_back(meaning.text);
      codes_.emplace(std::move(meaning.text), meant.code);
    }
  }
  return meant;
}

void ColumnBuilder::storeMeant(const Meant& meant, std::size_t index) {
  if (column_.type_ == MdfColumnType::Float64) {
    reinterpret_cast<double*>(out_)[index] = meant.hasNumber ? meant.number : std::nan("");
  } else {
    reinterpret_cast<std::int32_t*>(out_)[index] = meant.code;
    if (meant.hasNumber) {
      if (column_.numbers_.empty()) column_.numbers_.resize(inMemory(column_.size()), std::nan(""));
      column_.numbers_[index] = meant.number;
    }
  }
  const bool hasText = meant.code >= 0 && form_ < ColumnForm::Doubles;
  if (!meant.hasNumber && !hasText) markInvalid(index);
}

// ---------------------------------------------------------------------------------------------
// Texts and bytes

void ColumnBuilder::appendBytes(const std::uint8_t* record, std::uint64_t number,
                                std::size_t element) {
  const std::size_t index = indexOf(element);
  findInvalid({record, 0, 1, nullptr}, element);
  ByteSpan bytes;
  bool isValid = valid_[0] != 0 && findBytes(record, number, element, bytes);
  if (width_ != 0) {
    text_.clear();
    Meant meant;
    if (isValid) {
      appendText(plan_.dataType, bytes, text_);
      RawValue value;
      value.text = text_;
      meant = meantBy(value);
    }
    storeMeant(meant, index);
    return;
  }
  if (isValid) {
    if (column_.type_ == MdfColumnType::Text) {
      isValid = addText(bytes);
    } else {
      addBytes(bytes);
    }
  }
  column_.offsets_[index + 1] = static_cast<std::int64_t>(used_);
  if (!isValid) markInvalid(index);
}

// `number` is the record's.
bool ColumnBuilder::findBytes(const std::uint8_t* record, std::uint64_t number, std::size_t element,
                              ByteSpan& bytes) {
  const std::ptrdiff_t offset = byteOffsets_.empty() ? 0 : byteOffsets_[element];
  if (plan_.kind == ColumnPlan::Kind::Value) {
    if (values_ == nullptr || (values_->isByOrder() && plan_.elements != 1)) return false;
    if (!values_->isByOrder()) number = plan_.number->read(record + offset);
    if (!values_->read(number, value_) || used_ + value_.size() > most_) return false;
    bytes = value_;
    return true;
  }
  std::size_t size = plan_.size;
  if (plan_.kind == ColumnPlan::Kind::Sized) {
    const std::uint64_t length =
        plan_.number->read(record + (lengthOffsets_.empty() ? 0 : lengthOffsets_[element]));
    if (length > size) return false;
    size = static_cast<std::size_t>(length);
  }
  bytes = {record + plan_.byte + offset, size};
  return true;
}

// False when the bytes are no text.
bool ColumnBuilder::addText(ByteSpan bytes) {
  text_.clear();
  if (plan_.dataType == data_type::kCanOpenDate || plan_.dataType == data_type::kCanOpenTime) {
    text_ = plan_.dataType == data_type::kCanOpenDate ? dateText(bytes) : timeText(bytes);
    if (text_.empty()) return false;
  } else {
    appendText(plan_.dataType, bytes, text_);
  }
  addBytes({reinterpret_cast<const std::uint8_t*>(text_.data()), text_.size()});
  return true;
}

void ColumnBuilder::addBytes(ByteSpan bytes) {
  if (bytes.size() > capacity_ - used_) {
    const std::size_t wanted = std::max<std::size_t>({used_ + bytes.size(), 2 * capacity_, 4096});
    enlarge(column_.data_, used_, wanted);
    capacity_ = wanted;
  }
  if (!bytes.empty()) std::memcpy(column_.data_.get() + used_, bytes.data(), bytes.size());
  used_ += bytes.size();
}

// ---------------------------------------------------------------------------------------------
// Validity

// Says for each record in valid_ whether it has a valid value.
void ColumnBuilder::findInvalid(const RecordRows& records, std::size_t element) {
  std::fill_n(valid_.begin(), records.count, plan_.allInvalid ? 0 : 1);
  for (std::size_t i = 0; i < plan_.invalidBits.size(); ++i) {
    const std::int64_t offset = bitOffsets_.empty() ? 0 : bitOffsets_[i][element];
    const std::uint64_t bit = plan_.invalidBits[i].first + static_cast<std::uint64_t>(offset);
    const std::uint8_t* byte = records.first + plan_.dataBytes + bit / 8;
    const auto mask = static_cast<std::uint8_t>(1U << bit % 8);
    for (std::size_t k = 0; k < records.count; ++k, byte += records.stride) {
      if ((*byte & mask) != 0) valid_[k] = 0;
    }
  }
}

void ColumnBuilder::markInvalid(std::size_t index) {
  if (out_ == nullptr) {
    // Texts, bytes, or nothing at all: there is no number to take back.
  } else if (form_ == ColumnForm::Nanoseconds) {
    reinterpret_cast<std::int64_t*>(out_)[index] = TimeScale::kNone;
  } else if (form_ >= ColumnForm::Doubles) {
    reinterpret_cast<double*>(out_)[index] = std::nan("");
  } else if (column_.type_ == MdfColumnType::Dictionary) {
    reinterpret_cast<std::int32_t*>(out_)[index] = -1;
  }
  if (column_.validity_ == nullptr) {
    const std::size_t bytes = inMemory(column_.size() / 8 + 1);
    allocate(column_.validity_, bytes);
    std::memset(column_.validity_.get(), 0xFF, bytes);
  }
  clearBit(column_.validity_.get(), index);
}

}  // namespace tolvex
