// The recorder: a stream of records and CAN frames into one MDF 4 file, or a chain of them.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/Channel.h"
#include "Mdf4/DataGroup.h"
#include "Mdf4/FileFlusher.h"
#include "Mdf4/Mdf4File.h"
#include "Mdf4/Record.h"
#include "Mdf4/base/Diagnostics.h"

namespace tolvex {

class FramesToSave;
class MdfCanMessage;
class MdfCanError;

// The settings that all recorders of the process share.
struct RecorderSettings {
  std::atomic<std::uint64_t> splitSize = 0;            // bytes; 0: files are never split
  std::atomic<std::uint32_t> mdfVersion = 410;         // of new files
  std::atomic<std::uint32_t> maxPendingTasks = 10000;  // of an asynchronous recorder
};
extern RecorderSettings recorderSettings;

// What became of frames that came many at a time.
struct SavedFrames {
  static constexpr const char* kNotRecording = "nothing is being recorded";
  static constexpr const char* kOtherPayload =
      "the group of the frames was made for another payload size";

  std::uint64_t count = 0;  // so many, from the first on, were accepted
  std::string refusal;      // why none was, where no recorder could
  std::string failure;      // why the others were not
};

// Records into one file at a time. Groups belong to the open file: they are added after startRecord
// and gone after stopRecord. Only stopRecord completes a file; the destructor just closes it.
//
// Integer times are microseconds since 1970-01-01 00:00 UTC; times in records are seconds since the
// start time.
//
// When a write fails or memory runs out, the call that met it gives false and later ones try again;
// what the file holds stays readable, and lostRecords counts what does not reach it. Calls about
// groups and channels may throw std::bad_alloc instead, with nothing done. Not synchronised: one
// thread at a time.
class MdfRecorder {
 public:
  explicit MdfRecorder(FileOpener open = openSystemFile);
  MdfRecorder(const MdfRecorder&) = delete;
  MdfRecorder& operator=(const MdfRecorder&) = delete;
  virtual ~MdfRecorder();

  // Creates the file and its groups of the start and stop time; a recording under way is finished
  // first. 0, or 1 when the file cannot be created. A start time of 0 means now.
  [[nodiscard]] virtual int startRecord(const std::string& path, std::uint64_t startTime);
  // Completes the file and closes it; without an open file nothing.
  virtual void stopRecord(std::uint64_t stopTime);
  virtual void setStartTime(std::uint64_t startTime);
  // True when the record reached its group. Throws std::out_of_range, as all that may split do,
  // when a file that must be split has a path without "."; the record is then recorded.
  virtual bool insertRecord(const RecordData& record, int groupIndex);
  // Into the group of the frame's bus channel and direction, which is made when it is first needed.
  virtual bool saveCanMessage(std::uint64_t timestamp, const MdfCanMessage& message);
  // As far as it goes, each into its group as by the function before and the next one; `saved` says
  // how far, also when it throws. What a failed write kept out is lost.
  virtual void saveFrames(const FramesToSave& frames, SavedFrames& saved);
  virtual bool saveCanError(std::uint64_t timestamp, const MdfCanError& error);
  virtual bool saveCanError(std::uint64_t timestamp, const MdfCanMessage& message);
  // The index of the new group, or -1. The name becomes the group's comment.
  [[nodiscard]] virtual int addDataGroup(const std::string& name);
  virtual int addChannel(int groupIndex,
                         const ChannelInfo& channel);  // 0 or -1, as the next two
  virtual int setDataGroupComment(int groupIndex, const std::string& comment);
  virtual int setAcquisitionName(int groupIndex, const std::string& name);

