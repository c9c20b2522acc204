// What the program's commands share: how they are found, how they end and how they complain.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Output.h"
#include "PrintableText.h"

namespace CLI {
class App;
}

namespace tolvex {

class MdfColumnReader;
class MdfFrameReader;

enum ExitCode : int {
  kDone = 0,
  kFailed = 1,
  kWrongUse = 2,
  kLost = 3,  // done, but something of the input did not reach the result
};

// The chosen command with its options; gives the exit code.
using Command = std::function<int()>;

// Each adds its command with options and help to `app`. When the command line chooses it, parsing
// sets `chosen`.
void addInfo(CLI::App& app, Command& chosen);
void addCat(CLI::App& app, Command& chosen);
void addExport(CLI::App& app, Command& chosen);
void addDoctor(CLI::App& app, Command& chosen);
void addRecover(CLI::App& app, Command& chosen);
void addRecord(CLI::App& app, Command& chosen);

// The option --max-output of a command whose results may be far larger than its input.
void addMaxOutput(CLI::App& command, std::optional<std::uint64_t>& bytes);

// What a command may write that was given `chosen` bytes by that option, or nothing, for `inputs`.
OutputBudget budgetFor(std::optional<std::uint64_t> chosen, const std::vector<std::string>& inputs);

// The option --force of a command that writes files.
void addForce(CLI::App& command, bool& force);

// The words for a file that is there and may not be overwritten.
inline constexpr std::string_view kExists = "exists; --force overwrites it";

// Whether the output of a measurement file is given as the standard output, said why it cannot be.
bool complainIfStandardOutput(const std::string& path);

// Sends what is written to `out` to the file `path`, or leaves it the standard output for "" and
// "-". kDone, or the exit code, said why.
ExitCode openOutput(Output& out, const std::string& path, const std::vector<std::string>& inputs,
                    bool force);

// Writes the line "tolvex: FILE: what", printable, to the standard error.
void complain(std::string_view file, std::string_view what);

// The measurement files of a command that reads several as one recording, and --parts, which has it
// look for those that follow the first one.
void addInputs(CLI::App& command, std::vector<std::string>& files, bool& parts);

// Finds the parts, where they are asked for. False, said why, when it is unclear of what.
bool findParts(std::vector<std::string>& files, bool parts);

// What messages about files read as one are headed with.
std::string labelOf(const std::vector<std::string>& files);

// Complains about each damage that the reader met: kLost if there was any, else `soFar`. What an
// unusual file was taken for is said, and no loss.
ExitCode reportProblems(const MdfColumnReader& reader, const std::string& file, ExitCode soFar);
ExitCode reportProblems(const MdfFrameReader& reader, const std::string& file, ExitCode soFar);

// The exit code after all results were written: closes `out`, which may fail, then reports the
// problems. A reader of our pipe that went away is a normal end.
ExitCode finish(Output& out, const MdfColumnReader& reader, const std::string& file,
                ExitCode soFar);
ExitCode finish(Output& out, const MdfFrameReader& reader, const std::string& file, ExitCode soFar);

}  // namespace tolvex
