// The program's commands while allocations fail: each does all that it is for, or says that it
// did not.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>

#include "tests/faults/FailingMemory.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tools/tolvex/Command.h"
#include "tools/tolvex/Program.h"

namespace tolvex::test {
namespace {

// While it lives, what goes to the descriptor goes into memory.
class Redirection {
 public:
  explicit Redirection(int descriptor)
      : descriptor_(descriptor),
        before_(::dup(descriptor)),
        file_(::memfd_create("redirected", MFD_CLOEXEC)) {
    ::dup2(file_, descriptor);
  }
  ~Redirection() {
    ::dup2(before_, descriptor_);
    ::close(before_);
    ::close(file_);
  }
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

  std::string content() const { return contentOf("/proc/self/fd/" + std::to_string(file_)); }

 private:
  const int descriptor_;
  const int before_;
  const int file_;
};

struct Outcome {
  int exitCode = kFailed;
  std::string out;
  std::string err;
  std::string result;  // the file "result"
};

class CommandAllocations : public testing::Test {
 protected:
  CommandAllocations() {
    setDiagnosticHandler(nullptr, nullptr);  // as the program has it
    std::ofstream(dir_.path("log")) << "(1.000000) can0 123#11\n(1.500000) can1 456##122\n"
                                       "(2.000000) can0 20000004#00\n";
    AllocationFault none(~std::uint64_t{0}, false);
    run(commandOf("record @log -o @bus"), none);
    FileBuilder signals;
    signals.signalGroup({{.name = "speed", .byteOffset = 8}}, {packed(0.5, std::uint8_t{7})});
    signals.setLink(64, 5, signals.md("no XML"));  // which the doctor has something to say of
    std::filesystem::copy_file(signals.write(), dir_.path("signals"));
  }

  // What the command line asks for, in which @ stands for the folder of its files. Most of what
  // the program allocates is for its command line: that fails in a test of its own.
  Command commandOf(const std::string& line) const {
    CLI::App app;
    Command chosen;
    for (const auto add : {addInfo, addCat, addExport, addDoctor, addRecover, addRecord}) {
      add(app, chosen);
    }
    std::string arguments;
    for (const char letter : line) {
      arguments += letter == '@' ? dir_.path("") : std::string(1, letter);
    }
    app.parse(arguments);
    return chosen;
  }

  Outcome run(const Command& command, AllocationFault& fault) const {
    std::filesystem::remove(dir_.path("result"));
    Outcome outcome;
    {
      const Redirection out(STDOUT_FILENO);
      const Redirection err(STDERR_FILENO);
      fault.strike([&] {
        try {
          outcome.exitCode = command();
        } catch (const std::bad_alloc&) {
          ::dprintf(STDERR_FILENO, "as main does");
        }
      });
      outcome.out = out.content();
      outcome.err = err.content();
    }
    outcome.result = contentOf(dir_.path("result"));
    return outcome;
  }

  // The frames of a measurement file; anything else as it is.
  std::string framesOf(const std::string& result) const {
    if (!result.starts_with("MDF")) return result;
    std::ofstream(dir_.path("frames"), std::ios::binary) << result;
    AllocationFault none(~std::uint64_t{0}, false);
    return run(commandOf("cat @frames --format csv"), none).out;
  }

  // Every allocation of the command fails in turn.
  void sweep(const Command& command) const {
    AllocationFault none(~std::uint64_t{0}, false);
    const Outcome sound = run(command, none);
    EXPECT_EQ(sound.exitCode, kDone) << sound.err;
    EXPECT_FALSE(sound.out.empty() && sound.result.empty() && sound.err.empty());
    forEveryAllocation([&](AllocationFault& fault) {
      const Outcome outcome = run(command, fault);
      if (outcome.exitCode == sound.exitCode) {
        EXPECT_EQ(outcome.out, sound.out);
        EXPECT_EQ(outcome.err, sound.err);
        EXPECT_EQ(framesOf(outcome.result), framesOf(sound.result));
      } else {
        EXPECT_TRUE(outcome.exitCode == kFailed || outcome.exitCode == kLost);
        EXPECT_NE(outcome.err, "");
        EXPECT_EQ(outcome.err.find("std::"), std::string::npos) << outcome.err;
      }
    });
  }

  const CapturedDiagnostics diagnostics_;
  const TempDir dir_;
};

TEST_F(CommandAllocations, CommandsDoTheirWorkOrSayWhatFailed) {
  for (const char* const line :
       {"info @bus", "cat @bus --format csv", "export --dg 0 @signals",
        "export --dg 0 @signals -o @result", "export --join --raster 0.5 @signals",
        "doctor @signals", "recover @bus -o @result --verify", "record @log -o @result",
        "record @log -o @result --async"}) {
    SCOPED_TRACE(line);
    sweep(commandOf(line));
  }
}

TEST_F(CommandAllocations, TheCommandLineIsReadOrNothingIsDone) {
  sweep([&] {
    std::string words[] = {"tolvex", "info", dir_.path("bus")};
    char* arguments[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    return runProgram(3, arguments);
  });
}

}  // namespace
}  // namespace tolvex::test
