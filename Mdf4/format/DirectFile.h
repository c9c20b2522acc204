// Positioned reading, writing and space allocation in one file.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <vector>

#include "Mdf4/base/Bytes.h"
#include "Mdf4/base/InflatedBlocks.h"
#include "Mdf4/base/LoadBudget.h"
#include "Mdf4/base/System.h"

namespace tolvex {

class SectorReader;

// One open file. Small reads are served from a few pages that are kept, so that walking a tree of
// blocks costs a system call per page, not per block.
//
// What is read from a file is a claim. This is where claims are checked against the file's end,
// where damage is noted, and where the work that a file may cause is bounded (LoadBudget).
// Not synchronised: one thread at a time.
class DirectFile {
 public:
  static constexpr std::uint64_t kNoPosition = ~std::uint64_t{0};

  DirectFile();
  DirectFile(const DirectFile&) = delete;
  DirectFile& operator=(const DirectFile&) = delete;
  virtual ~DirectFile();
  // False when the system reports that something was not written.
  virtual bool Close();

  // Closes what is open, then opens the file. False when it cannot be opened; openError says why.
  bool open(const std::string& path, OpenMode mode);
  // Closes what is open, then takes over `file`; its end becomes the end of the allocated area.
  bool attach(std::unique_ptr<SystemFile> file);
  bool isOpen() const { return file_ != nullptr; }
  const std::string& openError() const { return openError_; }
  // The first write, or the closing, that failed: what, where and why. "" when none did.
  const std::string& writeError() const { return writeError_; }
  // The first read that the system refused, or for which the file had become too short: what, where
  // and why. "" when none did. It is among the problems, too.
  const std::string& readError() const { return readError_; }
  // How many reads failed so: who sees it grow knows that bytes are unknown, not wrong, and that
  // another attempt may get them.
  std::uint64_t failedReads() const { return failedReads_; }
  // Notes what keeps something from being written; `describe` makes the text, if it is the first.
  template <class Describe>
  void noteWriteError(Describe describe) noexcept {
    if (!writeError_.empty()) return;
    try {
      writeError_ = describe();
    } catch (const std::bad_alloc&) {
      writeError_ = "out of memory";  // a string holds this much itself
    }
  }

  // For files on a damaged medium, before anything is read: what the system refuses is tried again,
  // then sector by sector. A read whose bytes are not all there still fails.
  void readBySectors();
  // The first bytes between `from` and `end` that were found to be unreadable so; empty, at `end`,
  // when there are none. What is unreadable stays so.
  ByteRange nextUnreadable(std::uint64_t from, std::uint64_t end) const;
  // Why the last of them could not be read, in the system's words.
  std::string unreadableReason() const;

  // Reads exactly `length` bytes. A short read prints "DirectFile::ReadAt failed" and fails.
  bool ReadAt(std::uint64_t position, std::uint64_t length, void* buffer);
  // Writes all bytes or fails; a write past the end of the allocated area moves that end.
  bool WriteAt(std::uint64_t position, std::uint64_t length, const void* data);
  // The pieces back to back, in one call to the system.
  bool WriteAt(std::uint64_t position, std::span<const ByteSpan> pieces);
  // Fills the pieces from consecutive bytes, as many as the file has and can be read. Returns the
  // bytes read.
  std::uint64_t readPieces(std::uint64_t position, std::span<const WritableBytes> pieces);

  // The position of a new block of `size` bytes at the end of the allocated area, rounded up to a
  // multiple of 8. The area grows by the block; with `extend` the padding is counted twice, and
  // SetEnd is called with the block's position.
  std::uint64_t Allocate(std::uint64_t size, bool extend);
  // Gives back what was allocated behind `end`, an earlier end of the area.
  void giveBack(std::uint64_t end) { end_ = std::min(end_, end); }
  // Moves the end of the allocated area forward by writing a zero byte in front of it. An end that
  // is already there or further only prints "DirectFile::SetEnd Not Support, ...".
  bool SetEnd(std::uint64_t position);

  std::uint64_t position() const { return position_; }  // kNoPosition while closed
  std::uint64_t end() const { return end_; }            // of the allocated area; 0 while closed
  // True when `length` bytes at `position` lie inside the file.
  bool holds(std::uint64_t position, std::uint64_t length) const {
    return position <= end_ && length <= end_ - position;
  }

  // A stream that comes to a block where another one stands shares its bytes.
  InflatedBlocks& inflatedBlocks() { return inflated_; }

  // Take bytes from the file's budget. False, with the problem noted, when it is used up.
  bool chargeLoad(std::uint64_t bytes);
  bool chargeAgain(std::uint64_t bytes);

  // Notes damage: what, where, expected and found. The first 100 texts are kept, each once.
  void report(std::string problem);
  const std::vector<std::string>& problems() const { return problems_; }

 private:
  static constexpr std::uint64_t kPageSize = 4096;
  static constexpr std::size_t kPageCount = 64;
  struct Pages {
    std::array<std::uint64_t, kPageCount> numbers;  // kNoPosition: free
    std::array<std::uint32_t, kPageCount> filled;   // bytes
    std::array<std::array<std::uint8_t, kPageSize>, kPageCount> bytes;
  };

  bool readSmall(std::uint64_t position, WritableBytes bytes);
  bool loadPage(std::size_t slot, std::uint64_t number);
  ReadResult readRaw(std::uint64_t position, std::span<const WritableBytes> pieces);
  std::uint64_t read(std::uint64_t position, std::span<const WritableBytes> pieces);
  std::uint64_t promised(std::uint64_t position, std::uint64_t length) const;
  void noteFailedRead(std::uint64_t position, std::uint64_t length, const std::string& why);
  void forgetPages(std::uint64_t position, std::uint64_t length);

  std::unique_ptr<SystemFile> file_;
  std::unique_ptr<SectorReader> sectors_;  // null: the system's first word is taken
  std::unique_ptr<Pages> pages_;
  std::uint64_t position_ = kNoPosition;
  std::uint64_t end_ = 0;
  std::uint64_t openedSize_ = 0;
  std::string openError_;
  std::string writeError_;
  std::string readError_;
  std::uint64_t failedReads_ = 0;
  std::uint64_t lastFailedRead_ = kNoPosition;
  std::vector<std::string> problems_;
  InflatedBlocks inflated_;
  LoadBudget budget_;
};

}  // namespace tolvex
