// Reads the CAN frames of the input in every way, with the reader's switches as the input says.
#include <type_traits>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "tolvex/Mdf4.h"

namespace tolvex::fuzz {
namespace {

// A byte of compressed records becomes up to a thousand frames: that is what compression is for,
// and no fault of the reader's.
constexpr std::size_t kMostFrames = 4000;
constexpr std::size_t kLongestPayload = 64;

bool isEnd(const MdfFrame& frame) {
  const auto* const message = std::get_if<std::shared_ptr<MdfCanMessage>>(&frame);
  return message != nullptr && *message == nullptr;
}

template <class Frame>
bool sameFrame(const Frame& a, const Frame& b) {
  if constexpr (std::is_same_v<Frame, MdfCanMessage>) {
    if (a.DataIndex() != b.DataIndex()) return false;
  }
  return a.Timestamp() == b.Timestamp() && a.BusChannel() == b.BusChannel() &&
         a.MessageId() == b.MessageId() && a.ExtendedId() == b.ExtendedId() && a.Dir() == b.Dir() &&
         a.Dlc() == b.Dlc() && a.Crc() == b.Crc() && a.DataBytes() == b.DataBytes();
}

bool same(const MdfFrame& a, const MdfFrame& b) {
  return std::visit(
      [](const auto& left, const auto& right) {
        if constexpr (!std::is_same_v<decltype(left), decltype(right)>) {
          return false;
        } else {
          return left == nullptr ? right == nullptr : right != nullptr && sameFrame(*left, *right);
        }
      },
      a, b);
}

std::vector<MdfFrame> take(MdfReader& reader, std::size_t most) {
  std::vector<MdfFrame> frames;
  while (frames.size() < most) {
    MdfFrame frame = reader.getNext();
    if (isEnd(frame)) break;
    if (const auto* const message = std::get_if<std::shared_ptr<MdfCanMessage>>(&frame)) {
      require((*message)->DataBytes().size() <= kLongestPayload, "a payload has up to 64 bytes");
      require((*message)->Dlc() <= 15, "a data length code has 4 bits");
    } else {
      require(std::get<1>(frame) != nullptr, "the end is an empty message");
    }
    frames.push_back(std::move(frame));
  }
  return frames;
}

// How many frames there still are, taken kind by kind.
std::size_t countByKind(MdfReader& reader, unsigned messagesAtATime) {
  std::size_t count = 0;
  while (count < kMostFrames) {
    const std::size_t messages = reader.getCanMessages(messagesAtATime).size();
    const bool error = reader.getCanError() != nullptr;
    if (messages == 0 && !error) break;
    count += messages + (error ? 1 : 0);
  }
  return count;
}

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex;
  using namespace tolvex::fuzz;
  const ByteSpan input(data, size);
  Numbers steering = steeringOf(input);
  const auto switches = steering.next<std::uint8_t>();
  const bool stopTimeFirst = steering.flag();
  const bool closed = steering.flag();
  const std::size_t beforeCopy = steering.next<std::uint8_t>();
  const unsigned messagesAtATime = 1U + steering.next<std::uint8_t>();
  const MemoryFile file(input);

  MdfReader reader(file.path());
  reader.setLoggerRules((switches & 4) != 0);
  const bool opened = reader.open();
  reader.setPayloadByDlc((switches & 1) != 0);
  reader.setRequireFields((switches & 2) != 0);
  if (stopTimeFirst) reader.getStopTime();
  take(reader, beforeCopy);

  MdfReader copy(reader);
  MdfReader assigned(copy);
  assigned.getNext();
  assigned = copy;
  const std::uint64_t stop = reader.getStopTime();
  const std::vector<MdfFrame> rest = take(reader, kMostFrames);
  require(opened || rest.empty(), "what is not open holds no frames");
  const std::vector<MdfFrame> again = take(copy, kMostFrames);
  require(rest.size() == again.size(), "a copy goes on with as many frames");
  for (std::size_t i = 0; i < rest.size(); ++i) {
    require(same(rest[i], again[i]), "a copy goes on with the same frames");
  }
  require(rest.size() == kMostFrames || countByKind(assigned, messagesAtATime) == rest.size(),
          "taken kind by kind, frames are as many");
  require(copy.getStopTime() == stop, "reading does not move the stop time");

  if (closed) {
    MdfReader late(file.path());
    static_cast<void>(late.open());
    late.getNext();
    late.close();
    take(late, kMostFrames);
    require(late.getStopTime() == 0, "a closed file has no stop time");
  }
  return 0;
}
