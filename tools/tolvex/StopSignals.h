// A wish to stop: SIGINT (Ctrl-C), SIGTERM, or SIGHUP (the terminal was closed).
#pragma once

#include <functional>

namespace tolvex {

// While it lives, the first of these signals does not end the program but makes descriptor()
// readable for good; the second one ends it. A signal that was ignored stays ignored. One object
// at a time.
class StopSignals {
 public:
  // Whether calls to the system that the signal interrupts are begun again.
  enum class Calls { Restarted, Interrupted };
  explicit StopSignals(Calls calls = Calls::Restarted);
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  int descriptor() const { return descriptors_[0]; }
  // The signal that came since the last object was made; 0 if none did.
  static int received();

 private:
  int descriptors_[2] = {-1, -1};  // of a pipe: it is safe to write to one in a signal handler, and
                                   // no signal is missed between a check and the wait after it
};

// Runs a command that removes what it began when a signal makes it fail, and ends the program by
// that signal afterwards. Gives the command's exit code.
int runStoppable(const std::function<int()>& command);

}  // namespace tolvex
