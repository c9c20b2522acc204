// Frames of a group that has its data group's records for itself.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Mdf4/can/BusLogGroups.h"
#include "Mdf4/can/FrameLane.h"
#include "Mdf4/model/RecordBatches.h"

namespace tolvex {

class SortedFrames final : public FrameLane {
 public:
  // `payloads` may be null, where there are none outside of the records.
  SortedFrames(DirectFile& file, const LaneSettings& settings, const FrameSource& source,
               std::shared_ptr<RecordBatches> records, std::size_t recordSize,
               std::unique_ptr<PayloadSource> payloads);

 private:
  void seek(std::int64_t timeNs) override;
  bool collect() override;
  void decode(std::span<const FrameEntry> entries, MdfFrameBatch& out) override;
  std::size_t recordSize(const FrameEntry& /*entry*/) const override { return size_; }

  // A record that can be read, and its time.
  struct Timed {
    std::uint64_t number;
    std::int64_t timeNs;
  };
  std::optional<Timed> firstFrom(std::uint64_t record);
  std::uint64_t firstAt(std::int64_t timeNs);
  void add(std::size_t count);

  std::shared_ptr<RecordBatches> records_;
  std::unique_ptr<PayloadSource> payloads_;
  CanRecordDecoder decoder_;
  FrameTime time_;
  std::size_t size_;          // of a record
  RecordRows rows_ = {};      // read, and not looked at yet
  std::uint64_t number_ = 0;  // of the first of them
  std::size_t behind_ = 0;    // the last so many records were behind the range of times
  std::vector<std::int64_t> times_;
};

}  // namespace tolvex
