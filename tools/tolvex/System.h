// What the program needs of the operating system, beside files and their names
// (Mdf4/base/System): standard streams, terminals, the command line. Errors are numbers of errno, 0
// for none. StopSignals belongs to it as well.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Mdf4/base/System.h"

namespace tolvex {

constexpr int kStandardInput = 0;
constexpr int kStandardOutput = 1;
constexpr int kStandardError = 2;

// For the start of the program. Closed pipes and files that grew to the allowed size show as failed
// writes. What is opened does not take the place of a closed standard stream.
void prepareProcess();
// The command line in UTF-8; `argv` is what main was given.
std::vector<std::string> commandLine(int argc, char** argv);

bool isTerminal(int descriptor);

struct Transfer {
  std::size_t bytes = 0;  // 0 without an error: the input ended
  int error = 0;
};
// Move what the system takes or has at once. EINTR after a signal, EPIPE when nobody reads.
[[nodiscard]] Transfer readSome(int descriptor, char* to, std::size_t size);
[[nodiscard]] Transfer writeSome(int descriptor, const char* from, std::size_t size);

[[nodiscard]] int descriptorKind(int descriptor, FileKind& kind);
// -1 where there are no positions.
std::int64_t positionOf(int descriptor);
[[nodiscard]] int moveTo(int descriptor, std::int64_t position);

}  // namespace tolvex
