#include "Mdf4/reader/PropertyXml.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace tolvex {
namespace {

constexpr std::size_t kDeepest = 16;  // trees and lists in each other
constexpr std::size_t kMostProperties = 10'000;
constexpr std::size_t kLongestName = 256;  // bytes, of each of those
constexpr std::string_view kSpaces = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kSpaces);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kSpaces) - begin + 1);
}

void appendUtf8(std::uint32_t character, std::string& text) {
  const auto add = [&](std::uint32_t bits) { text += static_cast<char>(bits); };
  if (character < 0x80) {
    add(character);
  } else if (character < 0x800) {
    add(0xC0 | character >> 6);
    add(0x80 | (character & 0x3F));
  } else if (character < 0x10000) {
    add(0xE0 | character >> 12);
    add(0x80 | (character >> 6 & 0x3F));
    add(0x80 | (character & 0x3F));
  } else {
    add(0xF0 | character >> 18);
    add(0x80 | (character >> 12 & 0x3F));
    add(0x80 | (character >> 6 & 0x3F));
    add(0x80 | (character & 0x3F));
  }
}

// The character that "&name;" stands for; 0: none.
std::uint32_t characterOf(std::string_view name) {
  constexpr std::uint32_t kLast = 0x10FFFF;
  if (name == "lt") return '<';
  if (name == "gt") return '>';
  if (name == "amp") return '&';
  if (name == "quot") return '"';
  if (name == "apos") return '\'';
  if (!name.starts_with('#')) return 0;
  const bool isHex = name.starts_with("#x");
  name.remove_prefix(isHex ? 2 : 1);
  std::uint32_t character = 0;
  const auto [end, error] =
      std::from_chars(name.data(), name.data() + name.size(), character, isHex ? 16 : 10);
  const bool isSurrogate = character >= 0xD800 && character < 0xE000;
  const bool isNumber = error == std::errc() && end == name.data() + name.size();
  return isNumber && character <= kLast && !isSurrogate ? character : 0;
}

std::string decoded(std::string_view text) {
  std::string plain;
  while (!text.empty()) {
    const std::size_t at = std::min(text.find('&'), text.size());
    plain += text.substr(0, at);
    text.remove_prefix(at);
    if (text.empty()) break;
    const std::size_t end = text.substr(0, 12).find(';');
    const std::uint32_t character =
        end == std::string_view::npos ? 0 : characterOf(text.substr(1, end - 1));
    if (character != 0) {
      appendUtf8(character, plain);
    } else {
      plain += '&';
    }
    text.remove_prefix(character != 0 ? end + 1 : 1);
  }
  return plain;
}

// A tag and the text behind it, up to the next one.
struct Tag {
  std::string_view name;  // without a namespace
  std::string_view attributes;
  std::string_view text;
  bool isEnd = false;
  bool isEmpty = false;  // <name/>
};

// Goes along the tags. Comments and instructions are none.
class Tags {
 public:
  explicit Tags(std::string_view xml) : rest_(xml) { toTag(); }

  bool next(Tag& tag) {
    for (;;) {
      if (rest_.empty()) return false;
      if (rest_.starts_with("<!--")) {
        skip("-->");
      } else if (rest_.starts_with("<?") || rest_.starts_with("<!")) {
        skip(">");
      } else {
        return read(tag);
      }
      toTag();
    }
  }

 private:
  void toTag() { rest_.remove_prefix(std::min(rest_.find('<'), rest_.size())); }
  void skip(std::string_view end) {
    const std::size_t at = rest_.find(end);
    rest_.remove_prefix(at == std::string_view::npos ? rest_.size() : at + end.size());
  }

  // Where its '>' is, which values of attributes may have, too.
  std::size_t endOfTag() const {
    char quote = 0;
    for (std::size_t at = 0; at < rest_.size(); ++at) {
      const char character = rest_[at];
      if (quote != 0) {
        if (character == quote) quote = 0;
      } else if (character == '"' || character == '\'') {
        quote = character;
      } else if (character == '>') {
        return at;
      }
    }
    return std::string_view::npos;
  }

