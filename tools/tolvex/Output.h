// The way of results to the standard output or a file.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tolvex {

// Gathers text and writes it in large pieces.
//
// The first failed write sticks: what follows is dropped, good() is false, and close() gives false.
// Text that was not closed is lost with the object. One thread at a time.
class Output {
 public:
  enum class Opened { Yes, IsTheInput, Failed };

  Output();  // the standard output
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // Sends what follows to the file `path` instead, which is created or emptied. A file that is
  // `input` under whatever name stays untouched. error() says why it failed.
  Opened open(const std::string& path, const std::string& input);

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

  bool good() const { return errorNumber_ == 0; }
  bool pipeClosed() const;  // the failure is that nobody reads the pipe any more
  std::string error() const;
  const std::string& name() const { return name_; }
  bool isTerminal() const { return terminal_; }  // then texts of files must be printable

  // Writes the rest and closes a file. False when anything failed since the opening.
  bool close();

 private:
  void makeRoom(std::size_t size);
  void flush();

  std::string name_;
  int descriptor_;
  bool owned_ = false;
  bool terminal_;
  int errorNumber_ = 0;
  std::vector<char> buffer_;
  std::size_t used_ = 0;
};

}  // namespace tolvex
