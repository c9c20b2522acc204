#include "Mdf4/can/CanRecordDecoder.h"

#include <algorithm>
#include <map>
#include <utility>

#include "Mdf4/can/FramePool.h"

namespace tolvex {

namespace {

constexpr std::uint32_t kNoLimit = ~std::uint32_t{0};  // bytes
constexpr std::uint32_t kMaxStandardId = 0x7FF;
constexpr std::uint32_t kIdentifierMask = 0x1FFFFFFF;
constexpr std::uint32_t kExtendedBit = 0x80000000;

bool isRemoteField(CanField field) {
  switch (field) {
    case CanField::BusChannel:
    case CanField::DLC:
    case CanField::Dir:
    case CanField::ID:
    case CanField::IDE:
    case CanField::SingleWire:
    case CanField::WakeUp:
    case CanField::SRR:
      return true;
    default:
      return false;
  }
}

// The first bytes of `bytes`, at most `size`.
ByteSpan firstBytes(ByteSpan bytes, std::uint64_t size) {
  return bytes.first(static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), size)));
}

}  // namespace

PayloadSource::~PayloadSource() = default;

// ---------------------------------------------------------------------------------------------
// What a layout means

CanRecordDecoder::Number::Number(const CanFieldSlot& slot)
    : bits_(slot.byteOffset, slot.bitOffset & 7, slot.bitCount,
            slot.bigEndian ? ByteOrder::Big : ByteOrder::Little),
      constant_(slot.bitCount == 0 ? slot.constant.value_or(0) : 0) {}

CanRecordDecoder::Step::Step(const CanFieldSlot& slot)
    : kind(slot.kind),
      field(slot.field),
      variableLength(slot.variableLength),
      number(slot),
      offset(slot.byteOffset),
      size(slot.bitCount / 8) {}

CanRecordDecoder::CanRecordDecoder(const std::vector<CanFieldSlot>& layout, bool payloadByDlc,
                                   bool loggerRules)
    : payloadByDlc_(payloadByDlc), loggerRules_(loggerRules) {
  isError_ = std::any_of(layout.begin(), layout.end(),
                         [](const CanFieldSlot& slot) { return slot.kind == CanFrameKind::Error; });
  if (isError_) {
    planError(layout);
  } else {
    planMessage(layout);
  }
  for (const Step& step : steps_) {
    if (step.field == CanField::DataBytes) {
      isOutside_ = step.variableLength;
      payloadOffset_ = step.number;
    } else if (step.field == CanField::ID) {
      id_ = step.number;
    }
  }
}

// Files count bus channels from 1, frames from 0.
void CanRecordDecoder::planBusChannel(const CanFieldSlot& slot) {
  busChannel_ = slot.bitCount == 0 ? Number() : Number(slot);
  const std::uint32_t constant = slot.bitCount == 0 ? slot.constant.value_or(0) : 0;
  busChannelBias_ = static_cast<std::uint8_t>(constant - 1);
}

// Any bit of the field that is 1 sets the flag, so each of the field's bytes is decoded alone.
void CanRecordDecoder::planMark(std::uint16_t mark, const CanFieldSlot& slot) {
  if (slot.bitCount == 0 && slot.constant.value_or(0) != 0) constantMarks_ |= mark;
  const std::uint32_t begin = slot.bitOffset & 7;
  const std::uint32_t end = begin + std::min(slot.bitCount, BitField::kMostBits);
  for (std::uint32_t bit = begin; bit < end; ++bit) {
    const std::uint32_t inField = slot.bigEndian ? (end - 1) / 8 - bit / 8 : bit / 8;
    const std::uint64_t byte = slot.byteOffset + std::uint64_t{inField};
    auto source = std::find_if(markBytes_.begin(), markBytes_.end(),
                               [byte](const MarkByte& known) { return known.byte == byte; });
    if (source == markBytes_.end()) source = markBytes_.insert(source, {byte, {}});
    for (std::uint32_t value = 0; value < 256; ++value) {
      if ((value >> bit % 8 & 1) != 0) source->marks[value] |= mark;
    }
  }
}

