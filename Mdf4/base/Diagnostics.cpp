#include "Mdf4/base/Diagnostics.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "Mdf4/base/Mutex.h"

namespace tolvex {
namespace {

struct Sink {
  DiagnosticHandler handler;
  void* user;
};

void writeToStandardOutput(void* /*user*/, const char* text) {
  std::fputs(text, stdout);
}

Mutex sinkMutex;
Sink sink TOLVEX_GUARDED_BY(sinkMutex) = {writeToStandardOutput, nullptr};
std::atomic<bool> wanted = true;  // sink.handler is not null

Sink currentSink() {
  const MutexLock lock(sinkMutex);
  return sink;
}

std::string formatList(const char* format, std::va_list arguments) {
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

}  // namespace

void printDiagnostic(const char* format, ...) {
  if (!wanted.load(std::memory_order_relaxed)) return;
  const Sink receiver = currentSink();
  if (receiver.handler == nullptr) return;
  std::va_list arguments;
  va_start(arguments, format);
  char shortText[512];
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(shortText, sizeof shortText, format, again);
  va_end(again);
  if (length >= 0 && static_cast<std::size_t>(length) < sizeof shortText) {
    receiver.handler(receiver.user, shortText);
  } else {
    receiver.handler(receiver.user, formatList(format, arguments).c_str());
  }
  va_end(arguments);
}

std::string formatText(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::string text = formatList(format, arguments);
  va_end(arguments);
  return text;
}

std::string quoted(std::string_view bytes) {
  std::string text = "\"";
  for (const char c : bytes) {
    if (c >= 0x20 && c < 0x7F) {
      text += c;
    } else {
      text += formatText("\\x%02X", unsigned{static_cast<unsigned char>(c)});
    }
  }
  return text + '"';
}

void directDiagnostics(DiagnosticHandler handler, void* user) {
  const MutexLock lock(sinkMutex);
  sink = {handler, user};
  wanted.store(handler != nullptr, std::memory_order_relaxed);
}

}  // namespace tolvex
