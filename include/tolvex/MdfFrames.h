// CAN and CAN FD frames, as readers make them and recorders take them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <variant>
#include <vector>

#include "tolvex/MdfExport.h"

namespace tolvex {

class RecordData;

// What went wrong on the bus. The library stores and copies the value and never interprets it.
enum class CanErrorType : std::uint8_t {
  Unknown = 0,
  Bit = 1,
  Form = 2,
  BitStuffing = 3,
  Crc = 4,
  Acknowledge = 5,
};

// The record layouts that a frame can be packed into.
enum class MessageType : std::uint8_t {
  DataFrame = 0,
  HeaderOnlyFrame = 1,
  ErrorFrame = 2,
  FdErrorFrame = 3,
  ChannelDirFrame = 4,
};

// One CAN or CAN FD frame. A value; one thread at a time.
class TOLVEX_EXPORT MdfCanMessage {
 public:
  MdfCanMessage() = default;
  MdfCanMessage(const MdfCanMessage&) = default;
  MdfCanMessage(MdfCanMessage&&) = default;
  MdfCanMessage& operator=(const MdfCanMessage&) = default;
  MdfCanMessage& operator=(MdfCanMessage&&) = default;

  // Frames made by a reader: nanoseconds since the recording's start. Frames handed to a recorder:
  // microseconds on the scale of the recorder's start time.
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

  // The data length code, 0..15; the payload is resized to its length (new bytes are 0). A code
  // above 15 gives false and changes nothing.
  bool Dlc(std::uint8_t dlc);
  std::uint8_t Dlc() const { return dlc_; }
  // Sets the smallest code that holds `length` bytes and resizes the payload; above 64 means 8.
  void DataLength(std::uint32_t length);
  // The length that the code stands for, not the payload's size.
  std::uint32_t DataLength() const { return DlcToLength(dlc_); }
  // Sets code and payload; positions up to the code's length get the fill byte (0).
  void DataBytes(const std::vector<std::uint8_t>& bytes);
  void DataBytes(const std::uint8_t* bytes, std::size_t size);
  const std::vector<std::uint8_t>& DataBytes() const { return dataBytes_; }
  // Whether a reader made the frame of a record whose payload is not in the file or cannot be read.
  // DataBytes() is then no payload: what of it could be read, with zeros up to the code's length.
  // Setting the payload makes it false.
  bool PayloadMissing() const { return payloadMissing_; }

  void Dir(bool value) { flag(kDir, value); }  // true: transmitted
  bool Dir() const { return flag(kDir); }
  void Srr(bool value) { flag(kSrr, value); }
  bool Srr() const { return flag(kSrr); }
  void Edl(bool value) { flag(kEdl, value); }  // true: CAN FD
  bool Edl() const { return flag(kEdl); }
  void Brs(bool value) { flag(kBrs, value); }
  bool Brs() const { return flag(kBrs); }
  void Esi(bool value) { flag(kEsi, value); }
  bool Esi() const { return flag(kEsi); }
  void WakeUp(bool value) { flag(kWakeUp, value); }
  bool WakeUp() const { return flag(kWakeUp); }
  void SingleWire(bool value) { flag(kSingleWire, value); }
  bool SingleWire() const { return flag(kSingleWire); }
  void Rtr(bool value) { flag(kRtr, value); }  // true: remote frame
  bool Rtr() const { return flag(kRtr); }

  // The 0-based number of the record in its group that a reader took the frame from; else 0.
  void DataIndex(std::uint64_t value) { dataIndex_ = value; }
  std::uint64_t DataIndex() const { return dataIndex_; }
  void BusChannel(std::uint8_t value) { busChannel_ = value; }
  std::uint8_t BusChannel() const { return busChannel_; }
  void BitPosition(std::uint8_t value) { bitPosition_ = value; }
  std::uint8_t BitPosition() const { return bitPosition_; }
  void ErrorType(CanErrorType value) { errorType_ = value; }
  CanErrorType ErrorType() const { return errorType_; }
  void TimeOffsetBRS(std::uint32_t value) { timeOffsetBrs_ = value; }
  std::uint32_t TimeOffsetBRS() const { return timeOffsetBrs_; }
  void TimeOffsetCRCDel(std::uint32_t value) { timeOffsetCrcDel_ = value; }
  std::uint32_t TimeOffsetCRCDel() const { return timeOffsetCrcDel_; }
  void Crc(std::uint32_t value) { crc_ = value & kCrcMask; }  // 21 bits
  std::uint32_t Crc() const { return crc_; }
  void BtrExtCfg(std::uint64_t value) { btrExtCfg_ = value; }
  std::uint64_t BtrExtCfg() const { return btrExtCfg_; }

