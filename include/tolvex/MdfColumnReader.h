// Columns: every channel of a file as the format means it, many records at once.
//
//   tolvex::MdfColumnReader reader("drive.mf4");
//   if (!reader.open()) return;
//   for (const tolvex::MdfChannelRef& found : reader.find("EngineSpeed")) {
//     std::vector<tolvex::MdfColumn> columns;
//     const int master = reader.groups()[found.group].master;
//     if (!reader.read(found.group, {master, found.channel}, 0, ~0ULL, columns)) continue;
//     const double* speed = columns[1].as<double>();
//   }
//
// MdfSigReader (tolvex/MdfReaders.h) gives records one by one, with the meaning that its interface
// describes; this reader gives what the ASAM MDF 4 format means, and opens more: unsorted files,
// files that their logger did not finalize, recordings that were killed, several files as one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tolvex/MdfExport.h"

namespace tolvex {

struct MdfColumnReaderState;

// What the values of a column are. Integers and floats have the narrowest type that holds all
// values of their channel exactly.
enum class MdfColumnType : std::uint8_t {
  None,  // there are no values: MdfColumnChannel::fault says why
  Int8,
  Int16,
  Int32,
  Int64,
  UInt8,
  UInt16,
  UInt32,
  UInt64,
  Float32,
  Float64,
  Text,        // UTF-8
  Bytes,       // as they stand in the file
  Dictionary,  // texts that recur: an int32 for each value counts them
};

// A channel, or a member of a structure. Texts are UTF-8, end in a NUL and last until the reader is
// opened or closed.
struct MdfColumnChannel {
  std::string_view name;  // with the names of the structures around it: "CAN_DataFrame.ID"
  std::string_view unit;  // of the physical values
  std::string_view comment;
  std::string_view sourceName;  // who recorded it; of a member, as a rule, that of its structure
  std::string_view sourcePath;
  std::string_view conversionName;
  std::uint8_t conversion = 0;   // cc_type, 0: none; see MdfSigCCInfo
  std::uint8_t channelType = 0;  // cn_type
  std::uint8_t syncType = 0;     // cn_sync_type: 1 time, 2 angle, 3 distance, 4 index
  std::uint8_t dataType = 0;     // cn_data_type
  std::uint32_t bitCount = 0;    // cn_bit_count
  std::uint32_t byteOffset = 0;  // cn_byte_offset
  std::uint8_t bitOffset = 0;    // cn_bit_offset
  std::int32_t parent = -1;      // the channel that it is a member of, before it in the group
  // Elements of an array, the outermost dimension first; empty: single values. A complex number
  // counts as one more dimension, of 2: its real and its imaginary part.
  std::vector<std::uint64_t> shape;
  MdfColumnType type = MdfColumnType::None;     // of the physical values
  MdfColumnType rawType = MdfColumnType::None;  // before the conversion
  bool givesNumbers = false;  // of a Dictionary: some values may be numbers instead of texts
  std::string fault;          // why it has no physical values; "" when it has
};

// A channel group.
struct MdfColumnGroup {
  std::int32_t dataGroup = 0;     // the data group that it is in, counted from 0
  std::int32_t channelGroup = 0;  // which one of that data group's it is, likewise
  std::string_view name;          // the acquisition name
  std::string_view comment;
  std::string_view sourceName;
  std::string_view sourcePath;
  std::uint64_t records = 0;        // that are there, whatever the file states
  std::uint64_t statedRecords = 0;  // cg_cycle_count
  std::uint32_t recordSize = 0;     // bytes, invalidation bytes included
  bool unsorted = false;            // its records stand among those of others, or have record ids
  std::int32_t master = -1;         // the channel that its records rise by; -1: none
  std::vector<MdfColumnChannel> channels;
};

// Values of one channel. Owned; moved, not copied.
class TOLVEX_EXPORT MdfColumn {
 public:
  MdfColumnType type() const { return type_; }
  std::uint64_t rows() const { return rows_; }
  std::uint64_t elements() const { return elements_; }  // of a row; more than 1 in arrays
  std::uint64_t size() const { return rows_ * elements_; }

