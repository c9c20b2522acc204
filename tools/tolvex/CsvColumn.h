// A channel's values as cells of a CSV file.
#pragma once

#include <tolvex/Mdf4.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Output.h"

namespace tolvex {

struct CsvOptions {
  bool raw = false;   // numbers as they stand in the records, without the conversion
  bool safe = false;  // an apostrophe goes before texts that a spreadsheet takes for formulas
};

// Writes `text`, in quotes where the format asks for them; to a terminal, printable.
void writeCsvText(Output& out, std::string_view text, bool safe);

// One channel of a group. Decodes its value in a record and writes it as one cell; the cell stays
// empty where there is no valid value. Borrows the reader. Not synchronised: one thread at a time.
class CsvColumn {
 public:
  CsvColumn(MdfSigReader& reader, int dg, int cg, int cn, const CsvOptions& options);

  std::string name() const { return reader_.getCNName(dg_, cg_, cn_); }
  std::string title() const;  // "name [unit]"
  bool isMasterTime() const;

  // `index`: the record's number in its group.
  void writeCell(Output& out, std::span<const std::uint8_t> record, std::uint64_t index);

 private:
  enum class Kind { Physical, RawUnsigned, RawSigned, RawFloat, Index, Text, Bytes };

  static Kind kindOf(const MdfSigCCInfo& description, std::uint32_t bitCount, bool raw);
  void writePhysical(Output& out, std::span<const std::uint8_t> record);
  void writeConverted(Output& out, double value);  // or the text that goes with it
  void writeRaw(Output& out, std::span<const std::uint8_t> record);
  void writeIndex(Output& out, std::uint64_t index);

  MdfSigReader& reader_;
  int dg_;
  int cg_;
  int cn_;
  CsvOptions options_;
  MdfSigCCInfo description_;  // without its texts: many channels may share one long name
  Kind kind_;
  bool hasInvalidSamples_;
  std::string text_;  // scratch
  std::vector<std::uint8_t> bytes_;
};

}  // namespace tolvex
