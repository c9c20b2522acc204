#include "Mdf4/can/BusLogLayout.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

std::uint32_t MdfCanError::DlcToLength(std::uint8_t dlc) {
  return dlcToLength(dlc);
}

}  // namespace tolvex
