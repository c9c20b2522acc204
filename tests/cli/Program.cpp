#include "tests/cli/Program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iterator>
#include <sstream>

namespace tolvex::test {

std::vector<std::string> Outcome::lines() const {
  std::vector<std::string> lines;
  std::istringstream text(out);
  for (std::string line; std::getline(text, line);) {
    lines.push_back(line);
  }
  return lines;
}

namespace {

// Runs the program from a shell, `before` in front of it.
Outcome run(const std::string& before, const std::string& arguments) {
  const TempDir dir;
  // The braces let a redirection among the arguments win over the outer one.
  const std::string command = "{ " + before + "'" TOLVEX_PROGRAM "' " + arguments + "; } > " +
                              dir.path("out") + " 2> " + dir.path("err");
  const int status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contentOf(dir.path("out")),
          contentOf(dir.path("err"))};
}

Outcome expected(Outcome outcome, const std::string& arguments, int exitCode,
                 const std::string& said) {
  EXPECT_EQ(outcome.exitCode, exitCode) << arguments << ": " << outcome.err;
  EXPECT_NE(outcome.err.find(said), std::string::npos)
      << arguments << ": expected \"" << said << "\", found \"" << outcome.err << "\"";
  return outcome;
}

}  // namespace

Outcome runTolvex(const std::string& arguments) {
  return run("", arguments);
}

Outcome runTolvex(const std::string& arguments, int exitCode, const std::string& said) {
  return expected(run("", arguments), arguments, exitCode, said);
}

Outcome runTolvexWithin(const std::string& limit, const std::string& arguments, int exitCode,
                        const std::string& said) {
  return expected(run("ulimit " + limit + "; ", arguments), arguments, exitCode, said);
}

Outcome runOnTerminal(const std::string& arguments) {
  const std::string command = "exec '" TOLVEX_PROGRAM "' " + arguments;
  termios settings{};
  ::cfmakeraw(&settings);  // what is written comes as it is
  int terminal = -1;
  const pid_t process = ::forkpty(&terminal, nullptr, &settings, nullptr);
  if (process == 0) {
    ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    ::_exit(127);
  }
  Outcome outcome;
  char buffer[4096];
  for (ssize_t count = 0; (count = ::read(terminal, buffer, sizeof(buffer))) > 0;) {
    outcome.out.append(buffer, static_cast<std::size_t>(count));
  }
  ::close(terminal);
  int status = 0;
  const bool ended = process > 0 && ::waitpid(process, &status, 0) == process;
  outcome.exitCode = ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return outcome;
}

RunningTolvex::RunningTolvex(const std::vector<std::string>& arguments) {
  std::vector<std::string> words = {TOLVEX_PROGRAM};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (std::string& word : words) {
    pointers.push_back(word.data());
  }
  pointers.push_back(nullptr);
  int pipe[2] = {-1, -1};
  posix_spawn_file_actions_t actions;
  if (::pipe2(pipe, O_CLOEXEC) != 0 || ::posix_spawn_file_actions_init(&actions) != 0) {
    return;
  }
  input_ = pipe[1];
  ::posix_spawn_file_actions_adddup2(&actions, pipe[0], STDIN_FILENO);
  ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, dir_.path("err").c_str(),
                                     O_WRONLY | O_CREAT, 0600);
  if (::posix_spawn(&process_, TOLVEX_PROGRAM, &actions, nullptr, pointers.data(), environ) != 0) {
    process_ = -1;
  }
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(pipe[0]);
}

RunningTolvex::~RunningTolvex() {
  if (process_ > 0) {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  ::close(input_);
}

void RunningTolvex::feed(const std::string& text) {
  [[maybe_unused]] const ssize_t written = ::write(input_, text.data(), text.size());
}

void RunningTolvex::send(int signal) {
  if (process_ > 0) {
    ::kill(process_, signal);
  }
}

bool RunningTolvex::hasEnded() const {
  siginfo_t state = {};
  return process_ <= 0 ||
         (::waitid(P_PID, static_cast<id_t>(process_), &state, WEXITED | WNOHANG | WNOWAIT) == 0 &&
          state.si_pid == process_);
}

Outcome RunningTolvex::wait() {
  int status = 0;
  const bool ended = process_ > 0 && ::waitpid(process_, &status, 0) == process_;
  process_ = -1;
  return {ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1, "", contentOf(dir_.path("err"))};
}

std::string realFile(const char* name) {
  return std::string(TOLVEX_TEST_DATA "/") + name;
}

}  // namespace tolvex::test
