#include "Mdf4/can/CanRecordColumns.h"

#include <algorithm>
#include <cstring>

namespace tolvex {
namespace {

constexpr std::uint32_t kIdMask = 0x7FFFFFFF;  // without the mark of an extended identifier
constexpr std::uint32_t kMaxStandardId = 0x7FF;
constexpr std::uint16_t kNoMarks[256] = {};
constexpr std::size_t kStretch = 128;  // frames

bool isRemote(unsigned flags) {
  return (flags & (MdfFrameFlag::kRtr | MdfFrameFlag::kFd)) == MdfFrameFlag::kRtr;
}

template <class Value>
void grow(std::vector<Value>& column, std::size_t size) {
  if (column.size() < size) column.resize(std::max(size, column.size() * 2));
}

// Room behind what the batch has, and for a payload more than there is.
void makeRoom(MdfFrameBatch& batch, std::size_t more) {
  const std::size_t size = batch.count + more;
  grow(batch.timeNs, size);
  grow(batch.id, size);
  grow(batch.bus, size);
  grow(batch.flags, size);
  grow(batch.direction, size);
  grow(batch.kind, size);
  grow(batch.dlc, size);
  grow(batch.record, size);
  grow(batch.offsets, size + 1);
  const auto used = static_cast<std::size_t>(batch.offsets[batch.count]);
  grow(batch.bytes, used + (more + 1) * kMaxPayload);
}

// Copies as std::memcpy does; quicker for the few bytes that a payload has.
inline void copyFew(std::uint8_t* to, const std::uint8_t* from, std::size_t count) {
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  constexpr std::size_t kHalf = kWord / 2;
  if (count >= kWord) {
    for (std::size_t at = 0; at + kWord < count; at += kWord) {
      std::memcpy(to + at, from + at, kWord);
    }
    std::memcpy(to + count - kWord, from + count - kWord, kWord);  // overlaps the step before
  } else if (count >= kHalf) {
    std::memcpy(to, from, kHalf);
    std::memcpy(to + count - kHalf, from + count - kHalf, kHalf);
  } else if (count != 0) {
    to[0] = from[0];
    to[count / 2] = from[count / 2];
    to[count - 1] = from[count - 1];
  }
}

// A payload that was found already, as the decoder asks for it.
class FoundPayload final : public PayloadSource {
 public:
  FoundPayload(const std::uint8_t* bytes, std::size_t length) : bytes_(bytes), length_(length) {}

  [[nodiscard]] bool read(std::uint64_t /*offset*/, std::vector<std::uint8_t>& out) override {
    if (bytes_ == nullptr) return false;
    out.assign(bytes_, bytes_ + std::min<std::size_t>(length_, kMaxPayload + 1));
    return true;
  }

 private:
  const std::uint8_t* bytes_;
  std::size_t length_;
};

// The records of a sorted group, and those of an unsorted one.
struct RowRecords {
  const FrameRows& rows;
  PayloadSource* payloads;
  const CanRecordDecoder& decoder;
  std::size_t size;
  std::vector<std::uint8_t>& value;  // that was read last

  const std::uint8_t* record(std::size_t i) const { return rows.first + i * rows.stride; }
  std::int64_t timeNs(std::size_t i) const { return rows.timesNs[i]; }
  std::uint64_t number(std::size_t i) const { return rows.number + i; }
  ByteSpan payload(std::size_t i) const {
    if (payloads == nullptr) return {};
    if (!payloads->read(decoder.payloadOffset({record(i), size}), value)) return {};
    return {value.empty() ? record(i) : value.data(), value.size()};
  }
};
struct EntryRecords {
  const FrameEntry* entries;
  const std::int64_t* timesNs;

