// CAN and CAN FD frames: what MdfReader returns, and what saveCanMessage, saveCanError and
// saveCanErrorFromCanError of tolvex/MdfEngine.h record.
//
// Both classes are plain values without a lock: copies are independent, and one object is used by
// one thread at a time. Nothing here throws, except that a payload needs memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <variant>
#include <vector>

#include "tolvex/MdfExport.h"

namespace tolvex {

class RecordData;  // the library's own record buffer

// What went wrong on the bus. The library stores and copies the value and never interprets it;
// readers set it only under MdfReader::setLoggerRules.
enum class CanErrorType : std::uint8_t {
  Unknown = 0,
  Bit = 1,
  Form = 2,
  BitStuffing = 3,
  Crc = 4,
  Acknowledge = 5,
};

// The record layouts that a frame can be packed into. In each of them bytes 0 to 7 are the time,
// a float64 of seconds, and byte 8 is the bus channel; numbers are little-endian.
enum class MessageType : std::uint8_t {
  // 15 + n bytes: 9 data length code, 10 flags (Dir is bit 0, then Srr, Edl, Brs, Esi, WakeUp,
  // SingleWire, Rtr), 11..14 identifier with the extended flag in bit 31, 15.. payload of n bytes.
  DataFrame = 0,
  // 15 bytes: a data frame without its payload.
  HeaderOnlyFrame = 1,
  // At least 26 bytes: 9..12 identifier, 13 flags, 14 direction in bit 7, 15 data length code,
  // 18..25 payload.
  ErrorFrame = 2,
  // At least 113 bytes: 9..11 the identifier's low 24 bits, 12 extended flag, 13 data length code,
  // 14 payload bytes, 19 TimeOffsetBRS, 23 TimeOffsetCRCDel, 27..29 CRC (21 bits), 34 flags,
  // 41..104 payload, 105 BtrExtCfg.
  FdErrorFrame = 3,
  // 9 bytes: byte 8 is the bus channel in its upper and the direction in its lower four bits.
  ChannelDirFrame = 4,
};

// One CAN or CAN FD frame: data or remote, or an error that is recorded as a message.
//
//   tolvex::MdfCanMessage message;
//   message.BusChannel(1);                   // files count buses from 1
//   message.MessageId(0x123);
//   message.DataBytes({0x9B, 0xE4, 0xCF});   // the data length code becomes 3
//   saveCanMessage(recorder, microseconds, &message);  // of tolvex/MdfEngine.h
//
// Every field is 0 at first. Setters take the field's value, getters of the same name return it.
class TOLVEX_EXPORT MdfCanMessage {
 public:
  MdfCanMessage() = default;
  MdfCanMessage(const MdfCanMessage&) = default;
  MdfCanMessage(MdfCanMessage&&) = default;
  MdfCanMessage& operator=(const MdfCanMessage&) = default;
  MdfCanMessage& operator=(MdfCanMessage&&) = default;

  // From a reader: nanoseconds since the recording's start (MdfFileInfo::startTimeNs). Recorders
  // ignore it: they take microseconds since 1970 as an argument of their own.
  void Timestamp(std::uint64_t value) { timestamp_ = value; }
  std::uint64_t Timestamp() const { return timestamp_; }

  // The identifier with the extended flag in bit 31. Setting a value above 0x7FF sets the flag;
  // one of 0x7FF or less is stored as given.
  void MessageId(std::uint32_t value) {
    messageId_ = value > kMaxStandardId ? value | kExtendedFlag : value;
  }
  std::uint32_t MessageId() const { return messageId_; }
  // The identifier without the flag.
  std::uint32_t CanId() const { return messageId_ & ~kExtendedFlag; }
  void ExtendedId(bool value) {
    messageId_ = value ? messageId_ | kExtendedFlag : messageId_ & ~kExtendedFlag;
  }
  bool ExtendedId() const { return (messageId_ & kExtendedFlag) != 0; }

