#include <algorithm>
#include <chrono>
#include <new>
#include <stdexcept>
#include <utility>

#include "Mdf4/Channel.h"
#include "Mdf4/MdfRecorder.h"
#include "Mdf4/Record.h"
#include "Mdf4/format/BlockRecords.h"
#include "tolvex/Mdf4.h"

namespace tolvex {
namespace {

using namespace conversion_type;

// The first `count` values, or all when there are fewer: counts are the file's claims.
std::vector<double> firstValues(const MdfSigCCInfo& info, std::size_t count) {
  const auto end = static_cast<std::ptrdiff_t>(std::min(count, info.values.size()));
  return {info.values.begin(), info.values.begin() + end};
}

// The texts of `count` entries, and the one behind them, which applies when no entry does.
void takeTexts(const MdfSigCCInfo& info, std::size_t count, Formula& formula) {
  const auto end = static_cast<std::ptrdiff_t>(std::min(count, info.texts.size()));
  formula.texts.assign(info.texts.begin(), info.texts.begin() + end);
  if (info.textCount > count && info.texts.size() > count) formula.defaultText = info.texts[count];
}

// The kinds without parameters are left to the recorder, which writes what it knows of them.
Formula formulaOf(const MdfSigCCInfo& info) {
  Formula formula;
  formula.kind = info.conversionType;
  switch (info.conversionType) {
    case kLinear:
      if (info.valueCount >= 2) formula.parameters = firstValues(info, 2);
      break;
    case kRational:
      if (info.valueCount >= 6) formula.parameters = firstValues(info, 6);
      break;
    case kN2NInterpol:
    case kN2N:
      formula.parameters = firstValues(info, info.valueCount);
      break;
    case kR2N:
      formula.parameters = firstValues(info, info.valueCount);
      // The format's own form: the default value stands behind the triples.
      if (formula.parameters.size() % 3 == 1) formula.defaultValue = formula.parameters.back();
      break;
    case kN2T:
      formula.parameters = firstValues(info, info.valueCount);
      takeTexts(info, info.valueCount, formula);
      break;
    case kR2T:
      if (info.valueCount % 2 == 0) formula.parameters = firstValues(info, info.valueCount);
      takeTexts(info, info.valueCount / 2U, formula);
      break;
    default:
      break;
  }
  return formula;
}

// Fills a new record by `fill` and records it. 0 or -1; `error` receives what is to be reported.
template <typename Fill>
int writeRecord(MdfRecorder& recorder, int dg, double time, std::string& error, Fill fill) {
  try {
    const std::unique_ptr<RecordData> record = recorder.createRecordData(dg);
    if (record == nullptr) {
      error = "Failed to allocate record data";
      return -1;
    }
    if (!record->setTime(time) || !fill(*record)) return -1;
    return recorder.insertRecord(*record, dg) ? 0 : -1;
  } catch (const std::out_of_range& exception) {  // a file to be split whose path has no "."
    error = exception.what();
    return -1;
  }
}

// The result of `work`, or `failed` when there is no memory for it: then not for a text either.
template <typename Work>
auto inMemory(decltype(std::declval<Work>()()) failed, Work work) {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return failed;
  }
}

}  // namespace

// Without memory for a recorder there is none, and each operation says so.
MdfSigWriter::MdfSigWriter(const std::string& path)
    : path_(path), recorder_(new (std::nothrow) MdfRecorder) {}

MdfSigWriter::~MdfSigWriter() {
  close();
}

void MdfSigWriter::setErrorCallback(std::function<void(const std::string&)> callback) {
  errorCallback_ = std::move(callback);
}

bool MdfSigWriter::open() {
  if (!isOpen_) return isOpen_ = true;
  return inMemory(false, [&] {
    logError("MdfSigWriter is already open");
    return false;
  });
}

void MdfSigWriter::close() {
  if (!isOpen_) return;
  stop();
  isOpen_ = false;
  timeChannelAdded_.clear();
}

int MdfSigWriter::setParameter(int paramId, int dataSize, const void* data) {
  return inMemory(
      -1, [&] { return hasRecorder() ? recorder_->setParameter(paramId, dataSize, data) : -1; });
}

void MdfSigWriter::setFlushInterval(unsigned milliseconds) {
  if (hasRecorder()) recorder_->setFlushInterval(std::chrono::milliseconds(milliseconds));
}

void MdfSigWriter::setOverwrite(bool overwrite) {
  if (hasRecorder()) recorder_->setOverwrite(overwrite);
}

int MdfSigWriter::startRecord(std::uint64_t startTime) {
  return inMemory(isOpen_ ? 1 : -1, [&] {
    if (!isOpen_) {
      logError("MdfSigWriter is not open");
      return -1;
    }
    if (!hasRecorder()) return -1;
    startTime_ = startTime;
    const int result = recorder_->startRecord(path_, startTime);
    if (result != 0) logError("Failed to start record");
    return result;
  });
}

void MdfSigWriter::stopRecord(std::uint64_t stopTime) {
  if (recorder_ == nullptr) return;
  stopTime_ = stopTime;
  stop();
}

// Records wait in memory for their block, so that a full disk may show only now.
void MdfSigWriter::stop() {
  if (recorder_ == nullptr) return;
  const std::uint64_t lost = recorder_->lostRecords();
  const auto hasFailed = [&] {
    return inMemory(true, [&] { return !recorder_->firstError().empty(); });
  };
  const bool hadFailed = hasFailed();
  recorder_->stopRecord(stopTime_);
  if (recorder_->lostRecords() == lost && (hadFailed || !hasFailed())) return;
  inMemory(0, [&] {
    logError(recorder_->firstError());
    return 0;
  });
}

