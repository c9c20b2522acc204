// Runs the program's commands on the input, which is a measurement file or, for `record`, a log.
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "tools/tolvex/Program.h"

namespace tolvex::fuzz {
namespace {

constexpr rlim_t kLargestFile = rlim_t{4} << 20;  // that a command may write

// The standard output of the commands, in memory.
class StandardOutput {
 public:
  StandardOutput() {
    const int descriptor = ::memfd_create("fuzz-output", MFD_CLOEXEC);
    if (descriptor < 0 || ::dup2(descriptor, STDOUT_FILENO) < 0) {
      std::perror("cannot keep the output in memory");
      std::exit(1);
    }
    ::close(descriptor);
    // A result that grows beyond all measure ends as on a full disk.
    const rlimit most = {kLargestFile, kLargestFile};
    ::setrlimit(RLIMIT_FSIZE, &most);
    std::signal(SIGXFSZ, SIG_IGN);
  }

  void clear() {
    require(::ftruncate(STDOUT_FILENO, 0) == 0 && ::lseek(STDOUT_FILENO, 0, SEEK_SET) == 0,
            "a file in memory can be emptied");
  }
  std::string text() const {
    std::string text(static_cast<std::size_t>(::lseek(STDOUT_FILENO, 0, SEEK_END)), '\0');
    require(
        ::pread(STDOUT_FILENO, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
        "a file in memory can be read");
    return text;
  }
};

using Arguments = std::vector<std::string>;

int run(Arguments arguments) {
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  const int code = runProgram(static_cast<int>(arguments.size()), pointers.data());
  require(code >= 0 && code <= 3, "exit codes are 0 to 3");
  return code;
}

// Gives the arguments that the input asks for. An input that starts like a log is one.
Arguments argumentsFor(ByteSpan input, const std::string& file, const std::string& result) {
  const auto choose = [](unsigned number, Arguments options) { return options[number % 3]; };
  if (!input.empty() && input[0] == '(') {
    const std::size_t choice = input.size();
    Arguments arguments = {"tolvex", "record", file, "--force", "-o", result};
    if ((choice & 1) != 0) arguments.insert(arguments.end(), {"--max-data-length", "24"});
    if ((choice & 2) != 0) arguments.insert(arguments.end(), {"--channel", "vcan0=3"});
    if (choice % 16 == 4) arguments.push_back("--async");
    return arguments;
  }
  Numbers steering = steeringOf(input);
  const auto command = steering.next<std::uint8_t>();
  const auto format = steering.next<std::uint8_t>();
  const int first = steering.next<std::uint8_t>() - 128;
  const int second = steering.next<std::uint8_t>() - 128;
  switch (command % 6) {
    case 0:
      return {"tolvex", "info", file, "--format", choose(format, {"text", "json", "json"})};
    case 1: {
      Arguments arguments = {"tolvex", "cat", file, "--format",
                             choose(format, {"candump", "csv", "ndjson"})};
      if (first != 0) arguments.push_back("--start=" + std::to_string(first));
      if (second != 0) arguments.push_back("--end=" + std::to_string(second));
      return arguments;
    }
    case 2: {
      Arguments arguments = {"tolvex", "export", file, "--time",
                             choose(format / 16, {"relative", "absolute", "iso"})};
      const auto add = [&](const Arguments& more) {
        arguments.insert(arguments.end(), more.begin(), more.end());
      };
      add((format & 8) != 0 ? Arguments{"--join"} : Arguments{"--dg", std::to_string(first & 7)});
      if ((format & 1) != 0) add({"--raw"});
      if (first > 64) add({"--start=" + std::to_string(second)});
      if ((format & 2) != 0) add({"--channel", steering.text()});
      if ((format & 4) != 0) add({"--raster", choose(format / 16, {"1e-9", "0.01", "1e9"})});
      if ((format & 132) == 132) add({"--interpolate"});
      if ((format & 8) == 0 && second > 0) add({"--cg", std::to_string(second & 3)});
      return arguments;
    }
    case 3:
    case 4:
      return {"tolvex", "doctor", file, "--format", choose(format, {"text", "json", "text"})};
    default: {
      Arguments arguments = {"tolvex", "recover", file, "-o", result};
      if ((format & 1) != 0) arguments.push_back("--verify");
      return arguments;
    }
  }
}

// A line of JSON each, or one value over several lines.
void requireJson(const std::string& text, bool lines) {
  const auto isJson = [](std::string_view part) { return nlohmann::json::accept(part); };
  if (!lines) return require(isJson(text), "what is shown as JSON is JSON");
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = text.find('\n', at);
    require(end != std::string::npos, "a line has its end");
    require(isJson(std::string_view(text).substr(at, end - at)), "a line is JSON");
    at = end + 1;
  }
}

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex;
  using namespace tolvex::fuzz;
  static StandardOutput output;
  const ByteSpan input(data, size);
  const MemoryFile file(input);
  const MemoryFile result({});
  output.clear();
  const Arguments arguments = argumentsFor(input, file.path(), result.path());
  const int code = run(arguments);
  const std::string& format = arguments.size() > 4 ? arguments[4] : "";
  if (code == 0 && (format == "json" || format == "ndjson")) {
    requireJson(output.text(), format == "ndjson");
  }
  return 0;
}
