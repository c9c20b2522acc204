// Positioned reading, writing and space allocation in one file.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "Mdf4/base/Bytes.h"
#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/base/FileReads.h"
#include "Mdf4/base/InflatedBlocks.h"
#include "Mdf4/base/LoadBudget.h"
#include "Mdf4/base/ProblemLog.h"
#include "Mdf4/base/RestingFile.h"
#include "Mdf4/base/System.h"

namespace tolvex {

// One open file: its size and the allocated area, and what belongs to it, which is handed out.
// What is read from a file is a claim; this is where claims are held against the file's end.
// Not synchronised: one thread at a time.
class DirectFile {
 public:
  static constexpr std::uint64_t kNoPosition = ~std::uint64_t{0};

  DirectFile() = default;
  DirectFile(const DirectFile&) = delete;
  DirectFile& operator=(const DirectFile&) = delete;
  virtual ~DirectFile();
  // False when the system reports that something was not written.
  virtual bool Close();

  // Closes what is open, then opens the file. False when it cannot be opened; openError says why.
  [[nodiscard]] bool open(const std::string& path, OpenMode mode);
  // Closes what is open, then takes over `file`; its end becomes the end of the allocated area.
  [[nodiscard]] bool attach(std::unique_ptr<SystemFile> file);
  bool isOpen() const { return file_ != nullptr; }
  // Gives its place among the open files back until it is read next, of a file that was opened to
  // be read. It must not change meanwhile.
  void rest() {
    if (resting_ != nullptr) resting_->rest();
  }
  const std::string& openError() const { return openError_; }

  // Reads exactly `length` bytes. A short read prints "DirectFile::ReadAt failed" and fails.
  [[nodiscard]] bool ReadAt(std::uint64_t position, std::uint64_t length, void* buffer);
  // Fills the pieces from consecutive bytes, as many as the file has and can be read. Returns the
  // bytes read.
  [[nodiscard]] std::uint64_t readPieces(std::uint64_t position,
                                         std::span<const WritableBytes> pieces);
  // Whether nothing but zeros stands there, as far as the file goes: at most a page.
  [[nodiscard]] bool areZeros(std::uint64_t from, std::uint64_t to);
  // Writes all bytes or fails; a write past the end of the allocated area moves that end.
  [[nodiscard]] bool WriteAt(std::uint64_t position, std::uint64_t length, const void* data);
  // The pieces back to back, in one call to the system.
  [[nodiscard]] bool WriteAt(std::uint64_t position, std::span<const ByteSpan> pieces);
  // The first write, or the closing, that failed: what, where and why. "" when none did.
  const std::string& writeError() const { return writeError_; }
  // Notes what keeps something from being written; `describe` makes the text, if it is the first.
  template <class Describe>
  void noteWriteError(Describe describe) noexcept {
    noteFirst(writeError_, std::move(describe));
  }

  // The position of a new block of `size` bytes at the end of the allocated area, rounded up to a
  // multiple of 8. The area grows by the block; with `extend` the padding is counted twice, and
  // SetEnd is called with the block's position.
  std::uint64_t Allocate(std::uint64_t size, bool extend);
  // Gives back what was allocated behind `end`, an earlier end of the area.
  void giveBack(std::uint64_t end) { end_ = std::min(end_, end); }
  // Moves the end of the allocated area forward by writing a zero byte in front of it. An end that
  // is already there or further only prints "DirectFile::SetEnd Not Support, ...".
  [[nodiscard]] bool SetEnd(std::uint64_t position);

  std::uint64_t position() const { return position_; }  // kNoPosition while closed
  std::uint64_t end() const { return end_; }            // of the allocated area; 0 while closed
  // True when `length` bytes at `position` lie inside the file.
  bool holds(std::uint64_t position, std::uint64_t length) const {
    return position <= end_ && length <= end_ - position;
  }

  // What could not be read.
  FileReads& reads() { return reads_; }
  const FileReads& reads() const { return reads_; }
  // The damage that was met.
  ProblemLog& problems() { return problems_; }
  const ProblemLog& problems() const { return problems_; }
  void report(std::string problem) { problems_.add(std::move(problem)); }
  // The work that the file may cause.
  LoadBudget& budget() { return budget_; }
  // A stream that comes to a block where another one stands shares its bytes.
  InflatedBlocks& inflatedBlocks() { return inflated_; }

 private:
  std::unique_ptr<SystemFile> file_;
  RestingFile* resting_ = nullptr;  // the same, when it may rest
  std::uint64_t position_ = kNoPosition;
  std::uint64_t end_ = 0;
  std::string openError_;
  std::string writeError_;
  ProblemLog problems_;
  LoadBudget budget_{problems_};
  FileReads reads_{problems_};
  InflatedBlocks inflated_;
};

}  // namespace tolvex
