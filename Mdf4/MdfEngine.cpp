// The plain functions of the recorder: checks of arguments, and the objects' operations.
#include "tolvex/MdfEngine.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>

#include "Mdf4/Channel.h"
#include "Mdf4/MdfAsyncRecorder.h"
#include "Mdf4/MdfRecorder.h"
#include "Mdf4/Record.h"
#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockRecords.h"
#include "tolvex/Mdf4.h"

namespace tolvex {
namespace {

constexpr int kFailure = -1;
constexpr int kBusTypeCan = 0;

using namespace conversion_type;

MdfRecorder* recorderOf(void* handle) {
  return static_cast<MdfRecorder*>(handle);
}

int resultOf(bool done) {
  return done ? 0 : kFailure;
}

// The result of `work`, or `failed` when it throws.
template <class Work, class Result>
Result guarded(Result failed, Work work) noexcept {
  try {
    return work();
  } catch (...) {
    return failed;
  }
}

template <class Work>
int guarded(Work work) noexcept {
  return guarded(kFailure, work);
}

template <class Number>
Number read(const void* data) {
  return loadNumber<Number>(static_cast<const std::uint8_t*>(data));
}

const char* textAt(const void* data) {
  return static_cast<const char*>(data);
}

int setField(ChannelInfo& channel, int paramId, const void* data) {
  switch (paramId) {
    case MDF_CHANNEL_TYPE:
      channel.channelType = read<std::uint8_t>(data);
      return 0;
    case MDF_CHANNEL_SYNC_TYPE:
      channel.syncType = read<std::uint8_t>(data);
      return 0;
    case MDF_CHANNEL_NAME:
      channel.name = textAt(data);
      return 0;
    case MDF_CHANNEL_UNIT:
      channel.unit = textAt(data);
      return 0;
    case MDF_CHANNEL_LIMIT_MIN:
      channel.limitMin = read<double>(data);
      return 0;
    case MDF_CHANNEL_LIMIT_MAX:
      channel.limitMax = read<double>(data);
      return 0;
    case MDF_CHANNEL_DATA_TYPE:
      channel.dataType = read<std::uint8_t>(data);
      return 0;
    case MDF_CHANNEL_BYTE_COUNT:
      channel.byteCount = read<std::uint32_t>(data);
      return 0;
    case MDF_CHANNEL_COMMENT:
      channel.comment = textAt(data);
      return 0;
    case MDF_CHANNEL_VALUE_TYPE:
      channel.valueType = read<std::uint8_t>(data);
      return 0;
    case MDF_CHANNEL_BIT_MASK:
      channel.bitMask = read<std::uint64_t>(data);
      return 0;
    default:
      return kFailure;
  }
}

// Replaces the parameters by the whole doubles of the low 16 bits of `size`.
void setParameters(Formula& formula, int size, const void* data) {
  constexpr unsigned kSizeBits = 0xFFFF;
  formula.parameters.resize((static_cast<unsigned>(size) & kSizeBits) / sizeof(double));
  if (formula.parameters.empty()) return;
  std::memcpy(formula.parameters.data(), data, formula.parameters.size() * sizeof(double));
}

// Appends numbers, and a text unless it is null; all of it or nothing.
int append(void* handle, std::initializer_list<double> numbers, const char* text) {
  if (handle == nullptr) return kFailure;
  auto& formula = *static_cast<Formula*>(handle);
  return guarded([&] {
    const std::size_t before = formula.parameters.size();
    formula.parameters.insert(formula.parameters.end(), numbers);
    try {
      if (text != nullptr) formula.texts.emplace_back(text);
    } catch (...) {
      formula.parameters.resize(before);
      throw;
    }
    return 0;
  });
}

}  // namespace
}  // namespace tolvex

using namespace tolvex;

void setDiagnosticHandler(void (*handler)(void* user, const char* text), void* user) {
  directDiagnostics(handler, user);
}

// ---------------------------------------------------------------------------------------------
// Recorder

void* createRecorder(bool async) {
  return guarded(static_cast<MdfRecorder*>(nullptr),
                 [&]() -> MdfRecorder* { return async ? new MdfAsyncRecorder : new MdfRecorder; });
}

void deleteRecorder(void* recorder) {
  delete recorderOf(recorder);
}

int setParameter(void* recorder, int paramId, int dataSize, const void* data) {
  if (recorder == nullptr || dataSize < 0 || data == nullptr) return kFailure;
  return guarded([&] { return recorderOf(recorder)->setParameter(paramId, dataSize, data); });
}

void setStartTime(void* recorder, uint64_t startTime) {
  if (recorder == nullptr) return;
  try {
    recorderOf(recorder)->setStartTime(startTime);
  } catch (...) {
    printDiagnostic("[fatal] %s, %d: Unknown Exception!\n", __FILE__, __LINE__);
  }
}

