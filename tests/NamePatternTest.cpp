// Names that patterns choose.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Mdf4/base/NamePattern.h"

namespace tolvex {
namespace {

using Names = std::vector<std::string>;

TEST(NamePattern, ChoosesTheNamesThatItStandsFor) {
  const std::string all(70, 'a');
  const Names names = {"",    "a",   "ab", "abc", "a]c", "a-c",       "a[b]c",
                       "Abc", "a*c", "äb", "b",   "[",   "map[1][2]", all};
  const struct {
    const char* pattern;
    PatternRules rules;
    Names chosen;
  } rows[] = {
      {"", {}, {""}},
      {"**", {}, names},
      {"?", {}, {"a", "b", "["}},
      {"?b", {}, {"ab", "äb"}},
      {"*?\?b", {}, {}},
      {"a?c", {}, {"abc", "a]c", "a-c", "a*c"}},
      {"a*c", {}, {"abc", "a]c", "a-c", "a[b]c", "a*c"}},
      {"*b*c", {}, {"abc", "a[b]c", "Abc"}},
      {"map[1]*", {}, {"map[1][2]"}},
      {"map[1]*", {.sets = true}, {}},
      {"map[[]1]*", {.sets = true}, {"map[1][2]"}},
      {"a[b-]c", {.sets = true}, {"abc", "a-c"}},
      {"a[]b]c", {.sets = true}, {"abc", "a]c"}},
      {"a[!]b]c", {.sets = true}, {"a-c", "a*c"}},
      {"[!a-Z]b", {.sets = true}, {"ab", "äb"}},
      {"[a-b][a-c]", {.sets = true}, {"ab"}},
      {"[ä-ö]b", {.sets = true}, {"äb"}},
      {"[!a]b", {.sets = true}, {"äb"}},
      {"[", {.sets = true}, {"["}},
      {"a[!", {.sets = true}, {}},
      {"aBC", {.ignoreCase = true}, {"abc", "Abc"}},
      {"[B-Z]", {.sets = true, .ignoreCase = true}, {"b"}},
      {"*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*b", {}, {}},
      {"*[a]*[a]*[a]*[a]*[a]*[a]*[a]*[a]*[a]*[a]*[a]*[a]*[a]*[a]", {.sets = true}, {all}},
  };
  for (const auto& [pattern, rules, chosen] : rows) {
    Names found;
    for (const std::string& name : names) {
      if (NamePattern(pattern, rules).matches(name)) found.push_back(name);
    }
    EXPECT_EQ(found, chosen) << pattern;
  }
}

}  // namespace
}  // namespace tolvex
