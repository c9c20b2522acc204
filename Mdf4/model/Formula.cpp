#include "Mdf4/model/Formula.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <system_error>
#include <utility>

#include "Mdf4/base/Diagnostics.h"

namespace tolvex {

// Goes down the formula, a function for each level of precedence.
class FormulaParser {
 public:
  FormulaParser(std::string_view text, Formula& formula) : text_(text), formula_(formula) {}

  bool parse(std::string& error) {
    const bool right =
        sum() && (skipBlanks() == '\0' || fail("an operator or the end")) && isShort();
    if (!right) error = error_;
    return right;
  }

 private:
  using Operation = Formula::Operation;
  struct Function {
    std::string_view name;
    Operation operation;
  };
  static constexpr std::array<Function, 20> kFunctions = {{
      {"sin", Operation::Sin},     {"cos", Operation::Cos},     {"tan", Operation::Tan},
      {"asin", Operation::Asin},   {"acos", Operation::Acos},   {"atan", Operation::Atan},
      {"arcsin", Operation::Asin}, {"arccos", Operation::Acos}, {"arctan", Operation::Atan},
      {"sinh", Operation::Sinh},   {"cosh", Operation::Cosh},   {"tanh", Operation::Tanh},
      {"exp", Operation::Exp},     {"log", Operation::Log},     {"ln", Operation::Log},
      {"log10", Operation::Log10}, {"sqrt", Operation::Sqrt},   {"abs", Operation::Abs},
      {"pow", Operation::Power},   {"x", Operation::Variable},
  }};
  static constexpr int kDeepest = 200;  // brackets, signs and powers in each other
  static constexpr std::size_t kMostSteps = 1000;

  // What must be undone at the end of a level.
  class Level {
   public:
    explicit Level(int& depth) : depth_(depth) { ++depth_; }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;
    ~Level() { --depth_; }

   private:
    int& depth_;
  };

  bool fail(const char* expected) {
    if (at_ >= text_.size()) {
      error_ = formatText("expected %s at character %zu, found the end", expected, at_ + 1);
    } else if (const char found = text_[at_]; found >= ' ' && found <= '~') {
      error_ = formatText("expected %s at character %zu, found '%c'", expected, at_ + 1, found);
    } else {
      error_ = formatText("expected %s at character %zu, found byte 0x%02X", expected, at_ + 1,
                          static_cast<unsigned>(static_cast<unsigned char>(found)));
    }
    return false;
  }

  // Every step is done for every value.
  bool isShort() {
    const std::size_t steps = formula_.steps_.size();
    if (steps <= kMostSteps) return true;
    error_ =
        formatText("expected at most %zu numbers, X and operations, found %zu", kMostSteps, steps);
    return false;
  }

  // The next character that is no blank; NUL at the end.
  char skipBlanks() {
    constexpr std::string_view kBlanks = " \t\r\n";
    while (at_ < text_.size() && kBlanks.find(text_[at_]) != std::string_view::npos) ++at_;
    return at_ < text_.size() ? text_[at_] : '\0';
  }
  bool take(char wanted) {
    if (skipBlanks() != wanted || at_ >= text_.size()) return false;
    ++at_;
    return true;
  }
  bool takePower() {
    if (take('^')) return true;
    if (skipBlanks() != '*' || text_.substr(at_, 2) != "**") return false;
    at_ += 2;
    return true;
  }

  void push(Operation operation, double number = 0) {
    formula_.steps_.push_back({operation, number});
    formula_.depth_ = std::max(formula_.depth_, ++height_);
  }
  // An operation on what is on top of the stack, which has `operands` values.
  void reduce(Operation operation, std::size_t operands) {
    formula_.steps_.push_back({operation});
    height_ -= operands - 1;
  }

  bool sum() {
    if (!product()) return false;
    for (;;) {
      const bool adds = take('+');
      if (!adds && !take('-')) return true;
      if (!product()) return false;
      reduce(adds ? Operation::Add : Operation::Subtract, 2);
    }
  }

  bool product() {
    if (!power()) return false;
    for (;;) {
      const bool divides = take('/');
      if (!divides && !take('*')) return true;
      if (!power()) return false;
      reduce(divides ? Operation::Divide : Operation::Multiply, 2);
    }
  }

  // Signs, a value, and the power that it is raised to.
  bool power() {
    const Level level(depth_);
    if (depth_ > kDeepest) return fail("fewer levels of brackets, signs and powers");
    if (take('+')) return power();
    if (take('-')) {
      if (!power()) return false;
      reduce(Operation::Negate, 1);
      return true;
    }
    if (!value()) return false;
    if (!takePower()) return true;
    if (!power()) return false;
    reduce(Operation::Power, 2);
    return true;
  }

