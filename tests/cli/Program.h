// Runs the tolvex program as a shell does.
#pragma once

#include <string>
#include <vector>

#include "tests/support/FileBuilder.h"

namespace tolvex::test {

struct Outcome {
  int exitCode = -1;
  std::string out;
  std::string err;

  std::vector<std::string> lines() const;  // of out
};

// `arguments` as typed behind "tolvex"; they may go on with a pipe or redirect the output.
Outcome runTolvex(const std::string& arguments);

std::string contentOf(const std::string& path);
std::string realFile(const char* name);

}  // namespace tolvex::test
