// The lines of a file, or of a stream as they arrive.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tolvex {

// Reads what is there and waits only when nothing is; so lines of a live stream come at once, and
// those of a file in large pieces:
//
//   while (input.read()) {
//     while (input.next(line)) ...
//   }
//
// One thread at a time.
class LineInput {
 public:
  // A line that is longer than `longestLine` comes cut.
  explicit LineInput(std::size_t longestLine = 256 * 1024);
  ~LineInput();
  LineInput(const LineInput&) = delete;
  LineInput& operator=(const LineInput&) = delete;

  // Opens the file `path`; "-" stands for the standard input. False, with error(), on failure.
  bool open(const std::string& path);
  const std::string& name() const { return name_; }
  int descriptor() const { return descriptor_; }
  // Whether it can be read from its start a second time.
  bool isFile() const { return isFile_; }

  // Ends the input at a signal that a StopSignals waits for. A file then ends at once; a stream has
  // a moment more to end by itself, as the program that feeds it mostly got the same signal and
  // still hands over what it holds.
  void endAtStop() { endsAtStop_ = true; }

  // Waits for more text and reads it. False at the end, after a stop, and when reading failed.
  bool read();
  // The next line of what was read, without its end; good until the next read. False when there
  // is no whole line.
  bool next(std::string_view& line);
  std::uint64_t lineNumber() const { return lineNumber_; }  // of the last line, from 1
  std::uint64_t size() const { return size_; }              // bytes read so far
  // Goes back to where the file was opened. After a stop nothing more is read all the same.
  void rewind();

  bool good() const { return errorNumber_ == 0; }
  std::string error() const;

 private:
  bool waitForText();
  bool fail(int error);

  std::string name_ = "standard input";
  int descriptor_ = 0;
  bool owned_ = false;
  bool isFile_ = false;
  std::int64_t start_ = 0;  // of a file, where it was opened
  bool endsAtStop_ = false;
  std::optional<std::chrono::steady_clock::time_point> deadline_;  // of a stopped stream
  bool stopped_ = false;
  bool ended_ = false;
  int errorNumber_ = 0;

  std::vector<char> buffer_;
  std::size_t at_ = 0;   // the lines that were not handed out yet are
  std::size_t end_ = 0;  // buffer_[at_, end_)
  bool cut_ = false;     // what follows belongs to a line that came cut
  std::uint64_t lineNumber_ = 0;
  std::uint64_t size_ = 0;
};

}  // namespace tolvex
