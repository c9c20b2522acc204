#include "Mdf4/model/ValueConversion.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstddef>
#include <functional>
#include <iterator>
#include <queue>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockLoader.h"

namespace tolvex {
namespace {

using namespace conversion_type;

// Conversions that one value may go through, and bytes of text that it may come to.
constexpr unsigned kMostSteps = 512;
constexpr std::size_t kLongestText = 1 << 14;
constexpr std::uint8_t kNothing = 0xFF;  // no cc_type: gives nothing for any value

}  // namespace

bool ValueConversion::givesTexts() const {
  return type_ == kN2T || type_ == kR2T || type_ == kT2T || type_ == kBTT;
}

bool ValueConversion::findNumbers() const {
  if (type_ == kIdentity) return input_ != Input::Text;
  if (!givesTexts()) return type_ != kNothing;
  return type_ != kBTT && std::ranges::any_of(references_, [](const Reference& reference) {
           return reference.conversion != nullptr && reference.conversion->givesNumbers();
         });
}

std::optional<ValueConversion::Line> ValueConversion::line() const {
  if (type_ == kIdentity) return Line{};
  if (type_ == kLinear) return Line{values_[0], values_[1]};
  return std::nullopt;
}

// Between two keys the straight line, beyond them the value of the last one.
std::optional<double> ValueConversion::interpolate(double raw) const {
  if (std::isnan(raw)) return std::nullopt;
  const std::size_t pairs = values_.size() / 2;
  std::size_t low = 0;  // the pair with the greatest key that is not above `raw`
  std::size_t high = pairs;
  while (high - low > 1) {
    const std::size_t middle = low + (high - low) / 2;
    (values_[2 * middle] <= raw ? low : high) = middle;
  }
  const double key = values_[2 * low];
  const double value = values_[2 * low + 1];
  if (raw <= key || low + 1 == pairs) return value;
  const double nextKey = values_[2 * low + 2];
  return value + (raw - key) / (nextKey - key) * (values_[2 * low + 3] - value);
}

// The value of the nearer key, of the lower one on a tie.
std::optional<double> ValueConversion::nearest(double raw) const {
  if (std::isnan(raw)) return std::nullopt;
  const std::size_t pairs = values_.size() / 2;
  std::size_t low = 0;
  std::size_t high = pairs;
  while (high - low > 1) {
    const std::size_t middle = low + (high - low) / 2;
    (values_[2 * middle] <= raw ? low : high) = middle;
  }
  const bool isAbove = low + 1 < pairs && raw > values_[2 * low] &&
                       values_[2 * low + 2] - raw < raw - values_[2 * low];
  return values_[2 * (low + (isAbove ? 1 : 0)) + 1];
}

// The first range that holds the value; behind the last one when none does.
std::size_t ValueConversion::rangeOf(double raw, std::size_t stride) const {
  const auto behind = std::ranges::upper_bound(pieces_, raw, {}, &Piece::begin);
  return behind == pieces_.begin() ? values_.size() / stride : std::prev(behind)->range;
}

std::optional<double> ValueConversion::numberOf(double raw) const {
  switch (type_) {
    case kLinear:
      return values_[0] + values_[1] * raw;
    case kRational: {
      const double below = (values_[3] * raw + values_[4]) * raw + values_[5];
      if (below == 0) return std::nullopt;
      return ((values_[0] * raw + values_[1]) * raw + values_[2]) / below;
    }
    case kFormula:
      formula_->apply({&raw, 1});
      return raw;
    case kN2NInterpol:
      return interpolate(raw);
    case kN2N:
      return nearest(raw);
    case kR2N: {
      constexpr std::size_t kStride = 3;
      const std::size_t range = rangeOf(raw, kStride);
      if (range < values_.size() / kStride) return values_[range * kStride + 2];
      if (values_.size() % kStride == 0) return std::nullopt;
      return values_.back();
    }
    default:
      return raw;
  }
}

void ValueConversion::convert(std::span<double> values, std::span<std::uint8_t> valid) const {
  if (type_ == kLinear) {
    const double summand = values_[0];
    const double factor = values_[1];
    for (double& value : values) value = summand + factor * value;
    return;
  }
  if (type_ == kFormula) return formula_->apply(values);
  if (isIdentity()) return;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const std::optional<double> number = numberOf(values[i]);
    values[i] = number.value_or(std::nan(""));
    if (!number) valid[i] = 0;
  }
}