int setFlushInterval(void* recorder, uint32_t milliseconds) {
  if (recorder == nullptr) return kFailure;
  return guarded([&] {
    recorderOf(recorder)->setFlushInterval(std::chrono::milliseconds(milliseconds));
    return 0;
  });
}

int setOverwrite(void* recorder, bool overwrite) {
  if (recorder == nullptr) return kFailure;
  return guarded([&] {
    recorderOf(recorder)->setOverwrite(overwrite);
    return 0;
  });
}

uint64_t getReservedSize(void* recorder) {
  if (recorder == nullptr) return 0;
  return guarded(std::uint64_t{0}, [&] { return recorderOf(recorder)->reservedSize(); });
}

int startRecord(void* recorder, const char* path, uint64_t startTime) {
  if (recorder == nullptr || path == nullptr) return kFailure;
  return guarded([&] { return recorderOf(recorder)->startRecord(path, startTime); });
}

void stopRecord(void* recorder, uint64_t stopTime) {
  if (recorder == nullptr) return;
  try {
    recorderOf(recorder)->stopRecord(stopTime);
  } catch (...) {
    printDiagnostic("[fatal] %s, %d: Unknown Exception!\n", __FILE__, __LINE__);
  }
}

int createBusLogConfiguration(void* recorder, int busType, int maxDataLength) {
  if (recorder == nullptr || busType != kBusTypeCan) return kFailure;
  return guarded([&] {
    recorderOf(recorder)->setMaxCanDataLength(maxDataLength);
    return 0;
  });
}

uint64_t getPendingTaskCount(void* recorder) {
  return recorder == nullptr ? 0 : recorderOf(recorder)->pendingTasks();
}

uint32_t getMaxPendingTasks(void* recorder) {
  return recorder == nullptr ? 0 : recorderSettings.maxPendingTasks.load();
}

uint64_t getLostRecordCount(void* recorder) {
  if (recorder == nullptr) return 0;
  return guarded(std::uint64_t{0}, [&] { return recorderOf(recorder)->lostRecords(); });
}

int getRecorderError(void* recorder, char* text, int size) {
  if (recorder == nullptr || text == nullptr || size < 0) return kFailure;
  return guarded([&] {
    const std::string error = recorderOf(recorder)->firstError();
    if (size > 0) {
      const std::size_t copied = std::min(error.size(), static_cast<std::size_t>(size) - 1);
      error.copy(text, copied);
      text[copied] = '\0';
    }
    return static_cast<int>(error.size());
  });
}

// ---------------------------------------------------------------------------------------------
// CAN frames

int saveCanMessage(void* recorder, uint64_t timestamp, const void* message) {
  if (recorder == nullptr || message == nullptr) return kFailure;
  return guarded([&] {
    const auto& frame = *static_cast<const MdfCanMessage*>(message);
    return resultOf(recorderOf(recorder)->saveCanMessage(timestamp, frame));
  });
}

int saveCanError(void* recorder, uint64_t timestamp, const void* message) {
  if (recorder == nullptr || message == nullptr) return kFailure;
  return guarded([&] {
    const auto& frame = *static_cast<const MdfCanMessage*>(message);
    return resultOf(recorderOf(recorder)->saveCanError(timestamp, frame));
  });
}

int saveCanErrorFromCanError(void* recorder, uint64_t timestamp, const void* error) {
  if (recorder == nullptr || error == nullptr) return kFailure;
  return guarded([&] {
    const auto& frame = *static_cast<const MdfCanError*>(error);
    return resultOf(recorderOf(recorder)->saveCanError(timestamp, frame));
  });
}

// ---------------------------------------------------------------------------------------------
// Data groups and records

int addDataGroup(void* recorder, const char* name) {
  if (recorder == nullptr) return kFailure;
  return guarded([&] { return recorderOf(recorder)->addDataGroup(name != nullptr ? name : ""); });
}

int addChannelToDG(void* recorder, int dgIndex, const void* channel) {
  if (recorder == nullptr || channel == nullptr) return kFailure;
  return guarded([&] {
    return recorderOf(recorder)->addChannel(dgIndex, *static_cast<const ChannelInfo*>(channel));
  });
}

void* allocRecord(void* recorder, int dgIndex) {
  if (recorder == nullptr) return nullptr;
  return guarded(static_cast<RecordData*>(nullptr),
                 [&] { return recorderOf(recorder)->createRecordData(dgIndex).release(); });
}

int fillRecordData(void* record, const char* channelName, int size, const void* data) {
  if (record == nullptr || channelName == nullptr || size < 0) return kFailure;
  if (size != 0 && data == nullptr) return kFailure;
  return guarded([&] {
    return resultOf(static_cast<RecordData*>(record)->setData(
        channelName, static_cast<std::uint32_t>(size), static_cast<const std::uint8_t*>(data)));
  });
}

