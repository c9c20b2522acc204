// CAN frames by column, on their way into a recording.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Mdf4/base/Bytes.h"
#include "Mdf4/can/DataFramePacking.h"
#include "Mdf4/model/BusLogLayout.h"
#include "tolvex/MdfColumns.h"
#include "tolvex/MdfFrames.h"

namespace tolvex {

// A batch as a caller hands it over, and what a record takes of each frame. Before anything else is
// asked, fault() must have found none. Borrows the columns.
class FramesToSave {
 public:
  explicit FramesToSave(const tolvex_frame_batch& batch) : batch_(batch) {}

  struct Limits {
    std::uint64_t startTimeUs = 0;  // of the recording
    std::uint32_t maxPayload = 0;   // of a data frame, bytes
  };
  // What in them no record can hold as it is, or what contradicts itself; "" when there is nothing.
  std::string fault(const Limits& limits) const;

  std::size_t count() const { return static_cast<std::size_t>(batch_.count); }
  bool isError(std::size_t i) const { return kindOf(i) >= TOLVEX_FRAME_ERROR; }
  bool isFdError(std::size_t i) const { return kindOf(i) == TOLVEX_FRAME_FD_ERROR; }
  std::uint8_t bus(std::size_t i) const {
    return batch_.buses == nullptr ? 1 : static_cast<std::uint8_t>(batch_.buses[i]);
  }
  bool isTransmitted(std::size_t i) const {
    if (batch_.directions != nullptr) return batch_.directions[i] != 0;
    return batch_.flags != nullptr && (batch_.flags[i] & TOLVEX_FRAME_TRANSMITTED) != 0;
  }
  std::uint64_t timestampUs(std::size_t i) const {
    return static_cast<std::uint64_t>(batch_.times[i]) / kNsPerUs;
  }
  // As exact as a record's time can be: it reads back as the same nanoseconds within 26 days.
  double secondsSince(std::uint64_t startTimeUs, std::size_t i) const {
    return static_cast<double>(batch_.times[i] -
                               static_cast<std::int64_t>(startTimeUs * kNsPerUs)) /
           kNsPerSecond;
  }

  // Writes every byte of the record of a data or remote frame.
  void pack(std::uint8_t* record, double seconds, std::size_t i, std::size_t payloadSize) const {
    DataFramePacking::pack(record, seconds, {idOf(i), bus(i), dlcOf(i), recordFlags(i)},
                           payloadOf(i), payloadSize);
  }
  // The same of an error frame, into a record of its kind.
  [[nodiscard]] bool packError(RecordData& record, double seconds, std::size_t i) const;

 private:
  static constexpr std::uint64_t kNsPerUs = 1000;
  static constexpr double kNsPerSecond = 1e9;
  static constexpr std::uint32_t kExtendedBit = 0x80000000;
  static constexpr std::uint32_t kMaxStandardId = 0x7FF;

  bool isUsual(std::size_t i, const Limits& limits) const;
  std::string faultOf(std::size_t i, const Limits& limits) const;
  std::string faultOfData(std::size_t i, const Limits& limits) const;
  std::string faultOfError(std::size_t i) const;
  std::string faultOfColumns() const;
  tolvex_frame_error errorOf(std::size_t i) const;

  unsigned kindOf(std::size_t i) const {
    return batch_.kinds == nullptr ? unsigned{TOLVEX_FRAME_DATA} : batch_.kinds[i];
  }
  std::size_t lengthOf(std::size_t i) const {
    return static_cast<std::size_t>(batch_.offsets[i + 1] - batch_.offsets[i]);
  }
  ByteSpan payloadOf(std::size_t i) const {
    if (batch_.payloads == nullptr) return {};
    return {batch_.payloads + batch_.offsets[i], lengthOf(i)};
  }
  std::uint8_t dlcOf(std::size_t i) const {
    return batch_.dlcs == nullptr ? lengthToDlc(lengthOf(i)) : batch_.dlcs[i];
  }
  // Of TOLVEX_FRAME_..., as they are given or meant.
  unsigned flagsOf(std::size_t i) const {
    if (batch_.flags != nullptr) return batch_.flags[i];
    return (lengthOf(i) > kMaxClassicPayload ? unsigned{TOLVEX_FRAME_FD} : 0U) |
           (batch_.ids[i] > kMaxStandardId ? unsigned{TOLVEX_FRAME_EXTENDED} : 0U);
  }
  bool isExtended(std::size_t i) const { return (flagsOf(i) & TOLVEX_FRAME_EXTENDED) != 0; }
  std::uint32_t idOf(std::size_t i) const {
    return batch_.ids[i] | (isExtended(i) ? kExtendedBit : 0U);
  }
  // The flags byte. The channels of a record name two of its bits the other way round.
  std::uint8_t recordFlags(std::size_t i) const {
    constexpr unsigned kOthers = 0x9E;
    const unsigned flags = flagsOf(i);
    const bool isRemote = kindOf(i) == TOLVEX_FRAME_REMOTE;
    return static_cast<std::uint8_t>(
        (flags & kOthers) | (isTransmitted(i) ? unsigned{TOLVEX_FRAME_TRANSMITTED} : 0U) |
        (flags & TOLVEX_FRAME_WAKE_UP) << 1 | (flags & TOLVEX_FRAME_SINGLE_WIRE) >> 1 |
        (isRemote ? unsigned{TOLVEX_FRAME_RTR} : 0U));
  }

  const tolvex_frame_batch batch_;
};

}  // namespace tolvex
