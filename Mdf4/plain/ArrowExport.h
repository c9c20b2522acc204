// Makes the structs of the Arrow C data interface. What they point to is theirs, until whoever took
// them releases them: children and dictionaries too, unless they were moved elsewhere before.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tolvex/MdfArrow.h"

namespace tolvex::plain {

// Releases an Arrow struct when nobody took it.
template <class Struct>
class ArrowOwner {
 public:
  ArrowOwner() = default;
  ArrowOwner(ArrowOwner&& other) noexcept : value_(std::exchange(other.value_, {})) {}
  ArrowOwner& operator=(ArrowOwner&& other) noexcept {
    std::swap(value_, other.value_);
    return *this;
  }
  ~ArrowOwner() {
    if (value_.release != nullptr) value_.release(&value_);
  }

  Struct& operator*() { return value_; }
  Struct* operator->() { return &value_; }
  Struct take() { return std::exchange(value_, {}); }

 private:
  Struct value_ = {};
};

// A field, with the fields inside it.
struct ArrowField {
  using Metadata = std::vector<std::pair<std::string_view, std::string>>;

  std::string format;
  std::string name;
  Metadata metadata;  // pairs without a value are left out
  std::int64_t flags = ARROW_FLAG_NULLABLE;
  std::vector<ArrowField> children;
  std::vector<ArrowField> dictionary;  // one or none
};

// All of these throw std::bad_alloc.
ArrowOwner<ArrowSchema> makeSchema(const ArrowField& field);

// What an array points to. Buffers are borrowed from what is kept.
struct ArrowParts {
  std::int64_t length = 0;
  std::int64_t nullCount = 0;
  std::vector<const void*> buffers;
  std::vector<std::shared_ptr<const void>> kept;
  std::vector<ArrowOwner<ArrowArray>> children;
  ArrowOwner<ArrowArray> dictionary;
};
ArrowOwner<ArrowArray> makeArray(ArrowParts parts);

// How many of the first `count` bits are 0; none where there are no bits. Arrays state their nulls,
// as engines take those that are not counted for none.
std::int64_t countNulls(const std::uint8_t* bits, std::uint64_t count);
// Bits of validity, all of them 1.
std::shared_ptr<std::uint8_t[]> allValid(std::uint64_t count);
inline void clearBit(std::uint8_t* bits, std::uint64_t index) {
  bits[index / 8] = static_cast<std::uint8_t>(bits[index / 8] & ~(1U << index % 8));
}

}  // namespace tolvex::plain
