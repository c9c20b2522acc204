// Formulas of algebraic conversions.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "Mdf4/model/Formula.h"

namespace tolvex {
namespace {

double valueOf(const std::string& text, double x) {
  std::string error;
  const auto formula = Formula::compile(text, error);
  EXPECT_TRUE(formula.has_value()) << text << ": " << error;
  if (formula) formula->apply({&x, 1});
  return x;
}

TEST(Formula, FollowsTheRulesOfArithmetic) {
  struct Case {
    const char* text;
    double x;
    double value;
  };
  for (const Case& each : {Case{"X", 3, 3},
                           {"x1 + 1", 3, 4},
                           {"1 + 2 * 3 - 8 / 4 / 2", 0, 6},
                           {"10 - 3 - 2", 0, 5},
                           {"(1 + 2) * 3", 0, 9},
                           {"-X^2", 3, -9},
                           {"(-X)^2", 3, 9},
                           {"2^3^2", 0, 512},
                           {"2**-1", 0, 0.5},
                           {"2*-X", 3, -6},
                           {"- -+X", 3, 3},
                           {"pow(X, 2) + POW(2, X)", 3, 17},
                           {"abs(-2.5e1) + .5 + 1.", 0, 26.5},
                           {"sqrt(16) * ln(exp(1)) * log(EXP(2)) * log10(1000)", 0, 24},
                           {"arcsin(sin(0.5)) + acos(cos(.25)) + ArcTan(tan(X))", 0.125, 0.875},
                           {"sinh(X) + cosh(X) - exp(X) + tanh(0)", 1, 0}}) {
    EXPECT_NEAR(valueOf(each.text, each.x), each.value, 1e-12) << each.text;
  }
  EXPECT_TRUE(std::isnan(valueOf("sqrt(X)", -1)));

  // More values than are worked on at once, each with its own result.
  std::vector<double> values(1000);
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = static_cast<double>(i);
  std::string error;
  Formula::compile("X*X - (X - 1)*(X + 1) + X", error)->apply(values);
  for (std::size_t i = 0; i < values.size(); ++i) {
    ASSERT_EQ(values[i], static_cast<double>(i) + 1);
  }
}

TEST(Formula, SaysWhatIsNone) {
  struct Case {
    std::string text;
    const char* error;
  };
  for (const Case& each :
       {Case{"", "expected a number, X, a function or a bracket at character 1, found the end"},
        {"2 +", "expected a number, X, a function or a bracket at character 4, found the end"},
        {"2 3", "expected an operator or the end at character 3, found '3'"},
        {"(X", "expected ')' at character 3, found the end"},
        {"sin X", "expected '(' at character 5, found 'X'"},
        {"pow(X)", "expected ',' at character 6, found ')'"},
        {"Y * 2", "expected a number, X, a function or a bracket at character 1, found 'Y'"},
        {"1e999", "expected a number at character 1, found '1'"},
        {"X\xC2\xB2", "expected an operator or the end at character 2, found byte 0xC2"},
        {std::string(100'000, '('),
         "expected fewer levels of brackets, signs and powers at character 201, found '('"}}) {
    std::string error;
    EXPECT_FALSE(Formula::compile(each.text, error).has_value());
    EXPECT_EQ(error, each.error);
  }
  std::string sum = "X";
  for (int i = 0; i < 500; ++i) sum += "+X";
  std::string error;
  EXPECT_FALSE(Formula::compile(sum, error).has_value());
  EXPECT_EQ(error, "expected at most 1000 numbers, X and operations, found 1001");
}

}  // namespace
}  // namespace tolvex
