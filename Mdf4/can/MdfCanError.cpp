#include "Mdf4/Record.h"
#include "Mdf4/model/BusLogLayout.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

namespace {

void storeClassic(std::uint8_t* record, const MdfCanError& error) {
  constexpr const BusLogLayout& layout = kCanErrorFrames;
  storeField<layout.place("BusChannel")>(record, error.BusChannel());
  storeField<layout.place("ID")>(record, error.MessageId());
  storeField<layout.place("ErrorFlags")>(record, error.ErrorFlags());
  storeFieldAlone<layout.place("Dir")>(record, error.Dir());
  storeField<layout.place("DLC")>(record, error.Dlc() & kMaxDlc);
  storeField<layout.place("TEC")>(record, error.Tec());
  storeField<layout.place("TREC")>(record, error.Trec());
  constexpr FieldPlace kPayload = layout.place("DataBytes");
  storePayload(record + kPayload.byteOffset, kPayload.bits / 8, error.DataBytes(), 0);
}

// The CRC with its first bit last: so an error stores it, a message as it is.
std::uint32_t reversedCrc(std::uint32_t crc) {
  std::uint32_t reversed = 0;
  for (std::uint32_t bit = 0; bit < kCanFdErrorFrames.place("CRC").bits; ++bit) {
    reversed = reversed << 1 | (crc >> bit & 1);
  }
  return reversed;
}

void storeFd(std::uint8_t* record, const MdfCanError& error) {
  constexpr const BusLogLayout& layout = kCanFdErrorFrames;
  storeField<layout.place("BusChannel")>(record, error.BusChannel());
  storeField<layout.place("ID")>(record, error.MessageId());
  storeFieldAlone<layout.place("IDE")>(record, error.ExtendedId());  // the identifier's top byte
  storeField<layout.place("DLC")>(record, error.Dlc() & kMaxDlc);
  storeField<layout.place("DataLength")>(record, error.DataLength());
  storeField<layout.place("TEC")>(record, error.Tec());
  storeField<layout.place("TREC")>(record, error.Trec());
  storeField<layout.place("TimeOffsetBRS")>(record, error.TimeOffsetBRS());
  storeField<layout.place("TimeOffsetCRCDel")>(record, error.TimeOffsetCRCDel());
  storeField<layout.place("CRC")>(record, reversedCrc(error.Crc()));
  storeField<layout.place("ErrorFlags")>(record, error.ErrorFlags() & 0xFF);
  storeField<layout.place("BtrExtCfg")>(record, error.BtrExtCfg());
  constexpr FieldPlace kPayload = layout.place("DataBytes");
  storePayload(record + kPayload.byteOffset, kPayload.bits / 8, error.DataBytes(), 0);
}

}  // namespace

std::uint32_t MdfCanError::DlcToLength(std::uint8_t dlc) {
  return dlcToLength(dlc);
}

bool MdfCanError::ToRaw(RecordData& record, unsigned /*ignored*/, bool canFd) const {
  const BusLogLayout& layout = canFd ? kCanFdErrorFrames : kCanErrorFrames;
  if (record.data() == nullptr || record.size() < layout.recordSize(kMaxPayload)) return false;
  if (canFd) {
    storeFd(record.data(), *this);
  } else {
    storeClassic(record.data(), *this);
  }
  return true;
}

}  // namespace tolvex
