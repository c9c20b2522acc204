// The CAN frames of bus logs, in batches of columns or one by one, merged by time over all groups
// of one file or several.
//
//   tolvex::MdfFrameReader reader("drive.mf4");
//   if (!reader.open()) return;
//   tolvex::MdfFrameFilter filter;
//   filter.ids = {0x123, 0x7E8};
//   for (const tolvex::MdfFrameView& frame : reader.frames(filter)) {
//     use(frame.timeNs, frame.id, frame.data, frame.length);
//   }
//
// MdfReader (tolvex/MdfReaders.h) gives frames as objects, with the meaning that its interface
// describes, of finished and sorted files; this reader takes the files of loggers as
// MdfReader::setLoggerRules does, and opens more: unsorted files, files that their logger did not
// finalize, recordings that were killed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "tolvex/MdfExport.h"

namespace tolvex {

struct MdfFrameReaderState;

enum class MdfFrameKind : std::uint8_t {
  Data = 0,
  Remote = 1,
  Error = 2,
  FdError = 3,  // with fields of CAN FD
};

// Bits of a frame's flags. The low 8 are the flags byte of MdfCanMessage.
struct MdfFrameFlag {
  static constexpr std::uint16_t kTransmitted = 0x001;  // else received
  static constexpr std::uint16_t kSrr = 0x002;
  static constexpr std::uint16_t kFd = 0x004;   // EDL: a frame of CAN FD
  static constexpr std::uint16_t kBrs = 0x008;  // bit rate switch
  static constexpr std::uint16_t kEsi = 0x010;  // error state indicator
  static constexpr std::uint16_t kWakeUp = 0x020;
  static constexpr std::uint16_t kSingleWire = 0x040;
  static constexpr std::uint16_t kRtr = 0x080;
  static constexpr std::uint16_t kExtended = 0x100;        // an identifier of 29 bits
  static constexpr std::uint16_t kPayloadMissing = 0x200;  // the file has lost it; it is empty
};

// What error frames have beside other frames: 0 where their group has no such field.
struct MdfFrameError {
  std::uint64_t timeOffsetBrs = 0;
  std::uint64_t timeOffsetCrcDel = 0;
  std::uint64_t btrExtCfg = 0;
  std::uint32_t crc = 0;
  std::uint32_t errorFlags = 0;
  std::uint32_t dataLength = 0;  // as the record states it
  std::uint8_t errorType = 0;    // CanErrorType
  std::uint8_t tec = 0;          // transmit error counter
  std::uint8_t rec = 0;          // receive error counter
  std::uint8_t reserved = 0;     // so that every byte is set
};

// A frame. `data` and `error` last until the next step of the loop, or until the batch changes.
struct MdfFrameView {
  std::int64_t timeNs = 0;               // since 1970-01-01 00:00, as MdfFrameReader::startTimeNs
  std::uint64_t record = 0;              // the number of its record in its group, from 0
  const std::uint8_t* data = nullptr;    // the payload
  const MdfFrameError* error = nullptr;  // of error frames; else null
  std::uint32_t id = 0;                  // without the mark of an extended one
  std::uint16_t bus = 0;                 // the bus channel as the file numbers it, mostly from 1
  std::uint16_t flags = 0;               // of MdfFrameFlag
  MdfFrameKind kind = MdfFrameKind::Data;
  std::uint8_t dlc = 0;     // the data length code
  std::uint8_t length = 0;  // bytes of `data`, at most 64

  bool isExtended() const { return (flags & MdfFrameFlag::kExtended) != 0; }
  bool isTransmitted() const { return (flags & MdfFrameFlag::kTransmitted) != 0; }
  bool isFd() const { return (flags & MdfFrameFlag::kFd) != 0; }
  bool isPayloadMissing() const { return (flags & MdfFrameFlag::kPayloadMissing) != 0; }
};

// Frames by column: the first `count` entries of each count. Used again and again it keeps its
// memory.
struct TOLVEX_EXPORT MdfFrameBatch {
  std::size_t count = 0;
  std::vector<std::int64_t> timeNs;
  std::vector<std::uint32_t> id;
  std::vector<std::uint16_t> bus;
  std::vector<std::uint16_t> flags;
  std::vector<std::uint8_t> direction;  // 0 received, 1 transmitted
  std::vector<std::uint8_t> kind;       // of MdfFrameKind
  std::vector<std::uint8_t> dlc;
  std::vector<std::uint64_t> record;
  std::vector<std::int64_t> offsets;  // where in `bytes` each payload begins; count + 1 of them
  std::vector<std::uint8_t> bytes;
  // Of the error frames alone: which of the frames they are, ascending, and their fields.
  std::vector<std::size_t> errorRows;
  std::vector<MdfFrameError> errors;

