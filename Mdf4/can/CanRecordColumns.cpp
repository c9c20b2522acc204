// CanRecordDecoder: many records at once, into columns.
#include <algorithm>
#include <cstring>

#include "Mdf4/can/CanRecordDecoder.h"

namespace tolvex {
namespace {

// Frames that are decoded field by field before the next ones: what is read of them and what is
// written stays in the nearest cache.
constexpr std::size_t kStretch = 128;
constexpr std::uint32_t kIdMask = 0x7FFFFFFF;  // without the mark of an extended identifier
constexpr std::uint32_t kErrorIdMask = 0x1FFFFFFF;
constexpr std::uint32_t kMaxStandardId = 0x7FF;

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

// The payload that an entry brings along.
class EntryPayload final : public PayloadSource {
 public:
  explicit EntryPayload(const FrameEntry& entry) : entry_(entry) {}

  [[nodiscard]] bool read(std::uint64_t /*offset*/, std::vector<std::uint8_t>& out) override {
    if (entry_.payload == nullptr) return false;
    const std::uint32_t length = std::min(entry_.payloadLength, kMaxPayload + 1);
    out.assign(entry_.payload, entry_.payload + length);
    return true;
  }

 private:
  const FrameEntry& entry_;
};

}  // namespace

// Appends a stretch of frames of one group.
class CanRecordDecoder::Columns {
 public:
  Columns(const CanRecordDecoder& decoder, std::span<const FrameEntry> entries,
          std::size_t recordSize, PayloadSource* payloads, MdfFrameBatch& out)
      : decoder_(decoder),
        entries_(entries),
        recordSize_(recordSize),
        payloads_(payloads),
        out_(out),
        first_(out.count),
        end_(static_cast<std::size_t>(out.offsets[out.count])) {}

  void append() {
    numbers();
    if (decoder_.isError_) {
      for (std::size_t i = 0; i < entries_.size(); ++i) error(i);
    } else {
      marks();
      payloads();
    }
    out_.count += entries_.size();
  }

 private:
  ByteSpan record(std::size_t i) const { return {entries_[i].record, recordSize_}; }

