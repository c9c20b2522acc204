// What the values of a channel mean: conversions, as the format defines them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/model/FileTexts.h"
#include "Mdf4/model/Formula.h"

namespace tolvex {

// A value before its conversion.
struct RawValue {
  double number = 0;
  std::uint64_t bits = 0;  // of an integer, in two's complement
  std::string_view text = {};
};

// What a conversion makes of one value: a number, a text or, with neither, nothing.
struct Meaning {
  bool hasNumber = false;
  bool hasText = false;
  double number = 0;
  std::string text = {};
};

// A conversion, ready to be applied. It may refer to others. Nothing changes afterwards, so several
// threads may apply it at once.
class ValueConversion {
 public:
  enum class Input : std::uint8_t { Integer, Float, Text };

  // What the conversion makes of any value, as far as its kind says.
  bool isIdentity() const { return type_ == conversion_type::kIdentity; }
  bool givesTexts() const;
  // Whether it may make numbers of some values: of a table of texts, whether it leads to what does.
  bool givesNumbers() const { return givesNumbers_; }
  // What it does to a number, when that is no more than offset + factor x number.
  struct Line {
    double offset = 0;
    double factor = 1;
  };
  std::optional<Line> line() const;
  // For each value its number in the place of it: of a conversion that gives no texts from what are
  // no texts. `valid` then has a 0 for each value that has no meaning, and is left alone else.
  void convert(std::span<double> values, std::span<std::uint8_t> valid) const;
  // What a single value means.
  Meaning meaningOf(const RawValue& value) const;

  std::uint8_t type() const { return type_; }  // cc_type

 private:
  friend class ConversionLoader;

  // What a table leads to.
  struct Reference {
    SharedText text;
    std::shared_ptr<const ValueConversion> conversion;
  };

  // Numbers that the same range holds.
  struct Piece {
    double begin;
    std::size_t range;
  };

  // What gives nothing for any value.
  static std::shared_ptr<const ValueConversion> nothing();
  std::string prepare();
  bool findNumbers() const;
  void indexTexts(std::size_t stride);
  void sortPairs();
  void indexRanges(std::size_t stride);
  void look(const RawValue& value, Meaning& meaning, unsigned& steps) const;
  void refer(std::size_t index, const RawValue& value, Meaning& meaning, unsigned& steps) const;
  void lookUpBits(const RawValue& value, Meaning& meaning, unsigned& steps) const;
  std::optional<double> numberOf(double raw) const;
  std::optional<double> interpolate(double raw) const;
  std::optional<double> nearest(double raw) const;
  std::size_t rangeOf(double raw, std::size_t stride) const;
  std::size_t textOf(std::string_view text) const;

  std::uint8_t type_ = conversion_type::kIdentity;
  bool givesNumbers_ = false;
  Input input_ = Input::Float;
  SharedText name_;
  std::vector<double> values_;
  std::vector<Reference> references_;
  std::optional<Formula> formula_;
  std::unordered_map<double, std::size_t> byValue_;  // of a table of single values: its entries
  // Of a table of texts likewise; the texts are those of references_.
  std::unordered_map<std::string_view, std::size_t> byText_;
  std::vector<Piece> pieces_;  // of ranges, ascending: each goes on to where the next one begins
};

// Loads the conversions of one file, each once. Borrows the file and its texts.
class ConversionLoader {
 public:
  ConversionLoader(DirectFile& file, FileTexts& texts) : file_(file), texts_(texts) {}

  void clear() { known_.clear(); }
  // The conversion at the position, for values of that kind; of position 0 the one that changes
  // nothing. Null, with the fault among the file's problems, for one that cannot be applied.
  std::shared_ptr<const ValueConversion> load(std::uint64_t position, ValueConversion::Input input);

 private:
  struct Key {
    std::uint64_t position;
    ValueConversion::Input input;
    bool operator==(const Key&) const = default;
  };
  struct Hash {
    std::size_t operator()(const Key& key) const {
      return std::hash<std::uint64_t>()(key.position * 4 + static_cast<std::uint64_t>(key.input));
    }
  };

  bool fill(ValueConversion& conversion, std::uint64_t position);
  ValueConversion::Reference reference(std::uint64_t position, std::uint64_t to,
                                       ValueConversion::Input input);
  void report(std::uint64_t position, const std::string& fault);

  DirectFile& file_;
  FileTexts& texts_;
  // Null while its references are being loaded, and when it cannot be applied.
  std::unordered_map<Key, std::shared_ptr<const ValueConversion>, Hash> known_;
  int depth_ = 0;
};

}  // namespace tolvex
