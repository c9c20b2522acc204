#include "StopSignals.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <system_error>

#include "Command.h"

namespace tolvex {

namespace {

constexpr std::initializer_list<int> kSignals = {SIGHUP, SIGINT, SIGTERM};

volatile std::sig_atomic_t stopDescriptor = -1;  // where the handler writes to
volatile std::sig_atomic_t receivedSignal = 0;

bool isIgnored(int signal) {
  struct sigaction current {};
  return ::sigaction(signal, nullptr, &current) == 0 && current.sa_handler == SIG_IGN;
}

void setHandler(int signal, void (*handler)(int), int flags) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  sigemptyset(&action.sa_mask);
  ::sigaction(signal, &action, nullptr);
}

void resetSignals() {
  for (const int signal : kSignals) {
    if (!isIgnored(signal)) {
      setHandler(signal, SIG_DFL, 0);
    }
  }
}

void requestStop(int signal) {
  const int error = errno;
  resetSignals();
  receivedSignal = signal;
  [[maybe_unused]] const ssize_t written = ::write(stopDescriptor, "", 1);
  errno = error;
}

}  // namespace

StopSignals::StopSignals(Calls calls) {
  if (::pipe2(descriptors_, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot watch for signals");
  }
  stopDescriptor = descriptors_[1];
  receivedSignal = 0;
  // Who waits for a signal polls, which is never restarted.
  const int flags = calls == Calls::Restarted ? SA_RESTART : 0;
  for (const int signal : kSignals) {
    if (!isIgnored(signal)) {
      setHandler(signal, requestStop, flags);
    }
  }
}

StopSignals::~StopSignals() {
  resetSignals();
  ::close(descriptors_[0]);
  ::close(descriptors_[1]);
}

int StopSignals::received() {
  return receivedSignal;
}

int runStoppable(const std::function<int()>& command) {
  int code = kDone;
  int signal = 0;
  {
    const StopSignals signals(StopSignals::Calls::Interrupted);
    code = command();
    signal = StopSignals::received();
  }
  if (signal != 0 && code == kFailed) {
    std::raise(signal);
  }
  return code;
}

}  // namespace tolvex