Meaning ValueConversion::meaningOf(const RawValue& value) const {
  Meaning meaning;
  unsigned steps = kMostSteps;
  look(value, meaning, steps);
  return steps == 0 ? Meaning() : meaning;  // a part of it would be wrong
}

// The entry of a text; behind the last one when there is none.
std::size_t ValueConversion::textOf(std::string_view text) const {
  const auto found = byText_.find(text);
  return found != byText_.end() ? found->second : references_.size() / (type_ == kT2T ? 2 : 1);
}

void ValueConversion::refer(std::size_t index, const RawValue& value, Meaning& meaning,
                            unsigned& steps) const {
  if (index >= references_.size()) return;
  const Reference& reference = references_[index];
  if (reference.text != nullptr) {
    meaning.hasText = true;
    meaning.text = *reference.text;
  } else if (reference.conversion != nullptr) {
    reference.conversion->look(value, meaning, steps);
  }
}

void ValueConversion::look(const RawValue& value, Meaning& meaning, unsigned& steps) const {
  if (steps == 0 || type_ == kNothing) return;
  --steps;
  switch (type_) {
    case kIdentity:
      meaning.hasText = input_ == Input::Text;
      meaning.hasNumber = !meaning.hasText;
      meaning.text = value.text;
      meaning.number = value.number;
      break;
    case kN2T: {
      const auto found = byValue_.find(value.number);
      refer(found == byValue_.end() ? values_.size() : found->second, value, meaning, steps);
      break;
    }
    case kR2T:
      refer(rangeOf(value.number, 2), value, meaning, steps);
      break;
    case kT2N: {
      const std::size_t entry = textOf(value.text);
      meaning.hasNumber = entry < values_.size();
      if (meaning.hasNumber) meaning.number = values_[entry];
      break;
    }
    case kT2T: {
      const std::size_t entry = textOf(value.text);
      const bool isThere = 2 * entry + 1 < references_.size();
      const std::size_t index = isThere ? 2 * entry + 1 : references_.size() - 1;
      const Reference& reference = references_[index];
      if (!isThere && reference.text == nullptr && reference.conversion == nullptr) {
        meaning.hasText = true;
        meaning.text = value.text;
      } else {
        refer(index, value, meaning, steps);
      }
      break;
    }
    case kBTT:
      lookUpBits(value, meaning, steps);
      break;
    default: {
      const std::optional<double> number = numberOf(value.number);
      meaning.hasNumber = number.has_value();
      if (number) meaning.number = *number;
    }
  }
}

// What each mask's bits mean, side by side.
void ValueConversion::lookUpBits(const RawValue& value, Meaning& meaning, unsigned& steps) const {
  std::string all;
  bool any = false;
  for (std::size_t i = 0; i < references_.size() && i < values_.size(); ++i) {
    RawValue part;
    part.bits = value.bits & std::bit_cast<std::uint64_t>(values_[i]);
    part.number = static_cast<double>(part.bits);
    Meaning found;
    refer(i, part, found, steps);
    if (!found.hasText && !found.hasNumber) continue;
    if (std::exchange(any, true)) all += '|';
    const ValueConversion* const conversion = references_[i].conversion.get();
    if (conversion != nullptr && conversion->name_ != nullptr) {
      all += *conversion->name_;
      all += " = ";
    }
    if (found.hasText) {
      all += found.text;
    } else {
      std::array<char, 32> digits;
      const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), found.number);
      all.append(digits.data(), end.ptr);
    }
    if (all.size() > kLongestText) steps = 0;
    if (steps == 0) return;
  }
  meaning.hasText = any;
  meaning.text = std::move(all);
}

