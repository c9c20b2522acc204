// tolvex recover: brings back what is there of an unfinished, cut or damaged file.

#include <fmt/format.h>
#include <tolvex/Mdf4.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

#include "Command.h"
#include "Progress.h"

namespace tolvex {

namespace {

struct RecoverOptions {
  std::string input;
  std::string output;
  bool verify = false;
};

std::string count(std::uint64_t number, const char* what) {
  return fmt::format("{} {}{}", number, what, number == 1 ? "" : "s");
}

void describe(const MdfRecoveredGroup& group, const std::string& file) {
  std::string text = fmt::format("data group {}, channel group {}", group.dgIndex, group.cgIndex);
  if (!group.name.empty()) {
    text += fmt::format(" \"{}\"", group.name);
  }
  text += ": " + count(group.records, "record");
  if (group.foundBlocks != 0) {
    text += ", with " + count(group.foundBlocks, "data block") + " that no list names";
  }
  if (group.lostRecords != 0) {
    text += ", " + count(group.lostRecords, "record") + " lost";
  }
  complain(file, text);
  for (const std::string& loss : group.losses) {
    complain(file, "  lost: " + loss);
  }
  for (const std::string& repair : group.repairs) {
    complain(file, "  put right: " + repair);
  }
}

int recover(const RecoverOptions& options) {
  std::error_code error;
  if (std::filesystem::equivalent(options.input, options.output, error)) {
    complain(options.output, "is the input itself; name another output");
    return kWrongUse;
  }
  MdfRecoverOptions settings;
  settings.verify = options.verify;
  std::optional<Progress> progress;
  settings.progress = [&](std::uint64_t done, std::uint64_t total) {
    if (!progress) {
      progress.emplace("Recovering " + printable(options.input), total, "bytes");
    }
    progress->update(done);
  };
  const MdfRecoveryReport report = recoverFile(options.input, options.output, settings);
  progress.reset();
  for (const MdfRecoveredGroup& group : report.groups) {
    describe(group, options.input);
  }
  for (const std::string& loss : report.losses) {
    complain(options.input, "lost: " + loss);
  }
  for (const std::string& repair : report.repairs) {
    complain(options.input, "put right: " + repair);
  }
  if (!report.failure.empty()) {
    complain(options.input, report.failure);
    return kFailed;
  }
  return report.lossless() ? kDone : kLost;
}

}  // namespace

void addRecover(CLI::App& app, Command& chosen) {
  CLI::App* const command = app.add_subcommand(
      "recover", "Bring back what is there of an unfinished, cut or damaged file");
  const auto options = std::make_shared<RecoverOptions>();
  command->add_option("FILE", options->input, "The file, left as it is")->required();
  command->add_option("-o,--output", options->output, "The finished file to write")->required();
  command->add_flag("--verify", options->verify, "Read the result again and compare it");
  command->footer(
      "What came back and what was lost is told on the standard error, group by group. Exit "
      "codes:\n"
      "0 nothing was lost, 3 something was, 1 nothing usable, and then no file is written.");
  command->callback([options, &chosen] { chosen = [options] { return recover(*options); }; });
}

}  // namespace tolvex
