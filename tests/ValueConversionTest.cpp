// What conversions make of values, as the format defines them.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Mdf4/format/MDF4File.h"
#include "Mdf4/model/ValueConversion.h"
#include "support/FileBuilder.h"

namespace tolvex {
namespace {

using namespace conversion_type;
using test::Cc;
using test::FileBuilder;
using test::Link;
using Input = ValueConversion::Input;

std::string shown(const Meaning& meaning) {
  if (meaning.hasText) return "'" + meaning.text + "'";
  if (!meaning.hasNumber) return "-";
  std::string text = std::to_string(meaning.number);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text;
}

// The file being built, and its conversions once it is opened.
class ValueConversionTest : public testing::Test {
 protected:
  Link cc(std::uint8_t type, std::vector<double> values, std::vector<Link> refs = {},
          Link name = 0) {
    Cc block;
    block.type = type;
    block.values = std::move(values);
    block.refs = std::move(refs);
    block.name = name;
    return builder_.cc(block);
  }
  Link tx(const std::string& text) { return builder_.tx(text); }

  std::shared_ptr<const ValueConversion> load(Link at, Input input) {
    if (loader_ == nullptr) {
      EXPECT_TRUE(file_.Open(builder_.write(), false));
      loader_ = std::make_unique<ConversionLoader>(file_, texts_);
    }
    return loader_->load(at, input);
  }
  std::string of(Link at, double number, Input input = Input::Integer) {
    const auto conversion = load(at, input);
    if (conversion == nullptr) return "cannot be applied";
    RawValue value;
    value.number = number;
    if (std::abs(number) < 0x1p63) {
      value.bits = static_cast<std::uint64_t>(static_cast<std::int64_t>(number));
    }
    const Meaning one = conversion->meaningOf(value);
    if (!conversion->givesTexts()) {
      std::vector<double> many(300, number);
      std::vector<std::uint8_t> valid(many.size(), 1);
      conversion->convert(many, valid);
      EXPECT_EQ(valid.back() == 1, one.hasNumber);
      if (one.hasNumber) {
        EXPECT_EQ(many.back(), one.number);
      }
    }
    return shown(one);
  }
  std::string of(Link at, const std::string& text) {
    const auto conversion = load(at, Input::Text);
    if (conversion == nullptr) return "cannot be applied";
    RawValue value;
    value.text = text;
    return shown(conversion->meaningOf(value));
  }

