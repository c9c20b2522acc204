// The program's commands while allocations fail: each does all that it is for, or says that it
// did not.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "tests/faults/FailingMemory.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tools/tolvex/Command.h"
#include "tools/tolvex/Program.h"

namespace tolvex::test {
namespace {

// While it lives, what goes to the descriptor goes into a file.
class Redirection {
 public:
  Redirection(int descriptor, const std::string& path)
      : descriptor_(descriptor), before_(::dup(descriptor)) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ::dup2(file, descriptor);
    ::close(file);
  }
  ~Redirection() {
    ::dup2(before_, descriptor_);
    ::close(before_);
  }
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

 private:
  const int descriptor_;
  const int before_;
};

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

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
    run("record @log -o @bus", none);
    FileBuilder signals;
    signals.signalGroup({{.name = "speed", .byteOffset = 8}}, {packed(0.5, std::uint8_t{7})});
    signals.setLink(64, 5, signals.md("no XML"));  // which the doctor has something to say of
    std::filesystem::copy_file(signals.write(), dir_.path("signals"));
  }

  // Runs the program with `arguments`, in which @ stands for the folder of its files.
  Outcome run(const std::string& arguments, AllocationFault& fault) const {
    std::vector<std::string> words = {"tolvex"};
    std::istringstream text(arguments);
    for (std::string word; text >> word;) {
      if (word[0] == '@') word = dir_.path(word.substr(1));
      words.push_back(word);
    }
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    std::filesystem::remove(dir_.path("result"));
    Outcome outcome;
    {
      const Redirection out(STDOUT_FILENO, dir_.path("out"));
      const Redirection err(STDERR_FILENO, dir_.path("err"));
      fault.strike([&] {
        try {
          outcome.exitCode = runProgram(static_cast<int>(words.size()), pointers.data());
        } catch (const std::bad_alloc&) {
          ::dprintf(STDERR_FILENO, "as main does");
        }
      });
    }
    outcome.out = contentOf(dir_.path("out"));
    outcome.err = contentOf(dir_.path("err"));
    outcome.result = contentOf(dir_.path("result"));
    return outcome;
  }

  // The frames of a measurement file; anything else as it is.
  std::string framesOf(const std::string& result) const {
    if (!result.starts_with("MDF")) return result;
    std::ofstream(dir_.path("frames"), std::ios::binary) << result;
    AllocationFault none(~std::uint64_t{0}, false);
    return run("cat @frames --format csv", none).out;
  }

  // Every allocation fails in turn.
  void sweep(const std::string& arguments) const {
    SCOPED_TRACE(arguments);
    AllocationFault none(~std::uint64_t{0}, false);
    const Outcome sound = run(arguments, none);
    EXPECT_EQ(sound.exitCode, kDone) << sound.err;
    EXPECT_FALSE(sound.out.empty() && sound.result.empty() && sound.err.empty());
    forEveryAllocation([&](AllocationFault& fault) {
      const Outcome outcome = run(arguments, fault);
      if (outcome.exitCode == sound.exitCode) {
        EXPECT_EQ(outcome.out, sound.out);
        EXPECT_EQ(outcome.err, sound.err);
        EXPECT_EQ(framesOf(outcome.result), framesOf(sound.result));
      } else {
        EXPECT_TRUE(outcome.exitCode == kFailed || outcome.exitCode == kLost);
        EXPECT_FALSE(outcome.err.empty());
      }
    });
  }

  const CapturedDiagnostics diagnostics_;
  const TempDir dir_;
};

TEST_F(CommandAllocations, ReadingCommandsDoTheirWorkOrSayThatTheyFailed) {
  for (const char* const arguments : {"info @bus", "cat @bus --format csv",
                                      "export --dg 0 @signals", "export --dg 0 @signals -o @result",
                                      "doctor @signals", "recover @bus -o @result --verify"}) {
    sweep(arguments);
  }
}

TEST_F(CommandAllocations, RecordingSaysWhatItLost) {
  sweep("record @log -o @result");
  sweep("record @log -o @result --async");
}

}  // namespace
}  // namespace tolvex::test
