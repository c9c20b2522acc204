// A wish to stop: SIGINT (Ctrl-C), SIGTERM, or SIGHUP (the terminal was closed); on Windows Ctrl-C,
// Ctrl-Break, and the closing of the console.
#pragma once

#include <chrono>
#include <functional>
#include <optional>

namespace tolvex {

// While it lives, the first of these signals does not end the program but makes received() other
// than 0 for good; the second one ends it. A signal that was ignored stays ignored. One object at a
// time.
class StopSignals {
 public:
  // Whether calls to the system that the signal interrupts are begun again.
  enum class Calls { Restarted, Interrupted };
  explicit StopSignals(Calls calls = Calls::Restarted);
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // The signal that came since the last object was made; 0 if none did.
  static int received();
};

enum class Wake { Input, Stop, Timeout, Failure };

// Waits until `descriptor` has something to read, or its end; with `untilStop`, at most until a
// signal that a StopSignals waits for has come; at most for `timeout`, without one for ever. A
// failure is in `error`.
[[nodiscard]] Wake waitForInput(int descriptor, bool untilStop,
                                std::optional<std::chrono::milliseconds> timeout, int& error);

// Ends the program as the signal does by itself.
void endBySignal(int signal);

// Runs a command that removes what it began when a signal makes it fail, and ends the program by
// that signal afterwards. Gives the command's exit code.
int runStoppable(const std::function<int()>& command);

}  // namespace tolvex
