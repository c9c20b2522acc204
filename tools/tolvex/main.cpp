// The tolvex program: shows, prints, exports, records, checks and recovers measurement files.

#include <fcntl.h>
#include <tolvex/MdfEngine.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <new>

#include "Command.h"
#include "Program.h"

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
  tolvex::occupyStandardStreams();
  // Diagnostics of the library would end up among the results; what matters comes as errors.
  setDiagnosticHandler(nullptr, nullptr);
  // A closed pipe, and a file that grew to the allowed size, show as failed writes.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    return tolvex::runProgram(argc, argv);
  } catch (const std::bad_alloc&) {
    tolvex::complainOfMemory();
  } catch (const std::exception& error) {
    std::cerr << "tolvex: " << tolvex::printable(error.what()) << '\n';
  }
  return tolvex::kFailed;
}