std::shared_ptr<const ValueConversion> ValueConversion::nothing() {
  static const std::shared_ptr<const ValueConversion> kConversion = [] {
    auto conversion = std::make_shared<ValueConversion>();
    conversion->type_ = kNothing;
    return conversion;
  }();
  return kConversion;
}

// Checks that the conversion has what its kind needs, and makes ready what is looked up in it. What
// is wrong with it; nothing when it can be applied.
std::string ValueConversion::prepare() {
  const std::size_t count = values_.size();
  const auto need = [&](bool right, const char* what) {
    return right ? std::string()
                 : formatText("expected %s, found %zu values and %zu references", what, count,
                              references_.size());
  };
  const bool takesTexts = type_ == kT2N || type_ == kT2T;
  if (!isIdentity() && takesTexts != (input_ == Input::Text)) {
    return formatText("a conversion of type %u does not apply to %s", unsigned{type_},
                      takesTexts ? "numbers" : "texts or bytes");
  }
  switch (type_) {
    case kIdentity:
      return {};
    case kLinear:
      return need(count >= 2, "2 values");
    case kRational:
      return need(count >= 6, "6 values");
    case kFormula: {
      std::string fault = need(!references_.empty() && references_[0].text != nullptr, "a formula");
      if (!fault.empty()) return fault;
      formula_ = Formula::compile(*references_[0].text, fault);
      return fault;
    }
    case kN2NInterpol:
    case kN2N:
      sortPairs();
      return need(values_.size() >= 2 && count % 2 == 0, "pairs of values");
    case kR2N:
      indexRanges(3);
      return need(count != 0 && count % 3 != 2, "three values for each range, and a default");
    case kN2T:
      for (std::size_t i = 0; i < count; ++i) byValue_.try_emplace(values_[i], i);
      return {};
    case kR2T:
      indexRanges(2);
      return need(count % 2 == 0, "two values for each range");
    case kT2N:
      indexTexts(1);
      return need(count >= references_.size(), "a value for each text");
    case kT2T:
      indexTexts(2);
      if (references_.size() % 2 == 0) references_.emplace_back();
      return {};
    case kBTT:
      return need(references_.size() >= count, "a reference for each mask");
    default:
      return formatText("unknown type %u", unsigned{type_});
  }
}

void ValueConversion::indexTexts(std::size_t stride) {
  for (std::size_t i = 0; i + stride <= references_.size(); i += stride) {
    const SharedText& text = references_[i].text;
    byText_.try_emplace(text == nullptr ? std::string_view() : *text, i / stride);
  }
}

void ValueConversion::sortPairs() {
  struct Pair {
    double key;
    double value;
  };
  std::vector<Pair> pairs;
  for (std::size_t i = 0; i + 1 < values_.size(); i += 2) {
    if (!std::isnan(values_[i])) pairs.push_back({values_[i], values_[i + 1]});
  }
  std::ranges::stable_sort(pairs, {}, &Pair::key);
  values_.clear();
  for (const Pair& pair : pairs) values_.insert(values_.end(), {pair.key, pair.value});
}

