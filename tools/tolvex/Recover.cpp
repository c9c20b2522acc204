// tolvex recover: brings back what is there of an unfinished, cut or damaged file.

#include <fmt/format.h>
#include <tolvex/Mdf4.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>

#include "Command.h"
#include "Mdf4/base/System.h"
#include "Progress.h"
#include "StopSignals.h"

namespace tolvex {

namespace {

struct RecoverOptions {
  std::string input;
  std::string output;
  bool verify = false;
  bool force = false;
  std::optional<std::uint64_t> maxOutput;  // bytes
};

std::string count(std::uint64_t number, const char* what) {
  return fmt::format("{} {}{}", number, what, number == 1 ? "" : "s");
}

bool isEmpty(const MdfRecoveredGroup& group) {
  return group.records == 0 && group.lostRecords == 0 && group.losses.empty() &&
         group.repairs.empty();
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

// Says what has something to say; groups without records are only counted.
void describe(const MdfRecoveryReport& report, const std::string& file) {
  std::uint64_t empty = 0;
  for (const MdfRecoveredGroup& group : report.groups) {
    if (isEmpty(group)) {
      ++empty;
    } else {
      describe(group, file);
    }
  }
  if (empty != 0) {
    complain(file, count(empty, "channel group") + " without records");
  }
  for (const std::string& loss : report.losses) {
    complain(file, "lost: " + loss);
  }
  for (const std::string& repair : report.repairs) {
    complain(file, "put right: " + repair);
  }
}

int recover(const RecoverOptions& options) {
  if (complainIfStandardOutput(options.output)) {
    return kWrongUse;
  }
  if (isSameFile(options.input, options.output)) {
    complain(options.output, "is the input itself; name another output");
    return kWrongUse;
  }
  if (!options.force && ResultFile::wouldReplace(options.output)) {
    complain(options.output, kExists);
    return kWrongUse;
  }
  MdfRecoverOptions settings;
  settings.keepExisting = !options.force;
  settings.verify = options.verify;
  settings.maxOutput = options.maxOutput;
  settings.cancelled = [] { return StopSignals::received() != 0; };
  std::optional<Progress> progress;
  std::uint64_t lastTotal = 0;  // of the step that is shown
  settings.progress = [&](std::uint64_t done, std::uint64_t total) {
    if (!progress || total != lastTotal) {
      progress.emplace("Recovering " + printable(options.input), total, "bytes");
      lastTotal = total;
    }
    progress->update(done);
  };
  const MdfRecoveryReport report = recoverFile(options.input, options.output, settings);
  progress.reset();
  describe(report, options.input);
  if (!report.failure.empty()) {
    complain(options.input,
             report.failure + (report.beyondLimit ? "; --max-output changes it" : ""));
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
  command->add_option("-o,--output", options->output, "The finished file to write")
      ->type_name("OUT")
      ->required();
  command->add_flag("--verify", options->verify, "Read the result again and compare it");
  addForce(*command, options->force);
  addMaxOutput(*command, options->maxOutput);
  command->footer(
      "What came back and what was lost is told on the standard error, group by\n"
      "group. The result gets the permissions of FILE, and the name OUT when it is\n"
      "whole and on the disk; until then it grows beside it as tolvex-*.part.\n"
      "\n"
      "Exit codes: 0 nothing was lost, 3 something was, 1 nothing usable, and then no\n"
      "file is written.");
  command->callback([options, &chosen] {
    chosen = [options] { return runStoppable([&] { return recover(*options); }); };
  });
}

}  // namespace tolvex
