// The library's own texts: to the standard output, or to the handler that a host handed in.
#pragma once

#include <new>
#include <string>
#include <string_view>

#include "Mdf4/base/SystemMacros.h"

namespace tolvex {

// Hands one text of complete lines to whoever receives the diagnostics, in a single call, so that
// the lines of several threads stay whole. Formats nothing when the texts are dropped.
void printDiagnostic(const char* format, ...) TOLVEX_PRINTF(1, 2);

// Who receives the texts from now on, each with `user`; null drops them.
using DiagnosticHandler = void (*)(void* user, const char* text);
void directDiagnostics(DiagnosticHandler handler, void* user);

// printf into a string.
std::string formatText(const char* format, ...) TOLVEX_PRINTF(1, 2);

// Keeps the first error: unless there is one, `describe` makes its text.
template <class Describe>
void noteFirst(std::string& error, Describe describe) noexcept {
  if (!error.empty()) return;
  try {
    error = describe();
  } catch (const std::bad_alloc&) {
    error = "out of memory";  // a string holds this much itself
  }
}

// Bytes of a file in quotes; those that are no ASCII text as "\xNN".
std::string quoted(std::string_view bytes);

}  // namespace tolvex
