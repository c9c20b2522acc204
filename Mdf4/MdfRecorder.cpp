#include "Mdf4/MdfRecorder.h"

#include <algorithm>
#include <cinttypes>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <utility>

#include "Mdf4/Blocks.h"
#include "Mdf4/model/BusLogLayout.h"
#include "tolvex/Mdf4.h"

namespace tolvex {
namespace {

constexpr std::uint32_t kTimeRecordsPerBlock = 1;

enum Parameter : unsigned { kProgramId, kText1, kText2, kVersion, kSplitSize, kParameterCount };

std::uint64_t now() {
  return systemTicks() / 10;
}

// The path of the file with that number. Throws when there is no "." to put it in front of.
std::string splitPath(const std::string& path, std::uint32_t number) {
  const std::size_t dot = path.rfind('.');
  if (dot == std::string::npos) throw std::out_of_range("invalid string position");
  return path.substr(0, dot) + "_" + std::to_string(number) + path.substr(dot);
}

std::shared_ptr<DataGroup> createTimeGroup(const std::shared_ptr<Mdf4File>& file,
                                           const char* valueName) {
  return DataGroup::create(file, kTimeRecordsPerBlock, [&](DataGroup& group) {
    return group.addChannel(timeChannel()) && group.addChannel(float64Channel(valueName));
  });
}

// One record of a time group. The file keeps what fails.
void insertTime(DataGroup* group, std::uint64_t microseconds) {
  if (group == nullptr) return;
  const double record[2] = {0.0, static_cast<double>(microseconds)};
  static_cast<void>(group->insert(sizeof record, bytesOf(record).data()));
}

}  // namespace

RecorderSettings recorderSettings;

MdfRecorder::MdfRecorder(FileOpener open) : open_(std::move(open)) {}

MdfRecorder::~MdfRecorder() = default;

// ---------------------------------------------------------------------------------------------
// Files

int MdfRecorder::startRecord(const std::string& path, std::uint64_t startTime) {
  if (file_ != nullptr) MdfRecorder::stopRecord(latestTime());
  finishFlushing();
  firstError_.clear();
  const bool started = inMemory([&] {
    recordingPath_ = path;
    return openFile(path, startTime);
  });
  if (!started) {
    printDiagnostic("[fatal] %s, %d: startRecord failed!, %s\n", __FILE__, __LINE__,
                    firstError_.c_str());
    return 1;
  }
  startTime_ = startTime;
  measurementStartValue_ = startTime;
  lastTimestamp_ = 0;
  splitCounter_ = 1;
  brokenOff_ = false;
  splitRefused_ = false;
  smallSplitReported_ = false;
  lostRecords_ = 0;
  return 0;
}

std::unique_ptr<SystemFile> MdfRecorder::openSystemFileFor(const std::string& path,
                                                           std::string& error) {
  auto file = open_(path, overwrite_ ? OpenMode::Create : OpenMode::Fill, error);
  if (file == nullptr || flushInterval_.count() == 0) return file;
  if (flusher_ == nullptr) flusher_ = std::make_unique<FileFlusher>();
  return flusher_->watch(std::move(file), path, flushInterval_);
}

// Creates the file with its time groups. `opened` is the file, or null when it is still to be
// opened.
bool MdfRecorder::openFile(const std::string& path, std::uint64_t startTime,
                           std::unique_ptr<SystemFile> opened) {
  auto file = std::make_shared<Mdf4File>();
  const FileOpener open = [&](const std::string& name, OpenMode /*mode*/, std::string& error) {
    return opened != nullptr ? std::move(opened) : openSystemFileFor(name, error);
  };
  if (!file->create(open, path, programId_, recorderSettings.mdfVersion, startTime)) {
    noteError([&] { return path + ": " + file->error(); });
    return false;
  }
  std::string filePath = path;
  std::shared_ptr<DataGroup> startTimeGroup = createTimeGroup(file, "MeasurementStartTime");
  stopTimeGroup_ = createTimeGroup(file, "MeasurementStopTime");
  startTimeGroup_ = std::move(startTimeGroup);
  filePath_ = std::move(filePath);
  file_ = std::move(file);
  return true;
}

void MdfRecorder::stopRecord(std::uint64_t stopTime) {
  stopTime_ = stopTime;
  closeFile();
  finishFlushing();
  brokenOff_ = false;
  groups_.clear();
  busLogIndex_ = -1;
  for (BusLogs& logs : busLogs_) logs = {};
}

// Waits until all files are on the disk, which are closed.
void MdfRecorder::finishFlushing() {
  if (flusher_ == nullptr) return;
  flusher_->finish();
  noteError([&] { return flusher_->error(); });
  flusher_ = nullptr;
}

// Completes and closes the file; the groups stay as they were, to be made again in the next one.
void MdfRecorder::closeFile() {
  if (file_ == nullptr) return;
  insertTime(startTimeGroup_.get(), measurementStartValue_);
  insertTime(stopTimeGroup_.get(), stopTime_);
  const auto flush = [](DataGroup& group) {
    static_cast<void>(group.flush());  // the file keeps what fails
  };
  for (const auto& timeGroup : {startTimeGroup_, stopTimeGroup_}) {
    if (timeGroup != nullptr) flush(*timeGroup);
  }
  for (const auto& group : groups_) {
    if (group == nullptr) continue;
    flush(*group);
    lostRecords_ += group->lostRecords();
  }
  startTimeGroup_ = nullptr;
  stopTimeGroup_ = nullptr;
  file_->Close();
  if (!file_->writeError().empty()) {
    noteError([&] { return filePath_ + ": " + file_->writeError(); });
  }
  file_ = nullptr;
}

void MdfRecorder::abandon() {
  // Nothing of it can be destroyed.
  using Left = std::tuple<decltype(file_), decltype(startTimeGroup_), decltype(stopTimeGroup_),
                          decltype(groups_), decltype(busLogs_)>;
  auto left =
      std::make_unique<Left>(std::move(file_), std::move(startTimeGroup_),
                             std::move(stopTimeGroup_), std::move(groups_), std::move(busLogs_));
  static_cast<void>(left.release());
}

// Opens the file behind this one in front of closing this one, which goes on when it is refused.
bool MdfRecorder::openNextFile(const std::string& path, std::unique_ptr<SystemFile>& next) {
  std::string error;
  next = openSystemFileFor(path, error);
  if (next != nullptr) return true;
  splitRefused_ = true;
  noteError([&] { return path + ": " + error; });
  printDiagnostic("[fatal] %s, %d: splitFile refused, the file goes on, path: %s, %s\n", __FILE__,
                  __LINE__, path.c_str(), error.c_str());
  return false;
}

void MdfRecorder::splitFile() {
  std::string path;
  std::unique_ptr<SystemFile> next;
  std::vector<std::shared_ptr<DataGroup>> earlier;
  const bool prepared = inMemory([&] {
    path = splitPath(recordingPath_, splitCounter_);
    earlier.reserve(groups_.size());
    compareSplitSize();
    return overwrite_ || openNextFile(path, next);
  });
  if (!prepared) return;  // the file goes on
  ++splitCounter_;
  const std::uint64_t latest = latestTime();
  const std::uint64_t time = latest != 0 ? latest : now();
  stopTime_ = time;
  closeFile();
  brokenOff_ = true;  // until the next file is there
  std::swap(earlier, groups_);
  for (BusLogs& logs : busLogs_) {
    for (const auto& log : logs) {
      if (log != nullptr) log->group = nullptr;
    }
  }
  if (!inMemory([&] { return openFile(path, startTime_, std::move(next)); })) {
    printDiagnostic("[fatal] %s, %d: splitFile failed!, path: %s\n", __FILE__, __LINE__,
                    path.c_str());
    busLogIndex_ = -1;
    for (BusLogs& logs : busLogs_) logs = {};
    return;
  }
  brokenOff_ = false;
  printDiagnostic("[info] splitFile: %u\n", splitCounter_);
  measurementStartValue_ = time;
  for (const auto& model : earlier) {
    groups_.push_back(nullptr);
    if (model == nullptr) continue;
    inMemory([&] {
      groups_.back() = DataGroup::createLike(*model, file_);
      return true;
    });
  }
  for (BusLogs& logs : busLogs_) {
    for (const auto& log : logs) {
      if (log != nullptr) log->group = group(log->groupIndex);
    }
  }
}

// Says once in a recording that its files hold few records each.
void MdfRecorder::compareSplitSize() {
  const std::uint64_t limit = recorderSettings.splitSize;
  const std::uint64_t reserved = MdfRecorder::reservedSize();
  if (smallSplitReported_ || limit >= reserved) return;
  smallSplitReported_ = true;
  printDiagnostic("[info] splitFile: the split size, %" PRIu64
                  " bytes, is less than each file reserves for its groups, %" PRIu64
                  " bytes: files hold few records\n",
                  limit, reserved);
}

std::uint64_t MdfRecorder::reservedSize() const {
  std::uint64_t bytes = 0;
  for (const auto& group : groups_) bytes += group != nullptr ? group->reservedSize() : 0;
  return bytes;
}

void MdfRecorder::setFlushInterval(std::chrono::milliseconds interval) {
  flushInterval_ = interval;
}

void MdfRecorder::setOverwrite(bool overwrite) {
  overwrite_ = overwrite;
}

void MdfRecorder::setStartTime(std::uint64_t startTime) {
  startTime_ = startTime;
  measurementStartValue_ = startTime;
  if (startTime == 0 || file_ == nullptr) return;
  static_cast<void>(file_->setStartTime(startTime));  // written again when the file is closed
}

int MdfRecorder::setParameter(int paramId, int dataSize, const void* data) {
  if (data == nullptr) {
    printDiagnostic("[fatal] %s, %d: MdfRecorder::setParameter nullptr, paramId: %d\n", __FILE__,
                    __LINE__, paramId);
    return -1;
  }
  const auto parameter = static_cast<unsigned>(paramId);
  if (parameter >= kParameterCount) return 0;
  if (parameter <= kText2) {
    if (dataSize < 0) {
      printDiagnostic(
          "[fatal] %s, %d: MdfRecorder::setParameter invalid string dataSize, paramId: %d, "
          "dataSize: %d\n",
          __FILE__, __LINE__, paramId, dataSize);
      return -1;
    }
    std::string_view text(static_cast<const char*>(data), static_cast<std::size_t>(dataSize));
    if (!text.empty() && text.back() == '\0') text.remove_suffix(1);
    (parameter == kProgramId ? programId_ : parameter == kText1 ? text1_ : text2_) = text;
    return 0;
  }
  const int expected = parameter == kVersion ? 4 : 8;
  if (dataSize < expected) {
    printDiagnostic(
        "[fatal] %s, %d: MdfRecorder::setParameter invalid dataSize, paramId: %d, dataSize: %d, "
        "expected: %d\n",
        __FILE__, __LINE__, paramId, dataSize, expected);
    return -1;
  }
  const auto* const bytes = static_cast<const std::uint8_t*>(data);
  if (parameter == kVersion) {
    recorderSettings.mdfVersion = loadNumber<std::uint32_t>(bytes);
  } else {
    recorderSettings.splitSize = loadNumber<std::uint64_t>(bytes);
  }
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Groups

int MdfRecorder::addDataGroup(const std::string& name) {
  const int index = addGroup(
      [&](DataGroup& group) { return name.empty() || group.channelGroup().setComment(name); });
  if (index < 0) {
    printDiagnostic("[fatal] %s, %d: MdfRecorder::addDataGroup Failed\n", __FILE__, __LINE__);
  }
  return index;
}

// Adds the group that `define` completes: its index, or -1.
int MdfRecorder::addGroup(const DataGroup::Define& define) {
  makeRoom(groups_);
  std::shared_ptr<DataGroup> group = DataGroup::create(file_, DataGroup::kRecordsPerBlock, define);
  if (group == nullptr) return -1;
  groups_.push_back(std::move(group));
  return static_cast<int>(groups_.size()) - 1;
}

int MdfRecorder::addChannel(int groupIndex, const ChannelInfo& channel) {
  DataGroup* const target = group(groupIndex);
  if (target == nullptr) return -1;
  if (channel.channelType == channel_type::kVlsd) {
    printDiagnostic("[fatal] %s, %d: MdfRecorder::addChannel: VLSD write is not supported\n",
                    __FILE__, __LINE__);
    return -1;
  }
  return target->addChannel(channel) ? 0 : -1;
}

int MdfRecorder::setDataGroupComment(int groupIndex, const std::string& comment) {
  DataGroup* const target = group(groupIndex);
  return target != nullptr && target->channelGroup().setComment(comment) ? 0 : -1;
}

int MdfRecorder::setAcquisitionName(int groupIndex, const std::string& name) {
  DataGroup* const target = group(groupIndex);
  return target != nullptr && target->channelGroup().setAcquisitionName(name) ? 0 : -1;
}

std::unique_ptr<RecordData> MdfRecorder::createRecordData(int groupIndex) {
  const DataGroup* const source = group(groupIndex);
  return source != nullptr ? std::make_unique<RecordData>(source->layout()) : nullptr;
}

void MdfRecorder::setMaxCanDataLength(int bytes) {
  maxCanDataLength_ = BusLogLayout::payloadSize(bytes);
}

// ---------------------------------------------------------------------------------------------
// Records

// A time that is negative or beyond all integers: the start time less it, or 0.
std::uint64_t MdfRecorder::oddTimestamp(double offset, std::uint64_t startTime) {
  if (!(offset < 0 && offset > -kMostMicroseconds)) return 0;
  const auto before = static_cast<std::uint64_t>(-offset);
  return startTime > before ? startTime - before : 0;
}

// The group, or null: then records are lost, if it is a failed split that took the group away.
DataGroup* MdfRecorder::groupForRecord(std::int64_t index, std::uint64_t records) {
  DataGroup* const target = group(index);
  const bool known = index >= 0 && static_cast<std::uint64_t>(index) < groupCount();
  if (target == nullptr && (known || brokenOff_)) countLost(records);
  return target;
}

bool MdfRecorder::insertRecord(const RecordData& record, int groupIndex) {
  DataGroup* const target = groupForRecord(groupIndex);
  if (target == nullptr) return false;
  lastTimestamp_ = std::max(lastTimestamp_, timestampOf(record, startTime_));
  if (!target->insert(record.size(), record.data())) return false;
  checkSplit();
  return true;
}

bool MdfRecorder::insertData(std::uint32_t groupIndex, std::uint32_t size,
                             const std::uint8_t* data) {
  DataGroup* const target = groupForRecord(groupIndex);
  if (target == nullptr || !target->insert(size, data)) return false;
  checkSplit();
  return true;
}

bool MdfRecorder::insertRecords(std::uint32_t groupIndex, std::uint64_t count, std::uint32_t size,
                                const std::uint8_t* data, std::uint64_t& taken) {
  DataGroup* target = groupForRecord(groupIndex, count);
  if (target == nullptr || size == 0 || size != target->recordSize()) return false;
  while (taken < count && target != nullptr) {
    const std::uint64_t rest = count - taken;
    const std::uint64_t run = insertRun(*target, rest, size, data + taken * size);
    if (run == 0) {
      countLost(rest - 1);  // the group has counted the first one
      break;
    }
    taken += run;
    checkSplit();
    target = groupForRecord(groupIndex, count - taken);
  }
  return true;
}

std::uint64_t MdfRecorder::lostRecords() const {
  std::uint64_t lost = lostRecords_;
  for (const auto& group : groups_) {
    if (group != nullptr) lost += group->lostRecords();
  }
  return lost;
}

std::string MdfRecorder::firstError() const {
  if (!firstError_.empty()) return firstError_;
  if (file_ != nullptr && !file_->writeError().empty()) {
    return filePath_ + ": " + file_->writeError();
  }
  return flusher_ != nullptr ? flusher_->error() : "";
}

}  // namespace tolvex