  // Numbers, or the codes of a dictionary (-1: none), row by row; of Text and Bytes what they are
  // made of, back to back.
  const void* data() const { return data_.get(); }
  template <class Number>
  const Number* as() const {
    return reinterpret_cast<const Number*>(data_.get());
  }
  // Of Text and Bytes: where in data() each value begins, and behind the last one its end.
  const std::int64_t* offsets() const { return offsets_.get(); }
  std::string_view text(std::uint64_t index) const;

  // A bit for each value, the lowest bit of a byte first: 1 where there is a valid value. Null when
  // there is one everywhere.
  const std::uint8_t* validity() const { return validity_.get(); }
  bool isValid(std::uint64_t index) const {
    return validity_ == nullptr ||
           (validity_[static_cast<std::size_t>(index / 8)] >> index % 8 & 1) != 0;
  }

  // Of a Dictionary: its texts, and for values that are numbers the number (else NaN); empty when
  // no value is one.
  const std::vector<std::string>& texts() const { return texts_; }
  const std::vector<double>& numbers() const { return numbers_; }

 private:
  friend class ColumnBuilder;
  friend class ColumnAssembly;
  MdfColumnType type_ = MdfColumnType::None;
  std::uint64_t rows_ = 0;
  std::uint64_t elements_ = 1;
  std::unique_ptr<std::uint8_t[]> data_;
  std::unique_ptr<std::int64_t[]> offsets_;
  std::unique_ptr<std::uint8_t[]> validity_;
  std::vector<std::string> texts_;
  std::vector<double> numbers_;
};

// The files of a recording that was split, given the first one: drive.mf4, drive_1.mf4, ..
// drive_10.mf4, as far as there are such files beside it, by number.
TOLVEX_EXPORT std::vector<std::string> mdfPartsOf(const std::string& path);

// Where a channel is.
struct MdfChannelRef {
  std::int32_t group = -1;
  std::int32_t channel = -1;
};

struct MdfReadOptions {
  bool raw = false;      // the values before their conversion
  unsigned threads = 1;  // that share the work, where there is much of it
  // Room for the times of the records, which are read along with their values, as readSeconds and
  // readNanoseconds give them: it costs less than reading them apart. Null: not wanted.
  double* seconds = nullptr;
  std::int64_t* nanoseconds = nullptr;
};

// Memory of the caller's for the values of one channel.
struct MdfColumnTarget {
  std::int32_t channel = -1;
  // Room for as many values as are asked for, times the elements of an array: of the channel's
  // type, its rawType, or doubles.
  void* values = nullptr;
  // Room for a bit for each of them, in whole bytes: as MdfColumn::validity. Null: not wanted.
  std::uint8_t* validity = nullptr;
  // Each value as a float64, rounded to the nearest where it has more than 53 bits, NaN where there
  // is none: of texts for values, their numbers.
  bool doubles = false;
};

// What a file says of the device, the vehicle and the like: e.g. {"Device Information.serial
// number", "3BA199E2"}, with the names of the trees and lists that it stands in.
struct MdfProperty {
  std::string name;
  std::string value;
  std::string unit;
};

// When something was done to a file, and by what. The comment lasts as the texts of a channel.
struct MdfHistoryEntry {
  std::int64_t timeNs = 0;  // since 1970-01-01 00:00, as MdfRecordingInfo::startTimeNs
  bool isLocal = false;
  std::string_view comment;
  // At most 256 bytes of each.
  std::string tool;
  std::string toolVersion;
  std::string vendor;
  std::string user;
};

// A file that belongs to the recording: within its own file, or beside it.
struct MdfAttachment {
  std::string_view name;
  std::string_view mimeType;
  std::string_view comment;
  bool isEmbedded = false;
  bool isCompressed = false;     // where it is embedded
  std::uint64_t size = 0;        // bytes, as the file states them
  std::uint64_t storedSize = 0;  // likewise, of what is embedded
};

// Something that happened while recording: a trigger, a marker, an interruption.
struct MdfEvent {
  std::string_view name;
  std::string_view comment;
  std::uint8_t type = 0;       // ev_type: 0 recording, 1 and 2 its interruption or that of the
                               // acquisition, 3 to 5 triggers (start, stop, other), 6 marker
  std::uint8_t syncType = 0;   // ev_sync_type: what `position` is measured in, as that of a channel
  std::uint8_t rangeType = 0;  // ev_range_type: 0 a point, 1 and 2 begin and end of a range
  std::uint8_t cause = 0;      // ev_cause: 0 other, 1 error, 2 tool, 3 script, 4 user
  double position = 0;         // of time: seconds since the start of its file
};

// What a file says of its recording.
struct MdfRecordingInfo {
  std::uint16_t version = 0;  // e.g. 410
  std::string program;        // that wrote the file
  std::string_view comment;   // of the header block: its text
  // When the recording started: nanoseconds since 1970-01-01 00:00, in UTC, or in the time of a
  // place that the file does not tell (startIsLocal).
  std::int64_t startTimeNs = 0;
  bool startIsLocal = false;
  std::int32_t utcOffsetMinutes = 0;  // of the clocks there, summer time included; 0: or not told
  std::vector<MdfProperty> properties;
  std::vector<MdfHistoryEntry> history;
  std::vector<MdfAttachment> attachments;
  std::vector<MdfEvent> events;
};

// The time of a record that has none, in nanoseconds.
inline constexpr std::int64_t kMdfNoTime = INT64_MIN;

// Opens a file and reads columns of it. Errors are told by results, not by exceptions; only making
// a reader may throw, std::bad_alloc. One thread at a time; any number of readers.
class TOLVEX_EXPORT MdfColumnReader {
 public:
  explicit MdfColumnReader(std::string path);
  // Several files as one recording, in the order of their start times. Groups of the same name and
  // layout become one group; times count from the start of the first file. Of more than 64 files
  // none stays open, and none may change until the reader is closed.
  explicit MdfColumnReader(std::vector<std::string> paths);
  ~MdfColumnReader();
  MdfColumnReader(MdfColumnReader&&) noexcept;
  MdfColumnReader& operator=(MdfColumnReader&&) noexcept;

