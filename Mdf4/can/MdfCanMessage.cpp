#include <algorithm>

#include "Mdf4/can/BusLogLayout.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

std::uint32_t MdfCanMessage::DlcToLength(std::uint8_t dlc) {
  return dlcToLength(dlc);
}

bool MdfCanMessage::Dlc(std::uint8_t dlc) {
  if (dlc > kMaxDlc) return false;
  dlc_ = dlc;
  dataBytes_.resize(dlcToLength(dlc));
  return true;
}

void MdfCanMessage::DataLength(std::uint32_t length) {
  Dlc(lengthToDlc(length));
}

void MdfCanMessage::DataBytes(const std::vector<std::uint8_t>& bytes) {
  const std::size_t given = bytes.size();  // `bytes` may be the payload itself
  Dlc(lengthToDlc(given));
  const auto copied = static_cast<std::ptrdiff_t>(std::min(given, dataBytes_.size()));
  std::copy_n(bytes.begin(), copied, dataBytes_.begin());
  std::fill(dataBytes_.begin() + copied, dataBytes_.end(), fillByte_);
}

void MdfCanMessage::Reset() {
  messageId_ = 0;
  dlc_ = 0;
  busChannel_ = 0;
  flags_ = 0;
  dataIndex_ = 0;
  dataBytes_.clear();
  bitPosition_ = 0;
  errorType_ = CanErrorType::Unknown;
  timeOffsetBrs_ = 0;
  timeOffsetCrcDel_ = 0;
  crc_ = 0;
  btrExtCfg_ = 0;
}

}  // namespace tolvex
