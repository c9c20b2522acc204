// Formulas of algebraic conversions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tolvex {

// A formula of one variable, compiled once and applied to many values. Nothing changes afterwards,
// so several threads may apply it at once.
//
// A formula has numbers (decimal, with an exponent or without), the variable X or X1, + - * / ^ **
// pow(a, b), signs, brackets and functions of one value: sin cos tan asin acos atan (also arcsin
// arccos arctan) sinh cosh tanh exp log ln (both natural) log10 sqrt abs. Letters count in either
// case. Powers are taken from the right, and before a sign in front of them: -X^2 is -(X^2).
class Formula {
 public:
  // Nothing for what is no formula; `error` then says what is wrong, and at which character.
  static std::optional<Formula> compile(std::string_view text, std::string& error);

  // Replaces each value by the formula's. What has no value is NaN or infinite, as the arithmetic
  // of doubles has it.
  void apply(std::span<double> values) const;

 private:
  friend class FormulaParser;

  enum class Operation : std::uint8_t {
    Number,
    Variable,
    Add,
    Subtract,
    Multiply,
    Divide,
    Power,
    Negate,
    Sin,
    Cos,
    Tan,
    Asin,
    Acos,
    Atan,
    Sinh,
    Cosh,
    Tanh,
    Exp,
    Log,
    Log10,
    Sqrt,
    Abs,
  };
  struct Step {
    Operation operation;
    double number = 0;  // of a Number
  };

  // In the order in which a stack of values takes them.
  std::vector<Step> steps_;
  std::size_t depth_ = 0;  // of the stack
};

}  // namespace tolvex
