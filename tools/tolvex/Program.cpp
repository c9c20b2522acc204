#include "Program.h"

#include <tolvex/MdfVersion.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Command.h"
#include "HelpText.h"

namespace tolvex {

namespace {

int complainOfUse(std::string_view what) {
  std::cerr << "tolvex: " << printable(what) << "\nRun 'tolvex --help' for the commands, "
            << "'tolvex COMMAND --help' for their options.\n";
  return kWrongUse;
}

int show(const std::string& text) {
  Output out;
  out.write(text);
  if (!out.close() && !out.pipeClosed()) {
    complain(out.name(), out.error());
    return kFailed;
  }
  return kDone;
}

// Help and version are results; everything else that ends the parsing is wrong use.
int showOutcome(const CLI::App& app, const CLI::ParseError& outcome) {
  if (dynamic_cast<const CLI::CallForHelp*>(&outcome) != nullptr) {
    return show(wrapped(app.help()));
  }
  if (dynamic_cast<const CLI::CallForVersion*>(&outcome) != nullptr) {
    return show(app.version() + '\n');
  }
  return complainOfUse(outcome.what());
}

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App*) { return true; });
}

// Null when there is no such command.
const CLI::App* commandOf(const CLI::App& app, const std::string& name) {
  const std::vector<const CLI::App*> commands = commandsOf(app);
  const auto found = std::ranges::find(commands, name, &CLI::App::get_name);
  return found == commands.end() ? nullptr : *found;
}

int complainOfCommand(const CLI::App& app, const std::string& word) {
  std::vector<std::string> names;
  for (const CLI::App* const command : commandsOf(app)) {
    names.push_back(command->get_name());
  }
  const std::string nearest = nearestOf(names, word);
  return complainOfUse("no command \"" + word + '"' +
                       (nearest.empty() ? "" : "; did you mean " + nearest + "?"));
}

// The help of the command, or of the program without one.
int showHelp(const CLI::App& app, const std::string& command) {
  const CLI::App* const topic = command.empty() ? &app : commandOf(app, command);
  if (topic == nullptr) {
    return complainOfCommand(app, command);
  }
  const std::string name = topic == &app ? app.get_name() : app.get_name() + ' ' + command;
  return show(wrapped(topic->get_formatter()->make_help(topic, name, CLI::AppFormatMode::Normal)));
}

void addHelp(CLI::App& app, Command& chosen) {
  const auto command = std::make_shared<std::string>();
  CLI::App* const help = app.add_subcommand("help", "Show the help of a command");
  help->add_option("COMMAND", *command, "The command; without one, the program's help");
  help->callback(
      [&app, command, &chosen] { chosen = [&app, command] { return showHelp(app, *command); }; });
}

}  // namespace

void defineProgram(CLI::App& app, Command& chosen) {
  app.name("tolvex");
  app.description("Shows, prints, exports, records, checks and recovers ASAM MDF 4 files.");
  app.get_formatter()->column_width(26);
  app.set_version_flag("-V,--version", std::string("tolvex ") + tolvex_version(),
                       "Print the version and exit");
  app.require_subcommand(0, 1);
  app.allow_windows_style_options(false);  // paths may begin with a slash
  app.footer(
      "Examples:\n"
      "  tolvex info drive.mf4                  what the file holds\n"
      "  tolvex cat drive.mf4 | head            the first CAN frames\n"
      "  tolvex export drive.mf4 -o drive       all signals, a CSV file per group\n"
      "  candump -L can0 | tolvex record -o drive.mf4\n"
      "                                         a live bus, until Ctrl-C\n"
      "  tolvex doctor drive.mf4                what is wrong with the file\n"
      "  tolvex recover crashed.mf4 -o whole.mf4\n"
      "                                         what is there of a broken one\n"
      "\n"
      "Results go to the standard output, everything else to the standard error.\n"
      "Exit codes: 0 done, 1 failed, 2 wrong use, 3 done but something was lost.");
  addInfo(app, chosen);
  addCat(app, chosen);
  addExport(app, chosen);
  addDoctor(app, chosen);
  addRecover(app, chosen);
  addRecord(app, chosen);
  addHelp(app, chosen);
}

int runProgram(int argc, char** argv) {
  CLI::App app;
  Command chosen;
  defineProgram(app, chosen);
  if (argc > 1 && argv[1][0] != '-' && commandOf(app, argv[1]) == nullptr) {
    return complainOfCommand(app, argv[1]);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& outcome) {
    return showOutcome(app, outcome);
  }
  return chosen ? chosen()
                : complainOfUse("which command? record, info, cat, export, doctor or recover");
}

}  // namespace tolvex
