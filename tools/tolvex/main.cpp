// The tolvex program: shows, prints, exports, records, checks and recovers measurement files.

#include <fcntl.h>
#include <tolvex/MdfEngine.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <iostream>

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
  } catch (const std::exception& error) {  // out of memory, mostly
    std::cerr << "tolvex: " << tolvex::printable(error.what()) << '\n';
    return tolvex::kFailed;
  }
}
