// Keeps the library's diagnostic texts out of the test's output and lets a test look at them.
#pragma once

#include <cstdio>
#include <string>

#include "tolvex/MdfEngine.h"

namespace tolvex::test {

// Collects every text while it lives; afterwards texts go to the standard output, as by default.
class CapturedDiagnostics {
 public:
  CapturedDiagnostics() { setDiagnosticHandler(&collect, this); }
  ~CapturedDiagnostics() { setDiagnosticHandler(&print, nullptr); }
  CapturedDiagnostics(const CapturedDiagnostics&) = delete;
  CapturedDiagnostics& operator=(const CapturedDiagnostics&) = delete;

  const std::string& text() const { return text_; }

 private:
  static void collect(void* self, const char* text) {
    static_cast<CapturedDiagnostics*>(self)->text_ += text;
  }
  static void print(void* /*user*/, const char* text) { std::fputs(text, stdout); }

  std::string text_;
};

}  // namespace tolvex::test
