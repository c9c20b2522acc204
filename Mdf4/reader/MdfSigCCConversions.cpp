// MdfSigCCInfo, from a raw number to a physical value or a text.
#include <array>
#include <cmath>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "Mdf4/format/BlockRecords.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

namespace {

using namespace conversion_type;

constexpr double kTolerance = 1e-12;

bool isEqual(double a, double b) {
  return std::abs(a - b) < kTolerance;
}

bool fail(double raw, double& phys) {
  phys = raw;
  return false;
}

bool succeed(double result, double& phys, std::string& text) {
  phys = result;
  text.clear();
  return true;
}

// The values when there are at least `least`, a multiple of `step` and as many as stated; else
// nothing.
std::optional<std::span<const double>> table(const MdfSigCCInfo& info, std::size_t least,
                                             std::size_t step) {
  const std::size_t count = info.valueCount;
  if (count < least || count % step != 0 || count > info.values.size()) return std::nullopt;
  return std::span(info.values.data(), count);
}

// Where a number lies among the keys of (key, value) pairs.
struct Place {
  std::size_t lower;
  std::size_t upper;  // the next pair, or `lower` where one pair alone decides
};

// A binary search, so it cannot prove that all keys ascend. It demands it of those that it looks
// at: each must lie between the ones already seen on both sides. Else, and for NaN, nothing; so
// a disorder that the search does not meet has no effect.
std::optional<Place> findPlace(std::span<const double> pairs, double raw) {
  std::size_t lo = 0;
  std::size_t hi = pairs.size() / 2 - 1;
  double below = pairs[2 * lo];
  double above = pairs[2 * hi];
  if (std::isnan(raw) || !(below <= above)) return std::nullopt;
  if (raw <= below) return Place{lo, lo};
  if (raw >= above) return Place{hi, hi};
  // The first key lies below raw and the last one above, so neither bound runs off its end.
  while (lo <= hi) {
    const std::size_t mid = (lo + hi) / 2;
    const double key = pairs[2 * mid];
    if (!(below <= key && key <= above)) return std::nullopt;
    if (isEqual(key, raw)) return Place{mid, mid};
    if (raw > key) {
      lo = mid + 1;
      below = key;
    } else {
      hi = mid - 1;
      above = key;
    }
  }
  return Place{hi, lo};
}

// `number` as an index below `count`, halves rounded away from zero.
std::optional<std::size_t> roundToIndex(double number, std::size_t count) {
  const double index = std::round(number);
  if (!(index >= 0 && index < static_cast<double>(count))) return std::nullopt;
  return static_cast<std::size_t>(index);
}

// The integer part, when an unsigned 64-bit integer can hold it.
std::optional<std::uint64_t> toUnsigned(double number) {
  constexpr double kEnd = 18446744073709551616.0;  // 2^64
  if (!(number > -1 && number < kEnd)) return std::nullopt;
  return static_cast<std::uint64_t>(number);
}

}  // namespace

std::string MdfSigCCInfo::getConversionTypeString() const {
  static constexpr std::array<std::string_view, 12> kTexts = {
      "IDENTITY (1:1 conversion)",
      "LINEAR (linear conversion)",
      "RATIONAL (rational conversion)",
      "FORMULA (algebraic conversion)",
      "N2N_INTERPOL (tabular with interpolation)",
      "N2N (tabular without interpolation)",
      "R2N (range to value)",
      "N2T (value to text)",
      "R2T (range to text)",
      "T2N (text to value)",
      "T2T (text to text)",
      "BTT (bitfield text table)",
  };
  return std::string(conversionType < kTexts.size() ? kTexts[conversionType] : "UNKNOWN");
}

bool MdfSigCCInfo::isTextConversion() const {
  return conversionType == kN2T || conversionType == kR2T || conversionType == kT2T ||
         conversionType == kBTT;
}

bool MdfSigCCInfo::isNumericConversion() const {
  return conversionType <= kR2N || conversionType == kT2N;
}

bool MdfSigCCInfo::requiresInterpolation() const {
  return conversionType == kN2NInterpol;
}

bool MdfSigCCInfo::applyConversion(double raw, double& phys, std::string& text) const {
  switch (conversionType) {
    case kLinear:
      return convertLinear(raw, phys, text);
    case kRational:
      return convertRational(raw, phys, text);
    case kFormula:
      return convertFormula(raw, phys, text);
    case kN2NInterpol:
      return convertN2NInterpol(raw, phys, text);
    case kN2N:
      return convertN2N(raw, phys, text);
    case kR2N:
      return convertR2N(raw, phys, text);
    case kN2T:
      return convertN2T(raw, phys, text);
    case kR2T:
      return convertR2T(raw, phys, text);
    case kT2N:
      return convertT2N(raw, phys, text);
    case kT2T:
      return convertT2T(raw, phys, text);
    case kBTT:
      return convertBTT(raw, phys, text);
    default:
      return convertIdentity(raw, phys, text);
  }
}

// The one conversion that hands NaN on as a value.
bool MdfSigCCInfo::convertIdentity(double raw, double& phys, std::string& text) const {
  return succeed(raw, phys, text);
}

bool MdfSigCCInfo::convertFormula(double raw, double& phys, std::string& text) const {
  return convertIdentity(raw, phys, text);
}

