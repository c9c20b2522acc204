// Frames as text, against the same text written by hand from an array.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Mdf4/base/Bytes.h"
#include "bench/Bench.h"
#include "bench/Inputs.h"
#include "bench/ProgramRuns.h"

namespace tolvex::bench {
namespace {

struct TextFrame {
  std::int64_t timeNs;
  std::uint32_t id;
  std::uint8_t bus;
  std::uint8_t length;
  std::array<std::uint8_t, 8> payload;
};

std::vector<TextFrame> arrayOf(const RecordFile& input) {
  constexpr std::size_t kSize = 23;
  std::vector<TextFrame> frames;
  std::array<std::uint8_t, kSize> record;
  std::FILE* const file = std::fopen(input.plainPath.c_str(), "rb");
  while (file != nullptr && std::fread(record.data(), kSize, 1, file) == 1) {
    TextFrame& frame = frames.emplace_back();
    frame.timeNs = static_cast<std::int64_t>(loadNumber<double>(record.data()) * 1e9 + 0.5);
    frame.bus = static_cast<std::uint8_t>(record[8] - 1);
    frame.length = std::min<std::uint8_t>(record[9], 8);
    frame.id = loadNumber<std::uint32_t>(record.data() + 11);
    std::memcpy(frame.payload.data(), record.data() + 15, 8);
  }
  if (file != nullptr) std::fclose(file);
  return frames;
}

// Digits of `value`, with zeros in front up to `width`.
char* putPadded(char* at, std::uint64_t value, int base, std::ptrdiff_t width) {
  std::array<char, 24> digits;
  char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), value, base).ptr;
  for (std::ptrdiff_t missing = width - (end - digits.data()); missing > 0; --missing) *at++ = '0';
  for (const char* digit = digits.data(); digit != end; ++digit) {
    *at++ = *digit >= 'a' ? static_cast<char>(*digit - 'a' + 'A') : *digit;
  }
  return at;
}

Outcome writeByHand(const std::vector<TextFrame>& frames, const MemoryFile& out) {
  constexpr std::size_t kBuffer = 64 * 1024;
  constexpr std::ptrdiff_t kLongestLine = 128;
  std::FILE* const file = std::fopen(out.path().c_str(), "wb");
  if (file == nullptr) return {};
  const Outcome outcome = timed([&] {
    std::vector<char> buffer(kBuffer);
    char* at = buffer.data();
    for (const TextFrame& frame : frames) {
      if (buffer.data() + kBuffer - at < kLongestLine) {
        std::fwrite(buffer.data(), 1, static_cast<std::size_t>(at - buffer.data()), file);
        at = buffer.data();
      }
      const auto us = static_cast<std::uint64_t>(frame.timeNs + 500) / 1000;
      *at++ = '(';
      at = std::to_chars(at, at + 20, us / 1'000'000).ptr;
      *at++ = '.';
      at = putPadded(at, us % 1'000'000, 10, 6);
      at = std::copy_n(") can", 5, at);
      at = std::to_chars(at, at + 3, unsigned{frame.bus}).ptr;
      *at++ = ' ';
      at = putPadded(at, frame.id, 16, 3);
      *at++ = '#';
      for (std::size_t i = 0; i < frame.length; ++i) at = putPadded(at, frame.payload[i], 16, 2);
      *at++ = '\n';
    }
    std::fwrite(buffer.data(), 1, static_cast<std::size_t>(at - buffer.data()), file);
    std::fclose(file);
    return std::uint64_t{0};
  });
  return {outcome.seconds, out.contentSum()};
}

}  // namespace

void addCatBenches() {
  add("cat of frames / to_chars of an array", [](benchmark::State& state) {
    const RecordFile& input = inputs().frames(scaled(5'000'000));
    const std::vector<TextFrame> frames = arrayOf(input);
    const MemoryFile out;
    const Workload workload = {static_cast<double>(input.records),
                               static_cast<double>(input.bytes()), 1.5};
    compare(
        state, workload,
        [&] {
          return runProgramInto(out, {"cat", input.path});
        },
        [&] { return writeByHand(frames, out); });
  });
}

}  // namespace tolvex::bench
