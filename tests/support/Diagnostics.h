// Keeps the library's diagnostic texts out of the test's output and lets a test look at them.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>

#include "tolvex/MdfEngine.h"

namespace tolvex::test {

// Collects every text, of any thread, while it lives; afterwards texts go to the standard output,
// as by default.
class CapturedDiagnostics {
 public:
  CapturedDiagnostics() { setDiagnosticHandler(&collect, this); }
  ~CapturedDiagnostics() { setDiagnosticHandler(&print, nullptr); }
  CapturedDiagnostics(const CapturedDiagnostics&) = delete;
  CapturedDiagnostics& operator=(const CapturedDiagnostics&) = delete;

  std::string text() const {
    const std::lock_guard lock(mutex_);
    return text_;
  }

 private:
  static void collect(void* self, const char* text) {
    auto& captured = *static_cast<CapturedDiagnostics*>(self);
    const std::lock_guard lock(captured.mutex_);
    captured.text_ += text;
  }
  static void print(void* /*user*/, const char* text) { std::fputs(text, stdout); }

  mutable std::mutex mutex_;
  std::string text_;  // guarded by mutex_
};

}  // namespace tolvex::test
