// Frames of an unsorted data group: records of several groups in one sequence, and the payloads of
// frames among them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Mdf4/can/BusLogGroups.h"
#include "Mdf4/can/FrameLane.h"
#include "Mdf4/model/ValueSource.h"

namespace tolvex {

// Items by ascending keys, which are mostly added behind all others and taken from the front.
template <class Item>
class KeyedQueue {
 public:
  bool empty() const { return first_ == items_.size(); }
  std::size_t size() const { return items_.size() - first_; }
  Item& front() { return items_[first_]; }
  std::span<Item> all() { return std::span(items_).subspan(first_); }

  void add(const Item& item) {
    if (empty() || !(item.key < items_.back().key)) {
      items_.push_back(item);
    } else {
      items_.insert(
          std::upper_bound(items_.begin() + first(), items_.end(), item.key,
                           [](std::uint64_t key, const Item& other) { return key < other.key; }),
          item);
    }
  }
  void popFront() {
    if (++first_ == items_.size()) {
      clear();
    } else if (first_ > kMostPopped && first_ > size()) {
      items_.erase(items_.begin(), items_.begin() + first());
      first_ = 0;
    }
  }
  // The first item with that key, or null.
  Item* find(std::uint64_t key) {
    const auto found = std::lower_bound(
        items_.begin() + first(), items_.end(), key,
        [](const Item& other, std::uint64_t wanted) { return other.key < wanted; });
    return found != items_.end() && found->key == key ? &*found : nullptr;
  }
  void erase(Item* item) {
    if (item == &front()) return popFront();
    items_.erase(items_.begin() + (item - items_.data()));
  }
  template <class Is>
  void eraseIf(Is is) {
    items_.erase(std::remove_if(items_.begin() + first(), items_.end(), is), items_.end());
    if (empty()) clear();
  }
  void clear() {
    items_.clear();
    first_ = 0;
  }

 private:
  static constexpr std::size_t kMostPopped = 64;

  std::ptrdiff_t first() const { return static_cast<std::ptrdiff_t>(first_); }

  std::vector<Item> items_;
  std::size_t first_ = 0;
};

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
    Source(const FrameSource& source, std::size_t size, std::size_t valueGroup,
           std::unique_ptr<ValueSource> lateValues)
        : decoder(source.layout, true, true),
          columns(decoder, size),
          time(source.time),
          recordSize(size),
          values(valueGroup),
          late(std::move(lateValues)) {}

    CanRecordDecoder decoder;
    CanRecordColumns columns;
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
    std::size_t entry;  // kNone: the frame is not wanted, its value nobody's any more
  };
  struct Values {
    bool areWanted = false;
    int id = -1;             // of a byte; -1: another one
    std::uint64_t next = 0;  // the key of the next one
    KeyedQueue<Value> unnamed;
    KeyedQueue<Wanted> wanted;
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
  void drop(std::size_t count) override;
  void reorder(std::span<const std::size_t> order) override;
  void decode(std::size_t first, std::size_t count, MdfFrameBatch& out) override;
  std::uint64_t numberOf(std::size_t index) const override { return entries_[index].number; }
  std::size_t complete(std::size_t count) override;

  bool readOn();
  const Kind* kindOf(const std::uint8_t* id);
  enum class Passed : std::uint8_t { Yes, NeedsMore, IsCutOff };
  Passed pass(const Kind& kind);
  void passUsual(std::size_t most);
  const std::uint8_t* passPairs(const Kind& kind, const std::uint8_t* at, const std::uint8_t* end,
                                std::size_t most);
  std::size_t sameSource(std::size_t first, std::size_t end) const;
  std::uint64_t keyOf(const Source& source, const std::uint8_t* record) const {
    return byOrder_ ? source.records : source.decoder.payloadOffset({record, source.recordSize});
  }
  void fillTimes();
  void fillTimes(std::size_t end);
  void addFrames(const Kind& kind, const std::uint8_t* record);
  void addValue(Values& values, const std::uint8_t* value, std::uint32_t length);
  void findPayload(Source& source, const std::uint8_t* record, FrameEntry* entry);
  void fetchLate(FrameEntry& entry, std::uint64_t key);
  void keepPending();
  void keepValues();
  void reportEnd();

  std::shared_ptr<SegmentTable> table_;
  m4DataStream stream_;
  const std::uint8_t idSize_;
  const bool byOrder_;
  std::vector<std::unique_ptr<Source>> sources_;
  std::vector<FrameEntry> entries_;
  std::vector<Values> values_;
  std::vector<Kind> kinds_;  // of ids that have no more bytes
  std::unordered_map<std::uint64_t, Kind> kindsByWideId_;
  ByteSpan view_ = {};          // of the sequence, from position_ on
  std::uint64_t position_ = 0;  // of the next record
  std::uint64_t needed_ = 0;    // bytes in the view, for that record
  std::size_t behind_ = 0;      // the last so many frames were behind the range of times
  std::vector<std::uint8_t> kept_;
  std::vector<std::uint8_t> keptBefore_;
  std::vector<std::uint8_t> keptValues_;
  std::vector<std::uint8_t> keptValuesBefore_;
  std::deque<std::vector<std::uint8_t>> fetched_;
  std::vector<std::uint8_t> scratch_;
};

}  // namespace tolvex
