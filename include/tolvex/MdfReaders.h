// Readers: the tree of a file, its signals record by record, and the CAN frames of a bus log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tolvex/MdfExport.h"
#include "tolvex/MdfFrames.h"
#include "tolvex/MdfSignals.h"

namespace tolvex {

class m4Block;
class FrameMerge;
struct ReaderState;
struct SignalStreams;

// What an opened file says of itself.
struct MdfFileInfo {
  std::uint64_t size = 0;         // bytes
  std::uint16_t version = 0;      // the version number, e.g. 410
  std::string versionText;        // "4.10", without its padding
  std::string program;            // program identifier, without its padding
  std::uint64_t startTimeNs = 0;  // hd_start_time_ns as stored
};

// What an opened file says of one channel group.
struct MdfGroupInfo {
  std::int32_t dgIndex = -1;
  std::int32_t cgIndex = -1;
  std::string name;               // as getCGName
  std::uint64_t recordCount = 0;  // cg_cycle_count
  std::uint32_t recordSize = 0;   // bytes per record: data and invalidation bytes
  std::uint32_t dataBytes = 0;    // cg_data_bytes
  std::uint32_t invalBytes = 0;   // cg_inval_bytes
  std::uint8_t recordIdSize = 0;  // dg_rec_id_size
  std::uint16_t flags = 0;        // cg_flags; bit 0: holds variable-length signal data
  bool unsorted = false;          // record ids in front of records, or several channel groups over
                                  // one data section: its records cannot be read one by one
};

// Opens a file and lists its tree. The base of both readers.
//
// Owns the file and every block that it loads. Copies of a reader that was opened are safe: they
// share the file and the loaded blocks, which live until the last copy goes. A copy made before has
// a file of its own. One thread at a time, copies included, but for the operations that
// MdfSigReader guards. Operations that memory runs out for fail as they do for damage, and
// getProblems says so.
class TOLVEX_EXPORT MdfBaseReader {
 public:
  explicit MdfBaseReader(const std::string& path);  // opens nothing
  virtual ~MdfBaseReader();
  MdfBaseReader(const MdfBaseReader&);
  MdfBaseReader& operator=(const MdfBaseReader&);

  // Opens the file read-only, checks its identification and walks all data groups, channel groups
  // and channels. False, with one message to the error callback, when the path is empty or the file
  // cannot be opened as MDF 4; getLastError then says why. Damaged blocks do not fail the opening:
  // they count as absent, and getProblems lists them. A second call reads the file anew.
  virtual bool open();
  // Closes the file; what was listed stays.
  virtual void close();
  virtual std::uint64_t getStartTime() = 0;
  virtual std::uint64_t getStopTime() = 0;

  // Receives "File path is empty" or "Failed to open MDF4 file: " and the path. Called on the
  // thread that calls open.
  void setErrorCallback(std::function<void(const std::string&)> callback);

  // Names, units and comments are handed out up to so many bytes; whole by default. For programs
  // that show them: a file of a few MiB may name thousands of channels by one text of a MiB.
  void setLongestText(std::size_t bytes);

  // Counts. Asking for a group that does not exist adds an empty entry for it.
  int getDGCount();
  int getCGCount(int dg);
  int getCNCount(int dg, int cg);
  // The group's acquisition name, else its comment, else "".
  std::string getCGName(int dg, int cg);
  std::string getCNName(int dg, int cg, int cn);

  // Why the last open failed: what, where in the file, expected and found. After a success the
  // first read since that failed, in the system's words; "" when none did.
  std::string getLastError() const;
  // The damage met so far while opening and reading, a text each; the first 100 are kept. A read
  // that the system refuses is among them, with its position: data end there as at damage, but
  // another attempt to read them may succeed.
  std::vector<std::string> getProblems() const;
  // Both are filled by a successful open. getGroupInfo gives false when there is no such group
  // and, unlike the counts, adds nothing.
  MdfFileInfo getFileInfo() const;
  bool getGroupInfo(int dg, int cg, MdfGroupInfo& info);

