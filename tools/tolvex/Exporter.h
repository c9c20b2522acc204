// Writes the tables of a recording, each where it belongs.
#pragma once

#include <tolvex/MdfColumnReader.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Command.h"
#include "Selection.h"
#include "Table.h"

namespace tolvex {

struct ExportOptions {
  std::vector<std::string> files;
  bool parts = false;
  std::optional<int> dg;
  int cg = 0;
  std::vector<std::string> channels;  // names and patterns; all when empty
  bool join = false;
  TableOptions table;
  std::string output;
  bool force = false;
  std::optional<std::uint64_t> maxOutput;  // bytes

  bool toStandardOutput() const { return output.empty() || output == "-"; }
};

// Borrows the reader, which is open, and the options. Used once.
class Exporter {
 public:
  Exporter(MdfColumnReader& reader, const ExportOptions& options);

  // Gives the exit code, said why.
  int run();

 private:
  const MdfColumnGroup& groupOf(const TablePart& part) const;
  bool choose();
  bool needsTime() const;
  void leaveOutGroupsWithoutTime();
  void complainOfFaults();
  void complainOf(const MdfColumnGroup& group, std::string_view what) const;
  void lose(const MdfColumnGroup& group, std::string_view what);
  int exportOne();
  int exportAll();
  bool isWhole(const TableResult& result, const std::vector<TablePart>& parts);

  MdfColumnReader& reader_;
  const ExportOptions& options_;
  const std::string label_;  // of the files, in messages
  Selection selection_;
  OutputBudget budget_;
  std::vector<TablePart> parts_;
  ExitCode code_ = kDone;
};

}  // namespace tolvex