  // A record's bytes as they stand, past any queue.
  virtual bool insertData(std::uint32_t groupIndex, std::uint32_t size, const std::uint8_t* data);
  // `count` records of `size` bytes, back to back at `data`; in `taken`, also when it throws, how
  // many of them, from the first on, were recorded. What a failed write kept out is lost. False
  // when none can be: there is no such group, or its records have another size.
  [[nodiscard]] virtual bool insertRecords(std::uint32_t groupIndex, std::uint64_t count,
                                           std::uint32_t size, const std::uint8_t* data,
                                           std::uint64_t& taken);
  // A zeroed record with the channels that the group has now; null for an index without a group.
  [[nodiscard]] virtual std::unique_ptr<RecordData> createRecordData(int groupIndex);
  // Ids 0 program identifier, 1 and 2 texts, 3 version, 4 split size. 0 or -1.
  virtual int setParameter(int paramId, int dataSize, const void* data);
  // Payload bytes of a CAN record, clamped to 8 to 64. Existing groups keep theirs, and take data
  // frames again when it is set back to that.
  virtual void setMaxCanDataLength(int bytes);
  // How often files created from now on are flushed to the disk; 0, the default: never. Only
  // stopRecord waits for a flush, the last one.
  virtual void setFlushInterval(std::chrono::milliseconds interval);
  // Whether files created from now on may replace existing ones, as by default. If not, startRecord
  // returns 1, and a file that cannot be split because of it continues; empty files may be
  // replaced.
  virtual void setOverwrite(bool overwrite);

  // Records accepted and not yet handed to their group.
  virtual std::uint64_t pendingTasks() const { return 0; }
  // Of the current recording, or of the last one: records that a failed write, a want of memory, or
  // the next file's failed creation kept out of the file.
  virtual std::uint64_t lostRecords() const;
  // The first failure of the current or last recording; "" when there was none.
  virtual std::string firstError() const;
  // Bytes that the present groups take in a file, including the lists and blocks that are written
  // with their first records.
  virtual std::uint64_t reservedSize() const;

 protected:
  // The group for the data frames of all channels and directions, made on first use: its index, or
  // -1.
  [[nodiscard]] int createBusLogConfiguration();
  // What a split takes for the end of a file: the latest time of anything recorded, or 0.
  virtual std::uint64_t latestTime() { return lastTimestamp_; }
  // Starts the next file when the current one has outgrown the split size.
  void checkSplit() {
    if (splitIsDue()) splitFile();
  }
  // Appends the first of the records, and those behind it after which checkSplit would do nothing.
  // Returns how many; 0 when the group has lost the first one.
  [[nodiscard]] std::uint64_t insertRun(DataGroup& target, std::uint64_t count, std::uint32_t size,
                                        const std::uint8_t* data) const {
    const std::uint64_t run = splitIsDue() ? 0 : target.insertInPlace(size, data, count);
    return run != 0 ? run : target.insert(size, data) ? 1 : 0;
  }

  // Into the group of its kind, without a split. False when it could not be written.
  [[nodiscard]] bool appendError(const FramesToSave& frames, std::size_t index);

  // For a child process: gives up groups and file as they are, in whatever state the threads of the
  // parent left them.
  void abandon();

  bool isRecording() const { return file_ != nullptr; }
  DataGroup* group(std::int64_t index) const {
    return index >= 0 && static_cast<std::uint64_t>(index) < groups_.size()
               ? groups_[static_cast<std::size_t>(index)].get()
               : nullptr;
  }
  std::size_t groupCount() const { return groups_.size(); }
  std::uint64_t startTime() const { return startTime_; }
  std::uint32_t maxCanDataLength() const { return maxCanDataLength_; }
  // A time in seconds since the start time, and a record's time as an integer time.
  static double secondsSince(std::uint64_t startTime, std::uint64_t timestamp) {
    return (static_cast<double>(timestamp) - static_cast<double>(startTime)) / 1e6;
  }
  static std::uint64_t timestampOf(const RecordData& record, std::uint64_t startTime) {
    const double offset = record.time() * 1e6;
    if (!(offset >= 0 && offset < kMostMicroseconds)) return oddTimestamp(offset, startTime);
    return startTime + static_cast<std::uint64_t>(static_cast<std::int64_t>(offset));
  }
  // A record that a failed write, or the want of a file, kept from its group.
  void countLost(std::uint64_t records = 1) { lostRecords_ += records; }

 private:
  // The group and record template of one kind of frame on one bus channel in one direction.
  struct BusLog {
    DataGroup* group;  // null: could not be made again by a split
    RecordData record;
    int groupIndex;
  };
  enum BusLogKind : std::size_t { kDataFrames, kErrorFrames, kFdErrorFrames, kBusLogKinds };
  using BusLogs = std::array<std::unique_ptr<BusLog>, 2 * 256>;  // by bus channel and direction

