// Readers: the tree of a file, its signals record by record, and the CAN frames of a bus log.
//
// A file has data groups (dg), a data group has channel groups (cg), a channel group has channels
// (cn) and records. All are numbered from 0 in the order of the file's linked lists. Names
// beginning with id_, hd_, dg_, cg_ and cn_ are the format's, of the identification and of these
// blocks.
//
// Readers never write. They read damaged files as far as they go: a damaged block counts as absent,
// and getProblems lists it. Only making and copying a reader may throw, std::bad_alloc.
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
  std::uint64_t size = 0;     // bytes
  std::uint16_t version = 0;  // id_ver, e.g. 410
  // id_vers, e.g. "4.10", and id_prog, the program that wrote the file; without their padding.
  std::string versionText;
  std::string program;
  // hd_start_time_ns as stored: nanoseconds since 1970-01-01 00:00, in UTC unless hd_time_flags say
  // local time. Times of records and frames count from it.
  std::uint64_t startTimeNs = 0;
};

// What an opened file says of one channel group.
struct MdfGroupInfo {
  std::int32_t dgIndex = -1;
  std::int32_t cgIndex = -1;
  std::string name;               // as MdfBaseReader::getCGName
  std::uint64_t recordCount = 0;  // cg_cycle_count
  std::uint32_t recordSize = 0;   // bytes per record: data and invalidation bytes
  std::uint32_t dataBytes = 0;    // cg_data_bytes
  std::uint32_t invalBytes = 0;   // cg_inval_bytes
  std::uint8_t recordIdSize = 0;  // dg_rec_id_size
  std::uint16_t flags = 0;        // cg_flags; bit 0: holds variable-length signal data
  // Record ids in front of records, or several channel groups in one data section. Such records
  // cannot be read one by one: sort the file by recoverFile (tolvex/MdfRecovery.h) first.
  bool unsorted = false;
};

// Opens a file and lists its tree. The base of both readers.
//
//   tolvex::MdfSigReader reader("drive.mf4");  // or MdfReader
//   if (!reader.open()) {
//     std::fprintf(stderr, "%s\n", reader.getLastError().c_str());
//     return;
//   }
//   for (int dg = 0; dg < reader.getDGCount(); ++dg) {
//     for (int cg = 0; cg < reader.getCGCount(dg); ++cg) {
//       for (int cn = 0; cn < reader.getCNCount(dg, cg); ++cn) {
//         std::printf("%d/%d/%d %s\n", dg, cg, cn, reader.getCNName(dg, cg, cn).c_str());
//       }
//     }
//   }
//
// Owns the file and every block that it loads. Copies of a reader that was opened share both, which
// live until the last copy is destroyed; a copy made before opens a file of its own.
//
// One thread at a time, copies included, but for the operations that MdfSigReader guards. Readers
// that are no copies of each other are independent. An operation that runs out of memory fails as
// it does for damage, and getProblems says so.
class TOLVEX_EXPORT MdfBaseReader {
 public:
  // Opens nothing. The path is UTF-8.
  explicit MdfBaseReader(const std::string& path);
  virtual ~MdfBaseReader();
  MdfBaseReader(const MdfBaseReader&);
  MdfBaseReader& operator=(const MdfBaseReader&);

  // Opens the file read-only, checks its identification and walks all data groups, channel groups
  // and channels. False, with one message to the error callback, when the path is empty or the file
  // cannot be opened as MDF 4; getLastError then says why. Damaged blocks do not fail the opening.
  // A second call reads the file anew.
  [[nodiscard]] virtual bool open();
  // Closes the file. The tree stays listed; names, which are read when they are asked for, are ""
  // and no records come any more.
  virtual void close();
  // When the recording began and ended; each reader says in which unit. 0 before open.
  virtual std::uint64_t getStartTime() = 0;
  virtual std::uint64_t getStopTime() = 0;

  // Receives "File path is empty" or "Failed to open MDF4 file: " and the path, on the thread that
  // calls open. Kept by the reader and its copies: what it refers to must outlive them.
  void setErrorCallback(std::function<void(const std::string&)> callback);

