#include "Program.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>

#include "Command.h"

namespace tolvex {

namespace {

int complainOfUse(std::string_view what) {
  std::cerr << "tolvex: " << printable(what) << "\nRun 'tolvex --help' for the commands, "
            << "'tolvex COMMAND --help' for their options.\n";
  return kWrongUse;
}

// Help and version are results; everything else that ends the parsing is wrong use.
int showOutcome(const CLI::App& app, const CLI::ParseError& outcome) {
  std::ostringstream text;
  if (app.exit(outcome, text, text) != 0) {
    return complainOfUse(outcome.what());
  }
  Output out;
  out.write(text.str());
  if (!out.close() && !out.pipeClosed()) {
    complain(out.name(), out.error());
    return kFailed;
  }
  return kDone;
}

}  // namespace

int runProgram(int argc, char** argv) {
  CLI::App app(
      "Shows, prints, exports, records, checks and recovers measurement files (ASAM MDF 4).",
      "tolvex");
  app.set_version_flag("--version", "tolvex " TOLVEX_VERSION, "Print the version and exit");
  app.require_subcommand(0, 1);
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
  Command chosen;
  addInfo(app, chosen);
  addCat(app, chosen);
  addExport(app, chosen);
  addDoctor(app, chosen);
  addRecover(app, chosen);
  addRecord(app, chosen);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& outcome) {
    return showOutcome(app, outcome);
  }
  return chosen ? chosen()
                : complainOfUse("which command? record, info, cat, export, doctor or recover");
}

}  // namespace tolvex
