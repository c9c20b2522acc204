// The tolvex program: shows, prints, exports, records, checks and recovers measurement files.

#include <tolvex/MdfEngine.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include "Command.h"
#include "Program.h"
#include "System.h"

namespace tolvex {

namespace {

// Says so without asking for memory.
void complainOfMemory() {
  std::fputs("tolvex: out of memory\n", stderr);
}

// What cannot be caught, as it happens before main or where nothing may be thrown, still ends with
// a message and an exit code instead of a crash.
[[noreturn]] void terminate() {
  try {
    if (const std::exception_ptr error = std::current_exception()) {
      std::rethrow_exception(error);
    }
  } catch (const std::bad_alloc&) {
    complainOfMemory();
    std::_Exit(kFailed);
  } catch (...) {
  }
  std::abort();
}

// Before the objects with static storage: the command-line parser's allocate.
[[gnu::constructor(101)]] void setTerminateHandler() {
  std::set_terminate(terminate);
}

}  // namespace

}  // namespace tolvex

int main(int argc, char** argv) {
  tolvex::prepareProcess();
  // Diagnostics of the library would end up among the results; what matters comes as errors.
  setDiagnosticHandler(nullptr, nullptr);
  try {
    std::vector<std::string> arguments = tolvex::commandLine(argc, argv);
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
      pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    return tolvex::runProgram(argc, pointers.data());
  } catch (const std::bad_alloc&) {
    tolvex::complainOfMemory();
  } catch (const std::exception& error) {
    std::cerr << "tolvex: " << tolvex::printable(error.what()) << '\n';
  }
  return tolvex::kFailed;
}
