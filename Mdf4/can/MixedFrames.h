// Frames of an unsorted data group: records of several groups in one sequence, and the payloads of
// frames among them.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "Mdf4/can/BusLogGroups.h"
#include "Mdf4/can/FrameLane.h"
#include "Mdf4/model/ValueSource.h"

namespace tolvex {

// Goes along the sequence once, front to back. A payload is found by its place among the values of
// its group, mostly close to its frame: in front of it or behind it.
class MixedFrames final : public FrameLane {
 public:
  static constexpr std::size_t kNone = ~std::size_t{0};

  struct Frames {
    FrameSource source;
    std::size_t values = kNone;         // the group with its payloads
    std::unique_ptr<ValueSource> late;  // the same values, by their offsets; null: not so
  };
  struct Group {
    std::uint64_t recordId = 0;
    std::uint64_t recordSize = 0;  // without the id
    bool holdsValues = false;
    std::vector<Frames> frames;  // that its records hold: mostly one, or none
  };
  // With `byOrder` the records' offsets mean nothing: each frame has the next value.
  MixedFrames(DirectFile& file, const LaneSettings& settings, std::shared_ptr<SegmentTable> table,
              std::uint8_t recordIdSize, std::vector<Group> groups, bool byOrder);

 private:
  static constexpr std::uint64_t kMostOfValue = kMaxPayload + 1;  // bytes that are looked at

  struct Source {
    CanRecordDecoder decoder;
    FrameTime time;
    std::size_t recordSize;
    std::size_t values;
    std::unique_ptr<ValueSource> late;
    std::uint64_t records = 0;  // so far
  };
  // A value that no frame has named yet, and a frame whose value is still to come.
  struct Value {
    std::uint64_t key;  // its offset, or its number
    const std::uint8_t* bytes;
    std::uint32_t length;  // at most kMostOfValue
  };
  struct Wanted {
    std::uint64_t key;
    std::uint64_t number;  // of the frame's record
    std::size_t entry;     // kNone: the frame is not wanted, its value nobody's any more
    std::uint32_t source;
  };
  struct Values {
    bool areWanted = false;
    std::uint64_t next = 0;  // the key of the next one
    std::deque<Value> unnamed;
    std::deque<Wanted> wanted;  // by their keys
  };
  // What an id stands for.
  struct Kind {
    std::uint64_t recordSize = 0;
    std::uint32_t firstSource = 0;
    std::uint32_t sources = 0;
    std::uint32_t values = 0;  // of Values
    bool holdsValues = false;
    bool isKnown = false;
  };

  void seek(std::int64_t timeNs) override;
  bool collect() override;
  void decode(std::span<const FrameEntry> entries, MdfFrameBatch& out) override;
  std::size_t recordSize(const FrameEntry& entry) const override {
    return sources_[entry.source].recordSize;
  }
  void moved(std::size_t dropped, bool sorted) override;
  std::size_t complete(std::size_t count) override;

  bool readOn();
  const Kind* kindOf(const std::uint8_t* id);
  enum class Passed : std::uint8_t { Yes, NeedsMore, IsCutOff };
  Passed pass(const Kind& kind);
  void addFrames(const Kind& kind, const std::uint8_t* record);
  void addValue(Values& values, const std::uint8_t* value, std::uint32_t length);
  void findPayload(Source& source, std::uint32_t index, const std::uint8_t* record,
                   FrameEntry* entry);
  void fetchLate(FrameEntry& entry, std::uint64_t key);
  void keepValues();
  void reportEnd();

  std::shared_ptr<SegmentTable> table_;
  m4DataStream stream_;
  const std::uint8_t idSize_;
  const bool byOrder_;
  std::vector<Source> sources_;
  std::vector<Values> values_;
  std::vector<Kind> kinds_;  // of ids that have no more bytes
  std::unordered_map<std::uint64_t, Kind> kindsByWideId_;
  ByteSpan view_ = {};          // of the sequence, from position_ on
  std::uint64_t position_ = 0;  // of the next record
  std::uint64_t needed_ = 0;    // bytes in the view, for that record
  std::size_t behind_ = 0;      // the last so many frames were behind the range of times
  std::vector<std::uint8_t> keptValues_;
  std::vector<std::uint8_t> keptValuesBefore_;
  std::deque<std::vector<std::uint8_t>> fetched_;
  std::vector<std::uint8_t> scratch_;
};

}  // namespace tolvex
