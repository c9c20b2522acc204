// Frames are kept for as long as the host likes, on any thread.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/FileBuilder.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

using Message = std::shared_ptr<MdfCanMessage>;

constexpr std::uint64_t kFrames = 2000;

Bytes payloadOf(std::uint64_t index) {
  return packed(index * 0x0101'0101'0101);
}

std::string busLog(FileBuilder& file) {
  std::vector<Bytes> records;
  for (std::uint64_t i = 0; i < kFrames; ++i) {
    records.push_back(busRecord(dataFrames(), static_cast<double>(i),
                                {{"BusChannel", 1}, {"ID", i}, {"DLC", 8}}, payloadOf(i)));
  }
  file.busLog(dataFrames(), records);
  return file.write();
}

// Everything of the frame is as its record has it, or as in a new one.
bool isAsRecorded(const MdfCanMessage& frame) {
  return frame.Timestamp() == frame.DataIndex() * 1'000'000'000 &&
         frame.CanId() == frame.DataIndex() && frame.DataBytes() == payloadOf(frame.DataIndex()) &&
         frame.Dlc() == 8 && frame.BusChannel() == 0 && !frame.PayloadMissing() && !frame.Dir() &&
         frame.BitPosition() == 0 && frame.ErrorType() == CanErrorType::Unknown &&
         frame.TimeOffsetBRS() == 0 && frame.TimeOffsetCRCDel() == 0 && frame.Crc() == 0 &&
         frame.BtrExtCfg() == 0;
}

// What may not be seen in the next frame when this one is gone.
void scribble(MdfCanMessage& frame) {
  frame.DataBytes(Bytes(64, 0xEE));
  frame.Dir(true);
  frame.BitPosition(1);
  frame.ErrorType(CanErrorType::Form);
  frame.TimeOffsetBRS(2);
  frame.TimeOffsetCRCDel(3);
  frame.Crc(4);
  frame.BtrExtCfg(5);
}

// Frames on their way from one thread to another.
class Exchange {
 public:
  void put(Message frame) {
    const std::lock_guard lock(mutex_);
    frames_.push_back(std::move(frame));
  }
  std::vector<Message> takeAll() {
    const std::lock_guard lock(mutex_);
    return std::exchange(frames_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<Message> frames_;
};

// Reads the file and gives half of the frames away. False when one is not what was recorded.
bool readAndShare(const std::string& path, Exchange& exchange) {
  static thread_local Message last;  // goes with the thread, behind what the library has in it
  MdfReader reader(path);
  bool sound = reader.open();
  std::uint64_t count = 0;
  std::weak_ptr<MdfCanMessage> gone;
  while (Message frame = reader.getCanMessage()) {
    sound = sound && isAsRecorded(*frame) && gone.expired();
    if (++count % 2 == 0) {
      exchange.put(std::move(frame));
      for (const Message& other : exchange.takeAll()) {
        sound = sound && isAsRecorded(*other);
        if (other->DataIndex() % 16 == 1) exchange.put(other);
      }
    } else {
      scribble(*frame);
      gone = last;
      last = std::move(frame);
    }
  }
  return sound && count == kFrames;
}

TEST(FramePool, FramesOutliveReadersAndThreadsAndAreNewEachTime) {
  FileBuilder file;
  const std::string path = busLog(file);
  Exchange exchange;
  for (int round = 0; round < 3; ++round) {
    std::vector<std::thread> threads;
    bool sound[3] = {};
    for (bool& result : sound) {
      threads.emplace_back([&] { result = readAndShare(path, exchange); });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(sound[0] && sound[1] && sound[2]);
    for (const Message& frame : exchange.takeAll()) EXPECT_TRUE(isAsRecorded(*frame));
  }
}

}  // namespace
}  // namespace tolvex::test
