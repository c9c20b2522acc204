// Reads measurement files in the ASAM MDF 4 format (block tree, signals as physical values, and the
// CAN frames of bus logs in time order) and records signals into new ones.
//
// Units: file times are nanoseconds since 1970-01-01 00:00 UTC, record times are seconds (float64)
// or nanoseconds since the recording's start, sizes are bytes. Indices are 0-based positions in the
// file's linked lists. Failures are reported by results (false, null, -1, 0, ""), not by
// exceptions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#if defined(_WIN32)
#define TOLVEX_EXPORT
#else
#define TOLVEX_EXPORT __attribute__((visibility("default")))
#endif

namespace tolvex {

class m4Block;
class FrameMerge;
class MdfRecorder;
class RecordData;
struct ChannelInfo;
struct ReaderState;
struct SignalStreams;

// ---------------------------------------------------------------------------------------------
// Channel values

// Where a value lies with respect to a channel's ranges (MdfSigCCInfo::checkValueRange).
enum class RangeStatus : std::uint8_t {
  NoRange = 0,          // the channel states no such range
  InRange = 1,          //
  InExtendedRange = 2,  // outside the limits, inside the extended limits
  OutOfRange = 3,       //
};

// Everything needed to turn one channel's bytes in a record into a raw number, and that into a
// physical value or a text. A plain value: MdfSigReader::getCCInfo fills one per channel, an
// application may fill its own.
//
// A record is the bytes of one record of the channel's group, data bytes first, then the
// invalidation bytes. Every decoding function comes in two forms: a vector, or a pointer to `size`
// bytes. All const functions may be called from several threads at once.
struct TOLVEX_EXPORT MdfSigCCInfo {
  std::string name;
  std::string unit;
  std::string comment;
  std::uint32_t dataType = 0;    // cn_data_type, 0..15
  std::uint32_t valueKind = 0;   // 0 unsigned, 1 signed, 2 float, 3 Latin-1, 4 UTF-8, 5 UTF-16,
                                 // 6..11 the remaining data types; from initDataTypeInfo
  std::uint32_t byteOrder = 1;   // 0 none, 1 little endian, 2 big endian; from initDataTypeInfo
  std::uint8_t bitOffset = 0;    // cn_bit_offset
  std::uint8_t bitCount = 0;     // cn_bit_count, its low 8 bits
  std::uint32_t byteOffset = 0;  // cn_byte_offset
  std::uint8_t displayPrecision = 255;  // decimal places, 255 unlimited; calculateDisplayPrecision
  bool hasDisplayPrecision = false;
  std::uint8_t cnPrecision = 255;  // cn_precision
  bool cnPrecisionValid = false;   // cn_flags bit 2
  std::uint8_t ccPrecision = 255;  // cc_precision
  bool ccPrecisionValid = false;   // cc_flags bit 0
  double valueRangeMin = 0;        // cn_val_range_min, raw
  double valueRangeMax = 0;
  bool valueRangeValid = false;  // cn_flags bit 3
  double physRangeMin = 0;       // cc_phy_range_min, physical
  double physRangeMax = 0;
  bool physRangeValid = false;  // cc_flags bit 1
  double limitMin = 0;          // cn_limit_min
  double limitMax = 0;
  bool limitValid = false;  // cn_flags bit 4
  double limitExtMin = 0;   // cn_limit_ext_min
  double limitExtMax = 0;
  bool limitExtValid = false;         // cn_flags bit 5
  std::uint8_t conversionType = 0;    // cc_type, 0..11; 0 without a conversion
  std::uint16_t ccFlags = 0;          // cc_flags
  std::uint16_t valueCount = 0;       // cc_val_count as the file states it
  std::vector<double> values;         // cc_val; fewer than valueCount when the block holds fewer
  std::uint16_t textCount = 0;        // cc_ref_count as the file states it
  std::vector<std::string> texts;     // one per cc_ref; "" for a 0 link or no text block; fewer
                                      // than textCount when the block holds fewer
  std::uint8_t syncType = 0;          // cn_sync_type
  std::uint8_t channelType = 0;       // cn_type
  std::uint16_t attachmentCount = 0;  // cn_attachment_count
  std::uint32_t flags = 0;            // cn_flags
  std::uint32_t invalidBitPos = 0;    // cn_inval_bit_pos