bool MdfSigCCInfo::convertLinear(double raw, double& phys, std::string& text) const {
  const auto v = table(*this, 2, 1);
  if (!v || std::isnan(raw)) return fail(raw, phys);
  return succeed(raw * (*v)[1] + (*v)[0], phys, text);
}

bool MdfSigCCInfo::convertRational(double raw, double& phys, std::string& text) const {
  const auto v = table(*this, 6, 1);
  if (!v) return fail(raw, phys);
  const auto polynomial = [&](std::size_t i) {
    return (*v)[i] * (raw * raw) + (*v)[i + 1] * raw + (*v)[i + 2];
  };
  const double denominator = polynomial(3);
  if (!(std::abs(denominator) > kTolerance)) return fail(raw, phys);  // NaN too
  return succeed(polynomial(0) / denominator, phys, text);
}

bool MdfSigCCInfo::convertN2NInterpol(double raw, double& phys, std::string& text) const {
  const auto pairs = table(*this, 2, 2);
  const auto place = pairs ? findPlace(*pairs, raw) : std::nullopt;
  if (!place) return fail(raw, phys);
  const double value = (*pairs)[2 * place->lower + 1];
  if (place->lower == place->upper) return succeed(value, phys, text);
  // The two keys differ: with less than the tolerance between them one would have been equal.
  const double key = (*pairs)[2 * place->lower];
  const double nextKey = (*pairs)[2 * place->upper];
  const double nextValue = (*pairs)[2 * place->upper + 1];
  return succeed(value + (raw - key) / (nextKey - key) * (nextValue - value), phys, text);
}

bool MdfSigCCInfo::convertN2N(double raw, double& phys, std::string& text) const {
  const auto pairs = table(*this, 2, 2);
  const auto place = pairs ? findPlace(*pairs, raw) : std::nullopt;
  if (!place) return fail(raw, phys);
  const double key = (*pairs)[2 * place->lower];
  const double nextKey = (*pairs)[2 * place->upper];
  const bool lower = place->lower == place->upper || nextKey - raw >= raw - key;
  return succeed((*pairs)[2 * (lower ? place->lower : place->upper) + 1], phys, text);
}

bool MdfSigCCInfo::convertR2N(double raw, double& phys, std::string& text) const {
  const auto triples = table(*this, 3, 3);
  if (!triples) return fail(raw, phys);
  for (auto v = triples->begin(); v != triples->end(); v += 3) {
    if (v[0] <= raw && raw <= v[1]) return succeed(v[2], phys, text);
  }
  return fail(raw, phys);
}

bool MdfSigCCInfo::convertN2T(double raw, double& phys, std::string& text) const {
  const auto keys = table(*this, 0, 1);
  phys = raw;
  if (!keys || textCount != valueCount + 1 || std::isnan(raw)) return false;
  for (std::size_t i = 0; i < keys->size() && i < texts.size(); ++i) {
    if (isEqual((*keys)[i], raw)) {
      text = texts[i];
      return true;
    }
  }
  if (keys->size() >= texts.size()) return false;
  text = texts[keys->size()];  // even when empty
  return !text.empty();
}

bool MdfSigCCInfo::convertR2T(double raw, double& phys, std::string& text) const {
  const auto pairs = table(*this, 0, 2);
  phys = raw;
  if (!pairs || textCount != valueCount / 2 + 1 || std::isnan(raw)) return false;
  const bool isInteger = dataType <= 3;
  const std::size_t count = pairs->size() / 2;
  std::size_t i = 0;
  for (; i < count; ++i) {
    const double max = (*pairs)[2 * i + 1];
    if ((*pairs)[2 * i] <= raw && (isInteger ? raw <= max : raw < max)) break;
  }
  if (i >= texts.size() || (i == count && texts[i].empty())) return false;
  text = texts[i];
  return true;
}

bool MdfSigCCInfo::convertT2N(double raw, double& phys, std::string& text) const {
  const auto list = table(*this, 0, 1);
  const auto i = roundToIndex(raw, valueCount);
  if (!list || !i || *i >= texts.size()) return fail(raw, phys);
  phys = (*list)[*i];
  text = texts[*i];
  return true;
}

bool MdfSigCCInfo::convertT2T(double raw, double& phys, std::string& text) const {
  phys = raw;
  const auto i = roundToIndex(raw, textCount);
  if (!i || 2 * *i + 1 >= texts.size()) return false;
  text = texts[2 * *i + 1];
  return true;
}

bool MdfSigCCInfo::convertBTT(double raw, double& phys, std::string& text) const {
  phys = raw;
  const auto pairs = table(*this, 2, 2);
  const auto bits = toUnsigned(raw);
  if (!pairs || !bits) return false;
  std::string result;
  for (std::size_t i = 0; i < pairs->size() / 2; ++i) {
    const auto mask = toUnsigned((*pairs)[2 * i]);
    const auto value = toUnsigned((*pairs)[2 * i + 1]);
    if (!mask || !value) return false;
    if ((*bits & *mask) != *value || i >= texts.size() || texts[i].empty()) continue;
    if (!result.empty()) result += " | ";
    result += texts[i];
  }
  if (result.empty()) return false;
  text = std::move(result);
  return true;
}

}  // namespace tolvex
