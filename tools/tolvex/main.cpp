// The tolvex program: shows, prints, exports, records, checks and recovers measurement files.

#include <fcntl.h>
#include <tolvex/MdfEngine.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>

#include "Command.h"

namespace tolvex {

namespace {

// Takes the numbers of standard streams that are closed, so that no file or pipe of the program's
// gets one of them and what is printed goes into it.
void occupyStandardStreams() {
  while (true) {
    const int descriptor = ::open("/dev/null", O_RDONLY);
    if (descriptor < 0) {
      return;
    }
    if (descriptor > STDERR_FILENO) {
      ::close(descriptor);
      return;
    }
  }
}

int complainOfUse(std::string_view what) {
  std::cerr << "tolvex: " << what << "\nRun 'tolvex --help' for the commands, "
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

int run(int argc, char** argv) {
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

}  // namespace

}  // namespace tolvex

int main(int argc, char** argv) {
  tolvex::occupyStandardStreams();
  // Diagnostics of the library would end up among the results; what matters comes as errors.
  setDiagnosticHandler(nullptr, nullptr);
  // A closed pipe, and a file that grew to the allowed size, show as failed writes.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    return tolvex::run(argc, argv);
  } catch (const std::exception& error) {  // out of memory, mostly
    std::cerr << "tolvex: " << error.what() << '\n';
    return tolvex::kFailed;
  }
}