  MdfFrameView at(std::size_t row) const;
};

// Which frames are wanted.
struct MdfFrameFilter {
  std::vector<std::uint32_t> ids;    // standard and extended ones alike; none: all
  std::vector<std::uint16_t> buses;  // as the file numbers them; none: all
  // From the start on and up to, but not including, the end, as MdfFrameView::timeNs.
  std::int64_t startNs = std::numeric_limits<std::int64_t>::min();
  std::int64_t endNs = std::numeric_limits<std::int64_t>::max();  // this one: no end
};

// A channel group whose records are bus events.
struct MdfFrameGroup {
  std::string name;  // the acquisition name, else the comment
  std::size_t file = 0;
  std::int32_t dataGroup = 0;
  std::int32_t channelGroup = 0;
  std::uint64_t statedRecords = 0;  // by the file
  bool isRead = false;              // they are CAN frames
};

class MdfFrameReader;

// What MdfFrameReader::frames goes along. Borrows the reader, which gives one such loop at a time.
class TOLVEX_EXPORT MdfFrames {
 public:
  struct End {};
  class TOLVEX_EXPORT Iterator {
   public:
    const MdfFrameView& operator*() const { return view_; }
    const MdfFrameView* operator->() const { return &view_; }
    Iterator& operator++() {
      advance();
      return *this;
    }
    bool operator!=(End) const { return frames_ != nullptr; }

   private:
    friend class MdfFrames;
    explicit Iterator(MdfFrames* frames);
    void advance();

    MdfFrames* frames_;  // null at the end
    std::size_t row_ = 0;
    std::size_t error_ = 0;  // of the batch's errors
    MdfFrameView view_;
  };

  Iterator begin() { return Iterator(this); }
  End end() const { return {}; }

 private:
  friend class MdfFrameReader;
  explicit MdfFrames(MdfFrameReader& reader) : reader_(&reader) {}

  MdfFrameReader* reader_;
};

// Opens files and reads their CAN frames.
//
// Frames come in order of time. Those of equal time come by file, then by data group; within an
// unsorted data group in the order of their records, else by channel group. Groups whose own
// records are not in order of time are put into order as far as a window of some hundred frames
// allows; problems() tells of what is further from its place. Several files are one recording, in
// order of their start; where they overlap, their frames are merged too.
//
// Errors are told by results, not by exceptions; only making a reader or a batch may throw,
// std::bad_alloc. One thread at a time; any number of readers.
class TOLVEX_EXPORT MdfFrameReader {
 public:
  explicit MdfFrameReader(std::string path);
  explicit MdfFrameReader(std::vector<std::string> paths);
  ~MdfFrameReader();
  MdfFrameReader(MdfFrameReader&&) noexcept;
  MdfFrameReader& operator=(MdfFrameReader&&) noexcept;

  // False when a file cannot be opened or is no measurement file: error() says which, and why.
  [[nodiscard]] bool open();
  void close();
  // What failed last; "" when nothing did.
  const std::string& error() const;
  // What is damaged or was left out so far, and what an unusual file was taken for. With several
  // files each text begins with the file's path.
  std::vector<std::string> problems() const;
  // Of them, what unusual files were taken for: nothing is lost by that.
  std::vector<std::string> notices() const;

  // When the recording started, of several files the earliest: nanoseconds since 1970-01-01 00:00,
  // in UTC, or in the time of a place that the file does not tell (startIsLocal).
  std::int64_t startTimeNs() const;
  bool startIsLocal() const;
  // Of the clocks there, summer time included; 0: or not told.
  std::int32_t utcOffsetMinutes() const;
  // Of all files.
  const std::vector<MdfFrameGroup>& groups() const;
  // The times of the first frame and of the last one. Goes along the whole of unsorted data groups.
  // False when there are no frames.
  [[nodiscard]] bool timeRange(std::int64_t& firstNs, std::int64_t& lastNs);

  // What follows begins with the first of the frames that `filter` wants; after open() these are
  // all. A time range is looked up, not read up to, in all groups that are not unsorted.
  void select(const MdfFrameFilter& filter);
  // Replaces `batch` by the next frames, at most `most` of them. False, with none, at the end and
  // on failure, when error() says why.
  [[nodiscard]] bool next(MdfFrameBatch& batch, std::size_t most);
  // The same as a loop: selects anew, and goes along the frames.
  MdfFrames frames(const MdfFrameFilter& filter = {});

 private:
  friend class MdfFrames;
  std::unique_ptr<MdfFrameReaderState> state_;
};

}  // namespace tolvex