  MdfSigCCInfo();  // the defaults above, then initDataTypeInfo

  // Sets valueKind and byteOrder from dataType.
  void initDataTypeInfo();
  // Sets displayPrecision: the channel's precision when valid, else the conversion's when valid.
  void calculateDisplayPrecision();
  // "Default", "Unlimited", or the number and " decimal places".
  std::string getPrecisionString() const;
  // The text of conversionType, "UNKNOWN" for a code above 11.
  std::string getConversionTypeString() const;

  // `physical` false: against the value range. True: against the limits and extended limits when
  // the limits are valid, else against the physical range. Bounds belong to their range.
  RangeStatus checkValueRange(double value, bool physical) const;

  bool isTextConversion() const;       // conversionType 7, 8, 10, 11
  bool isNumericConversion() const;    // conversionType 0..6, 9
  bool requiresInterpolation() const;  // conversionType 4

  // The (bitCount + 7) / 8 bytes from byteOffset as they stand (no bit shift); empty when the
  // record is too short or bitCount is 0.
  std::vector<std::uint8_t> extractRawBytes(const std::vector<std::uint8_t>& record) const;
  std::vector<std::uint8_t> extractRawBytes(const std::uint8_t* record, std::size_t size) const;

  // The channel's bits, first bit lowest; big-endian fields of 8 bits and more have their bytes
  // reversed after the gathering. False when the record is too short or bitCount is above 64.
  bool extractBitFieldValue(const std::vector<std::uint8_t>& record, std::uint64_t& value) const;
  bool extractBitFieldValue(const std::uint8_t* record, std::size_t size,
                            std::uint64_t& value) const;

  // The text of a string channel (valueKind 3, 4, 5) up to its first NUL: at most 31 bytes, since
  // bitCount has 8 bits (MdfSigReader::readText gives the whole text). False for other kinds and
  // when the record is too short.
  bool extractStringValue(const std::vector<std::uint8_t>& record, std::string& text) const;
  bool extractStringValue(const std::uint8_t* record, std::size_t size, std::string& text) const;

  // An extracted bit field as a number. Unsigned 64-bit values with the top bit set turn negative.
  // Throws std::runtime_error "Invalid sample: invalidation bit set" when cn_flags bit 1 is set
  // and bit invalidBitPos of `value` itself is 1. False for strings and odd float widths.
  bool convertBitFieldValueToRaw(std::uint64_t value, double& raw) const;

  // The physical value of the channel in `record`; `text` receives the conversion's or the string
  // channel's text. Never throws: a sample whose invalidation bit is set gives false.
  bool convertToPhysical(const std::vector<std::uint8_t>& record, double& phys) const;
  bool convertToPhysical(const std::vector<std::uint8_t>& record, double& phys,
                         std::string& text) const;
  bool convertToPhysical(const std::uint8_t* record, std::size_t size, double& phys,
                         std::string& text) const;

