// How records as loggers write them become columns.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "Mdf4/can/CanRecordDecoder.h"

namespace tolvex {

// Where the fields of data frames lie that take the same steps from record to record. Borrows the
// decoder.
class CanRecordPlan {
 public:
  static constexpr std::size_t kMostWords = 4;

  // A number in one of the words of eight bytes that are loaded of each record.
  struct Part {
    std::size_t word = 0;
    unsigned shift = 0;
    std::uint64_t mask = 0;
    std::uint64_t constant = 0;

    std::uint64_t of(std::uint64_t bits) const { return (bits >> shift & mask) | constant; }
  };
  // A byte of yes-or-no fields that are not each a bit of it.
  struct Marks {
    Part part;
    const std::uint16_t* ofByte = nullptr;
  };
  // Flags that are bits of a word, each as far from its place among the flags.
  struct FlagBits {
    std::size_t word = 0;
    unsigned right = 0;  // by so much the word is shifted, and then
    unsigned left = 0;
    std::uint64_t mask = 0;

    std::uint64_t of(std::uint64_t bits) const { return (bits >> right & mask) << left; }
  };
  // What becomes of a payload in the record, by the code that this states.
  struct CodedPayload {
    std::uint8_t count = 0;   // of its bytes that count
    std::uint8_t length = 0;  // with those that fill it up to the length of a code
    std::uint8_t dlc = 0;
    std::uint8_t fdDlc = 0;  // of a frame of CAN FD
    bool isThere = false;
  };

  CanRecordPlan(const CanRecordDecoder& decoder, std::size_t recordSize);

  // A payload of so many bytes in a frame of that code.
  static CodedPayload coded(std::uint8_t dlc, std::size_t count, bool isThere);

  // The code in front of the payload, and flags in four bytes at most. Otherwise nothing of the
  // rest is planned.
  bool isUsual = false;
  std::size_t words = 0;
  std::array<std::uint64_t, kMostWords> wordBytes = {};  // where they begin
  Part id;
  Part bus;
  Part code;
  std::array<FlagBits, 8> flagBits = {};
  std::size_t flagShifts = 0;
  std::array<Marks, 4> marks = {};
  std::size_t markBytes = 0;
  std::uint64_t payloadOffset = 0;
  bool holdsClassic = false;  // 8 bytes of payload, whatever the code
  std::array<CodedPayload, kMaxDlc + 1> codes;

 private:
  bool planPart(std::uint64_t byte, unsigned shift, std::uint64_t mask, Part& part);
  bool planNumber(const CanRecordDecoder::Number& number, Part& part);
  bool planMarks(const CanRecordDecoder::MarkByte& source);
  bool planFlagBit(const Part& part, unsigned bit, unsigned flag);
  bool planUsual(const CanRecordDecoder& decoder);
  void planCodes(const CanRecordDecoder::Step& payload);

  std::size_t recordSize_;
};

}  // namespace tolvex
