// Reads the CAN frames of the input in batches, chosen as the input says.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "tolvex/MdfFrameReader.h"

namespace tolvex::fuzz {
namespace {

// A byte of compressed records becomes up to a thousand frames.
constexpr std::size_t kMostFrames = 4000;

struct Frame {
  std::int64_t timeNs;
  std::uint64_t record;
  std::uint32_t id;
  std::uint16_t bus;
  std::uint16_t flags;
  MdfFrameKind kind;
  std::uint8_t dlc;
  bool isError;
  std::vector<std::uint8_t> payload;

  explicit Frame(const MdfFrameView& view)
      : timeNs(view.timeNs),
        record(view.record),
        id(view.id),
        bus(view.bus),
        flags(view.flags),
        kind(view.kind),
        dlc(view.dlc),
        isError(view.error != nullptr),
        payload(view.data, view.data + view.length) {}
  bool operator==(const Frame&) const = default;
};
using Frames = std::vector<Frame>;

// One by one.
Frames loopOver(MdfFrameReader& reader, const MdfFrameFilter& filter, std::size_t most) {
  Frames frames;
  for (const MdfFrameView& view : reader.frames(filter)) {
    frames.emplace_back(view);
    const Frame& frame = frames.back();
    require(frame.payload.size() <= 64, "a payload has up to 64 bytes");
    require(frame.isError == (frame.kind >= MdfFrameKind::Error), "errors have their fields");
    require(!view.isPayloadMissing() || frame.payload.empty(), "a lost payload is empty");
    if (frames.size() == most) break;
  }
  return frames;
}

Frames takeBatches(MdfFrameReader& reader, const MdfFrameFilter& filter, std::size_t atATime) {
  Frames frames;
  MdfFrameBatch batch;
  reader.select(filter);
  while (frames.size() < kMostFrames && reader.next(batch, atATime)) {
    require(batch.count <= atATime, "a batch has as many frames as were asked for");
    for (std::size_t i = 0; i < batch.count; ++i) frames.emplace_back(batch.at(i));
  }
  return frames;
}

bool contains(const std::vector<std::uint32_t>& some, std::uint32_t one) {
  return some.empty() || std::ranges::find(some, one) != some.end();
}

// With fewer frames to wait for, more of them may come into order than when all are read.
void choose(MdfFrameReader& reader, const Frames& all, bool isOrdered, Numbers& steering) {
  if (all.empty()) return;
  const Frame& first = all[steering.next<std::uint8_t>() % all.size()];
  const Frame& second = all[steering.next<std::uint8_t>() % all.size()];
  MdfFrameFilter filter;
  filter.ids = {first.id, second.id};
  if (steering.flag()) filter.buses = {first.bus};
  Frames wanted;
  std::ranges::copy_if(all, std::back_inserter(wanted), [&](const Frame& frame) {
    return contains(filter.ids, frame.id) && (filter.buses.empty() || frame.bus == first.bus);
  });
  const Frames chosen = loopOver(reader, filter, kMostFrames);
  require(isOrdered ? chosen == wanted : chosen.size() == wanted.size(),
          "frames are those that are wanted");
  filter.startNs = std::min(first.timeNs, second.timeNs);
  filter.endNs = std::max(first.timeNs, second.timeNs);
  for (const Frame& frame : loopOver(reader, filter, kMostFrames)) {
    require(frame.timeNs >= filter.startNs && frame.timeNs < filter.endNs, "times are of a range");
    require(std::ranges::find(wanted, frame) != wanted.end(), "a range has no frames of its own");
  }
}

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex;
  using namespace tolvex::fuzz;
  const ByteSpan input(data, size);
  Numbers steering = steeringOf(input);
  const std::size_t atATime = 1U + steering.next<std::uint8_t>();
  const std::size_t before = steering.next<std::uint8_t>();
  const MemoryFile file(input);

  MdfFrameReader reader(file.path());
  if (!reader.open()) {
    require(!reader.error().empty(), "what cannot be opened is told");
    require(takeBatches(reader, {}, atATime).empty(), "what is not open holds no frames");
    return 0;
  }
  loopOver(reader, {}, 1 + before);
  const Frames all = loopOver(reader, {}, kMostFrames);
  const Frames batches = takeBatches(reader, {}, atATime);
  const std::size_t count = std::min(all.size(), batches.size());
  require(
      std::equal(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count), batches.begin()),
      "batches hold the same frames");
  if (all.size() == kMostFrames) return 0;
  require(batches.size() == all.size(), "batches hold as many frames");
  const bool isOrdered = std::ranges::none_of(reader.problems(), [](const std::string& problem) {
    return problem.ends_with("such frames are not in order");
  });
  require(!isOrdered || std::ranges::is_sorted(all, {}, &Frame::timeNs),
          "what is not in order is told");
  choose(reader, all, isOrdered, steering);
  std::int64_t firstNs = 0;
  std::int64_t lastNs = 0;
  require(reader.timeRange(firstNs, lastNs) == !all.empty(), "frames have a range of times");
  MdfFrameReader twice(std::vector<std::string>{file.path(), file.path()});
  if (steering.flag() && twice.open()) {
    require(takeBatches(twice, {}, atATime).size() >= std::min(2 * all.size(), kMostFrames),
            "a file named twice has twice the frames");
  }
  return 0;
}