  // The data length code, 0..15. Setting it resizes the payload to the code's length: the first
  // bytes stay, new ones are 0. False, with nothing changed, for a code above 15.
  bool Dlc(std::uint8_t dlc);
  std::uint8_t Dlc() const { return dlc_; }
  // Sets the smallest code whose length is at least `length` bytes (9 becomes 12) and resizes the
  // payload to it. A length above 64 counts as 8.
  void DataLength(std::uint32_t length);
  // The bytes that the code stands for; the payload may have another size in frames from a reader
  // with MdfReader::setPayloadByDlc.
  std::uint32_t DataLength() const { return DlcToLength(dlc_); }
  // Copies the payload and sets the smallest code that holds it. Positions between its end and the
  // code's length get the fill byte, 0. Of more than 64 bytes the first 8 are taken.
  void DataBytes(const std::vector<std::uint8_t>& bytes);
  void DataBytes(const std::uint8_t* bytes, std::size_t size);
  const std::vector<std::uint8_t>& DataBytes() const { return dataBytes_; }
  // True for a frame from a reader whose payload is missing from the file or unreadable.
  // DataBytes() then holds what could be read, zero-filled to the code's length. Setting the
  // payload clears it.
  bool PayloadMissing() const { return payloadMissing_; }

  // True: transmitted by the node that recorded; false: received.
  void Dir(bool value) { flag(kDir, value); }
  bool Dir() const { return flag(kDir); }
  // Substitute remote request. Recorded, but read back only under MdfReader::setLoggerRules.
  void Srr(bool value) { flag(kSrr, value); }
  bool Srr() const { return flag(kSrr); }
  // Extended data length: a CAN FD frame. saveCanError chooses the error layout by it.
  void Edl(bool value) { flag(kEdl, value); }
  bool Edl() const { return flag(kEdl); }
  // Bit rate switch: the payload was sent at the higher rate.
  void Brs(bool value) { flag(kBrs, value); }
  bool Brs() const { return flag(kBrs); }
  // Error state indicator: the sender was error passive.
  void Esi(bool value) { flag(kEsi, value); }
  bool Esi() const { return flag(kEsi); }
  // Wake-up and single-wire frames. The recorder's files name the two bits the other way round, so
  // a frame recorded with one of these flags reads back with the other.
  void WakeUp(bool value) { flag(kWakeUp, value); }
  bool WakeUp() const { return flag(kWakeUp); }
  void SingleWire(bool value) { flag(kSingleWire, value); }
  bool SingleWire() const { return flag(kSingleWire); }
  // Remote transmission request: a remote frame.
  void Rtr(bool value) { flag(kRtr, value); }
  bool Rtr() const { return flag(kRtr); }

  // The 0-based number of the record that a reader made the frame from, within its channel group;
  // 0 for an application's own frames.
  void DataIndex(std::uint64_t value) { dataIndex_ = value; }
  std::uint64_t DataIndex() const { return dataIndex_; }
  // The number of the bus. Files count from 1 and recorders store the number as it is; readers
  // subtract 1, so a frame recorded with 1 reads back with 0.
  void BusChannel(std::uint8_t value) { busChannel_ = value; }
  std::uint8_t BusChannel() const { return busChannel_; }
  // Where in the frame an error was met, in bits; in no record that ToRaw packs.
  void BitPosition(std::uint8_t value) { bitPosition_ = value; }
  std::uint8_t BitPosition() const { return bitPosition_; }
  // The kind of error; in no record that ToRaw packs.
  void ErrorType(CanErrorType value) { errorType_ = value; }
  CanErrorType ErrorType() const { return errorType_; }
  // Details of a CAN FD error, stored as given: when the bit rate switched and the CRC delimiter
  // came, the frame's CRC (its low 21 bits are kept), and the controller's bit timing.
  void TimeOffsetBRS(std::uint32_t value) { timeOffsetBrs_ = value; }
  std::uint32_t TimeOffsetBRS() const { return timeOffsetBrs_; }
  void TimeOffsetCRCDel(std::uint32_t value) { timeOffsetCrcDel_ = value; }
  std::uint32_t TimeOffsetCRCDel() const { return timeOffsetCrcDel_; }
  void Crc(std::uint32_t value) { crc_ = value & kCrcMask; }
  std::uint32_t Crc() const { return crc_; }
  void BtrExtCfg(std::uint64_t value) { btrExtCfg_ = value; }
  std::uint64_t BtrExtCfg() const { return btrExtCfg_; }

  // Payload bytes of a data length code (CAN FD): 0..8 as they are, then 12, 16, 20, 24, 32, 48,
  // 64; 0 for a code above 15.
  static std::uint32_t DlcToLength(std::uint8_t dlc);

