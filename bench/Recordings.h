// What the recording benches share: the traffic, blocks that are written by hand, and reading back.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/Bench.h"
#include "tolvex/Mdf4.h"

namespace tolvex::bench {

inline constexpr std::uint64_t kStartTimeUs = 1'700'000'000'000'000;
inline constexpr std::uint64_t kPeriodUs = 10;          // between two frames or records
inline constexpr std::uint32_t kFrameRecordBytes = 23;  // a frame of 8 bytes in a bus log

// A classic CAN frame as its source has it.
struct PlainFrame {
  std::uint32_t id = 0;
  std::uint8_t busChannel = 0;
  std::uint8_t dlc = 0;
  std::uint8_t flags = 0;
  std::array<std::uint8_t, 8> payload = {};
};

// A frame's record by hand, the same bytes as the library's.
struct FrameRecord {
  std::array<std::uint8_t, kFrameRecordBytes> bytes;

  FrameRecord(const PlainFrame& frame, std::uint64_t timeUs) {
    const double seconds =
        (static_cast<double>(timeUs) - static_cast<double>(kStartTimeUs)) / 1'000'000;
    std::memcpy(bytes.data(), &seconds, sizeof seconds);
    bytes[8] = frame.busChannel;
    bytes[9] = frame.dlc;
    bytes[10] = frame.flags;
    std::memcpy(bytes.data() + 11, &frame.id, sizeof frame.id);
    std::memcpy(bytes.data() + 15, frame.payload.data(), frame.payload.size());
  }
};

// What a recording holds. The sum is over identifiers and payloads, in any order.
struct FrameCount {
  std::uint64_t frames = 0;
  std::uint64_t sum = 0;

  void add(std::uint32_t id, const std::uint8_t* payload);
  bool operator==(const FrameCount&) const = default;
};

// Received frames of 8 bytes from some buses in turns, without end: a few, over and over, so that
// finding them costs nothing.
class Traffic {
 public:
  explicit Traffic(std::uint8_t buses);

  const MdfCanMessage& message(std::uint64_t index) const { return messages_[index % kFrames]; }
  const PlainFrame& frame(std::uint64_t index) const { return frames_[index % kFrames]; }
  static std::uint64_t timeUs(std::uint64_t index) { return kStartTimeUs + index * kPeriodUs; }
  FrameCount first(std::uint64_t count) const;

 private:
  static constexpr std::uint64_t kFrames = 64;

  std::array<PlainFrame, kFrames> frames_;
  std::array<MdfCanMessage, kFrames> messages_;
};

// Records the traffic's first frames on the calling thread, through the plain functions, and gives
// the number of those that were saved.
std::uint64_t recordFrames(const std::string& path, const Traffic& traffic, std::uint64_t count);

// The frames that the library reads from the file.
FrameCount readBack(const std::string& path);

// Makes `path` free for a new file, so that emptying an old one is not measured.
void removeFile(const std::string& path);

// A file without structure; every write is one system call.
class PlainFile {
 public:
  explicit PlainFile(const std::string& path) : file_(std::fopen(path.c_str(), "wb")) {
    if (file_ != nullptr) std::setvbuf(file_.get(), nullptr, _IONBF, 0);
  }

  bool write(const std::uint8_t* bytes, std::size_t size) {
    return file_ != nullptr && std::fwrite(bytes, 1, size, file_.get()) == size;
  }

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  std::unique_ptr<std::FILE, Close> file_;
};

// Gathers records of `kRecordBytes` and writes them, behind `kHeaderBytes` of zeros, when there are
// 512. Borrows the file.
template <std::size_t kRecordBytes, std::size_t kHeaderBytes = 0>
class PlainBlocks {
 public:
  explicit PlainBlocks(PlainFile& file)
      : file_(&file), block_(kHeaderBytes + kRecords * kRecordBytes) {}

  // True unless the record could not be written.
  bool append(const void* record) {
    std::memcpy(block_.data() + used_, record, kRecordBytes);
    used_ += kRecordBytes;
    return used_ < block_.size() || flush();
  }
  bool flush() { return file_->write(block_.data(), std::exchange(used_, kHeaderBytes)); }

 private:
  static constexpr std::size_t kRecords = 512;

  PlainFile* file_;
  std::vector<std::uint8_t> block_;
  std::size_t used_ = kHeaderBytes;
};

}  // namespace tolvex::bench