  static constexpr double kMostMicroseconds = 9e18;  // 64 bits hold them
  static std::uint64_t oddTimestamp(double offset, std::uint64_t startTime);
  static std::size_t busLogKey(std::uint8_t busChannel, bool direction) {
    return std::size_t{2} * busChannel + (direction ? 1 : 0);
  }
  // The result of `work`; false, which is noted, when there is no memory for it.
  template <class Work>
  bool inMemory(Work work) {
    try {
      return work();
    } catch (const std::bad_alloc&) {
      noteError([] { return "out of memory"; });
      return false;
    }
  }
  [[nodiscard]] std::unique_ptr<SystemFile> openSystemFileFor(const std::string& path,
                                                              std::string& error);
  [[nodiscard]] bool openFile(const std::string& path, std::uint64_t startTime,
                              std::unique_ptr<SystemFile> opened = nullptr);
  [[nodiscard]] bool openNextFile(const std::string& path, std::unique_ptr<SystemFile>& next);
  void compareSplitSize();
  void finishFlushing();
  void closeFile();
  [[gnu::noinline]] void splitFile();
  [[nodiscard]] int addGroup(const DataGroup::Define& define);
  [[nodiscard]] int addBusLogGroup(BusLogKind kind, const DataGroup::Define& complete);
  BusLog* busLog(BusLogKind kind, std::uint8_t busChannel, bool direction);
  template <class Work>
  void forFrame(Work makeGroup);
  void addBusLog(BusLogKind kind, std::size_t key, std::unique_ptr<BusLog>& entry);
  [[nodiscard]] [[gnu::noinline]] bool saveFirstOrLastOfBlock(std::uint64_t timestamp,
                                                              const MdfCanMessage& message);
  template <class Pack>
  [[nodiscard]] bool appendFrame(BusLog* log, std::uint64_t timestamp, Pack pack);
  [[nodiscard]] std::size_t appendRun(const FramesToSave& frames, std::size_t first);
  [[nodiscard]] bool appendData(const FramesToSave& frames, std::size_t index);
  [[nodiscard]] bool takesData(const FramesToSave& frames, std::size_t index) const;
  template <class Pack>
  [[nodiscard]] bool saveFrame(BusLog* log, std::uint64_t timestamp, Pack pack);
  template <class Describe>
  void noteError(Describe describe) noexcept {
    noteFirst(firstError_, std::move(describe));
  }
  bool splitIsDue() const {
    const std::uint64_t limit = recorderSettings.splitSize.load(std::memory_order_relaxed);
    return limit != 0 && file_ != nullptr && file_->end() > limit && !splitRefused_;
  }
  DataGroup* groupForRecord(std::int64_t index, std::uint64_t records = 1);

  const FileOpener open_;
  std::uint64_t startTime_ = 0;
  std::uint64_t lastTimestamp_ = 0;
  std::string recordingPath_;  // as given to startRecord; names of splits derive from it
  std::string filePath_;       // of the file being written
  std::string programId_;
  std::string text1_;
  std::string text2_;
  std::chrono::milliseconds flushInterval_{};  // 0: never
  std::unique_ptr<FileFlusher> flusher_;       // null: not needed yet
  std::shared_ptr<Mdf4File> file_;             // null: not recording
  std::shared_ptr<DataGroup> startTimeGroup_;
  std::shared_ptr<DataGroup> stopTimeGroup_;
  std::vector<std::shared_ptr<DataGroup>> groups_;  // null: could not be made again by a split
  int busLogIndex_ = -1;                            // of the group of createBusLogConfiguration
  std::array<BusLogs, kBusLogKinds> busLogs_;
  std::uint64_t stopTime_ = 0;
  std::uint64_t measurementStartValue_ = 0;
  std::uint32_t maxCanDataLength_ = 8;  // bytes
  std::uint32_t splitCounter_ = 1;
  bool overwrite_ = true;
  bool brokenOff_ = false;     // a split found no place for the next file
  bool splitRefused_ = false;  // the next file exists
  bool smallSplitReported_ = false;
  std::uint64_t lostRecords_ = 0;  // beside those of the open groups
  std::string firstError_;
};

}  // namespace tolvex
