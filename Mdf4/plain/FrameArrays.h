// Frames from batches into the columns of a caller.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "Mdf4/base/Bytes.h"
#include "Mdf4/base/MemoryAhead.h"
#include "Mdf4/model/BusLogLayout.h"
#include "tolvex/MdfColumns.h"
#include "tolvex/MdfFrameReader.h"

namespace tolvex::plain {

// Copies frames behind one another. With more than one thread, another one gets the memory of many
// from the system meanwhile.
class FrameArrays {
 public:
  explicit FrameArrays(const tolvex_frame_arrays& to) : to_(to) {
    constexpr std::uint64_t kMany = 1 << 17;
    if (to_.offsets != nullptr) to_.offsets[0] = 0;
    if (to_.threads > 1 && to_.room >= kMany) ahead_.emplace(arrays(), to_.room);
  }

  std::uint64_t count() const { return count_; }
  // Those of the batch from `first` on, as far as there is room. Returns how many.
  std::size_t append(const MdfFrameBatch& from, std::size_t first) {
    const std::uint64_t most = std::min<std::uint64_t>(from.count - first, to_.room - count_);
    const auto count =
        static_cast<std::size_t>(to_.payloads == nullptr ? most : copyPayloads(from, first, most));
    put(to_.times, from.timeNs, first, count);
    put(to_.ids, from.id, first, count);
    put(to_.buses, from.bus, first, count);
    put(to_.flags, from.flags, first, count);
    put(to_.dlcs, from.dlc, first, count);
    put(to_.kinds, from.kind, first, count);
    put(to_.rows, from.record, first, count);
    count_ += count;
    if (ahead_) ahead_->setFilled(count_);
    return count;
  }

 private:
  template <class Value>
  void put(Value* to, const std::vector<Value>& from, std::size_t first, std::size_t count) const {
    if (to != nullptr) std::copy_n(from.data() + first, count, to + count_);
  }

  // Payloads and where they are, of at most `most` frames. Returns of how many there is room for.
  std::uint64_t copyPayloads(const MdfFrameBatch& from, std::size_t first, std::uint64_t most) {
    const std::int64_t* const offsets = from.offsets.data() + first;
    const std::uint64_t room = to_.payload_room - payloadBytes_;
    const std::int64_t start = offsets[0];
    const auto fits = [&](std::int64_t end) {
      return static_cast<std::uint64_t>(end - start) <= room;
    };
    const std::int64_t* const behind = std::partition_point(offsets + 1, offsets + 1 + most, fits);
    const auto count = static_cast<std::size_t>(behind - (offsets + 1));
    std::copy_n(from.bytes.data() + start, offsets[count] - start, to_.payloads + payloadBytes_);
    if (to_.offsets != nullptr) {
      std::int64_t* const ends = to_.offsets + count_ + 1;
      const std::int64_t shift = static_cast<std::int64_t>(payloadBytes_) - start;
      for (std::size_t i = 0; i < count; ++i) ends[i] = offsets[i + 1] + shift;
    }
    if (to_.lengths != nullptr) {
      std::uint8_t* const lengths = to_.lengths + count_;
      for (std::size_t i = 0; i < count; ++i) {
        lengths[i] = static_cast<std::uint8_t>(offsets[i + 1] - offsets[i]);
      }
    }
    payloadBytes_ += static_cast<std::uint64_t>(offsets[count] - start);
    return count;
  }

  // Those that the caller has; payloads at their mean length if all of their room is needed.
  std::vector<MemoryAhead::Array> arrays() const {
    std::vector<MemoryAhead::Array> found;
    const auto add = [&](auto* begin, std::size_t rowBytes) {
      if (begin != nullptr) found.push_back({begin, rowBytes});
    };
    add(to_.times, sizeof *to_.times);
    add(to_.ids, sizeof *to_.ids);
    add(to_.buses, sizeof *to_.buses);
    add(to_.flags, sizeof *to_.flags);
    add(to_.dlcs, sizeof *to_.dlcs);
    add(to_.kinds, sizeof *to_.kinds);
    add(to_.rows, sizeof *to_.rows);
    add(to_.offsets, sizeof *to_.offsets);
    add(to_.lengths, sizeof *to_.lengths);
    add(to_.payloads, inMemory(std::min<std::uint64_t>(to_.payload_room / to_.room, kMaxPayload)));
    return found;
  }

  const tolvex_frame_arrays to_;
  std::uint64_t count_ = 0;
  std::uint64_t payloadBytes_ = 0;
  std::optional<MemoryAhead> ahead_;
};

}  // namespace tolvex::plain