  bool read(Tag& tag) {
    const std::size_t end = endOfTag();
    if (end == std::string_view::npos) return false;
    std::string_view inside = rest_.substr(1, end - 1);
    rest_.remove_prefix(end + 1);
    tag = {};
    tag.isEnd = inside.starts_with('/');
    if (tag.isEnd) inside.remove_prefix(1);
    tag.isEmpty = inside.ends_with('/');
    if (tag.isEmpty) inside.remove_suffix(1);
    const std::size_t size = std::min(inside.find_first_of(kSpaces), inside.size());
    tag.name = inside.substr(0, size);
    tag.attributes = inside.substr(size);
    const std::size_t colon = tag.name.rfind(':');
    if (colon != std::string_view::npos) tag.name.remove_prefix(colon + 1);
    const std::string_view before = rest_;
    toTag();
    tag.text = before.substr(0, before.size() - rest_.size());
    return true;
  }

  std::string_view rest_;
};

// The value of the attribute; "" when there is none.
std::string attribute(std::string_view attributes, std::string_view name) {
  for (std::size_t at = 0; (at = attributes.find(name, at)) != std::string_view::npos;) {
    const bool isWhole = at > 0 && kSpaces.find(attributes[at - 1]) != std::string_view::npos;
    at += name.size();
    std::string_view value = trimmed(attributes.substr(at));
    if (!isWhole || !value.starts_with('=')) continue;
    value = trimmed(value.substr(1));
    if (value.empty() || (value[0] != '"' && value[0] != '\'')) return {};
    const std::size_t end = value.find(value[0], 1);
    return end == std::string_view::npos ? std::string() : decoded(value.substr(1, end - 1));
  }
  return {};
}

std::string nameOf(const Tag& tag) {
  std::string name = attribute(tag.attributes, "name");
  name.resize(std::min(name.size(), kLongestName));
  return name;
}

// The trees and lists around an element.
class Path {
 public:
  void enter(const Tag& tag) {
    // Items of a list have a number instead of a name.
    if (tag.name == "li" || tag.name == "eli") {
      const std::size_t number = levels_.empty() ? 0 : levels_.back().items++;
      levels_.push_back({'[' + std::to_string(number) + ']'});
    } else {
      levels_.push_back({nameOf(tag)});
    }
  }
  void leave() {
    if (!levels_.empty()) levels_.pop_back();
  }
  std::size_t depth() const { return levels_.size(); }

  std::string withName(const std::string& name) const {
    std::string all;
    for (const Level& level : levels_) append(all, level.name);
    append(all, name);
    return all;
  }

 private:
  struct Level {
    std::string name;
    std::size_t items = 0;
  };

  static void append(std::string& all, const std::string& name) {
    if (!all.empty() && !name.empty() && name[0] != '[') all += '.';
    all += name;
  }

  std::vector<Level> levels_;
};

bool isLevel(std::string_view name) {
  return name == "tree" || name == "list" || name == "elist" || name == "li";
}

}  // namespace

std::string textOfElement(std::string_view xml, std::string_view name, std::size_t most) {
  Tags tags(xml);
  for (Tag tag; tags.next(tag);) {
    if (tag.name != name || tag.isEnd || tag.isEmpty) continue;
    std::string text = decoded(trimmed(tag.text).substr(0, 2 * most));
    text.resize(std::min(text.size(), most));
    return text;
  }
  return {};
}

std::vector<MdfProperty> commonProperties(std::string_view xml) {
  std::vector<MdfProperty> properties;
  Tags tags(xml);
  Tag tag;
  do {
    if (!tags.next(tag)) return properties;
  } while (tag.name != "common_properties" || tag.isEnd || tag.isEmpty);
  Path path;
  while (tags.next(tag) && properties.size() < kMostProperties && path.depth() <= kDeepest) {
    if (tag.isEnd && tag.name == "common_properties") break;
    if (tag.isEnd) {
      if (isLevel(tag.name)) path.leave();
    } else if (isLevel(tag.name)) {
      if (!tag.isEmpty) path.enter(tag);
    } else if (tag.name == "e" || tag.name == "eli") {
      const bool isItem = tag.name == "eli";
      if (isItem) path.enter(tag);
      properties.push_back({path.withName(isItem ? std::string() : nameOf(tag)),
                            decoded(trimmed(tag.isEmpty ? std::string_view() : tag.text)),
                            attribute(tag.attributes, "unit")});
      if (isItem) path.leave();
    }
  }
  return properties;
}

}  // namespace tolvex
