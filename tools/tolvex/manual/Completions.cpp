#include "Completions.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <vector>

namespace tolvex {

namespace {

// Between single quotes, which end and begin again around those of the text.
std::string quoted(std::string_view text) {
  std::string result = "'";
  for (const char letter : text) {
    result += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
  }
  return result + '\'';
}

// The first clause, or as much of it as there is room for beside a word.
std::string brief(const std::string& description) {
  constexpr std::size_t kRoom = 72;
  std::size_t sentence = description.find(". ");
  while (sentence != std::string::npos && description[sentence - 1] == '.') {  // "..."
    sentence = description.find(". ", sentence + 1);
  }
  const std::string clause = description.substr(
      0, std::min({description.find("; "), description.find(": "), sentence, description.size()}));
  return clause.size() > kRoom ? clause.substr(0, clause.rfind(", ", kRoom)) : clause;
}

void append(std::string& words, const std::string& word) {
  words += (words.empty() ? "" : " ") + word;
}

std::string joined(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) {
    append(line, word);
  }
  return line;
}

std::string commandNames(const CommandText& program) {
  std::string names;
  for (const CommandText& command : program.commands) {
    append(names, command.name);
  }
  return names;
}

std::string optionNames(const CommandText& command) {
  std::string names;
  for (const OptionText& option : command.options) {
    append(names, joined(option.names));
  }
  return names;
}

bool takesCommand(const CommandText& command) {
  return !command.arguments.empty() && command.arguments.front().value == "COMMAND";
}

// What completes the values of options: patterns of "COMMAND OPTION", and branches for those that
// have choices.
struct BashValues {
  std::string files;
  std::string others;
  std::string branches;
};

void addValues(const CommandText& command, BashValues& values) {
  for (const OptionText& option : command.options) {
    std::string pattern;
    for (const std::string& name : option.names) {
      pattern += (pattern.empty() ? "" : " | ") + quoted(command.name + ' ' + name);
    }
    if (!option.choices.empty()) {
      values.branches += "    " + pattern + ") words=" + quoted(joined(option.choices)) + " ;;\n";
    } else if (!option.value.empty()) {
      std::string& patterns = option.isFile() ? values.files : values.others;
      patterns += (patterns.empty() ? "" : " | ") + pattern;
    }
  }
}

}  // namespace

std::string bashCompletion(const CommandText& program) {
  BashValues values;
  std::string words =
      "        '') words=" + quoted(commandNames(program) + ' ' + optionNames(program)) + " ;;\n";
  for (const CommandText& command : program.commands) {
    addValues(command, values);
    words += "        " + command.name + ")\n";
    if (takesCommand(command)) {
      words += "          words=" + quoted(commandNames(program) + ' ' + optionNames(command));
    } else {
      words +=
          "          [[ $word == -* ]] || return\n          words=" + quoted(optionNames(command));
    }
    words += " ;;\n";
  }
  // An empty reply has files completed.
  return "# Completion of tolvex for bash.\n"
         "_tolvex() {\n"
         "  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n"
         "  local command= words=\n"
         "  COMPREPLY=()\n"
         "  if [[ $word == = ]]; then\n"
         "    word=\n"
         "  elif [[ $before == = ]]; then\n"
         "    before=${COMP_WORDS[COMP_CWORD - 2]}\n"
         "  fi\n"
         "  ((COMP_CWORD > 1)) && command=${COMP_WORDS[1]}\n"
         "  case \"$command $before\" in\n" +
         values.branches + "    " + values.files + ") return ;;\n    " + values.others +
         ")\n      compopt +o default 2>/dev/null\n      return ;;\n"
         "    *)\n"
         "      case \"$command\" in\n" +
         words +
         "      esac ;;\n"
         "  esac\n"
         "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
         "}\n"
         "complete -o default -F _tolvex tolvex\n";
}

