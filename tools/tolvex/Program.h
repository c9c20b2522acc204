// The program's command line, apart from the process that it runs in.
#pragma once

#include "Command.h"

namespace tolvex {

// Adds all commands and options to `app`, which must stay where it is. Parsing sets `chosen`.
void defineProgram(CLI::App& app, Command& chosen);

// Does what the command line asks; results go to the standard output, everything else to the
// standard error. Gives the exit code. Throws when memory runs out.
int runProgram(int argc, char** argv);

}  // namespace tolvex