  // False when the file cannot be opened or is no measurement file: error() says why.
  [[nodiscard]] bool open();
  void close();
  // What failed last; "" when nothing did.
  const std::string& error() const;
  // What is damaged or was left out so far, and what an unusual file was taken for.
  std::vector<std::string> problems() const;
  // Of them, what unusual files were taken for: nothing is lost by that.
  std::vector<std::string> notices() const;

  // Of several files: that of the first one.
  const MdfRecordingInfo& info() const;
  const std::vector<MdfColumnGroup>& groups() const;
  // The channels of that name, by group and channel.
  std::vector<MdfChannelRef> find(std::string_view name) const;

  // Reads records `first` .. `first + count`, as far as they are there, of channels of one group: a
  // column for each. Values in damaged parts of the file are not valid. False, with `columns`
  // empty, when there is no such group or channel, no memory, or the file is closed.
  [[nodiscard]] bool read(std::int32_t group, const std::vector<std::int32_t>& channels,
                          std::uint64_t first, std::uint64_t count, std::vector<MdfColumn>& columns,
                          const MdfReadOptions& options = {});

  // The same into memory of the caller's. Returns how many records were there; -1 on failure.
  // Texts, bytes and, unless as doubles, dictionaries cannot be read so.
  [[nodiscard]] std::int64_t read(std::int32_t group, const std::vector<MdfColumnTarget>& targets,
                                  std::uint64_t first, std::uint64_t count,
                                  const MdfReadOptions& options = {});

  // The times of records of a group, as its master has them: seconds since info().startTimeNs, NaN
  // for a record without one. Returns how many records were there; -1 on failure, which a group
  // without a master of time is.
  [[nodiscard]] std::int64_t readSeconds(std::int32_t group, std::uint64_t first,
                                         std::uint64_t count, double* seconds,
                                         const MdfReadOptions& options = {});
  // The same in nanoseconds since 1970-01-01 00:00, exact where the file is; kMdfNoTime for a
  // record without one.
  [[nodiscard]] std::int64_t readNanoseconds(std::int32_t group, std::uint64_t first,
                                             std::uint64_t count, std::int64_t* nanoseconds,
                                             const MdfReadOptions& options = {});

 private:
  std::unique_ptr<MdfColumnReaderState> state_;
};

}  // namespace tolvex
