#include "Mdf4/reader/ColumnAssembly.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "Mdf4/reader/ColumnMemory.h"

namespace tolvex {

ColumnAssembly::ColumnAssembly(ColumnForm form, const ColumnPlan& plan, std::uint64_t rows,
                               const Memory& memory)
    : planned_(rows) {
  column_.type_ = typeIn(form, plan);
  column_.elements_ = plan.elements;
  if (column_.type_ == MdfColumnType::None) return;
  checkSize(rows, plan.elements);
  width_ = widthOf(column_.type_);
  values_ = static_cast<std::uint8_t*>(memory.values);
  if (width_ != 0 && values_ == nullptr) {
    allocate(column_.data_, rows * plan.elements * width_);
    values_ = column_.data_.get();
  }
  validity_ = memory.validity;
  if (validity_ != nullptr) std::memset(validity_, 0xFF, inMemory((rows * plan.elements + 7) / 8));
}

void* ColumnAssembly::placeOf(std::uint64_t row) const {
  return values_ == nullptr ? nullptr : values_ + row * column_.elements_ * width_;
}

void ColumnAssembly::add(MdfColumn part) {
  const std::uint64_t start = column_.size();
  addValidity(part, start);
  column_.rows_ += part.rows();
  if (column_.type_ == MdfColumnType::Dictionary) addTexts(part, start);
  if (part.offsets_ != nullptr) addBytes(part, start);
}

MdfColumn ColumnAssembly::finish() {
  const bool isText = column_.type_ != MdfColumnType::None && width_ == 0;
  if (isText && column_.offsets_ == nullptr) {
    allocate(column_.offsets_, 1);
    column_.offsets_[0] = 0;
  }
  return std::move(column_);
}

// Clears the bits of what is not valid.
void ColumnAssembly::addValidity(const MdfColumn& part, std::uint64_t start) {
  if (part.validity() == nullptr) return;
  if (validity_ == nullptr) {
    const std::uint64_t size = planned_ * column_.elements_ / 8 + 1;
    allocate(column_.validity_, size);
    std::memset(column_.validity_.get(), 0xFF, inMemory(size));
    validity_ = column_.validity_.get();
  }
  std::uint64_t done = 0;
  if (start % 8 == 0) {
    done = part.size() / 8 * 8;
    std::memcpy(validity_ + start / 8, part.validity(), inMemory(done / 8));
  }
  for (; done < part.size(); ++done) {
    if (!part.isValid(done)) clearBit(validity_, inMemory(start + done));
  }
}

// The codes of the part are in their place, and count its own texts.
void ColumnAssembly::addTexts(MdfColumn& part, std::uint64_t start) {
  const bool isOnly = part.rows() == planned_;
  if (isOnly) {
    column_.texts_ = std::move(part.texts_);
    column_.numbers_ = std::move(part.numbers_);
    return;
  }
  std::vector<std::int32_t> codes;
  for (std::string& text : part.texts_) {
    const auto next = static_cast<std::int32_t>(column_.texts_.size());
    const auto [entry, isNew] = codes_.try_emplace(std::move(text), next);
    if (isNew) column_.texts_.push_back(entry->first);
    codes.push_back(entry->second);
  }
  auto* const own = reinterpret_cast<std::int32_t*>(values_) + start;
  for (std::uint64_t i = 0; i < part.size(); ++i) {
    if (own[i] >= 0) own[i] = codes[static_cast<std::size_t>(own[i])];
  }
  if (part.numbers_.empty()) return;
  if (column_.numbers_.empty()) {
    column_.numbers_.resize(inMemory(planned_ * column_.elements_), std::nan(""));
  }
  std::ranges::copy(part.numbers_, column_.numbers_.begin() + static_cast<std::ptrdiff_t>(start));
}

void ColumnAssembly::addBytes(MdfColumn& part, std::uint64_t start) {
  if (part.rows() == planned_) {
    column_.data_ = std::move(part.data_);
    column_.offsets_ = std::move(part.offsets_);
    return;
  }
  if (column_.offsets_ == nullptr) {
    allocate(column_.offsets_, planned_ * column_.elements_ + 1);
    column_.offsets_[0] = 0;
  }
  const std::size_t values = inMemory(part.size());
  const auto size = static_cast<std::size_t>(part.offsets_[values]);
  enlarge(column_.data_, inMemory(bytes_), inMemory(bytes_ + size));
  if (size != 0) std::memcpy(column_.data_.get() + bytes_, part.data_.get(), size);
  for (std::size_t i = 1; i <= values; ++i) {
    column_.offsets_[inMemory(start) + i] = static_cast<std::int64_t>(bytes_) + part.offsets_[i];
  }
  bytes_ += size;
}

}  // namespace tolvex
