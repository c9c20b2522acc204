// The frames of all bus-log groups of a file, merged by time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Mdf4/can/BusLogGroups.h"
#include "Mdf4/can/CanRecordDecoder.h"
#include "Mdf4/model/RecordCursor.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

// Payloads in a group's signal data.
class SignalData final : public PayloadSource {
 public:
  explicit SignalData(const m4DataStream& stream) : stream_(stream) {}

  // No frame is longer than kMaxPayload: one byte more shows that a value is.
  [[nodiscard]] bool read(std::uint64_t offset, std::vector<std::uint8_t>& out) override {
    return stream_.readValue(offset, out, kMaxPayload + 1);
  }

 private:
  m4DataStream stream_;
};

// Reads each group through its own stream, one record at a time, and decodes a record when it is
// its turn. A copy continues independently and shares no frame with its source. Borrows the
// reader's state.
class FrameMerge {
 public:
  FrameMerge() = default;
  FrameMerge(const FrameMerge& other);
  FrameMerge& operator=(const FrameMerge&) = delete;

  // Both throw when memory runs out, and may then be called again: no frame is lost.
  //
  // Opens the groups and reads their first frames; does nothing the second time.
  void initCanStream(ReaderState& state);
  // The frame with the smallest time, or an empty message pointer when there are no more.
  MdfFrame next();

  bool payloadByDlc = false;
  bool requireFields = false;
  std::shared_ptr<MdfCanMessage> stashedMessage;
  std::shared_ptr<MdfCanError> stashedError;

 private:
  struct Group {
    std::int32_t dg;
    RecordCursor records;
    std::shared_ptr<const CanRecordDecoder> decoder;
    FrameTime time;
    std::optional<SignalData> payloads;
    std::uint64_t nextIndex = 0;  // of the record behind `record`
    // The record that the heap's entry stands for: a view into `records`, in a copy into `copied`.
    ByteSpan record = {};
    std::uint64_t timestampNs = 0;
    std::vector<std::uint8_t> copied = {};
    bool reportedPayload = false;  // that one is missing
  };
  struct HeapEntry {
    std::int64_t timestampNs;
    std::size_t group;
    // The standard heap puts the greatest on top: that is the earliest.
    bool operator<(const HeapEntry& other) const { return timestampNs > other.timestampNs; }
  };

  void open(ReaderState& state, const MdfCNInfo& channel);
  void openAll(ReaderState& state);
  [[nodiscard]] static bool readStreamNextMsg(Group& group);
  MdfFrame giveFirst();
  void goOn();
  static void reportMissingPayload(Group& group);

  bool started_ = false;
  bool given_ = false;  // the frame of the heap's first entry was, and its group has yet to go on
  std::vector<Group> groups_;
  std::vector<HeapEntry> heap_;
};

}  // namespace tolvex