  FileBuilder builder_;
  MDF4File file_;
  FileTexts texts_{file_};
  std::unique_ptr<ConversionLoader> loader_;
};

TEST_F(ValueConversionTest, NumbersToNumbers) {
  const Link linear = cc(kLinear, {-40, 0.5});
  const Link rational = cc(kRational, {1, 2, 3, 0, 1, -2});  // (x^2 + 2x + 3) / (x - 2)
  const Link formula = cc(kFormula, {}, {tx("X^2 / 4")});
  const Link lines = cc(kN2NInterpol, {10, 100, 0, 0, 20, 300});
  const Link nearest = cc(kN2N, {0, 1, 10, 2, 20, 3});
  const Link ranges = cc(kR2N, {0, 10, 1, 11, 20, 2, 7});
  const Link gaps = cc(kR2N, {15, 20, 2, 0, 10, 1});
  const Link overlaps =
      cc(kR2N, {8, 9, 1, 2, 12, 2, 0, 20, 3, 12, 5, 4, NAN, 99, 5, 15, HUGE_VAL, 6});
  EXPECT_EQ(of(0, 5), "5");
  EXPECT_EQ(of(linear, 100), "10");
  EXPECT_EQ(of(rational, 3), "18");
  EXPECT_EQ(of(rational, 2), "-");
  EXPECT_EQ(of(formula, 6), "9");
  EXPECT_EQ(of(lines, -5), "0");
  EXPECT_EQ(of(lines, 10), "100");
  EXPECT_EQ(of(lines, 15), "200");
  EXPECT_EQ(of(lines, 25), "300");
  EXPECT_EQ(of(nearest, -1), "1");
  EXPECT_EQ(of(nearest, 5), "1");
  EXPECT_EQ(of(nearest, 5.5), "2");
  EXPECT_EQ(of(nearest, 99), "3");
  EXPECT_EQ(of(ranges, 10), "1");
  EXPECT_EQ(of(ranges, 10, Input::Float), "7");
  EXPECT_EQ(of(ranges, 10.5, Input::Float), "7");
  EXPECT_EQ(of(ranges, 11, Input::Float), "2");
  EXPECT_EQ(of(gaps, 0), "1");
  EXPECT_EQ(of(gaps, 20), "2");
  EXPECT_EQ(of(gaps, 12), "-");
  EXPECT_EQ(of(overlaps, 9), "1");
  EXPECT_EQ(of(overlaps, 9, Input::Float), "2");
  EXPECT_EQ(of(overlaps, 12), "2");
  EXPECT_EQ(of(overlaps, 12, Input::Float), "3");
  EXPECT_EQ(of(overlaps, 1), "3");
  EXPECT_EQ(of(overlaps, 21), "6");
  EXPECT_EQ(of(overlaps, -1), "-");
  EXPECT_EQ(of(overlaps, NAN, Input::Float), "-");
}

TEST_F(ValueConversionTest, NumbersToTextsAndWhatTheyReferTo) {
  const Link linear = cc(kLinear, {0, 0.1});
  const Link inner = cc(kN2T, {7, 8}, {tx("seven"), tx(""), linear});
  const Link status = cc(kN2T, {1, 2, 3}, {tx("on"), 0, inner, linear});
  const Link ranges = cc(kR2T, {0, 10, 10, 20}, {tx("low"), tx("high"), status});
  EXPECT_EQ(of(status, 1), "'on'");
  EXPECT_EQ(of(status, 2), "-");
  EXPECT_EQ(of(status, 3), "0.3");
  EXPECT_EQ(of(status, 50), "5");
  EXPECT_EQ(of(inner, 7), "'seven'");
  EXPECT_EQ(of(inner, 8), "''");
  EXPECT_EQ(of(ranges, 10), "'low'");
  EXPECT_EQ(of(ranges, 10, Input::Float), "'high'");
  EXPECT_EQ(of(ranges, 20, Input::Float), "2");
  EXPECT_EQ(of(ranges, -1), "-0.1");
}

TEST_F(ValueConversionTest, TextsToNumbersAndTexts) {
  const Link numbers = cc(kT2N, {1, 2, -1}, {tx("one"), tx("two")});
  const Link strict = cc(kT2N, {1}, {tx("one")});
  const Link words = cc(kT2T, {}, {tx("ein"), tx("one"), tx("zwei"), numbers, tx("other")});
  const Link open = cc(kT2T, {}, {tx("ein"), tx("one"), 0});
  EXPECT_EQ(of(0, "as it is"), "'as it is'");
  EXPECT_EQ(of(numbers, "two"), "2");
  EXPECT_EQ(of(numbers, "three"), "-1");
  EXPECT_EQ(of(strict, "three"), "-");
  EXPECT_EQ(of(words, "ein"), "'one'");
  EXPECT_EQ(of(words, "zwei"), "-1");
  EXPECT_EQ(of(words, "drei"), "'other'");
  EXPECT_EQ(of(open, "drei"), "'drei'");
}

TEST_F(ValueConversionTest, BitsToTextsSideBySide) {
  const auto mask = [](std::uint64_t bits) { return std::bit_cast<double>(bits); };
  const Link lamp = cc(kN2T, {0, 1}, {tx("off"), tx("on"), 0}, tx("lamp"));
  const Link gear = cc(kR2T, {0, 0, 16, 48}, {0, tx("driving"), 0});
  const Link top = cc(kN2T, {0x1p63}, {tx("sign"), 0});
  const Link bits =
      cc(kBTT, {mask(1), mask(0x70), mask(std::uint64_t{1} << 63)}, {lamp, gear, top});
  const Link none = cc(kBTT, {});
  EXPECT_EQ(of(bits, 1), "'lamp = on'");
  EXPECT_EQ(of(bits, 0x21), "'lamp = on|driving'");
  EXPECT_EQ(of(bits, -256), "'lamp = off|sign'");
  EXPECT_EQ(of(none, 1), "-");
}

// A conversion that cannot be applied gives nothing, and the file's problems say why; what refers
// to it gives the rest.
TEST_F(ValueConversionTest, NamesWhatCannotBeApplied) {
  const Link wrong = cc(kFormula, {}, {tx("X +")});
  const Link shortOne = cc(kLinear, {1});
  const Link unknown = cc(12, {});
  const Link texts = cc(kT2T, {}, {tx("a"), tx("b"), 0});
  const Link circle = cc(kN2T, {1, 2}, {tx("one"), 0, 0});
  builder_.setLink(circle, 5, circle);
  builder_.setLink(circle, 6, texts);
  Link deep = cc(kLinear, {0, 2});
  for (int i = 0; i < 200; ++i) deep = cc(kN2T, {-1}, {tx("never"), deep});
  Link wide = cc(kN2T, {0}, {tx("x"), 0});
  for (int i = 0; i < 20; ++i) {
    wide = cc(kN2T, {-1}, {0, cc(kBTT, std::vector<double>(50), std::vector<Link>(50, wide))});
  }
  EXPECT_EQ(of(wrong, 1), "cannot be applied");
  EXPECT_EQ(of(shortOne, 1), "cannot be applied");
  EXPECT_EQ(of(unknown, 1), "cannot be applied");
  EXPECT_EQ(of(texts, 1), "cannot be applied");
  EXPECT_EQ(of(shortOne, "text"), "cannot be applied");
  EXPECT_EQ(of(wrong + 8, 1), "cannot be applied");
  EXPECT_EQ(of(circle, 1), "'one'");
  EXPECT_EQ(of(circle, 2), "-");
  EXPECT_EQ(of(circle, 3), "-");
  EXPECT_EQ(of(deep, 4), "8");
  EXPECT_EQ(of(wide, 0), "-") << "what takes too many steps is not given in part";

  const std::vector<std::string> problems = file_.problems().texts();
  const auto has = [&](const std::string& text) {
    for (const std::string& problem : problems) {
      if (problem.find(text) != std::string::npos) return true;
    }
    return false;
  };
  EXPECT_TRUE(has("conversion at " + std::to_string(wrong) +
                  ": expected a number, X, a function or a bracket at character 4, found the end"));
  EXPECT_TRUE(has(": expected 2 values, found 1 values and 0 references"));
  EXPECT_TRUE(has(": unknown type 12"));
  EXPECT_TRUE(has("a conversion of type 10 does not apply to numbers"));
  EXPECT_TRUE(has("it refers to the conversion at " + std::to_string(circle)));
}

}  // namespace
}  // namespace tolvex
