#include "Command.h"

#include <fmt/format.h>
#include <tolvex/MdfColumnReader.h>
#include <tolvex/MdfFrameReader.h>

#include <CLI/CLI.hpp>
#include <cstdio>

#include "Mdf4/base/OutputLimit.h"
#include "Mdf4/base/System.h"

namespace tolvex {

void addMaxOutput(CLI::App& command, std::optional<std::uint64_t>& bytes) {
  command
      .add_option("--max-output", bytes,
                  "The most bytes to write: a small file can claim\n"
                  "to hold a huge one. k, M and G stand for 1024,\n"
                  "1024 k and 1024 M; 0 for no limit. By default\n"
                  "1,000 times the input, and at least 1G")
      ->type_name("BYTES")
      ->transform(CLI::AsSizeValue(false).description(""));
}

OutputBudget budgetFor(std::optional<std::uint64_t> chosen,
                       const std::vector<std::string>& inputs) {
  std::uint64_t size = 0;
  for (const std::string& input : inputs) {
    FileStatus status;
    static_cast<void>(fileStatus(input, status));
    size += status.size;
  }
  return {.limit = outputLimit(chosen, size)};
}

void addForce(CLI::App& command, bool& force) {
  command.add_flag("--force", force, "Overwrite files that exist");
}

bool complainIfStandardOutput(const std::string& path) {
  if (path == "-") {
    complain("standard output", "a measurement file is not written front to back; name a file");
  }
  return path == "-";
}

ExitCode openOutput(Output& out, const std::string& path, const std::vector<std::string>& inputs,
                    bool force) {
  if (path.empty() || path == "-") {
    return kDone;
  }
  switch (out.open(path, inputs, force)) {
    case Output::Opened::Yes:
      return kDone;
    case Output::Opened::IsAnInput:
      complain(path, "is the input itself; name another output");
      return kWrongUse;
    case Output::Opened::Exists:
      complain(path, kExists);
      return kWrongUse;
    case Output::Opened::Failed:
      break;
  }
  complain(path, out.error());
  return kFailed;
}

void complain(std::string_view file, std::string_view what) {
  const std::string line = fmt::format("tolvex: {}: {}\n", printable(file), printable(what));
  std::fwrite(line.data(), 1, line.size(), stderr);
}

void addInputs(CLI::App& command, std::vector<std::string>& files, bool& parts) {
  command
      .add_option("FILE", files,
                  "The measurement file; several are read as one recording, in the order of their "
                  "start times")
      ->required();
  command.add_flag("--parts", parts,
                   "Also the files into which the recording was split: FILE_1, FILE_2 and so on");
}

bool findParts(std::vector<std::string>& files, bool parts) {
  if (parts && files.size() > 1) {
    complain("--parts", "finds the other files of one that is named alone");
    return false;
  }
  if (parts) {
    files = mdfPartsOf(files.front());
  }
  return true;
}

std::string labelOf(const std::vector<std::string>& files) {
  return files.size() < 2 ? files.front()
                          : fmt::format("{} and {} more", files.front(), files.size() - 1);
}

template <class Reader>
static ExitCode reportAll(const Reader& reader, const std::string& file, ExitCode soFar) {
  const std::vector<std::string> problems = reader.problems();
  for (const std::string& problem : problems) {
    complain(file, problem);
  }
  return problems.size() <= reader.notices().size() ? soFar : kLost;
}

ExitCode reportProblems(const MdfColumnReader& reader, const std::string& file, ExitCode soFar) {
  return reportAll(reader, file, soFar);
}

ExitCode reportProblems(const MdfFrameReader& reader, const std::string& file, ExitCode soFar) {
  return reportAll(reader, file, soFar);
}

template <class Reader>
static ExitCode close(Output& out, const Reader& reader, const std::string& file, ExitCode soFar) {
  if (out.close()) {
    return reportProblems(reader, file, soFar);
  }
  if (out.pipeClosed()) {
    return kDone;
  }
  complain(out.name(), out.error());
  return kFailed;
}

ExitCode finish(Output& out, const MdfColumnReader& reader, const std::string& file,
                ExitCode soFar) {
  return close(out, reader, file, soFar);
}

ExitCode finish(Output& out, const MdfFrameReader& reader, const std::string& file,
                ExitCode soFar) {
  return close(out, reader, file, soFar);
}

}  // namespace tolvex
