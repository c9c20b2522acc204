// The plain functions for CAN frame handles, each of which points to an MdfCanMessage.
#include <algorithm>
#include <new>

#include "tolvex/Mdf4.h"
#include "tolvex/MdfEngine.h"

namespace {

using tolvex::MdfCanMessage;

MdfCanMessage& frameOf(void* message) {
  return *static_cast<MdfCanMessage*>(message);
}

const MdfCanMessage& frameOf(const void* message) {
  return *static_cast<const MdfCanMessage*>(message);
}

}  // namespace

void* MdfCanMessageInit() {
  return new (std::nothrow) MdfCanMessage;
}

void MdfCanMessageUnInit(void* message) {
  ::operator delete(message);
}

uint32_t MdfCanMessageGetMessageId(const void* message) {
  return message != nullptr ? frameOf(message).MessageId() : 0;
}

void MdfCanMessageSetMessageId(void* message, uint32_t messageId) {
  if (message != nullptr) frameOf(message).MessageId(messageId);
}

uint32_t MdfCanMessageGetCanId(const void* message) {
  return message != nullptr ? frameOf(message).CanId() : 0;
}

bool MdfCanMessageGetExtendedId(const void* message) {
  return message != nullptr && frameOf(message).ExtendedId();
}

void MdfCanMessageSetExtendedId(void* message, bool extended) {
  if (message != nullptr) frameOf(message).ExtendedId(extended);
}

uint8_t MdfCanMessageGetDlc(const void* message) {
  return message != nullptr ? frameOf(message).Dlc() : uint8_t{0};
}

int MdfCanMessageSetDlc(void* message, uint8_t dlc) {
  try {
    return message != nullptr && frameOf(message).Dlc(dlc) ? 0 : -1;
  } catch (...) {
    return -1;
  }
}

uint32_t MdfCanMessageGetDataLength(const void* message) {
  return message != nullptr ? frameOf(message).DataLength() : 0;
}

void MdfCanMessageSetDataLength(void* message, uint32_t length) {
  try {
    if (message != nullptr) frameOf(message).DataLength(length);
  } catch (...) {  // no memory: the payload stays as it was
  }
}

uint32_t MdfCanMessageGetDataBytes(const void* message, uint8_t* bytes) {
  if (message == nullptr) return 0;
  const auto& payload = frameOf(message).DataBytes();
  if (bytes != nullptr) std::copy(payload.begin(), payload.end(), bytes);
  return static_cast<uint32_t>(payload.size());
}

void MdfCanMessageSetDataBytes(void* message, const uint8_t* bytes, uint32_t count) {
  if (message == nullptr || (bytes == nullptr && count > 0)) return;
  try {
    frameOf(message).DataBytes(bytes, count);
  } catch (...) {  // no memory: the payload stays as it was
  }
}

uint64_t MdfCanMessageGetDataIndex(const void* message) {
  return message != nullptr ? frameOf(message).DataIndex() : 0;
}

void MdfCanMessageSetDataIndex(void* message, uint64_t index) {
  if (message != nullptr) frameOf(message).DataIndex(index);
}

bool MdfCanMessageGetDir(const void* message) {
  return message != nullptr && frameOf(message).Dir();
}

void MdfCanMessageSetDir(void* message, bool dir) {
  if (message != nullptr) frameOf(message).Dir(dir);
}

bool MdfCanMessageGetSrr(const void* message) {
  return message != nullptr && frameOf(message).Srr();
}

void MdfCanMessageSetSrr(void* message, bool srr) {
  if (message != nullptr) frameOf(message).Srr(srr);
}

bool MdfCanMessageGetEdl(const void* message) {
  return message != nullptr && frameOf(message).Edl();
}

void MdfCanMessageSetEdl(void* message, bool edl) {
  if (message != nullptr) frameOf(message).Edl(edl);
}

bool MdfCanMessageGetBrs(const void* message) {
  return message != nullptr && frameOf(message).Brs();
}

void MdfCanMessageSetBrs(void* message, bool brs) {
  if (message != nullptr) frameOf(message).Brs(brs);
}

bool MdfCanMessageGetEsi(const void* message) {
  return message != nullptr && frameOf(message).Esi();
}

void MdfCanMessageSetEsi(void* message, bool esi) {
  if (message != nullptr) frameOf(message).Esi(esi);
}

bool MdfCanMessageGetRtr(const void* message) {
  return message != nullptr && frameOf(message).Rtr();
}

void MdfCanMessageSetRtr(void* message, bool rtr) {
  if (message != nullptr) frameOf(message).Rtr(rtr);
}

bool MdfCanMessageGetWakeUp(const void* message) {
  return message != nullptr && frameOf(message).WakeUp();
}

void MdfCanMessageSetWakeUp(void* message, bool wakeUp) {
  if (message != nullptr) frameOf(message).WakeUp(wakeUp);
}

bool MdfCanMessageGetSingleWire(const void* message) {
  return message != nullptr && frameOf(message).SingleWire();
}

void MdfCanMessageSetSingleWire(void* message, bool singleWire) {
  if (message != nullptr) frameOf(message).SingleWire(singleWire);
}

uint8_t MdfCanMessageGetBusChannel(const void* message) {
  return message != nullptr ? frameOf(message).BusChannel() : uint8_t{0};
}

void MdfCanMessageSetBusChannel(void* message, uint8_t busChannel) {
  if (message != nullptr) frameOf(message).BusChannel(busChannel);
}

uint8_t MdfCanMessageGetBitPosition(const void* message) {
  return message != nullptr ? frameOf(message).BitPosition() : uint8_t{0};
}

void MdfCanMessageSetBitPosition(void* message, uint8_t bitPosition) {
  if (message != nullptr) frameOf(message).BitPosition(bitPosition);
}

uint8_t MdfCanMessageGetErrorType(const void* message) {
  return message != nullptr ? static_cast<uint8_t>(frameOf(message).ErrorType()) : uint8_t{0};
}

void MdfCanMessageSetErrorType(void* message, uint8_t errorType) {
  if (message != nullptr) frameOf(message).ErrorType(static_cast<tolvex::CanErrorType>(errorType));
}
