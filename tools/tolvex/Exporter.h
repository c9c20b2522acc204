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
#include "TimeArgument.h"

namespace tolvex {

struct ExportOptions {
  std::vector<std::string> files;
  bool parts = false;
  std::optional<int> dg;
  int cg = 0;
  std::vector<std::string> channels;  // names and patterns; all when empty
  bool join = false;
  std::optional<TimeArgument> start;
  std::optional<TimeArgument> end;
  TableOptions table;  // without the window that these two make
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
  std::int64_t fileTimeOf(const TimeArgument& time) const;
  void leaveOutGroupsWithoutTime();
  void complainOfFaults();
  void complainOf(const MdfColumnGroup& group, std::string_view what) const;
  void lose(const MdfColumnGroup& group, std::string_view what);
  int exportOne();
  int exportAll();
  void complainOfEmptyWindow() const;
  bool isWhole(const TableResult& result, const std::vector<TablePart>& parts);

  MdfColumnReader& reader_;
  const ExportOptions& options_;
  TableOptions table_;
  const std::string label_;  // of the files, in messages
  Selection selection_;
  OutputBudget budget_;
  std::vector<TablePart> parts_;
  ExitCode code_ = kDone;
  std::uint64_t rows_ = 0;
  TimeSpan span_;
};

}  // namespace tolvex