  // The conversion of one raw number. On success a numeric conversion clears `text`; on failure
  // phys is raw and `text` stays (but for an empty default of N2T, which clears it). A raw NaN
  // gives false, except through the identity; so do keys out of order and counts beyond the lists.
  bool applyConversion(double raw, double& phys, std::string& text) const;
  bool convertIdentity(double raw, double& phys, std::string& text) const;
  bool convertLinear(double raw, double& phys, std::string& text) const;
  bool convertRational(double raw, double& phys, std::string& text) const;
  bool convertFormula(double raw, double& phys,
                      std::string& text) const;  // not evaluated: phys = raw
  bool convertN2NInterpol(double raw, double& phys, std::string& text) const;
  bool convertN2N(double raw, double& phys, std::string& text) const;
  bool convertR2N(double raw, double& phys, std::string& text) const;
  bool convertN2T(double raw, double& phys, std::string& text) const;
  bool convertR2T(double raw, double& phys, std::string& text) const;
  bool convertT2N(double raw, double& phys, std::string& text) const;
  bool convertT2T(double raw, double& phys, std::string& text) const;
  bool convertBTT(double raw, double& phys, std::string& text) const;
};

// Where a channel lies. All defaults when the channel does not exist.
struct MdfSigAttr {
  std::string name;
  std::int32_t dgIndex = -1;
  std::int32_t cgIndex = -1;
  std::int32_t cnIndex = -1;
  std::uint32_t byteOffset = 0;  // cn_byte_offset
  std::uint32_t bitCount = 0;    // cn_bit_count, all 32 bits
  std::uint8_t bitOffset = 0;    // cn_bit_offset
  std::uint32_t reserved = 0;    // set by nobody
};

// One record's bytes.
struct MdfSignalRawData {
  std::vector<std::uint8_t> data;
};

// ---------------------------------------------------------------------------------------------
// CAN frames

// What went wrong on the bus. The library stores and copies the value and never interprets it.
enum class CanErrorType : std::uint8_t {
  Unknown = 0,
  Bit = 1,
  Form = 2,
  BitStuffing = 3,
  Crc = 4,
  Acknowledge = 5,
};

// The record layouts that a frame can be packed into.
enum class MessageType : std::uint8_t {
  DataFrame = 0,
  HeaderOnlyFrame = 1,
  ErrorFrame = 2,
  FdErrorFrame = 3,
  ChannelDirFrame = 4,
};

// One CAN or CAN FD frame. A value; one thread at a time.
class TOLVEX_EXPORT MdfCanMessage {
 public:
  MdfCanMessage() = default;
  MdfCanMessage(const MdfCanMessage&) = default;
  MdfCanMessage(MdfCanMessage&&) = default;
  MdfCanMessage& operator=(const MdfCanMessage&) = default;
  MdfCanMessage& operator=(MdfCanMessage&&) = default;

  // Frames made by a reader: nanoseconds since the recording's start. Frames handed to a recorder:
  // microseconds on the scale of the recorder's start time.
  void Timestamp(std::uint64_t value) { timestamp_ = value; }
  std::uint64_t Timestamp() const { return timestamp_; }

  // The identifier with the extended flag in bit 31. Setting a value above 0x7FF sets the flag;
  // one of 0x7FF or less is stored as given.
  void MessageId(std::uint32_t value) {
    messageId_ = value > kMaxStandardId ? value | kExtendedFlag : value;
  }
  std::uint32_t MessageId() const { return messageId_; }
  // The identifier without the flag.
  std::uint32_t CanId() const { return messageId_ & ~kExtendedFlag; }
  void ExtendedId(bool value) {
    messageId_ = value ? messageId_ | kExtendedFlag : messageId_ & ~kExtendedFlag;
  }
  bool ExtendedId() const { return (messageId_ & kExtendedFlag) != 0; }

  // The data length code, 0..15; the payload is resized to its length (new bytes are 0). A code
  // above 15 gives false and changes nothing.
  bool Dlc(std::uint8_t dlc);
  std::uint8_t Dlc() const { return dlc_; }
  // Sets the smallest code that holds `length` bytes and resizes the payload; above 64 means 8.
  void DataLength(std::uint32_t length);
  // The length that the code stands for, not the payload's size.
  std::uint32_t DataLength() const { return DlcToLength(dlc_); }
  // Sets code and payload; positions up to the code's length get the fill byte (0).
  void DataBytes(const std::vector<std::uint8_t>& bytes);
  void DataBytes(const std::uint8_t* bytes, std::size_t size);
  const std::vector<std::uint8_t>& DataBytes() const { return dataBytes_; }
  // Whether a reader made the frame of a record whose payload is not in the file or cannot be read.
  // DataBytes() is then no payload: what of it could be read, with zeros up to the code's length.
  // Setting the payload makes it false.
  bool PayloadMissing() const { return payloadMissing_; }

  void Dir(bool value) { flag(kDir, value); }  // true: transmitted
  bool Dir() const { return flag(kDir); }
  void Srr(bool value) { flag(kSrr, value); }
  bool Srr() const { return flag(kSrr); }
  void Edl(bool value) { flag(kEdl, value); }  // true: CAN FD
  bool Edl() const { return flag(kEdl); }
  void Brs(bool value) { flag(kBrs, value); }
  bool Brs() const { return flag(kBrs); }
  void Esi(bool value) { flag(kEsi, value); }
  bool Esi() const { return flag(kEsi); }
  void WakeUp(bool value) { flag(kWakeUp, value); }
  bool WakeUp() const { return flag(kWakeUp); }
  void SingleWire(bool value) { flag(kSingleWire, value); }
  bool SingleWire() const { return flag(kSingleWire); }
  void Rtr(bool value) { flag(kRtr, value); }  // true: remote frame
  bool Rtr() const { return flag(kRtr); }

