// tolvex_manual FOLDER: writes the program's manual pages, uncompressed, into FOLDER/man1 and its
// completions into FOLDER/completions. Both are made from what the program says itself.
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "Completions.h"
#include "ManualPage.h"

namespace {

void write(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  if (!(file << text).flush()) {
    throw std::runtime_error(path.string() + ": " + std::strerror(errno));
  }
}

void writeAll(const std::filesystem::path& folder) {
  const tolvex::CommandText program = tolvex::describeProgram();
  write(folder / "man1" / (program.name + ".1"), tolvex::programPage(program));
  for (const tolvex::CommandText& command : program.commands) {
    if (command.name != "help") {
      write(folder / "man1" / (program.name + '-' + command.name + ".1"),
            tolvex::commandPage(program, command));
    }
  }
  write(folder / "completions" / "tolvex", tolvex::bashCompletion(program));
  write(folder / "completions" / "_tolvex", tolvex::zshCompletion(program));
  write(folder / "completions" / "tolvex.fish", tolvex::fishCompletion(program));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc == 2) {
      writeAll(argv[1]);
      return 0;
    }
    std::cerr << "tolvex_manual FOLDER\n";
  } catch (const std::exception& error) {
    std::cerr << "tolvex_manual: " << error.what() << '\n';
  }
  return 1;
}