std::uint16_t CanRecordDecoder::markOf(CanField field) {
  switch (field) {
    case CanField::Dir:
      return MdfCanMessage::kDir;
    case CanField::SRR:
      return MdfCanMessage::kSrr;
    case CanField::EDL:
      return MdfCanMessage::kEdl;
    case CanField::BRS:
      return MdfCanMessage::kBrs;
    case CanField::ESI:
      return MdfCanMessage::kEsi;
    case CanField::WakeUp:
      return MdfCanMessage::kWakeUp;
    case CanField::SingleWire:
      return MdfCanMessage::kSingleWire;
    case CanField::RTR:
      return MdfCanMessage::kRtr;
    case CanField::IDE:
      return kExtendedMark;
    default:
      return 0;
  }
}

void CanRecordDecoder::planMessage(const std::vector<CanFieldSlot>& layout) {
  std::map<std::uint16_t, const CanFieldSlot*> marks;  // null: always set
  for (const CanFieldSlot& slot : layout) {
    const bool isRemote = slot.kind == CanFrameKind::Remote;
    if (isRemote && !isRemoteField(slot.field)) continue;
    switch (slot.field) {
      case CanField::BusChannel:
        planBusChannel(slot);
        break;
      case CanField::ID:
        id_ = Number(slot);
        marks.erase(kExtendedMark);
        break;
      case CanField::DLC:
        steps_.emplace_back(slot);
        break;
      case CanField::DataBytes:
        if (!slot.variableLength && !payloadByDlc_) steps_.clear();  // it replaces them all
        steps_.emplace_back(slot);
        break;
      default:
        if (const std::uint16_t mark = markOf(slot.field)) marks[mark] = &slot;
    }
    if (isRemote) marks[MdfCanMessage::kRtr] = nullptr;
  }
  if (steps_.size() == 1 && steps_[0].field == CanField::DataBytes && !steps_[0].variableLength) {
    plainSize_ = steps_[0].size;
    plainEnd_ = steps_[0].offset + plainSize_;
    plainDlc_ = lengthToDlc(plainSize_);
    plainPayload_ = dlcToLength(plainDlc_) == plainSize_;
  }
  hasExtended_ = marks.count(kExtendedMark) != 0;
  for (const auto& [mark, slot] : marks) {
    if (slot == nullptr) {
      constantMarks_ |= mark;
    } else {
      planMark(mark, *slot);
    }
  }
}

void CanRecordDecoder::planError(const std::vector<CanFieldSlot>& layout) {
  for (const CanFieldSlot& slot : layout) {
    if (slot.kind != CanFrameKind::Error) continue;
    if (slot.field == CanField::BusChannel) {
      planBusChannel(slot);
    } else {
      steps_.emplace_back(slot);
      hasExtended_ = hasExtended_ || slot.field == CanField::IDE;
    }
  }
}

std::uint32_t CanRecordDecoder::idOf(ByteSpan record) const {
  const auto id = static_cast<std::uint32_t>(id_.read(record));
  if (!isError_) return id & ~kExtendedBit;
  return loggerRules_ ? id & kIdentifierMask : id;
}

// ---------------------------------------------------------------------------------------------
// What a record holds

ByteSpan CanRecordDecoder::Step::inRecord(ByteSpan record) const {
  if (offset >= record.size()) return {};
  return firstBytes(record.subspan(inMemory(offset)), size);
}

bool CanRecordDecoder::Step::isInside(ByteSpan record, std::uint32_t limit) const {
  return inRecord(record).size() >= std::min<std::uint64_t>(size, limit);
}

