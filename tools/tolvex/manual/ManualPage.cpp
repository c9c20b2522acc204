#include "ManualPage.h"

#include <tolvex/MdfVersion.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <string_view>
#include <vector>

namespace tolvex {

namespace {

// Text as it is to be read: nothing in it means anything to roff, and what is copied from the page
// has the characters that were meant.
std::string escaped(std::string_view text) {
  std::string roff;
  for (const char letter : text) {
    switch (letter) {
      case '\\':
        roff += "\\(rs";
        break;
      case '-':
        roff += "\\-";
        break;
      case '\'':
        roff += "\\(aq";
        break;
      case '`':
        roff += "\\(ga";
        break;
      case '^':
        roff += "\\(ha";
        break;
      case '~':
        roff += "\\(ti";
        break;
      default:
        roff += letter;
    }
  }
  return roff.starts_with('.') ? "\\&" + roff : roff;
}

std::string bold(std::string_view text) {
  return "\\fB" + escaped(text) + "\\fR";
}

std::string italic(std::string_view text) {
  return "\\fI" + escaped(text) + "\\fR";
}

std::string capitalized(std::string text, int (*convert)(int)) {
  text[0] = static_cast<char>(convert(static_cast<unsigned char>(text[0])));
  return text;
}

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

// Sets the text of a help, whose layout is in its line ends and spaces: headings end in a colon,
// "- " begins the entry of a list, an indented line has a term and, behind two spaces or in a line
// that is indented far, what it means, or it is an example.
class HelpSetter {
 public:
  explicit HelpSetter(std::string& roff) : roff_(roff) {}

  void set(std::string_view help) {
    const std::vector<std::string_view> lines = linesOf(help);
    for (std::size_t i = 0; i < lines.size(); ++i) {
      const bool hasMore = i + 1 < lines.size() && indentation(lines[i + 1]) >= kFar;
      setLine(lines[i], hasMore);
    }
    enter(Kind::None);
  }

 private:
  enum class Kind { None, Paragraph, Example, Entry };
  static constexpr std::size_t kFar = 20;

  static std::size_t indentation(std::string_view line) {
    return std::min(line.find_first_not_of(' '), line.size());
  }

  void enter(Kind kind) {
    if (kind_ == Kind::Example && kind != Kind::Example) {
      roff_ += ".fi\n.RE\n";
    }
    if (kind == Kind::Example && kind_ != Kind::Example) {
      roff_ += ".PP\n.RS 4\n.nf\n";
    } else if (kind == Kind::Paragraph && kind_ != Kind::Paragraph) {
      roff_ += ".PP\n";
    }
    kind_ = kind;
  }

  void setLine(std::string_view line, bool hasMore) {
    const std::size_t indented = indentation(line);
    const std::string_view text = line.substr(indented);
    const std::size_t gap = text.find("  ");
    if (text.empty()) {
      enter(Kind::None);
    } else if (indented >= kFar) {
      roff_ += escaped(text) + '\n';
    } else if (indented > 0 && (gap != std::string_view::npos || hasMore)) {
      enter(Kind::Entry);
      roff_ += ".TP\n" + bold(text.substr(0, gap)) + '\n';
      if (gap != std::string_view::npos) {
        roff_ += escaped(text.substr(text.find_first_not_of(' ', gap))) + '\n';
      }
    } else if (indented > 0) {
      enter(Kind::Example);
      roff_ += escaped(text) + '\n';
    } else if (text.starts_with("- ")) {
      enter(Kind::Entry);
      roff_ += ".IP \\(bu 2\n" + escaped(text.substr(2)) + '\n';
    } else if (text.ends_with(':') && text.find(' ') == std::string_view::npos) {
      enter(Kind::None);
      roff_ += ".SS " + escaped(text.substr(0, text.size() - 1)) + '\n';
    } else {
      enter(Kind::Paragraph);
      roff_ += escaped(text) + '\n';
    }
  }

