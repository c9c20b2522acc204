// Records signals into a new file, with their conversions. For CAN frames, raw records
// and recording on a thread of its own see tolvex/MdfEngine.h.
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
//   tolvex::MdfSigWriter writer("signals.mf4");
//   if (!writer.open() || writer.startRecord(0) != 0) return;  // 0: the recording starts now
//   tolvex::MdfSigCCInfo speed;
//   speed.name = "speed";
//   speed.unit = "km/h";
//   speed.bitCount = 16;  // an unsigned number
//   const int group = writer.addDataGroup("vehicle");
//   writer.addSignalChannel(group, speed);
//   const std::uint8_t stored[] = {0x64, 0x00};
//   writer.writeSignalData(group, 0.5, "speed", stored, sizeof stored);  // 100 km/h at 0.5 s
//   writer.close();
//
// Groups belong to the open file: they are added after startRecord, all channels of a group before
// its first record, and are gone after stopRecord or close. Only these complete the file; the
// destructor closes an open writer. Groups are numbered from 0 in the order in which they are
// added.
//
// Integer times are microseconds since 1970-01-01 00:00 UTC, times of records are seconds since the
// start time and should rise. Sizes are bytes. One thread at a time; every call may wait for the
// disk. Nothing is thrown by an operation: without memory it fails like any other, without a text.
class TOLVEX_EXPORT MdfSigWriter {
 public:
  // Touches no file. The path is UTF-8.
  explicit MdfSigWriter(const std::string& path);
  ~MdfSigWriter();
  MdfSigWriter(const MdfSigWriter&) = delete;
  MdfSigWriter& operator=(const MdfSigWriter&) = delete;

  // Receives why an operation failed, on the thread that called it: the texts below, why a file
  // cannot be split, and what stopRecord or close could not write. Kept until it is replaced: what
  // it refers to must outlive the writer, whose destructor may still call it.
  void setErrorCallback(std::function<void(const std::string&)> callback);

  // Marks the writer open, without touching a file; false, with "MdfSigWriter is already open",
  // when it is open.
  [[nodiscard]] bool open();
  // Does what stopRecord does, with the stop time that was last given to it, and marks the writer
  // closed. Nothing when it is not open.
  void close();

  // As setParameter of tolvex/MdfEngine.h: the program identifier, the version number, the split
  // size. 0 or -1.
  int setParameter(int paramId, int dataSize, const void* data);
  // As setFlushInterval and setOverwrite there; for files that are created from then on.
  void setFlushInterval(unsigned milliseconds);
  void setOverwrite(bool overwrite);
  // Creates the file, and empties one that exists; a recording under way is finished first. A start
  // time of 0 means now. 0 when it has started; 1, with "Failed to start record", when the file
  // cannot be created; -1, with "MdfSigWriter is not open".
  [[nodiscard]] int startRecord(std::uint64_t startTime);
  // Writes what is left, completes the file and closes it. What could not be written is reported.
  void stopRecord(std::uint64_t stopTime);
  // The times that startRecord and stopRecord were given last; 0 before.
  std::uint64_t getStartTime() const;
  std::uint64_t getStopTime() const;

  // Adds a group with that comment ("": none). Its index, or -1 without an open file or when a
  // write fails.
  int addDataGroup(const std::string& name);
  // Adds the master channel "time", a float64 of seconds, unless the group has it. 0 or -1.
  int addTimeChannel(int dg);
  // Adds "time" unless the group has it, then the channel `info`, of which a copy is made.
  //
  // A record holds (bitCount + 7) / 8 whole bytes for the channel, behind those of the channels
  // before it; byteOffset and bitOffset are ignored. Conversion types 1, 2 and 4 to 8 are recorded
  // with the parameters that `info` holds; types 3 and 9 to 11 are not.
  //
  // 0 or -1, with "Failed to add time channel" or without a text: then the diagnostics say whether
  // the group has a channel of that name, or has records already.
  int addSignalChannel(int dg, const MdfSigCCInfo& info);
  // Sets the comment of a group without one; 0 or -1 without the group. A group keeps the comment
  // that it has.
  int setDataGroupComment(int dg, const std::string& comment);

  // Records the `size` bytes of one channel, as the file stores them, with that time; all other
  // channels are 0. Fewer bytes than the channel has leave its last ones 0.
  //
  // 0, or -1 when there is no such channel, the bytes are more than it has, or the record cannot be
  // written; nothing is recorded then. Without the group it reports "Failed to allocate record
  // data". Records gather in memory, 512 per group, so a full disk may show later. Also -1, with a
  // text but recorded, when the file is to be split and its path has no ".".
  int writeSignalData(int dg, double time, std::string_view channel, const std::uint8_t* data,
                      unsigned size);
  // The same with the bytes of any number of channels, by name, in one record.
  int writeSignalDataBatch(int dg, double time,
                           const std::map<std::string, std::vector<std::uint8_t>>& channels);

  // Adds a group with "time" and the fixed-length channels of the reader's group (dg, cg), as
  // getCCInfo describes and names them; its records are not copied. The reader is used during the
  // call only.
  //
  // The group's index, or -1 with "MdfSigReader is null", "Failed to create DataGroup", "Failed to
  // add time channel" or "Invalid channel count". A channel that cannot be added is left out, with
  // "Failed to add signal channel: " and its name.
  int createDataGroupFromReader(const std::shared_ptr<MdfSigReader>& reader, int dg, int cg,
                                const std::string& name);

 private:
  [[nodiscard]] static bool createChannelInfoFromCCInfo(const MdfSigCCInfo& info, ChannelInfo& out);
  void stop();
  bool hasRecorder() const;  // reports when there is none
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