  // Limits names, units and comments to that many bytes; they are whole by default. For programs
  // that show them: a file of a few MiB may name thousands of channels by one text of a MiB.
  void setLongestText(std::size_t bytes);

  // How many data groups, channel groups in a data group and channels in a channel group there are;
  // 0 for a group that does not exist. Looking up a name, a signal or a record count by an index
  // that does not exist enters that index: the count of its list is higher afterwards.
  int getDGCount();
  int getCGCount(int dg);
  int getCNCount(int dg, int cg);
  // The channel group's acquisition name (cg_tx_acq_name), else its comment; the channel's name
  // (cn_tx_name). "" when there is none, or no such group or channel.
  std::string getCGName(int dg, int cg);
  std::string getCNName(int dg, int cg, int cn);

  // Why the last open failed: what, where in the file, expected and found. After a success why the
  // first read since then failed, in the system's words; "" when none did.
  std::string getLastError() const;
  // The damage met so far while opening and reading, a text each; the first 100 are kept. A read
  // that the system refuses is among them, with its position: data end there as at damage, but
  // another attempt to read them may succeed.
  std::vector<std::string> getProblems() const;
  // What the file says of itself; empty before open.
  MdfFileInfo getFileInfo() const;
  // What the file says of a channel group. False, with `info` unchanged, when it does not exist;
  // its index is not entered.
  bool getGroupInfo(int dg, int cg, MdfGroupInfo& info);

 protected:
  // The block, owned by the reader, or null. Looking up one that does not exist enters its index,
  // so the counts rise.
  m4Block* getDGBlock(int dg);
  m4Block* getCGBlock(int dg, int cg);
  m4Block* getCNBlock(int dg, int cg, int cn);

  std::string filePath_;
  std::function<void(const std::string&)> errorCallback_;
  std::shared_ptr<ReaderState> state_;
};

// Reads signals: whole records by number or time, and what is needed to decode them.
//
//   tolvex::MdfSigReader reader("drive.mf4");
//   tolvex::MdfSigCCInfo time, speed;
//   if (!reader.open() || !reader.getTimeCCInfo(0, 0, time)) return;
//   if (!reader.getCCInfo(0, 0, 1, speed)) return;  // channel 1 of the first group
//   while (const auto record = reader.readSignalData(0, 0)) {
//     double seconds = 0;
//     double value = 0;
//     if (time.convertToPhysical(record->data, seconds) &&
//         speed.convertToPhysical(record->data, value)) {
//       std::printf("%g s: %g %s\n", seconds, value, speed.unit.c_str());
//     }
//   }
//
// Without cg, or with cg -1, an operation takes the first channel group of dg whose records can be
// read. Record ids are ignored, so groups that are marked unsorted (MdfGroupInfo) give wrong
// records.
//
// Threads: one mutex guards everything that touches records (the read, find and reset functions,
// getStoredRecordCount and getDataGroupSigsIndex), for all copies of a reader together; after open
// they may be called from any thread. A group has one read position, which all threads and copies
// share. Records belong to the caller.
class TOLVEX_EXPORT MdfSigReader : public MdfBaseReader {
 public:
  explicit MdfSigReader(const std::string& path);
  ~MdfSigReader() override;
  MdfSigReader(const MdfSigReader&);
  MdfSigReader& operator=(const MdfSigReader&);

  // Off by default: only groups that hold a value channel can be read. On: all groups, also those
  // that hold nothing but channels of a CAN bus. Call before open.
  void setReadAllGroups(bool on);

  [[nodiscard]] bool open() override;
  // Nanoseconds since 1970, from hd_start_time_ns: as it stands; for local time (hd_time_flags
  // bit 0) minus this machine's zone; else with valid offsets (bit 1) plus hd_tz_offset_min and
  // hd_dst_offset_min, minus this machine's zone. For the time as stored see MdfFileInfo.
  std::uint64_t getStartTime() override;
  // Always 0; readSignalTimeRange has a group's last time.
  std::uint64_t getStopTime() override;

