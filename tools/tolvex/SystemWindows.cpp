// windows.h is the first of its family.
// clang-format off
#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <shellapi.h>
// clang-format on

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <system_error>

#include "Mdf4/base/Paths.h"
#include "StopSignals.h"
#include "System.h"

namespace tolvex {

// ---------------------------------------------------------------------------------------------
// Streams

namespace {

HANDLE handleOf(int descriptor) {
  return reinterpret_cast<HANDLE>(::_get_osfhandle(descriptor));
}

int errorOf(DWORD error) {
  if (error == ERROR_BROKEN_PIPE || error == ERROR_NO_DATA || error == ERROR_PIPE_NOT_CONNECTED) {
    return EPIPE;
  }
  const auto condition = std::system_category().default_error_condition(static_cast<int>(error));
  return condition.category() == std::generic_category() ? condition.value() : EIO;
}

// Takes the numbers of closed standard streams.
void occupyStandardStreams() {
  for (;;) {
    const int descriptor = ::_open("NUL", _O_RDONLY);
    if (descriptor < 0) {
      return;
    }
    if (descriptor > kStandardError) {
      ::_close(descriptor);
      return;
    }
  }
}

UINT codePageBefore = 0;

}  // namespace

void prepareProcess() {
  occupyStandardStreams();
  for (const int descriptor : {kStandardInput, kStandardOutput, kStandardError}) {
    ::_setmode(descriptor, _O_BINARY);
  }
  // Texts are UTF-8, and a line that tells the progress clears itself.
  codePageBefore = ::GetConsoleOutputCP();
  if (codePageBefore != 0 && ::SetConsoleOutputCP(CP_UTF8) != 0) {
    std::atexit([] { ::SetConsoleOutputCP(codePageBefore); });
  }
  DWORD mode = 0;
  const HANDLE console = ::GetStdHandle(STD_ERROR_HANDLE);
  if (::GetConsoleMode(console, &mode) != 0) {
    ::SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
  }
}

// `argv` has the characters of the system's code page alone.
std::vector<std::string> commandLine(int argc, char** argv) {
  int count = 0;
  const std::unique_ptr<LPWSTR, decltype(&::LocalFree)> words(
      ::CommandLineToArgvW(::GetCommandLineW(), &count), &::LocalFree);
  if (words == nullptr) {
    return {argv, argv + argc};
  }
  std::vector<std::string> arguments;
  for (int i = 0; i < count; ++i) {
    arguments.push_back(pathText(words.get()[i]));
  }
  return arguments;
}

bool isTerminal(int descriptor) {
  DWORD mode = 0;
  return ::GetConsoleMode(handleOf(descriptor), &mode) != 0;
}

Transfer readSome(int descriptor, char* to, std::size_t size) {
  DWORD count = 0;
  const auto most = static_cast<DWORD>(std::min(size, std::size_t{1} << 30));
  if (::ReadFile(handleOf(descriptor), to, most, &count, nullptr) != 0) {
    return {count, 0};
  }
  const DWORD error = ::GetLastError();
  switch (error) {
    case ERROR_BROKEN_PIPE:  // its writer is gone
    case ERROR_HANDLE_EOF:
      return {0, 0};
    case ERROR_OPERATION_ABORTED:
      return {0, EINTR};  // Ctrl-C at a console
    default:
      return {0, errorOf(error)};
  }
}

Transfer writeSome(int descriptor, const char* from, std::size_t size) {
  DWORD count = 0;
  const auto most = static_cast<DWORD>(std::min(size, std::size_t{1} << 30));
  if (::WriteFile(handleOf(descriptor), from, most, &count, nullptr) != 0) {
    return {count, 0};
  }
  return {0, errorOf(::GetLastError())};
}

int descriptorKind(int descriptor, FileKind& kind) {
  const HANDLE handle = handleOf(descriptor);
  if (handle == INVALID_HANDLE_VALUE) {
    return EBADF;
  }
  // No descriptor can be had of a folder.
  kind = ::GetFileType(handle) == FILE_TYPE_DISK ? FileKind::Regular : FileKind::Other;
  return 0;
}

std::int64_t positionOf(int descriptor) {
  return ::_lseeki64(descriptor, 0, SEEK_CUR);
}

int moveTo(int descriptor, std::int64_t position) {
  return ::_lseeki64(descriptor, position, SEEK_SET) < 0 ? errno : 0;
}

// ---------------------------------------------------------------------------------------------
// Signals

namespace {

std::atomic<int> receivedSignal = 0;
std::atomic<HANDLE> stopEvent = nullptr;

// On a thread of the system's own. The first wish to stop is kept; the second ends the program.
BOOL WINAPI requestStop(DWORD event) {
  int none = 0;
  const int signal = event == CTRL_C_EVENT ? SIGINT : SIGTERM;
  if (!receivedSignal.compare_exchange_strong(none, signal)) {
    return FALSE;
  }
  ::SetEvent(stopEvent);
  if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT) {
    ::Sleep(INFINITE);  // the program ends with this call, unless it has done so by itself
  }
  return TRUE;
}

}  // namespace

StopSignals::StopSignals(Calls /*calls*/) {
  receivedSignal = 0;
  stopEvent = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (stopEvent == nullptr || ::SetConsoleCtrlHandler(requestStop, TRUE) == 0) {
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(),
                            "cannot watch for signals");
  }
}

StopSignals::~StopSignals() {
  ::SetConsoleCtrlHandler(requestStop, FALSE);
  ::CloseHandle(stopEvent.exchange(nullptr));
}

int StopSignals::received() {
  return receivedSignal;
}

// With the code of programs that Ctrl-C ended.
void endBySignal(int /*signal*/) {
  std::exit(static_cast<int>(STATUS_CONTROL_C_EXIT));
}

namespace {

// Whether something can be read from a pipe, or its end was reached. Other files never wait long,
// but for a console, whose reads Ctrl-C ends.
bool isReady(HANDLE input) {
  DWORD bytes = 0;
  return ::GetFileType(input) != FILE_TYPE_PIPE ||
         ::PeekNamedPipe(input, nullptr, 0, nullptr, &bytes, nullptr) == 0 || bytes > 0;
}

}  // namespace

// Nothing tells when a pipe has something to read, so it is asked every few milliseconds.
Wake waitForInput(int descriptor, bool untilStop, std::optional<std::chrono::milliseconds> timeout,
                  int& /*error*/) {
  constexpr DWORD kPeriodMs = 5;
  const HANDLE input = handleOf(descriptor);
  const std::uint64_t start = steadyMilliseconds();
  for (;;) {
    if (untilStop && ::WaitForSingleObject(stopEvent, 0) == WAIT_OBJECT_0) {
      return Wake::Stop;
    }
    if (isReady(input)) {
      return Wake::Input;
    }
    if (timeout && steadyMilliseconds() - start >= static_cast<std::uint64_t>(timeout->count())) {
      return Wake::Timeout;
    }
    if (untilStop) {
      ::WaitForSingleObject(stopEvent, kPeriodMs);
    } else {
      ::Sleep(kPeriodMs);
    }
  }
}

}  // namespace tolvex
