// A column that is put together from parts.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "Mdf4/reader/ColumnBuilder.h"
#include "tolvex/MdfColumnReader.h"

namespace tolvex {

// The parts of a column, from several files or threads, behind each other. Throws std::bad_alloc,
// and is then of no use.
class ColumnAssembly {
 public:
  // Memory of the caller's; null: the column has its own.
  struct Memory {
    void* values = nullptr;            // for what has the same width for each value
    std::uint8_t* validity = nullptr;  // a bit for each value
  };

  // Of columns in that form, `rows` of them as planned.
  ColumnAssembly(ColumnForm form, const ColumnPlan& plan, std::uint64_t rows, const Memory& memory);

  // Where the values of a part go whose first row that is, and of which a thread may take care;
  // null: into its own memory.
  void* placeOf(std::uint64_t row) const;
  // The next rows, whose values are in their place.
  void add(MdfColumn part);
  MdfColumn finish();

 private:
  void addValidity(const MdfColumn& part, std::uint64_t start);
  void addTexts(MdfColumn& part, std::uint64_t start);
  void addBytes(MdfColumn& part, std::uint64_t start);

  const std::uint64_t planned_;  // rows
  std::size_t width_ = 0;
  std::uint8_t* values_ = nullptr;
  std::uint8_t* validity_ = nullptr;
  MdfColumn column_;
  std::uint64_t bytes_ = 0;  // of text or bytes
  std::unordered_map<std::string, std::int32_t> codes_;
};

}  // namespace tolvex
