#include "StopSignals.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <system_error>

namespace tolvex {

namespace {

constexpr std::initializer_list<int> kSignals = {SIGHUP, SIGINT, SIGTERM};

volatile std::sig_atomic_t stopDescriptor = -1;  // where the handler writes to

bool isIgnored(int signal) {
  struct sigaction current {};
  return ::sigaction(signal, nullptr, &current) == 0 && current.sa_handler == SIG_IGN;
}

void setHandler(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;  // who waits for a signal polls, which is never restarted
  sigemptyset(&action.sa_mask);
  ::sigaction(signal, &action, nullptr);
}

void resetSignals() {
  for (const int signal : kSignals) {
    if (!isIgnored(signal)) {
      setHandler(signal, SIG_DFL);
    }
  }
}

void requestStop(int /*signal*/) {
  const int error = errno;
  resetSignals();
  [[maybe_unused]] const ssize_t written = ::write(stopDescriptor, "", 1);
  errno = error;
}

}  // namespace

StopSignals::StopSignals() {
  if (::pipe2(descriptors_, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot watch for signals");
  }
  stopDescriptor = descriptors_[1];
  for (const int signal : kSignals) {
    if (!isIgnored(signal)) {
      setHandler(signal, requestStop);
    }
  }
}

StopSignals::~StopSignals() {
  resetSignals();
  ::close(descriptors_[0]);
  ::close(descriptors_[1]);
}

}  // namespace tolvex