  // Whether the channel exists, and whether it exists and has a fixed length (cn_type 0).
  bool isValidSig(int dg, int cg, int cn);
  bool isDataType(int dg, int cg, int cn);
  // Where the channel lies; all defaults when it does not exist.
  MdfSigAttr getSigAttr(int dg, int cg, int cn);
  // What it takes to decode the channel. A conversion that has a name follows the channel's name in
  // brackets; unit and comment are the conversion's where the channel has none.
  // False, and `out` unchanged, when there is no such channel.
  bool getCCInfo(int dg, int cg, int cn, MdfSigCCInfo& out);
  // The same without the conversion's values and texts: enough to list a channel, whose conversion
  // may be a large table, not to convert.
  bool getChannelInfo(int dg, int cg, int cn, MdfSigCCInfo& out);
  // The same as getCCInfo for the group's master time channel (cn_type 2, cn_sync_type 1), whose
  // physical values are seconds since MdfFileInfo::startTimeNs. False when it has none.
  bool getTimeCCInfo(int dg, int cg, MdfSigCCInfo& out);
  // cg_cycle_count, its low 32 bits: negative from 2^31 on (MdfGroupInfo has all 64). 0 without the
  // group.
  int getRecordCount(int dg, int cg);
  // The whole records that the group's data hold by what its blocks state; 0 when they cannot be
  // read. A sound file has cg_cycle_count of them. Reads by number beyond them start over.
  std::uint64_t getStoredRecordCount(int dg, int cg);
  // The data groups whose records can be read, ascending.
  std::vector<int> getDataGroupSigsIndex();
  // Both always empty.
  std::vector<MdfSigAttr> getDataGroupSigs(int dg);
  std::vector<std::shared_ptr<MdfSignalRawData>> readSignalDatas(int dg, unsigned count);

  // The next record; null at the end. For a group without a master time channel it is always null,
  // though the read position advances.
  std::shared_ptr<MdfSignalRawData> readSignalData(int dg);
  std::shared_ptr<MdfSignalRawData> readSignalData(int dg, int cg);
  // The record with that number, also of groups without a time; null when it cannot be read. The
  // next record is then the one behind it. Its position is a 32-bit product of index and record
  // size: beyond 2 GiB use readSignalDataBlock.
  std::shared_ptr<MdfSignalRawData> readSignalDataByIndex(int dg, int index);
  std::shared_ptr<MdfSignalRawData> readSignalDataByIndex(int dg, int cg, int index);
  // `count` records from number `start` on, back to back in `out`; recordSize receives the bytes
  // per record. False, with `out` empty, unless all could be read; recordSize is then 0 when there
  // is no such group, `start` is negative or `count` below 1.
  bool readSignalDataBlock(int dg, int start, int count, std::vector<std::uint8_t>& out,
                           int& recordSize);
  bool readSignalDataBlock(int dg, int cg, int start, int count, std::vector<std::uint8_t>& out,
                           int& recordSize);
  // Times of the first record and of record cg_cycle_count - 1, in seconds since
  // MdfFileInfo::startTimeNs; 0 where unknown. Moves the read position.
  std::pair<double, double> readSignalTimeRange(int dg, int cg);
  // The number of the first record whose time is at or after `time` (seconds, as above); -1 when
  // there is none or the group has no time. A binary search, so times must rise. Moves the read
  // position.
  int findRecordIndexByTime(int dg, int cg, double time);
  // The next record is the first again.
  void resetDataStream(int dg);
  void resetDataStream(int dg, int cg);

  // The bytes of a channel in a record of its group (`size` bytes at `record`): all of them,
  // however wide the channel is; of a variable-length channel (cn_type 1) the value that the record
  // points at. False when there is no such channel, or the record or file does not hold the bytes.
  bool readValueBytes(int dg, int cg, int cn, const std::uint8_t* record, std::size_t size,
                      std::vector<std::uint8_t>& out);
  // The text of a string channel (cn_data_type 6 to 9) up to its first NUL, whole and as UTF-8,
  // from the bytes that readValueBytes finds. False for other channels.
  bool readText(int dg, int cg, int cn, const std::uint8_t* record, std::size_t size,
                std::string& text);
  // True when the channel marks its sample in this record as invalid: all samples (cn_flags
  // bit 0), or the bit cn_inval_bit_pos of the record's invalidation bytes (cn_flags bit 1).
  bool isInvalidSample(int dg, int cg, int cn, const std::uint8_t* record, std::size_t size);