  // Payload bytes of a data length code: 0..8 as they are, then 12, 16, 20, 24, 32, 48, 64; 0
  // for a code above 15.
  static std::uint32_t DlcToLength(std::uint8_t dlc);

  // Packs the frame into a record of that layout, all but its time. A data frame takes `dataBytes`
  // payload bytes, at least 8 (with fixedEight never more), and fills those beyond the payload with
  // the fill byte. False, with nothing written, for a record of another size and for a type that
  // there is not.
  bool ToRaw(MessageType type, RecordData& record, unsigned dataBytes, bool fixedEight) const;

  // Clears everything but the timestamp and the fill byte; the payload keeps its capacity.
  void Reset();

 private:
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

// One CAN or CAN FD error frame with its error counters. A value; one thread at a time. Setters
// store what they are given; the four CAN FD fields also set IsCanFdError.
class TOLVEX_EXPORT MdfCanError {
 public:
  MdfCanError() = default;
  MdfCanError(const MdfCanError&) = default;
  MdfCanError(MdfCanError&&) = default;
  MdfCanError& operator=(const MdfCanError&) = default;
  MdfCanError& operator=(MdfCanError&&) = default;

  void Timestamp(std::uint64_t value) { timestamp_ = value; }  // units as for MdfCanMessage
  std::uint64_t Timestamp() const { return timestamp_; }
  void BusChannel(std::uint8_t value) { busChannel_ = value; }
  std::uint8_t BusChannel() const { return busChannel_; }
  void MessageId(std::uint32_t value) { messageId_ = value; }  // no flag bit
  std::uint32_t MessageId() const { return messageId_; }
  void ExtendedId(bool value) { extendedId_ = value; }
  bool ExtendedId() const { return extendedId_; }
  void ErrorFlags(std::uint32_t value) { errorFlags_ = value; }
  std::uint32_t ErrorFlags() const { return errorFlags_; }
  void Dir(bool value) { dir_ = value; }
  bool Dir() const { return dir_; }
  void Dlc(std::uint8_t value) { dlc_ = value; }  // not checked
  std::uint8_t Dlc() const { return dlc_; }
  void DataLength(std::uint32_t value) { dataLength_ = value; }  // not derived from the code
  std::uint32_t DataLength() const { return dataLength_; }
  void DataBytes(const std::vector<std::uint8_t>& bytes) {
    dataBytes_ = bytes;
    payloadMissing_ = false;
  }
  const std::vector<std::uint8_t>& DataBytes() const { return dataBytes_; }
  // Whether a reader made the frame of a record whose payload cannot be read; DataBytes() then
  // holds what of it could be. Setting the payload makes it false.
  bool PayloadMissing() const { return payloadMissing_; }
  void Tec(std::uint8_t value) { tec_ = value; }  // transmit error counter
  std::uint8_t Tec() const { return tec_; }
  void Trec(std::uint8_t value) { trec_ = value; }  // receive error counter
  std::uint8_t Trec() const { return trec_; }
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
  bool IsCanFdError() const { return isCanFdError_; }
  void ErrorType(CanErrorType value) { errorType_ = value; }  // in no record that ToRaw packs
  CanErrorType ErrorType() const { return errorType_; }

  // As MdfCanMessage::DlcToLength.
  static std::uint32_t DlcToLength(std::uint8_t dlc);

  // Packs the frame into a record of a CAN FD or classic error frame, all but its time; bytes
  // beyond the payload become 0. False, with nothing written, for a record that is too small.
  bool ToRaw(RecordData& record, unsigned ignored, bool canFd) const;

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

// A frame as MdfReader hands it out; an empty MdfCanMessage pointer stands for "no more frames".
using MdfFrame = std::variant<std::shared_ptr<MdfCanMessage>, std::shared_ptr<MdfCanError>>;

}  // namespace tolvex
