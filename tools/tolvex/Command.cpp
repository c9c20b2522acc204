#include "Command.h"

#include <fmt/format.h>
#include <tolvex/Mdf4.h>

#include <cstdio>

namespace tolvex {

void complain(std::string_view file, std::string_view what) {
  const std::string line = fmt::format("tolvex: {}: {}\n", printable(file), printable(what));
  std::fwrite(line.data(), 1, line.size(), stderr);
}

bool openOrComplain(MdfBaseReader& reader, const std::string& file) {
  if (reader.open()) {
    return true;
  }
  complain(file, reader.getLastError());
  return false;
}

bool complainIfUnsorted(const MdfGroupInfo& group, const std::string& file) {
  if (group.unsorted) {
    complain(file, fmt::format("data group {} is unsorted: records of several channel groups, or "
                               "with record ids, lie in one sequence; tolvex recover sorts it",
                               group.dgIndex));
  }
  return group.unsorted;
}

ExitCode reportProblems(const MdfBaseReader& reader, const std::string& file, ExitCode soFar) {
  const std::vector<std::string> problems = reader.getProblems();
  for (const std::string& problem : problems) {
    complain(file, problem);
  }
  return problems.empty() ? soFar : kLost;
}

ExitCode finish(Output& out, const MdfBaseReader& reader, const std::string& file, ExitCode soFar) {
  if (out.close()) {
    return reportProblems(reader, file, soFar);
  }
  if (out.pipeClosed()) {
    return kDone;
  }
  complain(out.name(), out.error());
  return kFailed;
}

}  // namespace tolvex