  const std::uint8_t* record(std::size_t i) const { return entries[i].record; }
  std::int64_t timeNs(std::size_t i) const { return timesNs[i]; }
  std::uint64_t number(std::size_t i) const { return entries[i].number; }
  ByteSpan payload(std::size_t i) const { return {entries[i].payload, entries[i].payloadLength}; }
};

}  // namespace

// Writes frames behind those that a batch has. The columns' places are members of their own: stores
// of bytes might change whatever is reached through the batch.
class CanRecordColumns::Writer {
 public:
  explicit Writer(MdfFrameBatch& out) : out_(out) {
    times_ = out.timeNs.data() + out.count;
    ids_ = out.id.data() + out.count;
    buses_ = out.bus.data() + out.count;
    flags_ = out.flags.data() + out.count;
    directions_ = out.direction.data() + out.count;
    kinds_ = out.kind.data() + out.count;
    dlcs_ = out.dlc.data() + out.count;
    records_ = out.record.data() + out.count;
    ends_ = out.offsets.data() + out.count + 1;
    bytes_ = out.bytes.data();
    end_ = static_cast<std::uint64_t>(ends_[-1]);
  }
  ~Writer() { out_.count += count_; }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  std::uint8_t* payload() const { return bytes_ + end_; }  // where that of the next frame goes

  void add(std::int64_t timeNs, std::uint64_t record, std::uint32_t id, std::uint16_t bus,
           unsigned flags, MdfFrameKind kind, std::uint8_t dlc, std::size_t length) {
    const std::size_t i = count_++;
    times_[i] = timeNs;
    records_[i] = record;
    ids_[i] = id;
    buses_[i] = bus;
    flags_[i] = static_cast<std::uint16_t>(flags);
    directions_[i] = static_cast<std::uint8_t>(flags & MdfFrameFlag::kTransmitted);
    kinds_[i] = static_cast<std::uint8_t>(kind);
    dlcs_[i] = dlc;
    end_ += length;
    ends_[i] = static_cast<std::int64_t>(end_);
  }
  // The payload of an object, unless it is missing. Gives its length.
  std::size_t copy(const std::vector<std::uint8_t>& bytes, bool isMissing) const {
    const std::size_t length = isMissing ? 0 : std::min<std::size_t>(bytes.size(), kMaxPayload);
    std::copy_n(bytes.begin(), length, payload());
    return length;
  }

