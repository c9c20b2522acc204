#include "CommandText.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstddef>
#include <sstream>

#include "../Command.h"
#include "../Program.h"

namespace tolvex {

namespace {

// Takes "FORMAT:{text,json}" apart.
void describeValue(const std::string& typeName, OptionText& text) {
  const std::size_t brace = typeName.find(":{");
  text.value = typeName.substr(0, brace);
  if (brace != std::string::npos) {
    std::istringstream choices(typeName.substr(brace + 2, typeName.size() - brace - 3));
    for (std::string choice; std::getline(choices, choice, ',');) {
      text.choices.push_back(choice);
    }
  }
}

OptionText describe(const CLI::Option& option) {
  OptionText text;
  if (option.get_positional()) {
    text.value = option.get_name(true);
  } else {
    for (const std::string& name : option.get_snames()) {
      text.names.push_back('-' + name);
    }
    for (const std::string& name : option.get_lnames()) {
      text.names.push_back("--" + name);
    }
    if (option.get_items_expected_max() > 0) {
      describeValue(option.get_type_name(), text);
    }
  }
  text.description = option.get_description();
  std::ranges::replace(text.description, '\n', ' ');
  for (const CLI::Option* const needed : option.get_needs()) {
    text.description += "; only with " + needed->get_name();
  }
  text.required = option.get_required();
  text.repeated = option.get_items_expected_max() > 1;
  return text;
}

CommandText describe(const CLI::App& app) {
  CommandText text{.name = app.get_name(),
                   .description = app.get_description(),
                   .footer = app.get_footer(),
                   .arguments = {},
                   .options = {},
                   .commands = {}};
  if (text.description.ends_with('.')) {
    text.description.pop_back();
  }
  for (const CLI::Option* const option : app.get_options()) {
    (option->get_positional() ? text.arguments : text.options).push_back(describe(*option));
  }
  for (const CLI::App* const command : app.get_subcommands([](const CLI::App*) { return true; })) {
    text.commands.push_back(describe(*command));
  }
  return text;
}

}  // namespace

bool OptionText::isFile() const {
  return value == "FILE" || value == "LOG" || value == "OUT";
}

CommandText describeProgram() {
  CLI::App app;
  Command chosen;
  defineProgram(app, chosen);
  return describe(app);
}

}  // namespace tolvex
