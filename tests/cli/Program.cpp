#include "tests/cli/Program.h"

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace tolvex::test {

std::vector<std::string> Outcome::lines() const {
  std::vector<std::string> lines;
  std::istringstream text(out);
  for (std::string line; std::getline(text, line);) {
    lines.push_back(line);
  }
  return lines;
}

Outcome runTolvex(const std::string& arguments) {
  const TempDir dir;
  // The braces let a redirection among the arguments win over the outer one.
  const std::string command =
      "{ '" TOLVEX_PROGRAM "' " + arguments + "; } > " + dir.path("out") + " 2> " + dir.path("err");
  const int status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contentOf(dir.path("out")),
          contentOf(dir.path("err"))};
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string realFile(const char* name) {
  return std::string(TOLVEX_TEST_DATA "/") + name;
}

}  // namespace tolvex::test