// Ranges hold integers from both ends on, others up to the upper end. Where they overlap the first
// one counts.
void ValueConversion::indexRanges(std::size_t stride) {
  struct Border {
    double at;
    std::size_t range;
    bool begins;
  };
  const std::size_t ranges = values_.size() / stride;
  std::vector<Border> borders;
  for (std::size_t i = 0; i < ranges; ++i) {
    const double most = values_[i * stride + 1];
    const double begin = values_[i * stride];
    const double end = input_ == Input::Integer ? std::nextafter(most, HUGE_VAL) : most;
    if (begin < end) borders.insert(borders.end(), {{begin, i, true}, {end, i, false}});
  }
  std::ranges::sort(borders, {}, &Border::at);
  std::priority_queue<std::size_t, std::vector<std::size_t>, std::greater<>> open;
  std::vector<bool> ended(ranges);
  for (std::size_t i = 0; i < borders.size();) {
    const double at = borders[i].at;
    for (; i < borders.size() && borders[i].at == at; ++i) {
      if (borders[i].begins) {
        open.push(borders[i].range);
      } else {
        ended[borders[i].range] = true;
      }
    }
    while (!open.empty() && ended[open.top()]) open.pop();
    pieces_.push_back({at, open.empty() ? ranges : open.top()});
  }
}

std::shared_ptr<const ValueConversion> ConversionLoader::load(std::uint64_t position,
                                                              ValueConversion::Input input) {
  constexpr int kDeepest = 256;
  auto conversion = std::make_shared<ValueConversion>();
  conversion->input_ = input;
  if (position == 0) return conversion;
  const auto [known, isNew] = known_.try_emplace({position, input});
  if (!isNew) return known->second;
  if (depth_ == kDeepest) {
    report(position, formatText("more than %d conversions refer to each other", kDeepest));
    return nullptr;
  }
  ++depth_;
  const bool filled = fill(*conversion, position);
  --depth_;
  if (!filled) return nullptr;
  known_[{position, input}] = conversion;
  return conversion;
}

void ConversionLoader::report(std::uint64_t position, const std::string& fault) {
  file_.report(formatText("conversion at %" PRIu64 ": %s", position, fault.c_str()));
}

bool ConversionLoader::fill(ValueConversion& conversion, std::uint64_t position) {
  Conversion numbers;
  const auto block = loadConversionNumbers(file_, position, numbers);
  if (block == nullptr) {
    report(position, "no sound CC block is there");
    return false;
  }
  conversion.type_ = numbers.record.cc_type;
  conversion.values_ = std::move(numbers.values);
  conversion.name_ = texts_.plain(block->link(link::cc_tx_name));
  // The bits that a mask leaves are a number of their own.
  const auto input = conversion.type_ == kBTT ? ValueConversion::Input::Integer : conversion.input_;
  for (std::size_t i = 0; i < numbers.record.cc_ref_count; ++i) {
    const std::uint64_t to = block->link(link::cc_ref + i);
    conversion.references_.push_back(to == 0 ? ValueConversion::Reference()
                                             : reference(position, to, input));
  }
  const std::string fault = conversion.prepare();
  if (!fault.empty()) report(position, fault);
  conversion.givesNumbers_ = conversion.findNumbers();
  return fault.empty();
}

// What a table's link that is not 0 leads to.
ValueConversion::Reference ConversionLoader::reference(std::uint64_t position, std::uint64_t to,
                                                       ValueConversion::Input input) {
  ValueConversion::Reference reference;
  if (blockTypeAt(file_, to) == block_type::kCC) {
    const auto known = known_.find({to, input});
    if (known != known_.end() && known->second == nullptr) {
      report(position, formatText("it refers to the conversion at %" PRIu64
                                  ", which refers to this one or cannot be applied",
                                  to));
    } else {
      reference.conversion = load(to, input);
    }
    if (reference.conversion == nullptr) reference.conversion = ValueConversion::nothing();
  } else if (blockTypeAt(file_, to) == block_type::kTX) {
    static const auto kEmpty = std::make_shared<const std::string>();
    reference.text = texts_.plain(to);
    if (reference.text == nullptr) reference.text = kEmpty;
  } else {
    report(position, formatText("it refers to %" PRIu64 ", where no TX or CC block is", to));
    reference.conversion = ValueConversion::nothing();
  }
  return reference;
}

}  // namespace tolvex