void resetRecordData(void* record) {
  if (record != nullptr) static_cast<RecordData*>(record)->reset();
}

int insertRecordToDG(void* recorder, int dgIndex, void* record) {
  if (recorder == nullptr || record == nullptr) return kFailure;
  auto& data = *static_cast<RecordData*>(record);
  const int result =
      guarded([&] { return resultOf(recorderOf(recorder)->insertRecord(data, dgIndex)); });
  data.reset();
  return result;
}

int insertData(void* recorder, void* record) {
  if (recorder == nullptr || record == nullptr) return kFailure;
  return guarded([&] {
    const auto& data = *static_cast<const RecordData*>(record);
    return resultOf(recorderOf(recorder)->insertRecord(data, kFailure));
  });
}

int insertDataToDG(void* recorder, unsigned dgIndex, int size, const void* data) {
  if (recorder == nullptr || size < 0 || data == nullptr) return kFailure;
  return guarded([&] {
    return resultOf(recorderOf(recorder)->insertData(dgIndex, static_cast<std::uint32_t>(size),
                                                     static_cast<const std::uint8_t*>(data)));
  });
}

int64_t insertRecordsToDG(void* recorder, unsigned dgIndex, uint64_t count, int size,
                          const void* data) {
  if (recorder == nullptr || size <= 0 || (data == nullptr && count != 0)) return kFailure;
  if (count > static_cast<std::uint64_t>(INT64_MAX / size)) return kFailure;
  std::uint64_t taken = 0;
  const bool possible = guarded(false, [&] {
    return recorderOf(recorder)->insertRecords(dgIndex, count, static_cast<std::uint32_t>(size),
                                               static_cast<const std::uint8_t*>(data), taken);
  });
  return possible || taken != 0 ? static_cast<std::int64_t>(taken) : kFailure;
}

void freeRecord(void* record) {
  delete static_cast<RecordData*>(record);
}

// ---------------------------------------------------------------------------------------------
// Channels

void* allocChannel(void) {
  return guarded(static_cast<ChannelInfo*>(nullptr), [] { return new ChannelInfo; });
}

void freeChannel(void* channel) {
  delete static_cast<ChannelInfo*>(channel);
}

int setChannelParameter(void* channel, int paramId, int size, const void* data) {
  if (channel == nullptr || size < 0 || data == nullptr) return kFailure;
  return guarded([&] { return setField(*static_cast<ChannelInfo*>(channel), paramId, data); });
}

int setChannelFormula(void* channel, const void* formula) {
  if (channel == nullptr || formula == nullptr) return kFailure;
  return guarded([&] {
    static_cast<ChannelInfo*>(channel)->formula =
        std::make_shared<const Formula>(*static_cast<const Formula*>(formula));
    return 0;
  });
}

// ---------------------------------------------------------------------------------------------
// Formulas

void* allocFormula(uint8_t kind) {
  return guarded(static_cast<Formula*>(nullptr), [&] {
    auto formula = std::make_unique<Formula>();
    formula->kind = kind;
    return formula.release();
  });
}

void freeFormula(void* formula) {
  delete static_cast<Formula*>(formula);
}

int setFormulaParam(void* formula, int size, const void* data) {
  if (formula == nullptr || size < 0 || data == nullptr) return kFailure;
  auto& target = *static_cast<Formula*>(formula);
  return guarded([&] {
    if (target.kind == kFormula) {
      target.formulaText = textAt(data);
      return 0;
    }
    if (target.kind != kLinear && target.kind != kRational) return kFailure;
    if (static_cast<unsigned>(size) % sizeof(double) != 0) return kFailure;
    setParameters(target, size, data);
    return 0;
  });
}

int addFormulaParamN2N(void* formula, double key, double value) {
  return append(formula, {key, value}, nullptr);
}

int addFormulaParamN2T(void* formula, double key, const char* text) {
  return text == nullptr ? kFailure : append(formula, {key}, text);
}

int addFormulaParamR2N(void* formula, double min, double max, double value) {
  return append(formula, {min, max, value}, nullptr);
}

int addFormulaParamR2T(void* formula, double min, double max, const char* text) {
  return text == nullptr ? kFailure : append(formula, {min, max}, text);
}

int setFormulaParamDefault(void* formula, int size, const void* data) {
  if (formula == nullptr || size < 0 || data == nullptr) return kFailure;
  auto& target = *static_cast<Formula*>(formula);
  return guarded([&] {
    switch (target.kind) {
      case kR2N:
        target.defaultValue = read<double>(data);
        return 0;
      case kN2T:
      case kR2T:
        target.defaultText = textAt(data);
        return 0;
      default:
        return kFailure;
    }
  });
}