  std::string& roff_;
  Kind kind_ = Kind::None;
};

// A footer's examples, and the rest of it.
struct Footer {
  std::string text;
  std::string examples;
};

Footer splitFooter(std::string_view footer) {
  constexpr std::string_view kExamples = "Examples:\n";
  Footer parts;
  while (!footer.empty()) {
    const std::size_t end = std::min(footer.find("\n\n"), footer.size());
    const std::string_view block = footer.substr(0, end);
    if (block.starts_with(kExamples)) {
      parts.examples = block.substr(kExamples.size());
    } else {
      (parts.text += block) += "\n\n";
    }
    footer.remove_prefix(std::min(end + 2, footer.size()));
  }
  return parts;
}

std::string beginPage(const std::string& name, const std::string& description) {
  std::string title = name;
  std::ranges::transform(title, title.begin(), [](unsigned char letter) {
    return static_cast<char>(std::toupper(letter));
  });
  return ".TH " + title + " 1 \"\" \"tolvex " TOLVEX_VERSION "\" \"User Commands\"\n.SH NAME\n" +
         escaped(name) + " \\- " + escaped(capitalized(description, std::tolower)) +
         "\n.SH SYNOPSIS\n";
}

void addDescription(std::string& page, const CommandText& command, const Footer& footer) {
  page += ".SH DESCRIPTION\n" + escaped(capitalized(command.description, std::toupper)) + ".\n";
  HelpSetter(page).set("\n" + footer.text);
}

std::string valueOf(const OptionText& option) {
  if (option.choices.empty()) {
    return italic(option.value);
  }
  std::string values;
  for (const std::string& choice : option.choices) {
    values += (values.empty() ? "" : "|") + bold(choice);
  }
  return values;
}

void addOptions(std::string& page, const CommandText& command) {
  page += ".SH OPTIONS\n";
  for (const OptionText& argument : command.arguments) {
    page += ".TP\n" + italic(argument.value) + '\n' + escaped(argument.description) + ".\n";
  }
  for (const OptionText& option : command.options) {
    std::string names;
    for (const std::string& name : option.names) {
      names += (names.empty() ? "" : ", ") + bold(name);
    }
    page += ".TP\n" + names + (option.value.empty() ? "" : ' ' + valueOf(option)) + '\n' +
            escaped(option.description) + ".\n";
  }
}

void addExamples(std::string& page, const Footer& footer) {
  if (!footer.examples.empty()) {
    page += ".SH EXAMPLES\n";
    HelpSetter(page).set(footer.examples);
  }
}

std::string reference(const std::string& name) {
  return ".BR " + escaped(name) + " (1)";
}

}  // namespace

std::string programPage(const CommandText& program) {
  const Footer footer = splitFooter(program.footer);
  std::string page = beginPage(program.name, program.description) + bold(program.name) + ' ' +
                     italic("COMMAND") + " [" + italic("OPTION") + "]... [" + italic("ARGUMENT") +
                     "]\n";
  addDescription(page, program, footer);
  page += ".SH COMMANDS\n";
  for (const CommandText& command : program.commands) {
    page += ".TP\n" + bold(command.name) + '\n' + escaped(command.description) + ".\n";
  }
  addOptions(page, program);
  addExamples(page, footer);
  page += ".SH SEE ALSO\n";
  for (const CommandText& command : program.commands) {
    if (command.name != "help") {
      page += reference(program.name + '-' + command.name) + '\n';
    }
  }
  return page;
}

std::string commandPage(const CommandText& program, const CommandText& command) {
  const Footer footer = splitFooter(command.footer);
  std::string page = beginPage(program.name + '-' + command.name, command.description) +
                     bold(program.name + ' ' + command.name) + " [" + italic("OPTION") + "]...";
  for (const OptionText& option : command.options) {
    if (option.required) {
      page += ' ' + bold(option.names.front()) + ' ' + valueOf(option);
    }
  }
  for (const OptionText& argument : command.arguments) {
    page += argument.required ? ' ' + italic(argument.value) : " [" + italic(argument.value) + ']';
    page += argument.repeated ? "..." : "";
  }
  page += '\n';
  addDescription(page, command, footer);
  addOptions(page, command);
  addExamples(page, footer);
  return page + ".SH SEE ALSO\n" + reference(program.name) + '\n';
}

}  // namespace tolvex