std::uint64_t MdfSigWriter::getStartTime() const {
  return startTime_;
}
std::uint64_t MdfSigWriter::getStopTime() const {
  return stopTime_;
}

int MdfSigWriter::addDataGroup(const std::string& name) {
  return inMemory(-1, [&] {
    if (!hasRecorder()) return -1;
    const int dg = recorder_->addDataGroup(name);
    if (const auto added = timeChannelAdded_.find(dg); added != timeChannelAdded_.end()) {
      added->second = 0;
    }
    return dg;
  });
}

int MdfSigWriter::addTimeChannel(int dg) {
  return inMemory(-1, [&] {
    if (!hasRecorder()) return -1;
    int& added = timeChannelAdded_[dg];
    if (added != 0) return 0;
    const int result = recorder_->addChannel(dg, timeChannel());
    if (result == 0) added = 1;
    return result;
  });
}

int MdfSigWriter::addSignalChannel(int dg, const MdfSigCCInfo& info) {
  return inMemory(-1, [&] {
    if (!hasRecorder()) return -1;
    if (addTimeChannel(dg) != 0) {
      logError("Failed to add time channel");
      return -1;
    }
    ChannelInfo channel;
    if (!createChannelInfoFromCCInfo(info, channel)) {
      logError("Failed to create ChannelInfo from CCInfo");
      return -1;
    }
    return recorder_->addChannel(dg, channel);
  });
}

int MdfSigWriter::setDataGroupComment(int dg, const std::string& comment) {
  return inMemory(-1,
                  [&] { return hasRecorder() ? recorder_->setDataGroupComment(dg, comment) : -1; });
}

int MdfSigWriter::writeSignalData(int dg, double time, std::string_view channel,
                                  const std::uint8_t* data, unsigned size) {
  return inMemory(-1, [&] {
    if (!hasRecorder()) return -1;
    std::string error;
    const int result = writeRecord(*recorder_, dg, time, error, [&](RecordData& record) {
      return record.setData(channel, size, data);
    });
    if (!error.empty()) logError(error);
    return result;
  });
}

int MdfSigWriter::writeSignalDataBatch(
    int dg, double time, const std::map<std::string, std::vector<std::uint8_t>>& channels) {
  return inMemory(-1, [&] {
    if (!hasRecorder()) return -1;
    std::string error;
    const int result = writeRecord(*recorder_, dg, time, error, [&](RecordData& record) {
      for (const auto& [name, bytes] : channels) {
        if (bytes.size() > record.size()) return false;
        const auto size = static_cast<std::uint32_t>(bytes.size());
        if (!record.setData(name, size, bytes.data())) return false;
      }
      return true;
    });
    if (!error.empty()) logError(error);
    return result;
  });
}

int MdfSigWriter::createDataGroupFromReader(const std::shared_ptr<MdfSigReader>& reader, int dg,
                                            int cg, const std::string& name) {
  return inMemory(-1, [&] {
    if (!hasRecorder()) return -1;
    if (reader == nullptr) {
      logError("MdfSigReader is null");
      return -1;
    }
    const int newDg = addDataGroup(name);
    if (newDg < 0) {
      logError("Failed to create DataGroup");
      return -1;
    }
    if (addTimeChannel(newDg) != 0) {
      logError("Failed to add time channel");
      return -1;
    }
    const int count = reader->getCNCount(dg, cg);
    if (count <= 0) {
      logError("Invalid channel count");
      return -1;
    }
    for (int cn = 0; cn < count; ++cn) {
      MdfSigCCInfo info;
      // Masters are no data channels: the group has its own time.
      if (!reader->isDataType(dg, cg, cn) || !reader->getCCInfo(dg, cg, cn, info)) continue;
      if (addSignalChannel(newDg, info) != 0) {
        logError("Failed to add signal channel: " + info.name);
      }
    }
    return newDg;
  });
}

bool MdfSigWriter::createChannelInfoFromCCInfo(const MdfSigCCInfo& info, ChannelInfo& out) {
  out.channelType = info.channelType;
  out.syncType = info.syncType;
  out.name = info.name;
  out.unit = info.unit;
  out.comment = info.comment;
  out.dataType = static_cast<std::uint8_t>(info.dataType);
  out.byteCount = (info.bitCount + 7U) / 8;
  out.bitOffset = info.bitOffset;
  out.bitCount = info.bitCount;
  if (info.physRangeValid) {
    out.limitMin = info.physRangeMin;
    out.limitMax = info.physRangeMax;
  } else if (info.valueRangeValid) {
    out.limitMin = info.valueRangeMin;
    out.limitMax = info.valueRangeMax;
  }
  // These records have no invalidation bytes: a channel that kept pointing at its bit there, or
  // that was all invalid, would read as invalid.
  out.extraFlags = info.flags & ~(kCnFlagAllInvalid | kCnFlagInvalidBit);
  if (info.cnPrecisionValid) out.precision = info.cnPrecision;
  if (info.valueRangeValid) {
    out.valueRangeMin = info.valueRangeMin;
    out.valueRangeMax = info.valueRangeMax;
  }
  if (info.limitExtValid) {
    out.limitExtMin = info.limitExtMin;
    out.limitExtMax = info.limitExtMax;
  }
  if (info.conversionType != 0) out.formula = std::make_shared<const Formula>(formulaOf(info));
  return true;
}

bool MdfSigWriter::hasRecorder() const {
  if (recorder_ == nullptr) logError("MdfRecorder is not initialized");
  return recorder_ != nullptr;
}

void MdfSigWriter::logError(const std::string& message) const {
  if (errorCallback_) errorCallback_(message);
}

}  // namespace tolvex