 private:
  MdfFrameBatch& out_;
  std::size_t count_ = 0;
  std::int64_t* times_;
  std::uint64_t* records_;
  std::uint32_t* ids_;
  std::uint16_t* buses_;
  std::uint16_t* flags_;
  std::uint8_t* directions_;
  std::uint8_t* kinds_;
  std::uint8_t* dlcs_;
  std::int64_t* ends_;
  std::uint8_t* bytes_;
  std::uint64_t end_ = 0;  // of the payloads so far
};

CanRecordColumns::CanRecordColumns(const CanRecordDecoder& decoder, std::size_t recordSize)
    : decoder_(decoder), recordSize_(recordSize) {
  isUsual_ = planUsual();
}

bool CanRecordColumns::planLoad(const CanRecordDecoder::Number& number, Load& load) const {
  const BitField& bits = number.bits_;
  load = {bits.byte(), bits.shift(), bits.mask(), number.constant_};
  if (bits.touched() == 0) load.byte = 0;  // of no bits
  return bits.isInOneLoad() && recordSize_ >= sizeof(std::uint64_t) &&
         load.byte <= recordSize_ - sizeof(std::uint64_t);
}

bool CanRecordColumns::planUsual() {
  const std::vector<CanRecordDecoder::Step>& steps = decoder_.steps_;
  const bool hasUsualSteps = !decoder_.isError_ && decoder_.payloadByDlc_ && steps.size() == 2 &&
                             steps[0].field == CanField::DLC &&
                             steps[1].field == CanField::DataBytes &&
                             steps[0].kind == CanFrameKind::Data;
  if (!hasUsualSteps || decoder_.markBytes_.size() > marks_.size()) return false;
  if (!planLoad(decoder_.id_, id_) || !planLoad(decoder_.busChannel_, bus_) ||
      !planLoad(steps[0].number, code_)) {
    return false;
  }
  marks_.fill(kNoMarks);
  hasManyMarks_ = decoder_.markBytes_.size() > 2;
  for (std::size_t i = 0; i < decoder_.markBytes_.size(); ++i) {
    const CanRecordDecoder::MarkByte& source = decoder_.markBytes_[i];
    if (source.byte >= recordSize_) continue;
    markBytes_[i] = source.byte;
    marks_[i] = source.marks.data();
  }
  planCodes(steps[1]);
  return true;
}

void CanRecordColumns::planCodes(const CanRecordDecoder::Step& payload) {
  const std::uint64_t room = recordSize_ - std::min<std::uint64_t>(recordSize_, payload.offset);
  payloadOffset_ = payload.offset;
  holdsClassic_ = room >= kMaxClassicPayload && payload.size >= kMaxClassicPayload;
  for (std::uint8_t code = 0; code <= kMaxDlc; ++code) {
    const std::uint64_t limit = kDlcLengths[code];
    const std::uint64_t count = std::min<std::uint64_t>(limit, payload.size);
    const bool isThere = limit == 0 || (count != 0 && count <= room);
    codes_[code] = coded(code, isThere ? inMemory(count) : 0, isThere);
  }
}

// A payload of so many bytes in a frame of that code.
CanRecordColumns::CodedPayload CanRecordColumns::coded(std::uint8_t code, std::size_t count,
                                                       bool isThere) {
  CodedPayload payload;
  payload.isThere = isThere;
  payload.count = static_cast<std::uint8_t>(count);
  payload.fdDlc = kLengthDlcs[count];
  payload.length = kDlcLengths[payload.fdDlc];
  const bool keepsCode = code > kMaxClassicPayload && payload.length == kMaxClassicPayload;
  payload.dlc = keepsCode ? code : payload.fdDlc;
  return payload;
}

void CanRecordColumns::append(const FrameRows& rows, PayloadSource* payloads,
                              MdfFrameBatch& out) const {
  std::vector<std::uint8_t> value;
  appendAll(RowRecords{rows, payloads, decoder_, recordSize_, value}, rows.timesNs.size(), out);
}

void CanRecordColumns::append(std::span<const FrameEntry> entries,
                              std::span<const std::int64_t> timesNs, MdfFrameBatch& out) const {
  appendAll(EntryRecords{entries.data(), timesNs.data()}, entries.size(), out);
}

template <class Records>
void CanRecordColumns::appendAll(const Records& records, std::size_t count,
                                 MdfFrameBatch& out) const {
  makeRoom(out, count);
  for (std::size_t i = 0; i < count;) {
    if (isUsual_)
      i += appendUsual(records, i, std::min(count - i, kStretch), out);
    else
      appendAny(records, i++, out);
  }
}

// As the decoder makes it: an object first.
template <class Records>
void CanRecordColumns::appendAny(const Records& records, std::size_t i, MdfFrameBatch& out) const {
  const ByteSpan record(records.record(i), recordSize_);
  const ByteSpan found = decoder_.isOutside_ ? records.payload(i) : ByteSpan();
  FoundPayload payload(found.data(), found.size());
  const std::uint16_t bus = decoder_.busOf(record);
  Writer writer(out);
  if (decoder_.isError_) {
    MdfCanError error;
    decoder_.decodeError(record, &payload, error);
    unsigned flags = error.Dir() ? MdfFrameFlag::kTransmitted : 0U;
    if (error.ExtendedId()) flags |= MdfFrameFlag::kExtended;
    if (error.IsCanFdError()) flags |= MdfFrameFlag::kFd;
    if (error.PayloadMissing()) flags |= MdfFrameFlag::kPayloadMissing;
    const auto kind = error.IsCanFdError() ? MdfFrameKind::FdError : MdfFrameKind::Error;
    out.errorRows.push_back(out.count);
    out.errors.push_back({error.TimeOffsetBRS(), error.TimeOffsetCRCDel(), error.BtrExtCfg(),
                          error.Crc(), error.ErrorFlags(), error.DataLength(),
                          static_cast<std::uint8_t>(error.ErrorType()), error.Tec(), error.Trec()});
    writer.add(records.timeNs(i), records.number(i), error.MessageId(), bus, flags, kind,
               error.Dlc(), writer.copy(error.DataBytes(), error.PayloadMissing()));
    return;
  }
  MdfCanMessage message;
  decoder_.decodeMessage(record, &payload, message);
  unsigned flags = message.flags_;
  if (message.ExtendedId()) flags |= MdfFrameFlag::kExtended;
  if (message.PayloadMissing()) flags |= MdfFrameFlag::kPayloadMissing;
  const auto kind = isRemote(flags) ? MdfFrameKind::Remote : MdfFrameKind::Data;
  writer.add(records.timeNs(i), records.number(i), message.CanId(), bus, flags, kind, message.Dlc(),
             writer.copy(message.DataBytes(), message.PayloadMissing()));
}

// A stretch of records, field by field: what is read of them and what is written stays in the
// nearest cache. Gives how many: fewer in front of a record that states no code, but at least one.
template <class Records>
std::size_t CanRecordColumns::appendUsual(const Records& records, std::size_t first,
                                          std::size_t count, MdfFrameBatch& out) const {
  std::array<const std::uint8_t*, kStretch> record;
  std::array<std::uint8_t, kStretch> codes;
  std::uint8_t largest = 0;
  for (std::size_t i = 0; i < count; ++i) record[i] = records.record(first + i);
  const Load code = code_;
  for (std::size_t i = 0; i < count; ++i) {
    codes[i] = static_cast<std::uint8_t>(code(record[i]));
    largest = std::max(largest, codes[i]);
  }
  if (largest > kMaxDlc) {
    count = static_cast<std::size_t>(
        std::ranges::find_if(codes, [](std::uint8_t stated) { return stated > kMaxDlc; }) -
        codes.begin());
    if (count == 0) {
      appendAny(records, first, out);
      return 1;
    }
    largest = kMaxDlc;
  }

  std::int64_t* const times = out.timeNs.data() + out.count;
  std::uint64_t* const numbers = out.record.data() + out.count;
  for (std::size_t i = 0; i < count; ++i) times[i] = records.timeNs(first + i);
  for (std::size_t i = 0; i < count; ++i) numbers[i] = records.number(first + i);

  std::uint16_t* const buses = out.bus.data() + out.count;
  const Load bus = bus_;
  const auto bias = static_cast<std::uint8_t>(decoder_.busChannelBias_ + 1);
  for (std::size_t i = 0; i < count; ++i) {
    buses[i] = static_cast<std::uint16_t>(bus(record[i]) + bias);
  }

  std::uint32_t* const ids = out.id.data() + out.count;
  const Load id = id_;
  for (std::size_t i = 0; i < count; ++i) ids[i] = static_cast<std::uint32_t>(id(record[i]));

  std::uint16_t* const flags = out.flags.data() + out.count;
  const auto marks = marks_;
  const auto markBytes = markBytes_;
  const std::uint16_t constantMarks = decoder_.constantMarks_;
  for (std::size_t i = 0; i < count; ++i) {
    flags[i] = static_cast<std::uint16_t>(constantMarks | marks[0][record[i][markBytes[0]]] |
                                          marks[1][record[i][markBytes[1]]]);
  }
  if (hasManyMarks_) {
    for (std::size_t i = 0; i < count; ++i) {
      flags[i] = static_cast<std::uint16_t>(flags[i] | marks[2][record[i][markBytes[2]]] |
                                            marks[3][record[i][markBytes[3]]]);
    }
  }
  if (!decoder_.hasExtended_) {
    for (std::size_t i = 0; i < count; ++i) {
      if (ids[i] > kMaxStandardId) flags[i] |= MdfFrameFlag::kExtended;
    }
  }
  std::uint16_t anyFlag = 0;
  for (std::size_t i = 0; i < count; ++i) {
    ids[i] &= kIdMask;
    anyFlag |= flags[i];
  }
  std::uint8_t* const directions = out.direction.data() + out.count;
  for (std::size_t i = 0; i < count; ++i) {
    directions[i] = static_cast<std::uint8_t>(flags[i] & MdfFrameFlag::kTransmitted);
  }
  std::uint8_t* const kinds = out.kind.data() + out.count;
  static_assert(static_cast<int>(MdfFrameKind::Remote) == 1);
  for (std::size_t i = 0; i < count; ++i) kinds[i] = isRemote(flags[i]) ? 1 : 0;

  std::uint8_t* const dlcs = out.dlc.data() + out.count;
  std::memcpy(dlcs, codes.data(), count);
  std::int64_t* const ends = out.offsets.data() + out.count + 1;
  std::uint8_t* const bytes = out.bytes.data();
  auto end = static_cast<std::uint64_t>(ends[-1]);
  const bool hasRemote = (anyFlag & MdfFrameFlag::kRtr) != 0;
  if (!decoder_.isOutside_ && holdsClassic_ && largest <= kMaxClassicPayload && !hasRemote) {
    for (std::size_t i = 0; i < count; ++i) {
      std::memcpy(bytes + end, record[i] + payloadOffset_, kMaxClassicPayload);
      end += codes[i];
      ends[i] = static_cast<std::int64_t>(end);
    }
  } else if (decoder_.isOutside_ && !hasRemote) {
    for (std::size_t i = 0; i < count; ++i) {
      const ByteSpan value = records.payload(first + i);
      if (value.size() == codes[i] && codes[i] == kMaxClassicPayload) {
        std::memcpy(bytes + end, value.data(), kMaxClassicPayload);
        end += kMaxClassicPayload;
      } else {
        end += putPayload(value, flags[i], dlcs[i], bytes + end);
      }
      ends[i] = static_cast<std::int64_t>(end);
    }
  } else {
    for (std::size_t i = 0; i < count; ++i) {
      end += appendPayload(records, first + i, flags[i], dlcs[i], bytes + end);
      ends[i] = static_cast<std::int64_t>(end);
    }
  }
  out.count += count;
  return count;
}

// Any payload of a usual record, which states `dlc`. Gives its length.
template <class Records>
std::size_t CanRecordColumns::appendPayload(const Records& records, std::size_t i,
                                            std::uint16_t& flags, std::uint8_t& dlc,
                                            std::uint8_t* to) const {
  if (isRemote(flags)) return 0;
  if (decoder_.isOutside_) return putPayload(records.payload(i), flags, dlc, to);
  const CodedPayload& payload = codes_[dlc];
  copyFew(to, records.record(i) + payloadOffset_, payload.count);
  return finishPayload(payload, flags, dlc, to);
}

// One from outside of the record.
std::size_t CanRecordColumns::putPayload(ByteSpan value, std::uint16_t& flags, std::uint8_t& dlc,
                                         std::uint8_t* to) {
  const std::size_t size = std::min<std::size_t>(value.size(), kDlcLengths[dlc]);
  copyFew(to, value.data(), size);
  return finishPayload(coded(dlc, size, value.data() != nullptr || dlc == 0), flags, dlc, to);
}

// Its bytes are in place.
std::size_t CanRecordColumns::finishPayload(const CodedPayload& payload, std::uint16_t& flags,
                                            std::uint8_t& dlc, std::uint8_t* to) {
  if (!payload.isThere) {
    flags |= MdfFrameFlag::kPayloadMissing;
    return 0;
  }
  dlc = (flags & MdfFrameFlag::kFd) == 0 ? payload.dlc : payload.fdDlc;
  if (payload.length != payload.count) {
    std::memset(to + payload.count, 0, std::size_t{payload.length} - payload.count);
  }
  return payload.length;
}

}  // namespace tolvex
