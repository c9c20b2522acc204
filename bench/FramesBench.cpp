// CAN frames one by one, against reading and parsing the same records by hand.
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "Mdf4/base/Bytes.h"
#include "bench/Bench.h"
#include "bench/Inputs.h"
#include "tolvex/Mdf4.h"

namespace tolvex::bench {
namespace {

std::uint64_t firstWord(const std::vector<std::uint8_t>& payload) {
  return payload.size() < sizeof(std::uint64_t) ? 0 : loadNumber<std::uint64_t>(payload.data());
}

// Opening included.
std::uint64_t readWithLibrary(const RecordFile& input) {
  MdfReader reader(input.path);
  if (!reader.open()) return 0;
  std::uint64_t sum = 0;
  for (;;) {
    const MdfFrame frame = reader.getNext();
    const auto* const message = std::get_if<std::shared_ptr<MdfCanMessage>>(&frame);
    if (message == nullptr || *message == nullptr) return sum;
    sum += (*message)->Timestamp() ^ (*message)->MessageId() ^ (*message)->BusChannel() ^
           firstWord((*message)->DataBytes());
  }
}

struct PlainFrame {
  std::uint64_t timeNs = 0;
  std::uint64_t index = 0;
  std::uint32_t id = 0;
  std::uint8_t channel = 0;
  std::uint8_t dlc = 0;
  std::uint8_t flags = 0;
  std::vector<std::uint8_t> payload;
};

std::shared_ptr<PlainFrame> parse(ByteSpan record, std::uint64_t index) {
  auto frame = std::make_shared<PlainFrame>();
  frame->timeNs = static_cast<std::uint64_t>(loadNumber<double>(record.data()) * 1e9 + 0.5);
  frame->index = index;
  frame->channel = static_cast<std::uint8_t>(record[8] - 1);
  frame->dlc = record[9];
  frame->flags = record[10];
  frame->id = loadNumber<std::uint32_t>(record.data() + 11);
  frame->payload.assign(record.begin() + 15, record.end());
  return frame;
}

std::uint64_t readByHand(const RecordFile& input) {
  std::array<std::uint8_t, 64 * 1024> buffer;
  std::FILE* const file = std::fopen(input.plainPath.c_str(), "rb");
  if (file == nullptr) return 0;
  std::uint64_t sum = 0;
  std::uint64_t index = 0;
  std::size_t kept = 0;  // bytes of a record that the next piece completes
  for (;;) {
    const std::size_t got = std::fread(buffer.data() + kept, 1, buffer.size() - kept, file);
    if (got == 0) break;
    const std::size_t filled = kept + got;
    std::size_t at = 0;
    for (; filled - at >= input.recordSize; at += input.recordSize) {
      const std::shared_ptr<PlainFrame> frame =
          parse({buffer.data() + at, input.recordSize}, index++);
      sum += frame->timeNs ^ frame->id ^ frame->channel ^ firstWord(frame->payload);
    }
    kept = filled - at;
    std::memmove(buffer.data(), buffer.data() + at, kept);
  }
  std::fclose(file);
  return sum;
}

}  // namespace

void addFrameBenches() {
  add("frames one by one: getNext / parsing by hand", [](benchmark::State& state) {
    const RecordFile& input = inputs().frames(scaled(5'000'000));
    const Workload workload = {static_cast<double>(input.records),
                               static_cast<double>(input.bytes()), 1.2};
    compare(
        state, workload, [&] { return timed([&] { return readWithLibrary(input); }); },
        [&] { return timed([&] { return readByHand(input); }); });
  });
}

}  // namespace tolvex::bench
