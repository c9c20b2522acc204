// What texts of a file may do to the terminal that they are shown on: nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/cli/Program.h"

namespace tolvex {
namespace {

using namespace test;
using Json = nlohmann::ordered_json;

struct Character {
  std::string bytes;
  std::string shown;
};

// One of each kind that must be escaped; what is not text first, then what is.
const Character kControls[] = {
    {"\xFF", "\\xFF"},                    // no UTF-8
    {"\xC0\x9B", "\\xC0\\x9B"},           // overlong
    {"\xED\xA0\x80", "\\xED\\xA0\\x80"},  // a surrogate
    {"\xE2\x80", "\\xE2\\x80"},           // cut
    {"\x1B", "\\x1B"},                    // starts sequences
    {"\x07", "\\x07"},                    //
    {"\n", "\\n"},                        //
    {"\x7F", "\\x7F"},                    //
    {"\xC2\x9B", "\\u009B"},              // starts sequences too
    {"\xC2\xAD", "\\u00AD"},              // an invisible hyphen
    {"\xE2\x80\xAE", "\\u202E"},          // from right to left
    {"\xE2\x81\xA6", "\\u2066"},          // likewise
    {"\xE2\x80\xA8", "\\u2028"},          // ends a line
    {"\xEF\xBB\xBF", "\\uFEFF"},          // invisible
    {"\xF3\xA0\x81\x81", "\\U000E0041"},  // invisible
};
constexpr std::size_t kFirstText = 4;

const std::string kMark = "zq";  // as no text of the program has it
constexpr char kHarmless[] = "caf\xC3\xA9 \\ \xE6\x97\xA5 \xF0\x9F\x9A\x97";

// A file that has `text` wherever commands show one.
FileBuilder hostileFile(const std::string& text) {
  FileBuilder file({.program = text.substr(0, 8)});
  Bytes record = packed(0.5);
  const std::size_t textAt = record.size();
  record.resize(textAt + text.size());
  std::copy(text.begin(), text.end(), record.begin() + static_cast<std::ptrdiff_t>(textAt));
  file.signalGroup(
      {{.name = "<" + text + ">",
        .dataType = 7,
        .byteOffset = 8,
        .bitCount = static_cast<std::uint32_t>(8 * text.size()),
        .unit = file.tx(text),
        .comment = file.tx(text)}},
      {.name = text, .records = 1, .dataBytes = static_cast<std::uint32_t>(record.size())},
      file.dt(record));
  file.setLink(64, 5, file.md(text));  // which the doctor shows, as it is no XML
  return file;
}

bool holds(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Without the progress line, which is the program's own.
std::string withoutProgress(std::string text) {
  const std::string clearLine = "\r\x1B[K";
  for (std::size_t at = 0; (at = text.find(clearLine)) != std::string::npos;) {
    text.erase(at, clearLine.size());
  }
  return text;
}

TEST(Terminal, GetsNoControlCharactersOfAFile) {
  std::string text;
  for (const auto& [bytes, shown] : kControls) {
    text += kMark + bytes + "b ";
  }
  text += kHarmless;
  const FileBuilder file = hostileFile(text);
  const std::string path = file.write();
  const struct {
    std::string arguments;
    int exitCode;
  } commands[] = {
      {"info " + path, 0},
      {"doctor " + path, 0},
      {"export --dg 0 " + path, 0},
      {"export --dg 0 --channel '" + text + "' " + path, 1},
      {"cat '" + text + "'", 1},
      {"'" + text + "'", 2},
      {"cat --format '" + text + "' " + path, 2},
  };
  for (const auto& [arguments, exitCode] : commands) {
    SCOPED_TRACE(arguments);
    const Outcome outcome = runOnTerminal(arguments);
    const std::string terminal = withoutProgress(outcome.out);
    EXPECT_EQ(outcome.exitCode, exitCode);
    for (std::size_t i = 0; i < std::size(kControls); ++i) {
      const auto& [bytes, shown] = kControls[i];
      EXPECT_FALSE(holds(terminal, kMark + bytes)) << terminal;
      // The readers of columns replace what is no UTF-8.
      const bool isReplaced = i < kFirstText && holds(terminal, kMark + "\xEF\xBF\xBD");
      EXPECT_TRUE(holds(terminal, kMark + shown) || isReplaced || arguments.starts_with("doctor"))
          << terminal;
    }
    EXPECT_TRUE(holds(terminal, kHarmless) || arguments.starts_with("doctor")) << terminal;
  }
}

TEST(Terminal, GetsJsonThatStatesTheSameTexts) {
  std::string text;
  for (std::size_t i = kFirstText; i < std::size(kControls); ++i) {
    text += kMark + kControls[i].bytes;
  }
  const FileBuilder file = hostileFile(text);
  const TempDir dir;
  const std::string path = dir.path(text);
  std::filesystem::copy_file(file.write(), path);
  for (const char* const command : {"info", "doctor"}) {
    SCOPED_TRACE(command);
    const Outcome outcome = runOnTerminal(std::string(command) + " --format json '" + path + "'");
    const std::string terminal = withoutProgress(outcome.out);
    EXPECT_EQ(Json::parse(terminal)["file"], path);
    for (const auto& [bytes, shown] : kControls) {
      EXPECT_FALSE(holds(terminal, kMark + bytes)) << terminal;
    }
  }
}

// Files and pipes get what was recorded, as far as it is text.
TEST(Terminal, AloneChangesWhatIsExported) {
  const std::string text = "a\x1B\xC2\x9B\xE2\x80\xAE";
  const FileBuilder file = hostileFile(text + '\xFF');
  const std::string shown = text + "\xEF\xBF\xBD";
  EXPECT_EQ(runTolvex("export --dg 0 " + file.write()).out,
            "time,<" + shown + "> [" + shown + "]\n0.5," + shown + "\n");
}

}  // namespace
}  // namespace tolvex
