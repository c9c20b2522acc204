// Many records at once into columns.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "Mdf4/can/CanRecordDecoder.h"
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
  static constexpr std::uint32_t kNotYet = ~std::uint32_t{0};

  std::uint64_t number = 0;               // in its group
  const std::uint8_t* record = nullptr;   // without its id
  const std::uint8_t* payload = nullptr;  // null: there is none
  std::uint32_t payloadLength = 0;        // kNotYet: it is still to come
  std::uint32_t source = 0;               // whose records its lane knows apart
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
  // A number that one load of eight bytes gets, anywhere in the record.
  struct Load {
    std::uint64_t byte = 0;
    unsigned shift = 0;
    std::uint64_t mask = 0;
    std::uint64_t constant = 0;

    std::uint64_t operator()(const std::uint8_t* record) const {
      return (loadNumber<std::uint64_t>(record + byte) >> shift & mask) | constant;
    }
  };
  // What becomes of a payload in the record, by the code that this states.
  struct CodedPayload {
    std::uint8_t count = 0;   // of its bytes that count
    std::uint8_t length = 0;  // with those that fill it up to the length of a code
    std::uint8_t dlc = 0;
    std::uint8_t fdDlc = 0;  // of a frame of CAN FD
    bool isThere = false;
  };
  class Writer;

  bool planLoad(const CanRecordDecoder::Number& number, Load& load) const;
  bool planUsual();
  void planCodes(const CanRecordDecoder::Step& payload);
  template <class Records>
  void appendAll(const Records& records, std::size_t count, MdfFrameBatch& out) const;
  template <class Records>
  void appendAny(const Records& records, std::size_t i, MdfFrameBatch& out) const;
  template <class Records>
  std::size_t appendUsual(const Records& records, std::size_t first, std::size_t count,
                          MdfFrameBatch& out) const;
  template <class Records>
  std::size_t appendPayload(const Records& records, std::size_t i, std::uint16_t& flags,
                            std::uint8_t& dlc, std::uint8_t* to) const;
  static std::size_t putPayload(ByteSpan value, std::uint16_t& flags, std::uint8_t& dlc,
                                std::uint8_t* to);
  static std::size_t finishPayload(const CodedPayload& payload, std::uint16_t& flags,
                                   std::uint8_t& dlc, std::uint8_t* to);
  static CodedPayload coded(std::uint8_t code, std::size_t count, bool isThere);

  const CanRecordDecoder& decoder_;
  const std::size_t recordSize_;
  // Of usual records: the code in front of the payload, and flags in four bytes at most.
  bool isUsual_ = false;
  Load id_;
  Load bus_;
  Load code_;
  std::array<std::uint64_t, 4> markBytes_ = {};
  std::array<const std::uint16_t*, 4> marks_ = {};
  bool hasManyMarks_ = false;  // in more than two bytes
  std::uint64_t payloadOffset_ = 0;
  bool holdsClassic_ = false;  // 8 bytes of it, whatever the code
  std::array<CodedPayload, kMaxDlc + 1> codes_;
};

}  // namespace tolvex