  // The 0-based number of the record in its group that a reader took the frame from; else 0.
  void DataIndex(std::uint64_t value) { dataIndex_ = value; }
  std::uint64_t DataIndex() const { return dataIndex_; }
  void BusChannel(std::uint8_t value) { busChannel_ = value; }
  std::uint8_t BusChannel() const { return busChannel_; }
  void BitPosition(std::uint8_t value) { bitPosition_ = value; }
  std::uint8_t BitPosition() const { return bitPosition_; }
  void ErrorType(CanErrorType value) { errorType_ = value; }
  CanErrorType ErrorType() const { return errorType_; }
  void TimeOffsetBRS(std::uint32_t value) { timeOffsetBrs_ = value; }
  std::uint32_t TimeOffsetBRS() const { return timeOffsetBrs_; }
  void TimeOffsetCRCDel(std::uint32_t value) { timeOffsetCrcDel_ = value; }
  std::uint32_t TimeOffsetCRCDel() const { return timeOffsetCrcDel_; }
  void Crc(std::uint32_t value) { crc_ = value & kCrcMask; }  // 21 bits
  std::uint32_t Crc() const { return crc_; }
  void BtrExtCfg(std::uint64_t value) { btrExtCfg_ = value; }
  std::uint64_t BtrExtCfg() const { return btrExtCfg_; }

  // Payload bytes of a data length code: 0..8 as they are, then 12, 16, 20, 24, 32, 48, 64; 0
  // for a code above 15.
  static std::uint32_t DlcToLength(std::uint8_t dlc);

  // Packs the frame into a record of that layout, all but its time. A data frame takes `dataBytes`
  // payload bytes, at least 8 (with fixedEight never more), and fills those beyond the payload with
  // the fill byte. False, with nothing written, for a record of another size and for a type that
  // there is not.
  bool ToRaw(MessageType type, RecordData& record, unsigned dataBytes, bool fixedEight) const;

  // Clears everything but the timestamp and the fill byte; the payload keeps its capacity.
  void Reset();

 private:
  friend class CanRecordDecoder;
  friend class DataFramePacking;

  static constexpr std::uint32_t kMaxStandardId = 0x7FF;
  static constexpr std::uint32_t kExtendedFlag = 0x80000000;
  static constexpr std::uint32_t kCrcMask = 0x1FFFFF;
  // The flags byte, as it stands in a record.
  static constexpr std::uint8_t kDir = 0x01;
  static constexpr std::uint8_t kSrr = 0x02;
  static constexpr std::uint8_t kEdl = 0x04;
  static constexpr std::uint8_t kBrs = 0x08;
  static constexpr std::uint8_t kEsi = 0x10;
  static constexpr std::uint8_t kWakeUp = 0x20;
  static constexpr std::uint8_t kSingleWire = 0x40;
  static constexpr std::uint8_t kRtr = 0x80;

  void flag(std::uint8_t mask, bool value) {
    flags_ = static_cast<std::uint8_t>(value ? flags_ | mask : flags_ & ~mask);
  }
  bool flag(std::uint8_t mask) const { return (flags_ & mask) != 0; }

  std::uint64_t timestamp_ = 0;
  std::uint32_t messageId_ = 0;
  std::uint8_t dlc_ = 0;
  std::uint8_t busChannel_ = 0;
  std::uint8_t flags_ = 0;
  std::uint64_t dataIndex_ = 0;
  std::vector<std::uint8_t> dataBytes_;
  std::uint8_t bitPosition_ = 0;
  CanErrorType errorType_ = CanErrorType::Unknown;
  std::uint8_t fillByte_ = 0;
  bool payloadMissing_ = false;
  std::uint32_t timeOffsetBrs_ = 0;
  std::uint32_t timeOffsetCrcDel_ = 0;
  std::uint32_t crc_ = 0;
  std::uint64_t btrExtCfg_ = 0;
};

// One CAN or CAN FD error frame with its error counters. A value; one thread at a time. Setters
// store what they are given; the four CAN FD fields also set IsCanFdError.
class TOLVEX_EXPORT MdfCanError {
 public:
  MdfCanError() = default;
  MdfCanError(const MdfCanError&) = default;
  MdfCanError(MdfCanError&&) = default;
  MdfCanError& operator=(const MdfCanError&) = default;
  MdfCanError& operator=(MdfCanError&&) = default;

