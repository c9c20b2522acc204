// Many records at once into columns.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "Mdf4/can/CanRecordDecoder.h"
#include "Mdf4/can/CanRecordPlan.h"
#include "tolvex/MdfFrameReader.h"

namespace tolvex {

// Records at equal distances, and the times and the number in their group that they have.
struct FrameRows {
  const std::uint8_t* first = nullptr;
  std::size_t stride = 0;
  std::uint64_t number = 0;  // of the first; the others follow
  std::span<const std::int64_t> timesNs = {};
};

// A record of an unsorted group, with its payload when that lies outside.
struct FrameEntry {
  std::uint64_t number = 0;               // in its group
  const std::uint8_t* record = nullptr;   // without its id
  const std::uint8_t* payload = nullptr;  // null: there is none
  std::uint32_t payloadLength = 0;
  std::uint32_t source = 0;  // whose records its lane knows apart
};

// Appends to columns the frames that a decoder makes of the records of its group, one by one. For
// records as loggers write them it has a loop of its own. Borrows the decoder.
class CanRecordColumns {
 public:
  // Of records of `recordSize` bytes each.
  CanRecordColumns(const CanRecordDecoder& decoder, std::size_t recordSize);

  // Payloads outside of the records come from `payloads`, which may be null.
  void append(const FrameRows& rows, PayloadSource* payloads, MdfFrameBatch& out) const;
  // The entries have them.
  void append(std::span<const FrameEntry> entries, std::span<const std::int64_t> timesNs,
              MdfFrameBatch& out) const;

 private:
  static constexpr std::size_t kStretch = 128;  // records
  using CodedPayload = CanRecordPlan::CodedPayload;
  using StretchOfWords = std::array<std::uint64_t, kStretch>;

  class Writer;

  template <class Records>
  void appendAll(const Records& records, std::size_t count, MdfFrameBatch& out) const;
  template <class Records>
  void appendAny(const Records& records, std::size_t i, MdfFrameBatch& out) const;
  template <class Records>
  std::size_t appendUsual(Records records, std::size_t first, std::size_t count,
                          MdfFrameBatch& out) const;
  std::size_t takeCodes(std::span<const std::uint64_t> words, std::uint8_t* codes) const;
  bool takeIdsAndFlags(std::span<const StretchOfWords> words, std::size_t count,
                       MdfFrameBatch& out) const;
  template <class Records>
  void takePayloads(Records records, std::size_t first, ByteSpan codes, bool hasRemote,
                    MdfFrameBatch& out) const;
  template <class Records>
  std::size_t appendPayload(const Records& records, std::size_t i, std::uint16_t& flags,
                            std::uint8_t& dlc, std::uint8_t* to) const;
  static std::size_t putPayload(ByteSpan value, std::uint16_t& flags, std::uint8_t& dlc,
                                std::uint8_t* to);
  static std::size_t finishPayload(const CodedPayload& payload, std::uint16_t& flags,
                                   std::uint8_t& dlc, std::uint8_t* to);

  const CanRecordDecoder& decoder_;
  const std::size_t recordSize_;
  const CanRecordPlan plan_;
};

}  // namespace tolvex