  // Packs the frame into a record of that layout; the caller sets the time. A data frame takes
  // n = max(dataBytes, 8) payload bytes; positions beyond the payload get the fill byte. False,
  // with nothing written, when the record's size does not fit the layout, for an unknown type, and
  // when `fixedEight` is set and n is above 8.
  [[nodiscard]] bool ToRaw(MessageType type, RecordData& record, unsigned dataBytes,
                           bool fixedEight) const;

  // Clears everything but the timestamp and the fill byte, for the next frame; the payload keeps
  // its memory.
  void Reset();

 private:
  friend class CanRecordColumns;
  friend class CanRecordDecoder;
  friend class DataFramePacking;

  static constexpr std::uint32_t kMaxStandardId = 0x7FF;
  static constexpr std::uint32_t kExtendedFlag = 0x80000000;
  static constexpr std::uint32_t kCrcMask = 0x1FFFFF;
  // The flags byte, as it stands in a record.
  static constexpr std::uint8_t kDir = 0x01;
  static constexpr std::uint8_t kSrr = 0x02;
  static constexpr std::uint8_t kEdl = 0x04;
  static constexpr std::uint8_t kBrs = 0x08;
  static constexpr std::uint8_t kEsi = 0x10;
  static constexpr std::uint8_t kWakeUp = 0x20;
  static constexpr std::uint8_t kSingleWire = 0x40;
  static constexpr std::uint8_t kRtr = 0x80;

  void flag(std::uint8_t mask, bool value) {
    flags_ = static_cast<std::uint8_t>(value ? flags_ | mask : flags_ & ~mask);
  }
  bool flag(std::uint8_t mask) const { return (flags_ & mask) != 0; }

  std::uint64_t timestamp_ = 0;
  std::uint32_t messageId_ = 0;
  std::uint8_t dlc_ = 0;
  std::uint8_t busChannel_ = 0;
  std::uint8_t flags_ = 0;
  std::uint64_t dataIndex_ = 0;
  std::vector<std::uint8_t> dataBytes_;
  std::uint8_t bitPosition_ = 0;
  CanErrorType errorType_ = CanErrorType::Unknown;
  std::uint8_t fillByte_ = 0;
  bool payloadMissing_ = false;
  std::uint32_t timeOffsetBrs_ = 0;
  std::uint32_t timeOffsetCrcDel_ = 0;
  std::uint32_t crc_ = 0;
  std::uint64_t btrExtCfg_ = 0;
};

// One CAN or CAN FD error frame with the controller's error counters.
//
//   tolvex::MdfCanError error;
//   error.BusChannel(1);
//   error.MessageId(0x123);
//   error.Tec(96);  // the transmitter's error counter
//   saveCanErrorFromCanError(recorder, microseconds, &error);  // of tolvex/MdfEngine.h
//
// Every field is 0 at first. Setters store what they are given, without a check; those of the four
// CAN FD fields also mark the error as one of CAN FD.
class TOLVEX_EXPORT MdfCanError {
 public:
  MdfCanError() = default;
  MdfCanError(const MdfCanError&) = default;
  MdfCanError(MdfCanError&&) = default;
  MdfCanError& operator=(const MdfCanError&) = default;
  MdfCanError& operator=(MdfCanError&&) = default;

