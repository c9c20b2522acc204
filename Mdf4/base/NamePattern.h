// Patterns that names are chosen by.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tolvex {

struct PatternRules {
  bool sets = false;        // "[a-z]" and "[!a-z]" stand for one character
  bool ignoreCase = false;  // of the letters A to Z
};

// A name in which '*' stands for any characters and '?' for one. A ']' that stands first in a set
// is one of its characters, and a '[' that nothing closes is itself.
class NamePattern {
 public:
  explicit NamePattern(std::string_view text, PatternRules rules = {});

  // Takes time in proportion to the product of both lengths at most.
  bool matches(std::string_view name) const;
  const std::string& text() const { return text_; }

 private:
  // Of UTF-8, whose characters have the order of their bytes.
  struct Set {
    bool isInverted = false;
    std::bitset<128> ascii;
    std::vector<std::pair<std::string, std::string>> ranges;  // first and last character
  };
  enum class Kind : std::uint8_t { Byte, Any, All, Set };
  struct Part {
    Kind kind = Kind::Byte;
    char byte = 0;
    char otherCase = 0;
    std::size_t set = 0;
  };

  std::size_t addSet(std::size_t at);
  std::size_t sizeOf(const Part& part, std::string_view name, std::size_t at) const;
  static bool isIn(const Set& set, std::string_view character);

  std::string text_;
  PatternRules rules_;
  std::vector<Part> parts_;
  std::vector<Set> sets_;
};

}  // namespace tolvex
