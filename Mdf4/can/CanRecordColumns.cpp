#include "Mdf4/can/CanRecordColumns.h"

#include <algorithm>
#include <cstring>

namespace tolvex {
namespace {

constexpr std::uint32_t kIdMask = 0x7FFFFFFF;  // without the mark of an extended identifier
constexpr std::uint32_t kMaxStandardId = 0x7FF;

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
  FrameRows rows;
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
    : decoder_(decoder), recordSize_(recordSize), plan_(decoder, recordSize) {}

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
    if (plan_.isUsual)
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
std::size_t CanRecordColumns::appendUsual(Records records, std::size_t first, std::size_t count,
                                          MdfFrameBatch& out) const {
  std::array<StretchOfWords, CanRecordPlan::kMostWords> words;
  for (std::size_t k = 0; k < plan_.words; ++k) {
    const std::uint64_t byte = plan_.wordBytes[k];
    for (std::size_t i = 0; i < count; ++i) {
      words[k][i] = loadNumber<std::uint64_t>(records.record(first + i) + byte);
    }
  }
  std::uint8_t codes[kStretch];
  if (std::size_t known = takeCodes(std::span(words[plan_.code.word]).first(count), codes);
      known < count) {
    if (known == 0) {
      appendAny(records, first, out);
      return 1;
    }
    count = known;
  }

  std::int64_t* const times = out.timeNs.data() + out.count;
  std::uint64_t* const numbers = out.record.data() + out.count;
  for (std::size_t i = 0; i < count; ++i) times[i] = records.timeNs(first + i);
  for (std::size_t i = 0; i < count; ++i) numbers[i] = records.number(first + i);

  std::uint16_t* const buses = out.bus.data() + out.count;
  const CanRecordPlan::Part bus = plan_.bus;
  const auto bias = static_cast<std::uint8_t>(decoder_.busChannelBias_ + 1);
  for (std::size_t i = 0; i < count; ++i) {
    buses[i] = static_cast<std::uint16_t>(bus.of(words[bus.word][i]) + bias);
  }
  const bool hasRemote = takeIdsAndFlags(words, count, out);
  std::uint8_t* const dlcs = out.dlc.data() + out.count;
  std::memcpy(dlcs, codes, count);
  takePayloads(records, first, {codes, count}, hasRemote, out);
  out.count += count;
  return count;
}

// The codes of the first records that state one. Gives how many these are.
std::size_t CanRecordColumns::takeCodes(std::span<const std::uint64_t> words,
                                        std::uint8_t* codes) const {
  const CanRecordPlan::Part code = plan_.code;
  std::uint8_t largest = 0;
  const std::size_t count = words.size();
  for (std::size_t i = 0; i < count; ++i) {
    codes[i] = static_cast<std::uint8_t>(code.of(words[i]));
    largest = std::max(largest, codes[i]);
  }
  if (largest <= kMaxDlc) return count;
  return static_cast<std::size_t>(
      std::find_if(codes, codes + count, [](std::uint8_t stated) { return stated > kMaxDlc; }) -
      codes);
}

// Identifiers, flags and what the flags tell. Gives whether there are remote frames.
bool CanRecordColumns::takeIdsAndFlags(std::span<const StretchOfWords> words, std::size_t count,
                                       MdfFrameBatch& out) const {
  std::uint32_t* const ids = out.id.data() + out.count;
  CanRecordPlan::Part id = plan_.id;
  if (decoder_.hasExtended_) {
    id.mask &= kIdMask;
    id.constant &= kIdMask;
  }
  for (std::size_t i = 0; i < count; ++i) {
    ids[i] = static_cast<std::uint32_t>(id.of(words[id.word][i]));
  }
  std::uint16_t* const flags = out.flags.data() + out.count;
  std::fill_n(flags, count, decoder_.constantMarks_);
  for (std::size_t k = 0; k < plan_.flagShifts; ++k) {
    const CanRecordPlan::FlagBits bits = plan_.flagBits[k];
    for (std::size_t i = 0; i < count; ++i) {
      flags[i] |= static_cast<std::uint16_t>(bits.of(words[bits.word][i]));
    }
  }
  for (std::size_t k = 0; k < plan_.markBytes; ++k) {
    const CanRecordPlan::Marks marks = plan_.marks[k];
    for (std::size_t i = 0; i < count; ++i) {
      flags[i] |= marks.ofByte[marks.part.of(words[marks.part.word][i])];
    }
  }
  if (!decoder_.hasExtended_) {
    for (std::size_t i = 0; i < count; ++i) {
      if (ids[i] > kMaxStandardId) flags[i] |= MdfFrameFlag::kExtended;
      ids[i] &= kIdMask;
    }
  }
  std::uint16_t anyFlag = 0;
  std::uint8_t* const directions = out.direction.data() + out.count;
  for (std::size_t i = 0; i < count; ++i) {
    anyFlag |= flags[i];
    directions[i] = static_cast<std::uint8_t>(flags[i] & MdfFrameFlag::kTransmitted);
  }
  const bool hasRemote = (anyFlag & MdfFrameFlag::kRtr) != 0;
  std::uint8_t* const kinds = out.kind.data() + out.count;
  static_assert(static_cast<int>(MdfFrameKind::Remote) == 1);
  std::fill_n(kinds, count, std::uint8_t{0});
  for (std::size_t i = 0; hasRemote && i < count; ++i) kinds[i] = isRemote(flags[i]) ? 1 : 0;
  return hasRemote;
}

// The payloads, by the codes that the records state.
template <class Records>
void CanRecordColumns::takePayloads(Records records, std::size_t first, ByteSpan codes,
                                    bool hasRemote, MdfFrameBatch& out) const {
  std::uint16_t* const flags = out.flags.data() + out.count;
  std::uint8_t* const dlcs = out.dlc.data() + out.count;
  std::int64_t* const ends = out.offsets.data() + out.count + 1;
  std::uint8_t* const bytes = out.bytes.data();
  auto end = static_cast<std::uint64_t>(ends[-1]);
  const bool isClassic = std::ranges::max(codes) <= kMaxClassicPayload;
  if (!decoder_.isOutside_ && plan_.holdsClassic && isClassic && !hasRemote) {
    const std::uint64_t offset = plan_.payloadOffset;
    for (std::size_t i = 0; i < codes.size(); ++i) {
      std::memcpy(bytes + end, records.record(first + i) + offset, kMaxClassicPayload);
      end += codes[i];
      ends[i] = static_cast<std::int64_t>(end);
    }
  } else if (decoder_.isOutside_ && !hasRemote) {
    for (std::size_t i = 0; i < codes.size(); ++i) {
      const ByteSpan value = records.payload(first + i);
      if (value.size() == kMaxClassicPayload && codes[i] == kMaxClassicPayload) {
        std::memcpy(bytes + end, value.data(), kMaxClassicPayload);
        end += kMaxClassicPayload;
      } else if (value.size() == codes[i] && codes[i] < kMaxClassicPayload) {
        copyRecord(bytes + end, value.data(), codes[i]);
        end += codes[i];
      } else {
        end += putPayload(value, flags[i], dlcs[i], bytes + end);
      }
      ends[i] = static_cast<std::int64_t>(end);
    }
  } else {
    for (std::size_t i = 0; i < codes.size(); ++i) {
      end += appendPayload(records, first + i, flags[i], dlcs[i], bytes + end);
      ends[i] = static_cast<std::int64_t>(end);
    }
  }
}

// Any payload of a usual record, which states `dlc`. Gives its length.
template <class Records>
std::size_t CanRecordColumns::appendPayload(const Records& records, std::size_t i,
                                            std::uint16_t& flags, std::uint8_t& dlc,
                                            std::uint8_t* to) const {
  if (isRemote(flags)) return 0;
  if (decoder_.isOutside_) return putPayload(records.payload(i), flags, dlc, to);
  const CodedPayload& payload = plan_.codes[dlc];
  copyRecord(to, records.record(i) + plan_.payloadOffset, payload.count);
  return finishPayload(payload, flags, dlc, to);
}

// One from outside of the record.
std::size_t CanRecordColumns::putPayload(ByteSpan value, std::uint16_t& flags, std::uint8_t& dlc,
                                         std::uint8_t* to) {
  const std::size_t size = std::min<std::size_t>(value.size(), kDlcLengths[dlc]);
  copyRecord(to, value.data(), size);
  return finishPayload(CanRecordPlan::coded(dlc, size, value.data() != nullptr || dlc == 0), flags,
                       dlc, to);
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
