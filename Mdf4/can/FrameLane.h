// Frames of one sequence of records, in order of time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "Mdf4/can/CanRecordColumns.h"
#include "Mdf4/can/FrameChoice.h"
#include "Mdf4/can/FrameTime.h"
#include "Mdf4/format/DirectFile.h"

namespace tolvex {

// What all lanes of a file share.
struct LaneSettings {
  std::uint64_t startNs = 0;    // of the recording, to which times are added
  std::size_t held = 0;         // frames that are kept back, for earlier ones that come late
  std::uint64_t readAhead = 0;  // bytes
  std::int32_t dataGroup = 0;   // its index, for messages
};

// Goes along the records, finds those whose frames are wanted and puts them into order as far as
// its window allows. Records are decoded when their frames are taken; until then they stay where
// they were read to, and are copied only when that place is needed for others. Not synchronised.
class FrameLane {
 public:
  virtual ~FrameLane() = default;
  FrameLane(const FrameLane&) = delete;
  FrameLane& operator=(const FrameLane&) = delete;

  // Begins with the first frame of `choice`, which outlives that.
  void begin(const FrameChoice& choice);
  // The times of the next frames, some of them; none at the end.
  std::span<const std::int64_t> ready();
  // Decodes the next frames, as many of those that are ready.
  void append(std::size_t count, MdfFrameBatch& out);
  // The latest of all times: moves away from where the lane is.
  std::int64_t latest();

 protected:
  FrameLane(DirectFile& file, const LaneSettings& settings) : file_(file), settings_(settings) {}

  // Goes to the first record that may be of that time, or later; `kEnd`: that may be the latest.
  static constexpr std::int64_t kEnd = std::numeric_limits<std::int64_t>::max();
  virtual void seek(std::int64_t timeNs) = 0;
  // Adds some more records, and their times to times_; false at the end, when there may be some,
  // too.
  virtual bool collect() = 0;
  // Records stand in the order of times_. The first ones of them were taken; they are to stand in
  // the order that `order` names; `count` are to be decoded.
  virtual void drop(std::size_t count) = 0;
  virtual void reorder(std::span<const std::size_t> order) = 0;
  virtual void decode(std::size_t first, std::size_t count, MdfFrameBatch& out) = 0;
  // The number of a record in its group.
  virtual std::uint64_t numberOf(std::size_t index) const = 0;
  // How many of the first `count` may be taken.
  virtual std::size_t complete(std::size_t count) { return count; }

  bool isAtEnd() const { return atEnd_; }
  std::int64_t timeOf(const FrameTime& time, ByteSpan record) const {
    return static_cast<std::int64_t>(settings_.startNs + time.nearest(record));
  }

  DirectFile& file_;
  const LaneSettings settings_;
  const FrameChoice* choice_ = nullptr;
  std::vector<std::int64_t> times_;

 private:
  void refill();
  void sort(std::size_t ordered);
  void reportDisorder();
  void reportMissingPayload(const MdfFrameBatch& out, std::size_t first);

  std::size_t next_ = 0;   // of the frames, to be taken
  std::size_t ready_ = 0;  // those in front of it may be taken
  bool atEnd_ = false;
  bool reportedDisorder_ = false;
  bool reportedPayload_ = false;                                     // that one is missing
  std::int64_t takenNs_ = std::numeric_limits<std::int64_t>::min();  // of the last one taken
};

}  // namespace tolvex