 protected:
  // The block, owned by the reader, or null. Asking for one that does not exist adds an empty
  // entry for it, so the counts rise.
  m4Block* getDGBlock(int dg);
  m4Block* getCGBlock(int dg, int cg);
  m4Block* getCNBlock(int dg, int cg, int cn);

  std::string filePath_;
  std::function<void(const std::string&)> errorCallback_;
  std::shared_ptr<ReaderState> state_;
};

// Reads signals: whole records by position or time, and what is needed to decode them.
//
// One mutex guards everything that touches records (the read, find, reset and readSignalTimeRange
// operations and getDataGroupSigsIndex), for all copies of a reader together. Each group has one
// read position, shared by all threads and copies. Without cg, or with cg -1, an operation takes
// the first group of that dg. Record ids are not looked at, so groups that are marked unsorted
// (MdfGroupInfo) give wrong records.
class TOLVEX_EXPORT MdfSigReader : public MdfBaseReader {
 public:
  explicit MdfSigReader(const std::string& path);
  ~MdfSigReader() override;
  MdfSigReader(const MdfSigReader&);
  MdfSigReader& operator=(const MdfSigReader&);

  // Off by default: records can be read of groups that hold a value channel. On: of all groups,
  // also of those that hold nothing but channels of a CAN bus. Call before open.
  void setReadAllGroups(bool on);

  bool open() override;
  // Nanoseconds since 1970: the header's time as it stands; local time (hd_time_flags bit 0) less
  // this machine's zone; with valid offsets (bit 1) plus these, less this machine's zone.
  std::uint64_t getStartTime() override;
  std::uint64_t getStopTime() override;  // always 0

  bool isValidSig(int dg, int cg, int cn);
  bool isDataType(int dg, int cg, int cn);  // an existing channel of type 0 (fixed length)
  MdfSigAttr getSigAttr(int dg, int cg, int cn);
  // False, and `out` unchanged, when there is no such channel.
  bool getCCInfo(int dg, int cg, int cn, MdfSigCCInfo& out);
  // The same without the conversion's values and texts: enough to list a channel, whose conversion
  // may be a large table, not to convert.
  bool getChannelInfo(int dg, int cg, int cn, MdfSigCCInfo& out);
  // The group's master time channel.
  bool getTimeCCInfo(int dg, int cg, MdfSigCCInfo& out);
  int getRecordCount(int dg, int cg);  // cg_cycle_count, its low 32 bits
  // The whole records that the group's data hold by what its blocks state; 0 when they cannot be
  // read. A sound file has cg_cycle_count of them. Reads by number beyond them start over.
  std::uint64_t getStoredRecordCount(int dg, int cg);
  // The data groups whose records can be read, ascending.
  std::vector<int> getDataGroupSigsIndex();
  std::vector<MdfSigAttr> getDataGroupSigs(int dg);                                        // empty
  std::vector<std::shared_ptr<MdfSignalRawData>> readSignalDatas(int dg, unsigned count);  // empty

  // The next record, or null at the end and for a group without a master time channel.
  std::shared_ptr<MdfSignalRawData> readSignalData(int dg);
  std::shared_ptr<MdfSignalRawData> readSignalData(int dg, int cg);
  // The record with that number, or null. The position is a 32-bit product of index and record
  // size: beyond 2 GiB use readSignalDataBlock.
  std::shared_ptr<MdfSignalRawData> readSignalDataByIndex(int dg, int index);
  std::shared_ptr<MdfSignalRawData> readSignalDataByIndex(int dg, int cg, int index);
  // `count` records from number `start` on, back to back in `out`; recordSize receives the bytes
  // per record (0 without such a group). False, with `out` empty, unless all could be read.
  bool readSignalDataBlock(int dg, int start, int count, std::vector<std::uint8_t>& out,
                           int& recordSize);
  bool readSignalDataBlock(int dg, int cg, int start, int count, std::vector<std::uint8_t>& out,
                           int& recordSize);
  // Times of the first and last record in seconds; 0 where unknown. Moves the read position.
  std::pair<double, double> readSignalTimeRange(int dg, int cg);
  // The number of the first record whose time (seconds) is at or after `time`, or -1. The times
  // must rise. Moves the read position.
  int findRecordIndexByTime(int dg, int cg, double time);
  // Goes back to the first record.
  void resetDataStream(int dg);
  void resetDataStream(int dg, int cg);