namespace {

// What _arguments takes apart at brackets and colons, quoted.
std::string zshText(std::string_view text) {
  std::string result;
  for (const char letter : text) {
    result += std::string_view("[]:\\").find(letter) == std::string_view::npos ? "" : "\\";
    result += letter;
  }
  return result;
}

std::string zshValue(const OptionText& option) {
  return ':' + zshText(option.value) + ':' +
         (!option.choices.empty() ? '(' + joined(option.choices) + ')'
          : option.isFile()       ? "_files"
                                  : "");
}

// '(-o --output)'{'-o+','--output='}'[...]:OUT:_files': any of the names, once.
std::string zshOption(const OptionText& option) {
  const std::string others = option.repeated ? "*" : '(' + joined(option.names) + ')';
  const std::string meaning = '[' + zshText(brief(option.description)) + ']' +
                              (option.value.empty() ? "" : zshValue(option));
  std::vector<std::string> names = option.names;
  for (std::string& name : names) {
    name += option.value.empty() ? "" : name.starts_with("--") ? "=" : "+";
  }
  if (names.size() == 1) {
    return quoted(others + names.front() + meaning);
  }
  std::string anyOf;
  for (const std::string& name : names) {
    anyOf += (anyOf.empty() ? "" : ",") + quoted(name);
  }
  return quoted(others) + '{' + anyOf + '}' + quoted(meaning);
}

std::string zshOptions(const CommandText& command, const std::string& indentation) {
  std::string lines;
  for (const OptionText& option : command.options) {
    lines += " \\\n" + indentation + zshOption(option);
  }
  return lines;
}

}  // namespace

std::string zshCompletion(const CommandText& program) {
  std::string commands;
  std::string branches;
  for (const CommandText& command : program.commands) {
    commands += "        " + quoted(command.name + ':' + zshText(command.description)) + '\n';
    branches +=
        "        " + command.name + ")\n          _arguments" + zshOptions(command, "            ");
    for (const OptionText& argument : command.arguments) {
      branches +=
          " \\\n            " + quoted(takesCommand(command)
                                           ? "1:command:(" + commandNames(program) + ')'
                                           : (argument.repeated ? '*' : '1') + zshValue(argument));
    }
    branches += " ;;\n";
  }
  return "#compdef tolvex\n"
         "# Completion of tolvex for zsh.\n"
         "_tolvex() {\n"
         "  local curcontext=$curcontext state line\n"
         "  typeset -A opt_args\n"
         "  _arguments -C" +
         zshOptions(program, "    ") +
         " \\\n    '1:command:->command' \\\n    '*::argument:->argument'\n"
         "  case $state in\n"
         "    command)\n"
         "      local -a commands=(\n" +
         commands +
         "      )\n"
         "      _describe command commands ;;\n"
         "    argument)\n"
         "      curcontext=${curcontext%:*:*}:tolvex-$line[1]:\n"
         "      case $line[1] in\n" +
         branches +
         "      esac ;;\n"
         "  esac\n"
         "}\n"
         "_tolvex \"$@\"\n";
}

namespace {

std::string fishQuoted(std::string_view text) {
  std::string result = "'";
  for (const char letter : text) {
    result += letter == '\'' || letter == '\\' ? "\\" : "";
    result += letter;
  }
  return result + '\'';
}

// The lines for the options of a command, or of the program, where `condition` holds.
std::string fishOptions(const CommandText& command, const std::string& condition) {
  std::string lines;
  for (const OptionText& option : command.options) {
    lines += "complete -c tolvex -n " + condition;
    for (const std::string& name : option.names) {
      lines += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    if (!option.choices.empty()) {
      lines += " -x -a " + quoted(joined(option.choices));
    } else if (!option.value.empty()) {
      lines += option.isFile() ? " -r -F" : " -x";
    }
    lines += " -d " + fishQuoted(brief(option.description)) + '\n';
  }
  return lines;
}

}  // namespace

std::string fishCompletion(const CommandText& program) {
  const std::string first = "__fish_use_subcommand";
  std::string text = "# Completion of tolvex for fish.\ncomplete -c tolvex -f\n";
  text += fishOptions(program, first);
  for (const CommandText& command : program.commands) {
    const std::string chosen = quoted("__fish_seen_subcommand_from " + command.name);
    text += "complete -c tolvex -n " + first + " -a " + command.name + " -d " +
            fishQuoted(command.description) + '\n';
    text += "complete -c tolvex -n " + chosen +
            (takesCommand(command) ? " -a " + quoted(commandNames(program)) : " -F") + '\n';
    text += fishOptions(command, chosen);
  }
  return text;
}

}  // namespace tolvex
