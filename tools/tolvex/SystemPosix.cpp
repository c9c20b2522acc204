#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <system_error>

#include "StopSignals.h"
#include "System.h"

namespace tolvex {

// ---------------------------------------------------------------------------------------------
// Streams

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

Transfer transferred(ssize_t result) {
  return result < 0 ? Transfer{0, errno} : Transfer{static_cast<std::size_t>(result), 0};
}

}  // namespace

void prepareProcess() {
  occupyStandardStreams();
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

std::vector<std::string> commandLine(int argc, char** argv) {
  return {argv, argv + argc};
}

bool isTerminal(int descriptor) {
  return ::isatty(descriptor) == 1;
}

Transfer readSome(int descriptor, char* to, std::size_t size) {
  return transferred(::read(descriptor, to, size));
}

Transfer writeSome(int descriptor, const char* from, std::size_t size) {
  return transferred(::write(descriptor, from, size));
}

int descriptorKind(int descriptor, FileKind& kind) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) {
    return errno;
  }
  kind = S_ISREG(status.st_mode)   ? FileKind::Regular
         : S_ISDIR(status.st_mode) ? FileKind::Folder
                                   : FileKind::Other;
  return 0;
}

std::int64_t positionOf(int descriptor) {
  return ::lseek(descriptor, 0, SEEK_CUR);
}

int moveTo(int descriptor, std::int64_t position) {
  return ::lseek(descriptor, position, SEEK_SET) < 0 ? errno : 0;
}

// ---------------------------------------------------------------------------------------------
// Signals

namespace {

constexpr std::initializer_list<int> kSignals = {SIGHUP, SIGINT, SIGTERM};

// A pipe: it is safe to write to one in a signal handler, and no signal is missed between a check
// and the wait after it.
constinit std::array<int, 2> stopPipe = {-1, -1};
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
  if (::pipe2(stopPipe.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot watch for signals");
  }
  stopDescriptor = stopPipe[1];
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
  for (int& descriptor : stopPipe) {
    ::close(descriptor);
    descriptor = -1;
  }
}

int StopSignals::received() {
  return receivedSignal;
}

void endBySignal(int signal) {
  std::raise(signal);
}

Wake waitForInput(int descriptor, bool untilStop, std::optional<std::chrono::milliseconds> timeout,
                  int& error) {
  std::array<pollfd, 2> waits = {pollfd{descriptor, POLLIN, 0},
                                 pollfd{untilStop ? stopPipe[0] : -1, POLLIN, 0}};
  const int ready =
      ::poll(waits.data(), waits.size(), timeout ? static_cast<int>(timeout->count()) : -1);
  if (ready < 0) {
    error = errno;
    return Wake::Failure;
  }
  if (ready == 0) {
    return Wake::Timeout;
  }
  return waits[1].revents != 0 ? Wake::Stop : Wake::Input;
}

}  // namespace tolvex