  // As MdfCanMessage::Timestamp and BusChannel.
  void Timestamp(std::uint64_t value) { timestamp_ = value; }
  std::uint64_t Timestamp() const { return timestamp_; }
  void BusChannel(std::uint8_t value) { busChannel_ = value; }
  std::uint8_t BusChannel() const { return busChannel_; }
  // The identifier, and whether it is an extended one. A classic error's record holds MessageId
  // alone, whose bit 31 reads as the extended flag; in a CAN FD error's record ExtendedId takes the
  // place of the identifier's top byte.
  void MessageId(std::uint32_t value) { messageId_ = value; }
  std::uint32_t MessageId() const { return messageId_; }
  void ExtendedId(bool value) { extendedId_ = value; }
  bool ExtendedId() const { return extendedId_; }
  // What the controller reported, as it reported it; a record keeps the low 8 bits.
  void ErrorFlags(std::uint32_t value) { errorFlags_ = value; }
  std::uint32_t ErrorFlags() const { return errorFlags_; }
  // True: transmitted. Not in a CAN FD error's record.
  void Dir(bool value) { dir_ = value; }
  bool Dir() const { return dir_; }
  // The data length code, the payload's bytes and the payload: three fields that need not agree.
  // Records keep the code's low 4 bits, a length only in CAN FD errors, and 8 or 64 payload bytes.
  void Dlc(std::uint8_t value) { dlc_ = value; }
  std::uint8_t Dlc() const { return dlc_; }
  void DataLength(std::uint32_t value) { dataLength_ = value; }
  std::uint32_t DataLength() const { return dataLength_; }
  void DataBytes(const std::vector<std::uint8_t>& bytes) {
    dataBytes_ = bytes;
    payloadMissing_ = false;
  }
  const std::vector<std::uint8_t>& DataBytes() const { return dataBytes_; }
  // True for an error from a reader whose payload is missing or unreadable; DataBytes() then holds
  // what could be read. Setting the payload clears it.
  bool PayloadMissing() const { return payloadMissing_; }
  // The transmit and the receive error counter.
  void Tec(std::uint8_t value) { tec_ = value; }
  std::uint8_t Tec() const { return tec_; }
  void Trec(std::uint8_t value) { trec_ = value; }
  std::uint8_t Trec() const { return trec_; }
  // The four CAN FD fields: stored as given. A record keeps the low 32 bits of both time offsets,
  // and the CRC's low 21 bits in reversed order (MdfCanMessage packs them in order).
  void TimeOffsetBRS(std::uint64_t value) {
    timeOffsetBrs_ = value;
    isCanFdError_ = true;
  }
  std::uint64_t TimeOffsetBRS() const { return timeOffsetBrs_; }
  void TimeOffsetCRCDel(std::uint64_t value) {
    timeOffsetCrcDel_ = value;
    isCanFdError_ = true;
  }
  std::uint64_t TimeOffsetCRCDel() const { return timeOffsetCrcDel_; }
  void Crc(std::uint32_t value) {
    crc_ = value;
    isCanFdError_ = true;
  }
  std::uint32_t Crc() const { return crc_; }
  void BtrExtCfg(std::uint64_t value) {
    btrExtCfg_ = value;
    isCanFdError_ = true;
  }
  std::uint64_t BtrExtCfg() const { return btrExtCfg_; }
  // True once one of the four fields above was set; only assignment clears it.
  bool IsCanFdError() const { return isCanFdError_; }
  // The kind of error; in no record that ToRaw packs.
  void ErrorType(CanErrorType value) { errorType_ = value; }
  CanErrorType ErrorType() const { return errorType_; }

  // As MdfCanMessage::DlcToLength.
  static std::uint32_t DlcToLength(std::uint8_t dlc);

  // Packs the error into a record of a classic error frame (at least 26 bytes, laid out as
  // MessageType::ErrorFrame, with Tec and Trec in bytes 16 and 17) or a CAN FD one (at least 113);
  // the caller sets the time. Bytes beyond the payload become 0. False, with nothing written, when
  // the record is too small.
  [[nodiscard]] bool ToRaw(RecordData& record, unsigned ignored, bool canFd) const;

 private:
  friend class CanRecordDecoder;

  std::uint64_t timestamp_ = 0;
  std::uint8_t busChannel_ = 0;
  std::uint32_t messageId_ = 0;
  bool extendedId_ = false;
  std::uint32_t errorFlags_ = 0;
  bool dir_ = false;
  std::uint8_t dlc_ = 0;
  std::uint32_t dataLength_ = 0;
  std::vector<std::uint8_t> dataBytes_;
  std::uint8_t tec_ = 0;
  std::uint8_t trec_ = 0;
  std::uint64_t timeOffsetBrs_ = 0;
  std::uint64_t timeOffsetCrcDel_ = 0;
  std::uint32_t crc_ = 0;
  std::uint64_t btrExtCfg_ = 0;
  bool isCanFdError_ = false;
  bool payloadMissing_ = false;
  CanErrorType errorType_ = CanErrorType::Unknown;
};

// A frame of either kind, as MdfReader::getNext returns it. It belongs to the caller alone; an
// empty MdfCanMessage pointer means that there are no more.
using MdfFrame = std::variant<std::shared_ptr<MdfCanMessage>, std::shared_ptr<MdfCanError>>;

}  // namespace tolvex
