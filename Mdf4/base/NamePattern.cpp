#include "Mdf4/base/NamePattern.h"

#include <algorithm>

namespace tolvex {
namespace {

constexpr unsigned kAsciiEnd = 0x80;

unsigned codeOf(char c) {
  return static_cast<unsigned char>(c);
}

bool isBetween(char first, char c, char last) {
  return first <= c && c <= last;
}

char inOtherCase(char c) {
  constexpr char kDistance = 'a' - 'A';
  if (isBetween('A', c, 'Z')) return static_cast<char>(c + kDistance);
  return isBetween('a', c, 'z') ? static_cast<char>(c - kDistance) : c;
}

// The character there: a byte and, of UTF-8, those that continue it.
std::string_view characterAt(std::string_view text, std::size_t at) {
  std::size_t end = at + 1;
  if (codeOf(text[at]) >= kAsciiEnd) {
    while (end < text.size() && (codeOf(text[end]) & 0xC0) == 0x80) ++end;
  }
  return text.substr(at, end - at);
}

}  // namespace

NamePattern::NamePattern(std::string_view text, PatternRules rules) : text_(text), rules_(rules) {
  for (std::size_t at = 0; at < text_.size();) {
    const char c = text_[at];
    if (c == '[' && rules.sets) {
      if (const std::size_t end = addSet(at); end != at) {
        parts_.push_back({.kind = Kind::Set, .set = sets_.size() - 1});
        at = end;
        continue;
      }
    }
    const Kind kind = c == '*' ? Kind::All : c == '?' ? Kind::Any : Kind::Byte;
    parts_.push_back({.kind = kind, .byte = c, .otherCase = rules.ignoreCase ? inOtherCase(c) : c});
    ++at;
  }
}

// Adds the set that begins at `at`. Returns where it ends; `at`, with nothing added, if nowhere.
std::size_t NamePattern::addSet(std::size_t at) {
  const std::string_view text = text_;
  Set set;
  std::size_t next = at + 1;
  set.isInverted = next < text.size() && text[next] == '!';
  if (set.isInverted) ++next;
  for (bool first = true; next < text.size(); first = false) {
    if (text[next] == ']' && !first) {
      sets_.push_back(std::move(set));
      return next + 1;
    }
    const std::string_view from = characterAt(text, next);
    next += from.size();
    std::string_view to = from;
    if (next + 1 < text.size() && text[next] == '-' && text[next + 1] != ']') {
      to = characterAt(text, next + 1);
      next += 1 + to.size();
    }
    set.ranges.emplace_back(from, to);
    const unsigned end = std::min(codeOf(to.front()) + 1, kAsciiEnd);
    for (unsigned code = codeOf(from.front()); code < end; ++code) {
      set.ascii.set(code);
      if (rules_.ignoreCase) set.ascii.set(codeOf(inOtherCase(static_cast<char>(code))));
    }
  }
  return at;
}

bool NamePattern::isIn(const Set& set, std::string_view character) {
  const unsigned code = codeOf(character.front());
  const bool isListed =
      code < kAsciiEnd ? set.ascii[code] : std::ranges::any_of(set.ranges, [&](const auto& range) {
        return range.first <= character && character <= range.second;
      });
  return isListed != set.isInverted;
}

// How many bytes of the name the part stands for; 0 when it does not.
std::size_t NamePattern::sizeOf(const Part& part, std::string_view name, std::size_t at) const {
  if (part.kind == Kind::Byte) return name[at] == part.byte || name[at] == part.otherCase ? 1 : 0;
  const std::string_view character = characterAt(name, at);
  const bool fits = part.kind == Kind::Any || isIn(sets_[part.set], character);
  return fits ? character.size() : 0;
}

bool NamePattern::matches(std::string_view name) const {
  std::size_t at = 0;
  std::size_t next = 0;    // of the parts
  std::size_t behind = 0;  // the last '*', which stands for name[from, at); 0: none
  std::size_t from = 0;
  while (at < name.size()) {
    if (next < parts_.size() && parts_[next].kind == Kind::All) {
      behind = ++next;
      from = at;
      continue;
    }
    const std::size_t size = next < parts_.size() ? sizeOf(parts_[next], name, at) : 0;
    if (size != 0) {
      at += size;
      ++next;
    } else if (behind != 0) {
      from += characterAt(name, from).size();
      at = from;
      next = behind;
    } else {
      return false;
    }
  }
  return std::all_of(parts_.begin() + static_cast<std::ptrdiff_t>(next), parts_.end(),
                     [](const Part& part) { return part.kind == Kind::All; });
}

}  // namespace tolvex
