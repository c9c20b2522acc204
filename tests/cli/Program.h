// Runs the tolvex program as a shell does.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/FileBuilder.h"

namespace tolvex::test {

struct Outcome {
  int exitCode = -1;
  std::string out;
  std::string err;

  std::vector<std::string> lines() const;  // of out
};

// `arguments` as typed behind "tolvex"; they may go on with a pipe or redirect the output.
Outcome runTolvex(const std::string& arguments);
// The same, where that exit code and `said` on the standard error are expected.
Outcome runTolvex(const std::string& arguments, int exitCode, const std::string& said = "");
// Likewise with a limit as the shell's ulimit takes it: "-f" and blocks of 512 bytes that a file
// may have, "-v" and KiB of memory.
Outcome runTolvexWithin(const std::string& limit, const std::string& arguments, int exitCode,
                        const std::string& said);

// What the program shows on a terminal, which gets its standard output and error.
Outcome runOnTerminal(const std::string& arguments);

// The program running, with a standard input that stays open until it has ended.
class RunningTolvex {
 public:
  explicit RunningTolvex(const std::vector<std::string>& arguments);
  ~RunningTolvex();  // kills it if it was not waited for
  RunningTolvex(const RunningTolvex&) = delete;
  RunningTolvex& operator=(const RunningTolvex&) = delete;

  void feed(const std::string& text);
  void send(int signal);
  bool hasEnded() const;  // but was not waited for
  // Gives what it left behind once it has ended; out is empty. The exit code is -1 when a signal
  // killed it.
  Outcome wait();

 private:
  TempDir dir_;
  pid_t process_ = -1;
  int input_ = -1;
};

std::string realFile(const char* name);

}  // namespace tolvex::test
