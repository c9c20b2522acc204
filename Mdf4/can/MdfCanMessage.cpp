#include <algorithm>

#include "Mdf4/Record.h"
#include "Mdf4/can/DataFramePacking.h"
#include "Mdf4/model/BusLogLayout.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

namespace {

// The fields of an error frame for which a message has nothing become 0; its flags byte stands for
// the error flags.
void storeError(std::uint8_t* record, const MdfCanMessage& message, std::uint8_t flags,
                std::uint8_t fill) {
  constexpr const BusLogLayout& layout = kCanErrorFrames;
  storeField<layout.place("BusChannel")>(record, message.BusChannel());
  storeField<layout.place("ID")>(record, message.MessageId());
  storeField<layout.place("ErrorFlags")>(record, flags);
  storeFieldAlone<layout.place("Dir")>(record, message.Dir());
  storeField<layout.place("DLC")>(record, message.Dlc());
  storeField<layout.place("TEC")>(record, 0);
  storeField<layout.place("TREC")>(record, 0);
  constexpr FieldPlace kPayload = layout.place("DataBytes");
  storePayload(record + kPayload.byteOffset, kPayload.bits / 8, message.DataBytes(), fill);
}

void storeFdError(std::uint8_t* record, const MdfCanMessage& message, std::uint8_t flags,
                  std::uint8_t fill) {
  constexpr const BusLogLayout& layout = kCanFdErrorFrames;
  storeField<layout.place("BusChannel")>(record, message.BusChannel());
  storeField<layout.place("ID")>(record, message.MessageId());
  storeFieldAlone<layout.place("IDE")>(record, message.ExtendedId());  // the identifier's top byte
  storeField<layout.place("DLC")>(record, message.Dlc());
  storeField<layout.place("DataLength")>(record, message.DataLength());
  storeField<layout.place("TEC")>(record, 0);
  storeField<layout.place("TREC")>(record, 0);
  storeField<layout.place("TimeOffsetBRS")>(record, message.TimeOffsetBRS());
  storeField<layout.place("TimeOffsetCRCDel")>(record, message.TimeOffsetCRCDel());
  storeField<layout.place("CRC")>(record, message.Crc());
  storeField<layout.place("ErrorFlags")>(record, flags);
  storeField<layout.place("BtrExtCfg")>(record, message.BtrExtCfg());
  constexpr FieldPlace kPayload = layout.place("DataBytes");
  storePayload(record + kPayload.byteOffset, kPayload.bits / 8, message.DataBytes(), fill);
}

void storeChannelDir(std::uint8_t* record, const MdfCanMessage& message) {
  storeFieldAlone<kChannelDirDir>(record, message.Dir());
  storeField<kChannelDirChannel>(record, message.BusChannel());
}

}  // namespace

std::uint32_t MdfCanMessage::DlcToLength(std::uint8_t dlc) {
  return dlcToLength(dlc);
}

bool MdfCanMessage::Dlc(std::uint8_t dlc) {
  if (dlc > kMaxDlc) return false;
  dataBytes_.resize(dlcToLength(dlc));
  dlc_ = dlc;
  return true;
}

void MdfCanMessage::DataLength(std::uint32_t length) {
  Dlc(lengthToDlc(length));
}

void MdfCanMessage::DataBytes(const std::vector<std::uint8_t>& bytes) {
  if (&bytes == &dataBytes_) dataBytes_.reserve(kMaxPayload);  // it must not move when it grows
  DataBytes(bytes.data(), bytes.size());
}

void MdfCanMessage::DataBytes(const std::uint8_t* bytes, std::size_t size) {
  Dlc(lengthToDlc(size));
  payloadMissing_ = false;
  const std::size_t copied = std::min(size, dataBytes_.size());
  std::copy_n(bytes, copied, dataBytes_.begin());
  std::fill(dataBytes_.begin() + static_cast<std::ptrdiff_t>(copied), dataBytes_.end(), fillByte_);
}

bool MdfCanMessage::ToRaw(MessageType type, RecordData& record, unsigned dataBytes,
                          bool fixedEight) const {
  std::uint8_t* const bytes = record.data();
  if (bytes == nullptr) return false;
  const std::uint64_t size = record.size();
  switch (type) {
    case MessageType::DataFrame: {
      const unsigned payloadSize = std::max(dataBytes, kMaxClassicPayload);
      if (fixedEight && payloadSize > kMaxClassicPayload) return false;
      if (size != kHeaderOnlySize + std::uint64_t{payloadSize}) return false;
      DataFramePacking::packHeader(bytes, *this);
      DataFramePacking::packPayload(bytes, *this, payloadSize);
      return true;
    }
    case MessageType::HeaderOnlyFrame:
      if (size != kHeaderOnlySize) return false;
      DataFramePacking::packHeader(bytes, *this);
      return true;
    case MessageType::ErrorFrame:
      if (size < kCanErrorFrames.recordSize(kMaxPayload)) return false;
      storeError(bytes, *this, flags_, fillByte_);
      return true;
    case MessageType::FdErrorFrame:
      if (size < kCanFdErrorFrames.recordSize(kMaxPayload)) return false;
      storeFdError(bytes, *this, flags_, fillByte_);
      return true;
    case MessageType::ChannelDirFrame:
      if (size != kChannelDirSize) return false;
      storeChannelDir(bytes, *this);
      return true;
  }
  return false;
}

void MdfCanMessage::Reset() {
  messageId_ = 0;
  dlc_ = 0;
  busChannel_ = 0;
  flags_ = 0;
  dataIndex_ = 0;
  dataBytes_.clear();
  payloadMissing_ = false;
  bitPosition_ = 0;
  errorType_ = CanErrorType::Unknown;
  timeOffsetBrs_ = 0;
  timeOffsetCrcDel_ = 0;
  crc_ = 0;
  btrExtCfg_ = 0;
}

}  // namespace tolvex
