#include "HelpText.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

namespace tolvex {

namespace {

constexpr std::size_t kColumns = 80;

// Where the text of a line begins: behind its indentation, a bullet, or the first column of two.
std::size_t textColumn(std::string_view line) {
  constexpr std::size_t kMostIndented = 48;
  std::size_t column = std::min(line.find_first_not_of(' '), line.size());
  if (line.substr(column, 2) == "- ") {
    column += 2;
  }
  const std::size_t gap = line.find("  ", column);
  const std::size_t second = gap < kMostIndented ? line.find_first_not_of(' ', gap) : 0;
  return second < kMostIndented ? std::max(column, second) : column;
}

void appendWrapped(std::string& text, std::string_view line) {
  const std::string indentation(textColumn(line), ' ');
  std::string rest(line);
  while (rest.size() > kColumns) {
    const std::size_t space = rest.rfind(' ', kColumns);
    if (space == std::string::npos || space <= indentation.size()) {
      break;
    }
    text += rest.substr(0, space) + '\n';
    rest = indentation + rest.substr(space + 1);
  }
  text += rest;
}

// The letters that must be put in, left out or changed to make one word the other.
std::size_t distance(std::string_view one, std::string_view other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (const char letter : one) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 0; j < other.size(); ++j) {
      const std::size_t changed = diagonal + (letter == other[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string wrapped(std::string_view text) {
  std::string lines;
  for (;;) {
    const std::size_t end = text.find('\n');
    appendWrapped(lines, text.substr(0, end));
    if (end == std::string_view::npos) {
      return lines;
    }
    lines += '\n';
    text.remove_prefix(end + 1);
  }
}

std::string nearestOf(const std::vector<std::string>& names, std::string_view word) {
  constexpr std::size_t kMostDifferent = 2;
  std::string nearest;
  std::size_t least = kMostDifferent + 1;
  for (const std::string& name : names) {
    const bool isStart = !word.empty() && name.starts_with(word);
    const std::size_t difference = isStart ? 1 : distance(word, name);
    if (difference < std::min(least, name.size())) {
      least = difference;
      nearest = name;
    }
  }
  return nearest;
}

}  // namespace tolvex
