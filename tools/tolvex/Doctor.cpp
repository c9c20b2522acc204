// tolvex doctor: what is wrong with a measurement file.

#include <fmt/format.h>
#include <tolvex/Mdf4.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "Command.h"
#include "Progress.h"

namespace tolvex {

namespace {

struct DoctorOptions {
  std::string file;
  std::string format = "text";
};

const char* severity(const MdfFinding& finding) {
  return finding.error ? "Error" : "Warning";
}

// "Error: 4536: CN block: cn_data_type: expected at most 16, found 99".
std::string lineOf(const MdfFinding& finding) {
  std::string line = fmt::format("{}: {}: {}", severity(finding), finding.position, finding.what);
  if (!finding.expected.empty()) {
    line += ": expected " + finding.expected;
  }
  if (!finding.found.empty()) {
    line += (finding.expected.empty() ? ": found " : ", found ") + finding.found;
  }
  return printable(line) + '\n';
}

void sayFindings(const MdfCheckReport& report) {
  std::string text;
  for (const MdfFinding& finding : report.findings) {
    text += lineOf(finding);
  }
  const std::uint64_t all = report.errors + report.warnings;
  if (all > report.findings.size()) {
    text += fmt::format("and {} more: {} errors and {} warnings in all\n",
                        all - report.findings.size(), report.errors, report.warnings);
  }
  std::fwrite(text.data(), 1, text.size(), stderr);
}

std::string jsonText(const std::string& file, const MdfCheckReport& report) {
  nlohmann::ordered_json json = {{"file", file},
                                 {"errors", report.errors},
                                 {"warnings", report.warnings},
                                 {"findings", nlohmann::ordered_json::array()}};
  for (const MdfFinding& finding : report.findings) {
    json["findings"].push_back({{"severity", finding.error ? "error" : "warning"},
                                {"position", finding.position},
                                {"what", finding.what},
                                {"expected", finding.expected},
                                {"found", finding.found}});
  }
  return printableJson(json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) +
                       '\n');
}

MdfCheckReport check(const std::string& file) {
  std::optional<Progress> progress;
  return checkFile(file, [&](std::uint64_t done, std::uint64_t total) {
    if (!progress) {
      progress.emplace("Checking " + file, total, "bytes");
    }
    progress->update(done);
  });
}

int doctor(const DoctorOptions& options) {
  const MdfCheckReport report = check(options.file);
  if (!report.failure.empty()) {
    complain(options.file, report.failure);
    return kFailed;
  }
  const ExitCode verdict = report.errors == 0 ? kDone : kFailed;
  if (options.format != "json") {
    sayFindings(report);
    return verdict;
  }
  Output out;
  out.write(jsonText(options.file, report));
  if (out.close() || out.pipeClosed()) {
    return verdict;
  }
  complain(out.name(), out.error());
  return kFailed;
}

}  // namespace

void addDoctor(CLI::App& app, Command& chosen) {
  const auto options = std::make_shared<DoctorOptions>();
  CLI::App* command = app.add_subcommand("doctor", "Check a measurement file against the format");
  command->add_option("FILE", options->file, "The measurement file")->required();
  command->add_option("--format", options->format, "The form of the findings; text by default")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"text", "json"}));
  command->footer(
      "Silent when the file is as it should be. Else a line for each finding on the standard error "
      "(in json: a list on the standard output), at most 1000, with the position in the file in "
      "bytes:\n"
      "  Error    a reader that follows the format reads something wrong, or cannot read it\n"
      "  Warning  odd, but read as it was meant\n"
      "Exit code 1 when there is an error, also when the file cannot be opened, else 0.\n"
      "\n"
      "Examples:\n"
      "  tolvex doctor drive.mf4\n"
      "  tolvex doctor drive.mf4 --format json | jq '.findings[].what'");
  command->callback([options, &chosen] { chosen = [options] { return doctor(*options); }; });
}

}  // namespace tolvex