bool CanRecordDecoder::Step::fetch(ByteSpan record, PayloadSource* payloads,
                                   std::vector<std::uint8_t>& out) const {
  std::vector<std::uint8_t> value;
  if (payloads == nullptr || !payloads->read(number.read(record), value)) return false;
  if (kind == CanFrameKind::Error && value.size() > kMaxPayload) return false;
  out = std::move(value);
  return true;
}

std::uint8_t CanRecordDecoder::busChannel(ByteSpan record) const {
  return static_cast<std::uint8_t>(busChannel_.read(record) + busChannelBias_);
}

MdfFrame CanRecordDecoder::errorFrame(ByteSpan record, std::uint64_t timestampNs,
                                      PayloadSource* payloads) const {
  MdfFrame frame(std::make_shared<MdfCanError>());
  MdfCanError& error = **std::get_if<1>(&frame);
  error.Timestamp(timestampNs);
  decodeError(record, payloads, error);
  return frame;
}

MdfFrame CanRecordDecoder::messageFrame(ByteSpan record, std::uint64_t timestampNs,
                                        std::uint64_t dataIndex, PayloadSource* payloads) const {
  MdfFrame frame = makeMessage();
  MdfCanMessage& message = **std::get_if<0>(&frame);
  message.Timestamp(timestampNs);
  message.DataIndex(dataIndex);
  decodeMessage(record, payloads, message);
  return frame;
}

void CanRecordDecoder::decodeMessage(ByteSpan record, PayloadSource* payloads,
                                     MdfCanMessage& message) const {
  std::uint16_t marks = constantMarks_;
  for (const MarkByte& source : markBytes_) {
    if (source.byte < record.size()) marks |= source.marks[record[inMemory(source.byte)]];
  }
  message.flags_ = static_cast<std::uint8_t>(marks);
  message.BusChannel(busChannel(record));
  message.MessageId(static_cast<std::uint32_t>(id_.read(record)));
  if (hasExtended_) message.ExtendedId((marks & kExtendedMark) != 0);
  decodePayload(record, payloads, message);
}

void CanRecordDecoder::decodePayload(ByteSpan record, PayloadSource* payloads,
                                     MdfCanMessage& message) const {
  std::vector<std::uint8_t>& payload = message.dataBytes_;
  if (plainPayload_ && record.size() >= plainEnd_) {
    const std::uint8_t* const end = record.data() + plainEnd_;
    payload.assign(end - plainSize_, end);
    message.dlc_ = plainDlc_;
    return;
  }
  ByteSpan bytes;  // the payload so far, without the fill bytes up to its length
  std::uint32_t length = 0;
  std::uint32_t limit = kNoLimit;
  // With payloadByDlc: the code that the record states, for classic frames whose payload does
  // not show it: remote ones, which have none, and those of 8 bytes with a code above 8.
  std::optional<std::uint8_t> ownCode;
  std::optional<bool> isMissing;  // the payload; nothing when the layout has none
  for (const Step& step : steps_) {
    if (step.field == CanField::DLC) {
      const auto dlc = static_cast<std::uint8_t>(step.number.read(record));
      if (dlc > kMaxDlc) continue;
      message.dlc_ = dlc;
      length = step.kind == CanFrameKind::Remote ? 0 : dlcToLength(dlc);
      if (payloadByDlc_) {
        limit = dlcToLength(dlc);
        if (!message.Edl()) ownCode = dlc;
      }
    } else {
      if (!step.variableLength) {
        isMissing =
            !step.isInside(record, limit) || (step.size == 0 && limit != 0 && limit != kNoLimit);
        if (*isMissing && limit != kNoLimit) continue;
        bytes = step.inRecord(record);
      } else {
        const bool isFetched = step.fetch(record, payloads, payload);
        isMissing = !isFetched && limit > 0;
        if (!isFetched) continue;
        bytes = payload;
      }
      bytes = firstBytes(bytes, limit);
      message.dlc_ = lengthToDlc(bytes.size());
      length = dlcToLength(message.dlc_);
      if (ownCode > kMaxClassicPayload && length == kMaxClassicPayload) message.dlc_ = *ownCode;
    }
    bytes = firstBytes(bytes, length);
  }
  if (ownCode && message.Rtr()) {
    message.dlc_ = *ownCode;
    length = 0;
    bytes = {};
  }
  if (bytes.data() != payload.data()) {
    payload.assign(bytes.begin(), bytes.end());
  } else {  // it is there already, at the front of the value that was fetched
    payload.resize(bytes.size());
    if (payload.capacity() > kMaxPayload) payload.shrink_to_fit();
  }
  if (payload.size() < length) payload.resize(length, message.fillByte_);
  const bool isRemote = message.Rtr() && !message.Edl();
  message.payloadMissing_ = !isRemote && isMissing.value_or(length > 0);
}