 private:
  std::shared_ptr<SignalStreams> streams_;
};

// Reads the CAN frames of a bus log, merged over all its groups in time order.
//
//   tolvex::MdfReader reader("drive.mf4");
//   reader.setLoggerRules(true);  // files of hardware loggers as they are meant; before open
//   if (!reader.open()) return;
//   for (;;) {
//     const tolvex::MdfFrame frame = reader.getNext();
//     if (const auto* message = std::get_if<std::shared_ptr<tolvex::MdfCanMessage>>(&frame)) {
//       if (*message == nullptr) break;  // no more frames
//       std::printf("%.6f s: %X\n", 1e-9 * static_cast<double>((*message)->Timestamp()),
//                   (*message)->CanId());
//     }  // else std::shared_ptr<tolvex::MdfCanError>
//   }
//
// A bus log is a group with a channel that is a CAN source's (si_bus_type 2) or is named
// CAN_DataFrame, CAN_ErrorFrame or CAN_FdErrorFrame; its fields are the channels below that one,
// recognised by the part of their name behind the last ".", e.g. "CAN_DataFrame.ID". Files count
// buses from 1, frames from 0. Times are nanoseconds since MdfFileInfo::startTimeNs, rounded.
//
// Frames are read once, from first to last: to begin again, make a new reader. They belong to the
// caller and stay valid after the reader is gone. A copy continues from where its source is,
// independently of it. One thread at a time, copies included.
class TOLVEX_EXPORT MdfReader : public MdfBaseReader {
 public:
  explicit MdfReader(const std::string& path);
  ~MdfReader() override;
  MdfReader(const MdfReader&);
  MdfReader& operator=(const MdfReader&);

  // As MdfSigReader::getStartTime.
  std::uint64_t getStartTime() override;
  // The groups whose frames getNext returns, in (dg, cg) order; none before open.
  std::vector<MdfGroupInfo> getBusLogGroups();
  // The latest time of all groups' last records, as their cycle counts state them: nanoseconds
  // since MdfFileInfo::startTimeNs, cut off rather than rounded. 0 without a bus log.
  std::uint64_t getStopTime() override;

  // The next frame of any kind; an empty message pointer at the end. Frames with equal times come
  // in no particular order.
  MdfFrame getNext();
  // The next data or remote frame; null at the end, and when an error frame comes next. That error
  // is set aside for getCanError, in the place of one that was set aside before. So two calls in a
  // row may lose an error: use getNext to have all.
  std::shared_ptr<MdfCanMessage> getCanMessage();
  // The same for error frames, which sets messages aside.
  std::shared_ptr<MdfCanError> getCanError();
  // Up to n messages, as n calls of getCanMessage; ends at the first null.
  std::vector<std::shared_ptr<MdfCanMessage>> getCanMessages(unsigned n);
  // The cycle counts of all bus-log groups, summed up (32 bits). Reads no record.
  std::uint32_t getCanCount();
  // The frame's time as signed nanoseconds, 0 for a null pointer.
  static std::int64_t getSignedTimestampNsFromVariant(const MdfFrame& frame);

  // Off by default: a frame's payload is as long as the payload field, and so is its code. On: it
  // is cut to the length of the record's own data length code, so short frames keep their length.
  // Remote frames keep their code and have no payload; a classic frame of 8 bytes keeps a code
  // above 8 (DataLength() is then not the payload's size). Call before reading.
  void setPayloadByDlc(bool on);
  // Off by default. On: bus-log channels without a single known field, such as signals that were
  // measured on a bus, give no frames. Call before reading.
  void setRequireFields(bool on);
  // Off by default. On: files of hardware loggers are read as they are meant. A field may be a
  // channel of 0 bits whose conversion is a constant; times may be integers, or numbers in the
  // channel's unit without a conversion; the channel group may name the CAN bus; the fields SRR and
  // ErrorType are known; an error's identifier has no flag bit. Includes setPayloadByDlc and
  // setRequireFields. Call before open.
  void setLoggerRules(bool on);

 private:
  std::unique_ptr<FrameMerge> merge_;
};

}  // namespace tolvex
