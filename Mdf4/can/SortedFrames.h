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
  // Wanted records that follow one another.
  struct Run {
    const std::uint8_t* first;
    std::size_t stride;
    std::size_t count;
    std::uint64_t number;  // of the first one
    std::size_t before;    // records in runs in front of it
  };
  // A record that can be read, and its time.
  struct Timed {
    std::uint64_t number;
    std::int64_t timeNs;
  };

  void seek(std::int64_t timeNs) override;
  bool collect() override;
  void drop(std::size_t count) override;
  void reorder(std::span<const std::size_t> order) override;
  void decode(std::size_t first, std::size_t count, MdfFrameBatch& out) override;
  std::uint64_t numberOf(std::size_t index) const override;

  std::optional<Timed> firstFrom(std::uint64_t record);
  std::uint64_t firstAt(std::int64_t timeNs);
  std::size_t runOf(std::size_t index) const;
  void addAll(std::size_t count);
  void addChosen(std::size_t count);
  void addRun(const Run& run);
  void keep();

  std::shared_ptr<RecordBatches> records_;
  std::unique_ptr<PayloadSource> payloads_;
  CanRecordDecoder decoder_;
  CanRecordColumns columns_;
  FrameTime time_;
  std::size_t size_;          // of a record
  RecordRows rows_ = {};      // read, and not looked at yet
  std::uint64_t number_ = 0;  // of the first of them
  std::size_t behind_ = 0;    // the last so many records were behind the range of times
  std::vector<Run> runs_;
  std::vector<std::uint8_t> kept_;
  std::vector<std::uint8_t> keptBefore_;
};

}  // namespace tolvex