  void numbers() {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      out_.timeNs[first_ + i] = entries_[i].timeNs;
      out_.record[first_ + i] = entries_[i].number;
    }
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      out_.bus[first_ + i] = decoder_.busOf(record(i));
    }
  }

  // Identifiers and flags.
  void marks() {
    std::uint16_t* const flags = out_.flags.data() + first_;
    std::fill_n(flags, entries_.size(), decoder_.constantMarks_);
    for (const MarkByte& source : decoder_.markBytes_) {
      if (source.byte >= recordSize_) continue;
      for (std::size_t i = 0; i < entries_.size(); ++i) {
        flags[i] |= source.marks[entries_[i].record[source.byte]];
      }
    }
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      const auto id = static_cast<std::uint32_t>(decoder_.id_.read(record(i)));
      out_.id[first_ + i] = id & kIdMask;
      if (!decoder_.hasExtended_ && id > kMaxStandardId) flags[i] |= MdfFrameFlag::kExtended;
    }
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      out_.direction[first_ + i] = flags[i] & MdfFrameFlag::kTransmitted;
      out_.kind[first_ + i] =
          static_cast<std::uint8_t>(isRemote(flags[i]) ? MdfFrameKind::Remote : MdfFrameKind::Data);
    }
  }

  static bool isRemote(std::uint16_t flags) {
    return (flags & (MdfFrameFlag::kRtr | MdfFrameFlag::kFd)) == MdfFrameFlag::kRtr;
  }

  void payloads() {
    const std::vector<Step>& steps = decoder_.steps_;
    if (decoder_.plainPayload_ && recordSize_ >= decoder_.plainEnd_) {
      return plainPayloads();
    }
    const bool isUsual = decoder_.payloadByDlc_ && steps.size() == 2 &&
                         steps[0].field == CanField::DLC && steps[1].field == CanField::DataBytes &&
                         steps[0].kind == CanFrameKind::Data;
    if (!isUsual) {
      for (std::size_t i = 0; i < entries_.size(); ++i) message(i);
    } else if (steps[1].variableLength) {
      payloadsOutside(steps[0]);
    } else {
      payloadsInside(steps[0], steps[1]);
    }
  }

  void plainPayloads() {
    const std::size_t size = decoder_.plainSize_;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      std::memcpy(out_.bytes.data() + end_, entries_[i].record + decoder_.plainEnd_ - size, size);
      finish(i, decoder_.plainDlc_, size);
    }
  }

  void payloadsInside(const Step& code, const Step& payload) {
    const std::uint64_t size = std::min<std::uint64_t>(payload.size, kMaxPayload);
    // A load of the usual size, whatever the length, stays inside the record.
    const bool mayLoad8 =
        payload.offset <= recordSize_ && recordSize_ - payload.offset >= kMaxClassicPayload;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      const auto dlc = static_cast<std::uint8_t>(code.number.read(record(i)));
      if (dlc > kMaxDlc) {
        message(i);
        continue;
      }
      const auto limit = kDlcLengths[dlc];
      const std::uint64_t count = std::min<std::uint64_t>(size, limit);
      const bool isThere = limit == 0 || (size != 0 && payload.offset <= recordSize_ &&
                                          count <= recordSize_ - payload.offset);
      const std::uint8_t* const bytes = entries_[i].record + payload.offset;
      if (mayLoad8 && count <= kMaxClassicPayload) {
        std::memcpy(out_.bytes.data() + end_, bytes, kMaxClassicPayload);
        settle(i, dlc, count, isThere);
      } else {
        if (isThere) std::memcpy(out_.bytes.data() + end_, bytes, count);
        settle(i, dlc, count, isThere);
      }
    }
  }

  void payloadsOutside(const Step& code) {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      const auto dlc = static_cast<std::uint8_t>(code.number.read(record(i)));
      if (dlc > kMaxDlc) {
        message(i);
        continue;
      }
      const FrameEntry& entry = entries_[i];
      const std::uint8_t* bytes = entry.payload;
      std::size_t length = entry.payloadLength;
      if (payloads_ != nullptr) {
        const bool isRead = payloads_->read(decoder_.payloadOffset(record(i)), value_);
        bytes = isRead ? value_.data() : nullptr;
        length = value_.size();
        if (isRead && length == 0) bytes = entry.record;  // of which nothing is taken
      }
      const std::size_t count = std::min<std::size_t>(length, kDlcLengths[dlc]);
      if (bytes != nullptr) std::memcpy(out_.bytes.data() + end_, bytes, count);
      settle(i, dlc, bytes == nullptr ? 0 : count, bytes != nullptr || kDlcLengths[dlc] == 0);
    }
  }

  // A frame whose record states `code`, and of whose payload `count` bytes stand in place.
  void settle(std::size_t i, std::uint8_t code, std::uint64_t count, bool isThere) {
    std::uint16_t& flags = out_.flags[first_ + i];
    if (isRemote(flags)) return finish(i, code, 0);
    if (!isThere) {
      flags |= MdfFrameFlag::kPayloadMissing;
      return finish(i, code, 0);
    }
    std::uint8_t dlc = lengthToDlc(count);
    const std::size_t length = kDlcLengths[dlc];
    std::memset(out_.bytes.data() + end_ + count, 0, length - count);
    const bool isClassic = (flags & MdfFrameFlag::kFd) == 0;
    if (isClassic && code > kMaxClassicPayload && length == kMaxClassicPayload) dlc = code;
    finish(i, dlc, length);
  }

  void finish(std::size_t i, std::uint8_t dlc, std::size_t length) {
    out_.dlc[first_ + i] = dlc;
    end_ += length;
    out_.offsets[first_ + i + 1] = static_cast<std::int64_t>(end_);
  }

  // Any other message.
  void message(std::size_t i) {
    MdfCanMessage message;
    EntryPayload own(entries_[i]);
    decoder_.decodeMessage(record(i), payloads_ != nullptr ? payloads_ : &own, message);
    std::uint16_t& flags = out_.flags[first_ + i];
    if (message.PayloadMissing()) flags |= MdfFrameFlag::kPayloadMissing;
    bytes(i, message.PayloadMissing(), message.DataBytes());
    out_.dlc[first_ + i] = message.Dlc();
  }

  void error(std::size_t i) {
    MdfCanError error;
    EntryPayload own(entries_[i]);
    decoder_.decodeError(record(i), payloads_ != nullptr ? payloads_ : &own, error);
    std::uint16_t flags = 0;
    if (error.Dir()) flags |= MdfFrameFlag::kTransmitted;
    if (error.ExtendedId()) flags |= MdfFrameFlag::kExtended;
    if (error.IsCanFdError()) flags |= MdfFrameFlag::kFd;
    if (error.PayloadMissing()) flags |= MdfFrameFlag::kPayloadMissing;
    const std::size_t row = first_ + i;
    out_.id[row] = error.MessageId();
    out_.flags[row] = flags;
    out_.direction[row] = flags & MdfFrameFlag::kTransmitted;
    out_.kind[row] = static_cast<std::uint8_t>(error.IsCanFdError() ? MdfFrameKind::FdError
                                                                    : MdfFrameKind::Error);
    out_.dlc[row] = error.Dlc();
    bytes(i, error.PayloadMissing(), error.DataBytes());
    MdfFrameError fields;
    fields.timeOffsetBrs = error.TimeOffsetBRS();
    fields.timeOffsetCrcDel = error.TimeOffsetCRCDel();
    fields.btrExtCfg = error.BtrExtCfg();
    fields.crc = error.Crc();
    fields.errorFlags = error.ErrorFlags();
    fields.dataLength = error.DataLength();
    fields.errorType = static_cast<std::uint8_t>(error.ErrorType());
    fields.tec = error.Tec();
    fields.rec = error.Trec();
    out_.errorRows.push_back(row);
    out_.errors.push_back(fields);
  }

  void bytes(std::size_t i, bool isMissing, const std::vector<std::uint8_t>& payload) {
    const std::size_t length = isMissing ? 0 : std::min<std::size_t>(payload.size(), kMaxPayload);
    std::copy_n(payload.begin(), length, out_.bytes.begin() + static_cast<std::ptrdiff_t>(end_));
    end_ += length;
    out_.offsets[first_ + i + 1] = static_cast<std::int64_t>(end_);
  }

  const CanRecordDecoder& decoder_;
  const std::span<const FrameEntry> entries_;
  const std::size_t recordSize_;
  PayloadSource* const payloads_;
  MdfFrameBatch& out_;
  const std::size_t first_;
  std::size_t end_;  // of the payloads so far
  std::vector<std::uint8_t> value_;
};

void CanRecordDecoder::append(std::span<const FrameEntry> entries, std::size_t recordSize,
                              PayloadSource* payloads, MdfFrameBatch& out) const {
  makeRoom(out, entries.size());
  while (!entries.empty()) {
    const std::size_t count = std::min(entries.size(), kStretch);
    Columns(*this, entries.first(count), recordSize, payloads, out).append();
    entries = entries.subspan(count);
  }
}

std::uint32_t CanRecordDecoder::idOf(ByteSpan record) const {
  const auto id = static_cast<std::uint32_t>(id_.read(record));
  return isError_ ? (loggerRules_ ? id & kErrorIdMask : id) : id & kIdMask;
}

}  // namespace tolvex
