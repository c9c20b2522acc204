// The way of results to the standard output or a file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "Mdf4/base/ResultFile.h"

namespace tolvex {

// The bytes that a command may still write.
struct OutputBudget {
  std::uint64_t limit = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t left = limit;
};

// Gathers text and writes it in large pieces.
//
// The first failed write sticks: what follows is dropped, good() is false, and close() gives false.
// So does a signal that StopSignals watches for. Text that was not closed is lost with the object,
// and a file gets its name only when it is closed. One thread at a time.
class Output {
 public:
  enum class Opened { Yes, IsAnInput, Exists, Failed };

  Output();  // the standard output
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // Takes what is written from `budget`, which outlives the object. Beyond it, writing fails.
  void limitBy(OutputBudget& budget) { budget_ = &budget; }
  // Sends what follows to a file that is to have the name `path`, unless that is one of `inputs`
  // under whatever name, or a file has it and is not to be replaced. error() says why it failed.
  Opened open(const std::string& path, const std::vector<std::string>& inputs, bool replace);

  // Room for `size` characters behind what was written; advance takes the end of what was put
  // there.
  char* room(std::size_t size) {
    if (buffer_.size() - used_ < size) {
      makeRoom(size);
    }
    return buffer_.data() + used_;
  }
  void advance(const char* end) { used_ = static_cast<std::size_t>(end - buffer_.data()); }
  void write(std::string_view text);
  void write(char character) { *room(1) = character, ++used_; }

  bool good() const { return error_.empty(); }
  bool pipeClosed() const { return pipeClosed_; }  // the failure: nobody reads the pipe any more
  const std::string& error() const { return error_; }
  const std::string& name() const { return name_; }
  bool isTerminal() const { return terminal_; }  // then texts of files must be printable

  // Writes the rest; a file is then on the disk, but not yet under its name. Nothing may follow but
  // close. False when anything failed since the opening.
  bool complete();
  // Completes, and gives a file its name.
  bool close();

 private:
  void makeRoom(std::size_t size);
  void flush();

  std::string name_;
  ResultFile file_;
  int descriptor_;
  bool terminal_;
  OutputBudget* budget_ = nullptr;
  bool pipeClosed_ = false;
  std::string error_;
  std::vector<char> buffer_;
  std::size_t used_ = 0;
};

}  // namespace tolvex