  void Timestamp(std::uint64_t value) { timestamp_ = value; }  // units as for MdfCanMessage
  std::uint64_t Timestamp() const { return timestamp_; }
  void BusChannel(std::uint8_t value) { busChannel_ = value; }
  std::uint8_t BusChannel() const { return busChannel_; }
  void MessageId(std::uint32_t value) { messageId_ = value; }  // no flag bit
  std::uint32_t MessageId() const { return messageId_; }
  void ExtendedId(bool value) { extendedId_ = value; }
  bool ExtendedId() const { return extendedId_; }
  void ErrorFlags(std::uint32_t value) { errorFlags_ = value; }
  std::uint32_t ErrorFlags() const { return errorFlags_; }
  void Dir(bool value) { dir_ = value; }
  bool Dir() const { return dir_; }
  void Dlc(std::uint8_t value) { dlc_ = value; }  // not checked
  std::uint8_t Dlc() const { return dlc_; }
  void DataLength(std::uint32_t value) { dataLength_ = value; }  // not derived from the code
  std::uint32_t DataLength() const { return dataLength_; }
  void DataBytes(const std::vector<std::uint8_t>& bytes) {
    dataBytes_ = bytes;
    payloadMissing_ = false;
  }
  const std::vector<std::uint8_t>& DataBytes() const { return dataBytes_; }
  // Whether a reader made the frame of a record whose payload cannot be read; DataBytes() then
  // holds what of it could be. Setting the payload makes it false.
  bool PayloadMissing() const { return payloadMissing_; }
  void Tec(std::uint8_t value) { tec_ = value; }  // transmit error counter
  std::uint8_t Tec() const { return tec_; }
  void Trec(std::uint8_t value) { trec_ = value; }  // receive error counter
  std::uint8_t Trec() const { return trec_; }
  void TimeOffsetBRS(std::uint64_t value) {
    timeOffsetBrs_ = value;
    isCanFdError_ = true;
  }
  std::uint64_t TimeOffsetBRS() const { return timeOffsetBrs_; }
  void TimeOffsetCRCDel(std::uint64_t value) {
    timeOffsetCrcDel_ = value;
    isCanFdError_ = true;
  }
  std::uint64_t TimeOffsetCRCDel() const { return timeOffsetCrcDel_; }
  void Crc(std::uint32_t value) {
    crc_ = value;
    isCanFdError_ = true;
  }
  std::uint32_t Crc() const { return crc_; }
  void BtrExtCfg(std::uint64_t value) {
    btrExtCfg_ = value;
    isCanFdError_ = true;
  }
  std::uint64_t BtrExtCfg() const { return btrExtCfg_; }
  bool IsCanFdError() const { return isCanFdError_; }
  void ErrorType(CanErrorType value) { errorType_ = value; }  // in no record that ToRaw packs
  CanErrorType ErrorType() const { return errorType_; }

  // As MdfCanMessage::DlcToLength.
  static std::uint32_t DlcToLength(std::uint8_t dlc);

  // Packs the frame into a record of a CAN FD or classic error frame, all but its time; bytes
  // beyond the payload become 0. False, with nothing written, for a record that is too small.
  bool ToRaw(RecordData& record, unsigned ignored, bool canFd) const;

 private:
  friend class CanRecordDecoder;

