// A wish to stop: SIGINT (Ctrl-C), SIGTERM, or SIGHUP (the terminal was closed).
#pragma once

namespace tolvex {

// While it lives, the first of these signals does not end the program but makes descriptor()
// readable for good; the second one ends it. A signal that was ignored stays ignored. One object
// at a time.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  int descriptor() const { return descriptors_[0]; }

 private:
  int descriptors_[2] = {-1, -1};  // of a pipe: it is safe to write to one in a signal handler, and
                                   // no signal is missed between a check and the wait after it
};

}  // namespace tolvex