  bool value() {
    const char first = skipBlanks();
    if (take('(')) return sum() && close();
    if ((first >= '0' && first <= '9') || first == '.') return number();
    const std::size_t start = at_;
    const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    std::string name;
    while (at_ < text_.size() && (isLetter(text_[at_]) || (!name.empty() && isDigit(text_[at_])))) {
      const char letter = text_[at_++];
      name += letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    }
    if (name == "x1") name = "x";
    const auto* const known = std::ranges::find(kFunctions, name, &Function::name);
    if (known == kFunctions.end()) {
      at_ = start;
      return fail("a number, X, a function or a bracket");
    }
    if (known->operation == Operation::Variable) {
      push(Operation::Variable);
      return true;
    }
    return call(known->operation);
  }

  bool call(Operation operation) {
    const std::size_t operands = operation == Operation::Power ? 2 : 1;
    if (!take('(')) return fail("'('");
    if (!sum()) return false;
    if (operands == 2 && !(take(',') ? sum() : fail("','"))) return false;
    reduce(operation, operands);
    return close();
  }

  bool close() { return take(')') || fail("')'"); }

  bool number() {
    double value = 0;
    const char* const end = text_.data() + text_.size();
    const auto [rest, error] = std::from_chars(text_.data() + at_, end, value);
    if (error != std::errc()) return fail("a number");
    at_ = static_cast<std::size_t>(rest - text_.data());
    push(Operation::Number, value);
    return true;
  }

  std::string_view text_;
  Formula& formula_;
  std::string error_;
  std::size_t at_ = 0;
  int depth_ = 0;
  std::size_t height_ = 0;  // of the stack
};

std::optional<Formula> Formula::compile(std::string_view text, std::string& error) {
  Formula formula;
  if (!FormulaParser(text, formula).parse(error)) return std::nullopt;
  return formula;
}

// Each step is done for a good many values at once: a level of the stack is a row of them.
void Formula::apply(std::span<double> values) const {
  constexpr std::size_t kMostAtOnce = 256;
  const std::size_t atOnce = std::min(values.size(), kMostAtOnce);
  std::vector<double> stack(depth_ * atOnce);
  while (!values.empty()) {
    const std::size_t count = std::min(values.size(), atOnce);
    double* top = stack.data();  // behind the last level that is used
    const auto push = [&] { return std::exchange(top, top + atOnce); };
    const auto one = [&](auto operation) {
      double* const a = top - atOnce;
      for (std::size_t i = 0; i < count; ++i) a[i] = operation(a[i]);
    };
    const auto two = [&](auto operation) {
      top -= atOnce;
      double* const a = top - atOnce;
      for (std::size_t i = 0; i < count; ++i) a[i] = operation(a[i], top[i]);
    };
    for (const Step& step : steps_) {
      switch (step.operation) {
        case Operation::Number:
          std::fill_n(push(), count, step.number);
          break;
        case Operation::Variable:
          std::copy_n(values.begin(), count, push());
          break;
        case Operation::Add:
          two([](double a, double b) { return a + b; });
          break;
        case Operation::Subtract:
          two([](double a, double b) { return a - b; });
          break;
        case Operation::Multiply:
          two([](double a, double b) { return a * b; });
          break;
        case Operation::Divide:
          two([](double a, double b) { return a / b; });
          break;
        case Operation::Power:
          two([](double a, double b) { return std::pow(a, b); });
          break;
        case Operation::Negate:
          one([](double a) { return -a; });
          break;
        case Operation::Sin:
          one([](double a) { return std::sin(a); });
          break;
        case Operation::Cos:
          one([](double a) { return std::cos(a); });
          break;
        case Operation::Tan:
          one([](double a) { return std::tan(a); });
          break;
        case Operation::Asin:
          one([](double a) { return std::asin(a); });
          break;
        case Operation::Acos:
          one([](double a) { return std::acos(a); });
          break;
        case Operation::Atan:
          one([](double a) { return std::atan(a); });
          break;
        case Operation::Sinh:
          one([](double a) { return std::sinh(a); });
          break;
        case Operation::Cosh:
          one([](double a) { return std::cosh(a); });
          break;
        case Operation::Tanh:
          one([](double a) { return std::tanh(a); });
          break;
        case Operation::Exp:
          one([](double a) { return std::exp(a); });
          break;
        case Operation::Log:
          one([](double a) { return std::log(a); });
          break;
        case Operation::Log10:
          one([](double a) { return std::log10(a); });
          break;
        case Operation::Sqrt:
          one([](double a) { return std::sqrt(a); });
          break;
        case Operation::Abs:
          one([](double a) { return std::abs(a); });
          break;
      }
    }
    std::copy_n(stack.begin(), count, values.begin());
    values = values.subspan(count);
  }
}

}  // namespace tolvex
