// Makes a column of records.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "Mdf4/model/RawField.h"
#include "Mdf4/model/ValueSource.h"
#include "Mdf4/reader/ColumnPlan.h"
#include "tolvex/MdfColumnReader.h"

namespace tolvex {

// What a column is wanted as.
enum class ColumnForm : std::uint8_t {
  Physical,
  Raw,          // without the conversion
  Doubles,      // each value as a float64, NaN where there is none
  RawDoubles,   // likewise, without the conversion
  Seconds,      // of a master of time: since the recording's start, as float64
  Nanoseconds,  // of a master of time: since 1970, as int64, the least one where there is none
};

// The type of a planned column in that form; None when it has no values in it.
MdfColumnType typeIn(ColumnForm form, const ColumnPlan& plan);
// Bytes of one value of the type; 0 where they differ.
std::size_t widthOf(MdfColumnType type);

// What builders work with in turns: it would be most of their size.
struct ColumnWorkspace {
  static constexpr std::size_t kRecords = 1024;

  std::array<std::uint64_t, kRecords> raw = {};
  std::array<double, kRecords> doubles = {};
  std::array<std::uint8_t, kRecords> valid = {};
};

// The column of one channel, for a number of records that is known in advance. Borrows the plan,
// the values and the workspace. Throws std::bad_alloc, and is then of no use.
class ColumnBuilder {
 public:
  // `values` may be null, where there are none. What has the same width for each value goes to
  // `out`, when that is not null, instead of into memory of the column.
  ColumnBuilder(const ColumnPlan& plan, ColumnForm form, std::uint64_t rows, ValueSource* values,
                ColumnWorkspace& workspace, void* out);

  // The next records; the first of them is the group's record `first`.
  void append(const RecordRows& records, std::uint64_t first);
  // Records that cannot be read: they have no valid values.
  void appendLost(std::uint64_t count);
  std::uint64_t rows() const { return row_; }
  MdfColumn finish();

 private:
  static constexpr std::size_t kAtOnce = ColumnWorkspace::kRecords;

  // What a raw value comes to in a column.
  struct Meant {
    std::int32_t code = -1;
    bool hasNumber = false;
    double number = 0;
  };

  void setUp(std::uint64_t rows, void* out);
  void placeElements();
  std::size_t indexOf(std::size_t element) const { return row_ * plan_.elements + element; }
  void appendNumbers(const RecordRows& records, std::uint64_t first, std::size_t element);
  NumberType gatherRaw(const RecordRows& records, std::uint64_t first, std::size_t element);
  void lookUp(NumberType type, std::size_t count, std::size_t element);
  void appendDoubles(NumberType type, std::size_t count, std::size_t element);
  void appendTimes(NumberType type, std::size_t count);
  const Meant& meantBy(std::uint64_t key, const RawValue& value);
  Meant meantBy(const RawValue& value);
  void store(const void* numbers, std::size_t count, std::size_t element);
  void storeMeant(const Meant& meant, std::size_t index);

  void appendBytes(const std::uint8_t* record, std::uint64_t number, std::size_t element);
  bool findBytes(const std::uint8_t* record, std::uint64_t number, std::size_t element,
                 ByteSpan& bytes);
  bool addText(ByteSpan bytes);
  void addBytes(ByteSpan bytes);

  void findInvalid(const RecordRows& records, std::size_t element);
  void markInvalid(std::size_t index);

  const ColumnPlan& plan_;
  const ColumnForm form_;
  const ValueConversion* conversion_;  // null: none
  ValueSource* values_;
  MdfColumn column_;
  std::size_t width_ = 0;        // of a number or code; 0: bytes
  std::uint8_t* out_ = nullptr;  // where those go
  std::size_t row_ = 0;
  std::size_t used_ = 0;      // bytes of texts or bytes
  std::size_t capacity_ = 0;  // for them
  std::uint64_t most_ = 0;    // that there may be
  // Of arrays, by element: how far it is behind the first one, and its invalidation bits likewise.
  std::vector<std::ptrdiff_t> byteOffsets_;
  std::vector<std::ptrdiff_t> lengthOffsets_;
  std::vector<std::vector<std::int64_t>> bitOffsets_;
  std::array<std::uint64_t, kAtOnce>& raw_;
  std::array<double, kAtOnce>& doubles_;
  std::array<std::uint8_t, kAtOnce>& valid_;
  std::vector<std::uint8_t> value_;
  std::string text_;
  std::unordered_map<std::string, std::int32_t> codes_;
  std::unordered_map<std::uint64_t, Meant> meant_;  // by raw value
};

}  // namespace tolvex
