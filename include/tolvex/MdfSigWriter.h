// Records signals into a new file.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tolvex/MdfExport.h"
#include "tolvex/MdfSignals.h"

namespace tolvex {

class MdfRecorder;
class MdfSigReader;
struct ChannelInfo;

// Records groups of signals, each with a master channel "time" in front: open, startRecord,
// addDataGroup and addSignalChannel, then writeSignalData for every record, then close.
//
// Groups belong to the open file: they are added after startRecord, all channels of a group before
// its first record, and are gone after stopRecord or close. Only these complete the file; the
// destructor closes too. Integer times are microseconds since 1970-01-01 00:00 UTC, times of
// records are seconds since the start time. One thread at a time.
class TOLVEX_EXPORT MdfSigWriter {
 public:
  explicit MdfSigWriter(const std::string& path);  // touches no file
  ~MdfSigWriter();
  MdfSigWriter(const MdfSigWriter&) = delete;
  MdfSigWriter& operator=(const MdfSigWriter&) = delete;

  // Receives why an operation failed, on the thread that called it: the texts below, what a file
  // that cannot be split makes of a record, and what stopRecord or close could not write.
  void setErrorCallback(std::function<void(const std::string&)> callback);

  // Marks the writer open; false, with "MdfSigWriter is already open", when it is.
  bool open();
  // An open writer: as stopRecord with the time last given to it, and no longer open.
  void close();

  // As setParameter of tolvex/MdfEngine.h. 0 or -1.
  int setParameter(int paramId, int dataSize, const void* data);
  // As their namesakes there; for files that are created from then on.
  void setFlushInterval(unsigned milliseconds);
  void setOverwrite(bool overwrite);
  // Creates the file (an existing one is emptied); a recording under way is finished first. A start
  // time of 0 means now. 0, or 1 with "Failed to start record" when the file cannot be created, or
  // -1 with "MdfSigWriter is not open".
  int startRecord(std::uint64_t startTime);
  // Completes the file and closes it.
  void stopRecord(std::uint64_t stopTime);
  // The times as they were given; 0 before.
  std::uint64_t getStartTime() const;
  std::uint64_t getStopTime() const;

  // The index of the new group, or -1. The name becomes its comment.
  int addDataGroup(const std::string& name);
  // Adds "time", float64 seconds, unless the group has it. 0 or -1.
  int addTimeChannel(int dg);
  // Adds "time" when the group has none yet, then the channel: its records hold (bitCount + 7) / 8
  // whole bytes for it, whatever its bit offset. What `info` states of its conversion and does not
  // hold is left out; of the kinds 3 and 9 to 11 nothing is taken over. 0, or -1 with "Failed to
  // add time channel" or without a text: a name that the group has and a group that has had
  // records are told in the diagnostics.
  int addSignalChannel(int dg, const MdfSigCCInfo& info);
  int setDataGroupComment(int dg, const std::string& comment);  // without effect after a name

  // Writes a record with that time and the `size` bytes of one channel, as the file stores them;
  // other channels are zero. 0, or -1 when there is no such channel, the bytes are more than it has
  // or the record cannot be written; without the group "Failed to allocate record data" too.
  int writeSignalData(int dg, double time, std::string_view channel, const std::uint8_t* data,
                      unsigned size);
  // The same with any number of channels.
  int writeSignalDataBatch(int dg, double time,
                           const std::map<std::string, std::vector<std::uint8_t>>& channels);

  // A new group with "time" and the reader's fixed-length value channels of (dg, cg) as getCCInfo
  // describes and names them, without their records. A channel that cannot be added is left out,
  // with "Failed to add signal channel: " and its name. The group's index, or -1 with
  // "MdfSigReader is null", "Failed to create DataGroup", "Failed to add time channel" or "Invalid
  // channel count".
  int createDataGroupFromReader(const std::shared_ptr<MdfSigReader>& reader, int dg, int cg,
                                const std::string& name);

 private:
  static bool createChannelInfoFromCCInfo(const MdfSigCCInfo& info, ChannelInfo& out);
  void stop();
  bool hasRecorder() const;  // false is reported
  void logError(const std::string& message) const;

  std::string path_;
  std::unique_ptr<MdfRecorder> recorder_;
  std::uint64_t startTime_ = 0;
  std::uint64_t stopTime_ = 0;
  bool isOpen_ = false;
  std::function<void(const std::string&)> errorCallback_;
  std::map<int, int> timeChannelAdded_;  // by data group: 1 once it has its "time"
};

}  // namespace tolvex