  std::uint64_t timestamp_ = 0;
  std::uint8_t busChannel_ = 0;
  std::uint32_t messageId_ = 0;
  bool extendedId_ = false;
  std::uint32_t errorFlags_ = 0;
  bool dir_ = false;
  std::uint8_t dlc_ = 0;
  std::uint32_t dataLength_ = 0;
  std::vector<std::uint8_t> dataBytes_;
  std::uint8_t tec_ = 0;
  std::uint8_t trec_ = 0;
  std::uint64_t timeOffsetBrs_ = 0;
  std::uint64_t timeOffsetCrcDel_ = 0;
  std::uint32_t crc_ = 0;
  std::uint64_t btrExtCfg_ = 0;
  bool isCanFdError_ = false;
  bool payloadMissing_ = false;
  CanErrorType errorType_ = CanErrorType::Unknown;
};

// A frame as MdfReader hands it out; an empty MdfCanMessage pointer stands for "no more frames".
using MdfFrame = std::variant<std::shared_ptr<MdfCanMessage>, std::shared_ptr<MdfCanError>>;

// ---------------------------------------------------------------------------------------------
// Readers

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

// ---------------------------------------------------------------------------------------------
// Signal writer

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

// ---------------------------------------------------------------------------------------------
// Checking and recovering files

// Told now and then by long work, on the thread that called it: bytes of the input done, and all.
using MdfProgress = std::function<void(std::uint64_t done, std::uint64_t total)>;

// One thing that is wrong with a file, or odd.
struct MdfFinding {
  bool error = false;          // false: a warning; the file can be read as it was meant
  std::uint64_t position = 0;  // in the file: of the block or field that is meant
  std::string what;            // e.g. "CN block: cn_data_type"
  std::string expected;        // "" where there is nothing to compare
  std::string found;
};

struct MdfCheckReport {
  std::string failure;               // why the file could not be looked at; "" when it was
  std::vector<MdfFinding> findings;  // the first 1000, in the order in which they were met
  std::uint64_t errors = 0;          // all of them
  std::uint64_t warnings = 0;
};

// Checks a file against the format: every block that is linked, every list of data blocks, the
// records' number and times, variable-length values, and bytes that belong to no block. Stops at no
// finding and never throws. Bytes that the system fails to read are the first findings. A file that
// is no MDF 4 file at all has that as its one finding.
TOLVEX_EXPORT MdfCheckReport checkFile(const std::string& path,
                                       const MdfProgress& progress = nullptr);

// One channel group of a recovered file.
struct MdfRecoveredGroup {
  std::string name;                 // the acquisition name, else the comment, else ""
  std::int32_t dgIndex = -1;        // where it stood in the input; in the result each channel group
  std::int32_t cgIndex = -1;        // has a data group of its own, in the same order
  std::uint64_t records = 0;        // in the result
  std::uint64_t foundBlocks = 0;    // data blocks among them that no list named
  std::uint64_t lostRecords = 0;    // that the input held or names, as far as they can be counted
  std::vector<std::string> losses;  // what is missing and where, the first 100
  std::vector<std::string> repairs;  // what was put right without a loss, the first 100
};

struct MdfRecoveryReport {
  std::string failure;  // why there is no usable result; "" when it was written
  std::vector<MdfRecoveredGroup> groups;
  std::vector<std::string> losses;   // outside the groups, the first 100
  std::vector<std::string> repairs;  // likewise
  bool beyondLimit = false;          // the failure is that the result exceeds the allowed size
  bool lossless() const {
    bool whole = failure.empty() && losses.empty();
    for (const MdfRecoveredGroup& group : groups) {
      whole = whole && group.losses.empty() && group.lostRecords == 0;
    }
    return whole;
  }
};

struct MdfRecoverOptions {
  bool verify = false;  // read the result again: check it, and compare every record
  MdfProgress progress;
  // The most bytes that the result may have, as a small file can claim to hold a huge one; 0: any
  // number. By default 1,000 times the input's size, and at least 1 GiB.
  std::optional<std::uint64_t> maxOutput = std::nullopt;
  // Asked before every read and write, on the thread that called; true ends the recovery with the
  // failure "cancelled".
  std::function<bool()> cancelled = nullptr;
};

// Writes what is really there of `input` (finished or not, cut or damaged) into `output`, an
// existing file of that name included: a finalized, sorted file with one data group for each
// channel group. Needs memory for the channels, not for the records. Refuses to write over its
// input. Never throws. Bytes that the system fails to read are tried again, then taken for lost
// sector by sector, and named among the losses.
//
// The result grows in the output's folder under a name that nobody can foresee, and takes its own,
// with the input's permissions, when it is whole and on the disk: after a failure what had that
// name is as it was. Only a process that is killed leaves its tolvex-*.part behind. A device is
// written directly. Several threads may recover and check files at once; of those that recover into
// one output, the last wins.
TOLVEX_EXPORT MdfRecoveryReport recoverFile(const std::string& input, const std::string& output,
                                            const MdfRecoverOptions& options = {});

}  // namespace tolvex
