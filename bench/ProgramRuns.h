// The program's commands, run in this process.
#pragma once

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench/Bench.h"
#include "bench/Inputs.h"
#include "tools/tolvex/Program.h"

namespace tolvex::bench {

// A file in memory that is written again and again.
class MemoryFile {
 public:
  MemoryFile() : descriptor_(::memfd_create("table", MFD_CLOEXEC)) {}
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  ~MemoryFile() { ::close(descriptor_); }

  std::string path() const { return fmt::format("/proc/self/fd/{}", descriptor_); }
  std::uint64_t contentSum() const {
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(::lseek(descriptor_, 0, SEEK_END)));
    return ::pread(descriptor_, bytes.data(), bytes.size(), 0) < 0
               ? 0
               : checksum(bytes.data(), bytes.size());
  }

 private:
  int descriptor_;
};

// Runs a command whose result goes into the file. Gives its exit code.
inline int runProgramOn(const MemoryFile& out, std::vector<std::string> words) {
  words.insert(words.begin(), "tolvex");
  words.insert(words.end(), {"-o", out.path()});
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  return runProgram(static_cast<int>(words.size()), arguments.data());
}

// Likewise; gives a sum over what is in the file then, 1 when the command fails.
inline Outcome runProgramInto(const MemoryFile& out, const std::vector<std::string>& words) {
  const Outcome outcome =
      timed([&] { return static_cast<std::uint64_t>(runProgramOn(out, words)); });
  return {outcome.seconds, outcome.result == 0 ? out.contentSum() : 1};
}

}  // namespace tolvex::bench
