// Parses lines of a can-utils log: what is a frame keeps within the limits of one, and the line
// that states the same frame reads as the same.
#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include "fuzz/FuzzInput.h"
#include "tools/tolvex/CandumpLine.h"

namespace tolvex::fuzz {
namespace {

// A line of text under construction.
class Line {
 public:
  void put(char character) { text_[size_++] = character; }
  void put(std::string_view text) {
    std::copy(text.begin(), text.end(), text_.data() + size_);
    size_ += text.size();
  }
  void putDecimal(std::uint64_t number, int digits) {
    for (int i = digits - 1; i >= 0; --i, number /= 10) {
      text_[size_ + static_cast<std::size_t>(i)] = static_cast<char>('0' + number % 10);
    }
    size_ += static_cast<std::size_t>(digits);
  }
  void putHex(std::uint32_t number, int digits) {
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) {
      put("0123456789ABCDEF"[number >> shift & 0xF]);
    }
  }
  std::string_view text() const { return {text_.data(), size_}; }

 private:
  std::array<char, 4096> text_;
  std::size_t size_ = 0;
};

Line lineOf(const CandumpLine& frame) {
  constexpr std::uint32_t kErrorFrame = 0x20000000;
  Line line;
  line.put('(');
  line.putDecimal(frame.timeUs / 1'000'000, 10);
  line.put('.');
  line.putDecimal(frame.timeUs % 1'000'000, 6);
  line.put(") ");
  line.put(frame.interface);
  line.put(' ');
  const bool isLong = frame.extended || frame.error;
  line.putHex(frame.error ? frame.id | kErrorFrame : frame.id, isLong ? 8 : 3);
  line.put('#');
  if (frame.remote) {
    line.put('R');
    if (frame.dlc > 0) line.putHex(std::min<std::uint32_t>(frame.dlc, 8), 1);
  } else if (frame.fd) {
    line.put('#');
    line.putHex((frame.brs ? 1U : 0U) | (frame.esi ? 2U : 0U), 1);
  }
  for (std::size_t i = 0; i < frame.length; ++i) line.putHex(frame.data[i], 2);
  if (frame.dlc > 8) {
    line.put('_');
    line.putHex(frame.dlc, 1);
  }
  if (frame.transmitted) line.put(" T");
  return line;
}

bool same(const CandumpLine& a, const CandumpLine& b) {
  return a.timeUs == b.timeUs && a.interface == b.interface && a.id == b.id &&
         a.extended == b.extended && a.error == b.error && a.remote == b.remote && a.fd == b.fd &&
         a.brs == b.brs && a.esi == b.esi && a.transmitted == b.transmitted && a.dlc == b.dlc &&
         a.length == b.length &&
         std::equal(a.data.begin(), a.data.begin() + a.length, b.data.begin());
}

void checkLine(std::string_view text, CandumpLine& frame) {
  constexpr std::size_t kLongestInterface = 3000;
  if (const auto fault = parseCandumpLine(text, frame)) {
    require(fault->at <= text.size() && fault->expected != nullptr, "a fault lies in the line");
    return;
  }
  require(frame.length <= (frame.fd ? 64 : 8), "a frame has as many bytes as its kind can");
  require(frame.id <= (frame.extended || frame.error ? 0x1FFFFFFF : 0x7FF), "an identifier fits");
  require(!frame.remote || (frame.length == 0 && !frame.fd), "a remote frame has no bytes");
  require(frame.dlc == 0 || frame.remote || (frame.dlc > 8 && frame.length == 8),
          "only frames of 8 bytes have another code");
  require(frame.timeUs / 1'000'000 < 10'000'000'000, "a time is before the year 2262");
  if (frame.interface.size() > kLongestInterface) return;
  CandumpLine again;
  const Line line = lineOf(frame);
  require(!parseCandumpLine(line.text(), again) && same(frame, again),
          "the same frame is read from the line that states it");
}

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex;
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  CandumpLine frame;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    fuzz::checkLine(rest.substr(0, end), frame);
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return 0;
}
