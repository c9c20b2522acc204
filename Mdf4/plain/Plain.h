// What the plain functions have in common: nothing is thrown, errors stay with the handle, and
// structs may have more members, or fewer, than the program was built with.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tolvex/MdfColumns.h"

namespace tolvex::plain {

inline constexpr const char* kOutOfMemory = "out of memory";
inline constexpr const char* kNoSize = "the size of a struct is not set";
inline constexpr const char* kNull = "a pointer is null";
inline constexpr const char* kNoPath = "there is no path";
inline constexpr const char* kNotOpen = "no file is open";

// What failed last with a handle.
class LastError {
 public:
  const char* text() const { return fixed_ != nullptr ? fixed_ : text_.c_str(); }
  tolvex_status set(tolvex_status status, std::string text) noexcept {
    text_ = std::move(text);
    fixed_ = nullptr;
    return status;
  }
  // The text is static.
  tolvex_status setFixed(tolvex_status status, const char* text) noexcept {
    fixed_ = text;
    return status;
  }

 private:
  std::string text_;
  const char* fixed_ = nullptr;
};

// Where a function without a handle puts what failed.
class ErrorText {
 public:
  ErrorText(char* text, std::size_t size) : text_(text), size_(text != nullptr ? size : 0) {
    if (size_ != 0) *text_ = '\0';
  }

  // Gives the status that `work` returns with the error that it is handed.
  template <class Work>
  tolvex_status of(Work work) const noexcept;

 private:
  char* const text_;
  const std::size_t size_;
};

// The status for what a reader says that has failed.
inline tolvex_status failed(LastError& error, const std::string& text, tolvex_status otherwise) {
  return error.set(text == kOutOfMemory ? tolvex_status{TOLVEX_ERROR_MEMORY} : otherwise, text);
}

// What `work` returns; an error in its place when it throws.
template <class Work>
tolvex_status guarded(LastError& error, Work work) noexcept {
  try {
    try {
      return work();
    } catch (const std::bad_alloc&) {
      throw;
    } catch (const std::exception& failure) {
      return error.set(TOLVEX_ERROR_OTHER, failure.what());
    }
  } catch (...) {
    return error.setFixed(TOLVEX_ERROR_MEMORY, kOutOfMemory);
  }
}

template <class Work>
tolvex_status ErrorText::of(Work work) const noexcept {
  LastError error;
  const tolvex_status status = guarded(error, [&] { return work(error); });
  if (status == TOLVEX_OK || size_ == 0) return status;
  const std::size_t length = std::min(std::strlen(error.text()), size_ - 1);
  std::memcpy(text_, error.text(), length);
  text_[length] = '\0';
  return status;
}

// New members of a struct must not come to lie in what an older program takes for padding.
template <class Struct>
inline constexpr bool kIsDense =
    sizeof(void*) != 8 || std::has_unique_object_representations_v<Struct>;

// Fills as much as the caller's struct has; false when that does not say its size.
template <class Struct>
[[nodiscard]] bool fill(Struct* out, Struct value) {
  static_assert(kIsDense<Struct> && std::is_trivially_copyable_v<Struct>);
  if (out == nullptr || out->size < sizeof(out->size)) return false;
  value.size = std::min(out->size, sizeof(Struct));
  std::memcpy(out, &value, value.size);
  return true;
}

// Takes as much as the caller's struct has; false when that does not say its size.
template <class Struct>
[[nodiscard]] bool take(const Struct* in, Struct& value) {
  static_assert(kIsDense<Struct> && std::is_trivially_copyable_v<Struct>);
  value = {};
  if (in == nullptr || in->size < sizeof(in->size)) return false;
  std::memcpy(&value, in, std::min(in->size, sizeof(Struct)));
  return true;
}

// The same for options, of which null stands for none.
template <class Struct>
[[nodiscard]] bool takeOptions(const Struct* in, Struct& value) {
  value = {};
  return in == nullptr || take(in, value);
}

inline std::vector<const char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<const char*> pointers;
  pointers.reserve(texts.size());
  for (const std::string& text : texts) pointers.push_back(text.c_str());
  return pointers;
}

// Texts that a handle has handed out.
class TextList {
 public:
  TextList() = default;
  explicit TextList(std::vector<std::string> texts)
      : texts_(std::move(texts)), pointers_(pointersTo(texts_)) {}

  // Replaces them, unless there is no room for the result.
  static tolvex_status hand(TextList& held, std::vector<std::string> texts, LastError& error,
                            const char* const** out, std::size_t* count) {
    if (out == nullptr || count == nullptr) return error.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
    held = TextList(std::move(texts));
    *out = held.pointers_.data();
    *count = held.pointers_.size();
    return TOLVEX_OK;
  }

 private:
  std::vector<std::string> texts_;  // moved as a whole, they stay where they are
  std::vector<const char*> pointers_;
};

// Files to be opened; false when there are none.
inline bool takePaths(const char* const* paths, std::size_t count,
                      std::vector<std::string>& taken) {
  for (std::size_t i = 0; paths != nullptr && i < count; ++i) {
    if (paths[i] == nullptr) return false;
    taken.emplace_back(paths[i]);
  }
  return !taken.empty();
}

}  // namespace tolvex::plain