void CanRecordDecoder::decodeErrorPayload(const Step& step, ByteSpan record,
                                          PayloadSource* payloads, std::uint32_t limit,
                                          MdfCanError& error) {
  std::vector<std::uint8_t>& payload = error.dataBytes_;
  if (!step.variableLength) {
    const ByteSpan bytes = firstBytes(step.inRecord(record), limit);
    payload.assign(bytes.begin(), bytes.end());
    error.payloadMissing_ = !step.isInside(record, limit);
    return;
  }
  const bool isFetched = step.fetch(record, payloads, payload);
  error.payloadMissing_ = !isFetched && limit > 0;
  if (isFetched && payload.size() > limit) payload.resize(limit);
}

void CanRecordDecoder::decodeErrorId(std::uint32_t id, MdfCanError& error) const {
  error.MessageId(id);
  if (!loggerRules_) return;
  if (!hasExtended_) error.ExtendedId(error.MessageId() > kMaxStandardId);
  error.MessageId(error.MessageId() & kIdentifierMask);
}

void CanRecordDecoder::decodeError(ByteSpan record, PayloadSource* payloads,
                                   MdfCanError& error) const {
  error.BusChannel(busChannel(record));
  std::uint32_t limit = kNoLimit;
  for (const Step& step : steps_) {
    const std::uint64_t value = step.number.read(record);
    switch (step.field) {
      case CanField::DLC:
        error.Dlc(static_cast<std::uint8_t>(value));
        if (payloadByDlc_ && error.Dlc() <= kMaxDlc) limit = dlcToLength(error.Dlc());
        break;
      case CanField::DataBytes:
        decodeErrorPayload(step, record, payloads, limit, error);
        break;
      case CanField::DataLength:
        error.DataLength(static_cast<std::uint32_t>(value));
        break;
      case CanField::Dir:
        error.Dir(value != 0);
        break;
      case CanField::ID:
        decodeErrorId(static_cast<std::uint32_t>(value), error);
        break;
      case CanField::IDE:
        error.ExtendedId(value != 0);
        break;
      case CanField::ErrorFlags:
        error.ErrorFlags(static_cast<std::uint32_t>(value));
        break;
      case CanField::TimeOffsetBRS:
        error.TimeOffsetBRS(value);
        break;
      case CanField::TimeOffsetCRCDel:
        error.TimeOffsetCRCDel(value);
        break;
      case CanField::CRC:
        error.Crc(static_cast<std::uint32_t>(value));
        break;
      case CanField::BtrExtCfg:
        error.BtrExtCfg(value);
        break;
      case CanField::TEC:
        error.Tec(static_cast<std::uint8_t>(value));
        break;
      case CanField::TREC:
        error.Trec(static_cast<std::uint8_t>(value));
        break;
      case CanField::ErrorType:
        error.ErrorType(static_cast<CanErrorType>(value));
        break;
      case CanField::EDL:
        if (loggerRules_ && value != 0) error.isCanFdError_ = true;
        break;
      default:
        break;
    }
  }
}

}  // namespace tolvex
