#include "bench/Recordings.h"

#include <algorithm>
#include <filesystem>
#include <random>

#include "Mdf4/base/Bytes.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::bench {

void FrameCount::add(std::uint32_t id, const std::uint8_t* payload) {
  ++frames;
  sum += id ^ loadNumber<std::uint64_t>(payload);
}

Traffic::Traffic(std::uint8_t buses) {
  std::minstd_rand random(1);
  for (std::size_t i = 0; i < kFrames; ++i) {
    PlainFrame& frame = frames_[i];
    frame.id = 0x100 + static_cast<std::uint32_t>(7 * i);
    frame.busChannel = static_cast<std::uint8_t>(1 + random() % buses);
    frame.dlc = 8;
    std::generate(frame.payload.begin(), frame.payload.end(),
                  [&] { return static_cast<std::uint8_t>(random()); });
    MdfCanMessage& message = messages_[i];
    message.MessageId(frame.id);
    message.BusChannel(frame.busChannel);
    message.DataBytes({frame.payload.begin(), frame.payload.end()});
  }
}

FrameCount Traffic::first(std::uint64_t count) const {
  FrameCount result;
  for (std::uint64_t i = 0; i < count; ++i) result.add(frame(i).id, frame(i).payload.data());
  return result;
}

std::uint64_t recordFrames(const std::string& path, const Traffic& traffic, std::uint64_t count) {
  std::uint64_t saved = 0;
  void* const recorder = createRecorder(false);
  startRecord(recorder, path.c_str(), kStartTimeUs);
  for (std::uint64_t i = 0; i < count; ++i) {
    if (saveCanMessage(recorder, Traffic::timeUs(i), &traffic.message(i)) == 0) ++saved;
  }
  stopRecord(recorder, Traffic::timeUs(count));
  deleteRecorder(recorder);
  return saved;
}

FrameCount readBack(const std::string& path) {
  FrameCount result;
  MdfReader reader(path);
  if (!reader.open()) return result;
  while (const std::shared_ptr<MdfCanMessage> message = reader.getCanMessage()) {
    if (message->DataBytes().size() != sizeof(std::uint64_t)) break;
    result.add(message->MessageId(), message->DataBytes().data());
  }
  return result;
}

void removeFile(const std::string& path) {
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
}

}  // namespace tolvex::bench
