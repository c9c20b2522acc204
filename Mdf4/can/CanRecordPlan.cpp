#include "Mdf4/can/CanRecordPlan.h"

#include <algorithm>
#include <bit>
#include <vector>

namespace tolvex {

CanRecordPlan::CanRecordPlan(const CanRecordDecoder& decoder, std::size_t recordSize)
    : recordSize_(recordSize) {
  isUsual = planUsual(decoder);
}

// A number of so many bits above `byte` in the record.
bool CanRecordPlan::planPart(std::uint64_t byte, unsigned shift, std::uint64_t mask, Part& part) {
  constexpr std::uint64_t kWord = sizeof(std::uint64_t);
  const unsigned end = shift + static_cast<unsigned>(std::bit_width(mask));
  for (part.word = 0; part.word < words; ++part.word) {
    const std::uint64_t start = wordBytes[part.word];
    if (byte >= start && (byte - start) * 8 + end <= kWord * 8) break;
  }
  if (part.word == words) {
    if (words == kMostWords || recordSize_ < kWord || byte > recordSize_) return false;
    wordBytes[words++] = std::min(byte, recordSize_ - kWord);
  }
  part.shift = static_cast<unsigned>(byte - wordBytes[part.word]) * 8 + shift;
  part.mask = mask;
  return part.shift + end - shift <= kWord * 8;
}

bool CanRecordPlan::planNumber(const CanRecordDecoder::Number& number, Part& part) {
  const BitField& bits = number.bits_;
  part.constant = number.constant_;
  if (bits.touched() == 0) return planPart(0, 0, 0, part);
  return bits.isInOneLoad() && planPart(bits.byte(), bits.shift(), bits.mask(), part);
}

// Most flags are a bit of the record each, and many stand together as they do in the flags.
bool CanRecordPlan::planMarks(const CanRecordDecoder::MarkByte& source) {
  constexpr unsigned kBits = 8;
  Part part;
  if (!planPart(source.byte, 0, 0xFF, part)) return false;
  unsigned others = 0;
  for (const std::uint16_t flags : source.marks) others |= flags;
  for (unsigned flag = 0; others >> flag != 0; ++flag) {
    for (unsigned bit = 0; bit < kBits; ++bit) {
      bool isThisBit = true;
      for (unsigned byte = 0; byte < source.marks.size(); ++byte) {
        isThisBit = isThisBit && (source.marks[byte] >> flag & 1) == (byte >> bit & 1);
      }
      if (isThisBit && planFlagBit(part, bit, flag)) others &= ~(1U << flag);
    }
  }
  if (others != 0) marks[markBytes++] = {part, source.marks.data()};
  return true;
}

bool CanRecordPlan::planFlagBit(const Part& part, unsigned bit, unsigned flag) {
  const unsigned place = part.shift + bit;
  const FlagBits shift = {part.word, place - std::min(place, flag), flag - std::min(place, flag),
                          0};
  const auto end = flagBits.begin() + static_cast<std::ptrdiff_t>(flagShifts);
  const auto known = std::find_if(flagBits.begin(), end, [&](const FlagBits& bits) {
    return bits.word == shift.word && bits.right == shift.right && bits.left == shift.left;
  });
  if (known == flagBits.end()) return false;
  if (known == end) {
    *known = shift;
    ++flagShifts;
  }
  known->mask |= std::uint64_t{1} << (place - shift.right);
  return true;
}

bool CanRecordPlan::planUsual(const CanRecordDecoder& decoder) {
  const std::vector<CanRecordDecoder::Step>& steps = decoder.steps_;
  const bool hasUsualSteps = !decoder.isError_ && decoder.payloadByDlc_ && steps.size() == 2 &&
                             steps[0].field == CanField::DLC &&
                             steps[1].field == CanField::DataBytes &&
                             steps[0].kind == CanFrameKind::Data;
  if (!hasUsualSteps || decoder.markBytes_.size() > marks.size()) return false;
  if (!planNumber(decoder.busChannel_, bus) || !planNumber(steps[0].number, code) ||
      !planNumber(decoder.id_, id)) {
    return false;
  }
  for (const CanRecordDecoder::MarkByte& source : decoder.markBytes_) {
    if (source.byte < recordSize_ && !planMarks(source)) return false;
  }
  planCodes(steps[1]);
  return true;
}

void CanRecordPlan::planCodes(const CanRecordDecoder::Step& payload) {
  const std::uint64_t room = recordSize_ - std::min<std::uint64_t>(recordSize_, payload.offset);
  payloadOffset = payload.offset;
  holdsClassic = room >= kMaxClassicPayload && payload.size >= kMaxClassicPayload;
  for (std::uint8_t dlc = 0; dlc <= kMaxDlc; ++dlc) {
    const std::uint64_t limit = kDlcLengths[dlc];
    const std::uint64_t count = std::min<std::uint64_t>(limit, payload.size);
    const bool isThere = limit == 0 || (count != 0 && count <= room);
    codes[dlc] = coded(dlc, isThere ? inMemory(count) : 0, isThere);
  }
}

CanRecordPlan::CodedPayload CanRecordPlan::coded(std::uint8_t dlc, std::size_t count,
                                                 bool isThere) {
  CodedPayload payload;
  payload.isThere = isThere;
  payload.count = static_cast<std::uint8_t>(count);
  payload.fdDlc = kLengthDlcs[count];
  payload.length = kDlcLengths[payload.fdDlc];
  const bool keepsCode = dlc > kMaxClassicPayload && payload.length == kMaxClassicPayload;
  payload.dlc = keepsCode ? dlc : payload.fdDlc;
  return payload;
}

}  // namespace tolvex
