// Takes the input's lines out of a file and out of a pipe, from which they come in pieces, and
// holds them against the input.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "tools/tolvex/LineInput.h"

namespace tolvex::fuzz {
namespace {

constexpr std::size_t kMostInPipe = 4096;  // bytes; each piece is taken before the next one comes

std::vector<std::string_view> linesOf(std::string_view text, std::size_t longest) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.push_back(text.substr(0, std::min(end, longest)));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

// Takes the lines that are there, and holds them against those from lineNumber() on.
void take(LineInput& input, const std::vector<std::string_view>& expected) {
  std::string_view line;
  while (input.next(line)) {
    const std::uint64_t number = input.lineNumber();
    require(number >= 1 && number <= expected.size(), "there are as many lines as in the text");
    require(line == expected[number - 1], "a line is as it stands in the text");
  }
}

void readFile(std::string_view text, std::size_t longest, bool twice) {
  const std::vector<std::string_view> expected = linesOf(text, longest);
  const MemoryFile file({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  LineInput input(longest);
  require(input.open(file.path()) && input.isFile(), "a file in memory opens");
  for (int time = 0; time < (twice ? 2 : 1); ++time) {
    while (input.read()) take(input, expected);
    require(input.good() && input.lineNumber() == expected.size(), "all lines come");
    require(input.size() == text.size(), "all bytes are counted");
    if (time == 0 && twice) input.rewind();
  }
}

void readPipe(std::string_view text, std::size_t longest, std::size_t piece) {
  const std::vector<std::string_view> expected = linesOf(text, longest);
  int ends[2];
  require(::pipe2(ends, O_CLOEXEC) == 0, "there are descriptors for a pipe");
  LineInput input(longest);
  require(input.open("/proc/self/fd/" + std::to_string(ends[0])) && !input.isFile(),
          "a pipe opens");
  ::close(ends[0]);
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = std::min(piece, text.size() - at);
    require(::write(ends[1], text.data() + at, size) == static_cast<ssize_t>(size),
            "a pipe has room for a piece");
    for (at += size; input.size() < at;) {
      require(input.read(), "what is in the pipe is read");
      take(input, expected);
    }
  }
  ::close(ends[1]);
  while (input.read()) take(input, expected);
  require(input.good() && input.lineNumber() == expected.size(), "all lines come");
}

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex::fuzz;
  Numbers steering({data, size});
  const std::size_t longest = 1U + steering.next<std::uint8_t>();
  const std::size_t piece = 1U + steering.next<std::uint16_t>() % kMostInPipe;
  const bool twice = steering.flag();
  const std::string_view text(reinterpret_cast<const char*>(steering.rest().data()),
                              steering.rest().size());
  readFile(text, longest, twice);
  if (text.size() / piece < 64) readPipe(text, longest, piece);
  return 0;
}
