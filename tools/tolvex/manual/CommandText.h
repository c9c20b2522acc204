// What the program says of its commands, taken from its own tables of options.
#pragma once

#include <string>
#include <vector>

namespace tolvex {

// An option, or an argument that a command takes by its place.
struct OptionText {
  std::vector<std::string> names;    // "-o", "--output"; none for an argument by place
  std::string value;                 // "FORMAT": what follows it; "" for a flag
  std::vector<std::string> choices;  // what that may be; none: anything
  std::string description;           // one line
  bool required = false;
  bool repeated = false;  // may be given more than once

  // Whether its value is the name of a file or folder.
  bool isFile() const;
};

struct CommandText {
  std::string name;         // "tolvex" for the program itself
  std::string description;  // one line, without a full stop
  std::string footer;       // what the help says behind the options; lines as they are there
  std::vector<OptionText> arguments;
  std::vector<OptionText> options;
  std::vector<CommandText> commands;  // the program's
};

// The program with all its commands.
CommandText describeProgram();

}  // namespace tolvex