  // The bytes of a channel in a record of its group, whole, however wide the channel is; for a
  // variable-length channel the value that the record points at. False when there is no such
  // channel or the record or file does not hold the bytes.
  bool readValueBytes(int dg, int cg, int cn, const std::uint8_t* record, std::size_t size,
                      std::vector<std::uint8_t>& out);
  // The whole text of a string channel up to its first NUL, as UTF-8, where readValueBytes finds
  // it. False for other channels.
  bool readText(int dg, int cg, int cn, const std::uint8_t* record, std::size_t size,
                std::string& text);
  // True when the channel marks its sample in this record as invalid: all samples (cn_flags
  // bit 0), or the bit cn_inval_bit_pos of the record's invalidation bytes (cn_flags bit 1).
  bool isInvalidSample(int dg, int cg, int cn, const std::uint8_t* record, std::size_t size);

 private:
  std::shared_ptr<SignalStreams> streams_;
};

// Reads the CAN frames of a bus log, merged over all its groups in time order. Frames are made for
// the caller and stay valid after the reader is gone. A copy goes on from where its source stood,
// independently of it. One thread at a time, copies included.
class TOLVEX_EXPORT MdfReader : public MdfBaseReader {
 public:
  explicit MdfReader(const std::string& path);
  ~MdfReader() override;
  MdfReader(const MdfReader&);
  MdfReader& operator=(const MdfReader&);

  // As MdfSigReader::getStartTime. Frame times count from MdfFileInfo::startTimeNs, which is UTC.
  std::uint64_t getStartTime() override;
  // The groups whose frames getNext gives, in (dg, cg) order.
  std::vector<MdfGroupInfo> getBusLogGroups();
  // The latest time over all groups' last records, nanoseconds since the recording's start.
  std::uint64_t getStopTime() override;

  // The next frame of any kind. Frames with equal times come in no particular order.
  MdfFrame getNext();
  // The next data or remote frame, or null at the end or when an error frame comes next. That error
  // is set aside for getCanError; a second one set aside replaces it.
  std::shared_ptr<MdfCanMessage> getCanMessage();
  // The mirror image of getCanMessage.
  std::shared_ptr<MdfCanError> getCanError();
  // Up to n messages; ends at the first null of getCanMessage.
  std::vector<std::shared_ptr<MdfCanMessage>> getCanMessages(unsigned n);
  // The sum of the cycle counts of all bus-log groups (32 bits).
  std::uint32_t getCanCount();
  // The frame's time as signed nanoseconds, 0 for a null pointer.
  static std::int64_t getSignedTimestampNsFromVariant(const MdfFrame& frame);

  // Off by default. On: a payload field wider than the frame is cut to the length that the record's
  // own data length code stands for, so short frames keep their length. Remote frames
  // keep their code and have no payload; a classic frame of 8 bytes keeps a code above 8
  // (DataLength() is then not the payload's size). Call before reading.
  void setPayloadByDlc(bool on);
  // Off by default. On: bus-log channels without a single recognised field, as signals measured
  // from a bus are marked, give no frames. Call before reading.
  void setRequireFields(bool on);
  // Off by default. On: bus logs of hardware loggers are read as they are meant. Fields may be
  // channels of 0 bits whose conversion is a constant, times may be integers, or numbers of
  // the channel's unit without a conversion, the CAN bus may be named at the channel group, the
  // fields SRR and ErrorType are known, and an error's identifier has no flag bit. Includes
  // setPayloadByDlc and setRequireFields. Call before open.
  void setLoggerRules(bool on);

 private:
  std::unique_ptr<FrameMerge> merge_;
};

}  // namespace tolvex
