// Reads from one open file, and which of them failed.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "Mdf4/base/Bytes.h"
#include "Mdf4/base/PageCache.h"
#include "Mdf4/base/ProblemLog.h"
#include "Mdf4/base/SectorReader.h"
#include "Mdf4/base/System.h"

namespace tolvex {

// Reads a file. A read that the system refuses is not mistaken for the end of the file: it is noted
// among the file's problems, and counted. Borrows the problems, and the file from open to close.
// Not synchronised.
class FileReads {
 public:
  explicit FileReads(ProblemLog& problems) : problems_(problems) {}

  void open(SystemFile& file, std::uint64_t size);
  void close();
  // For files on a damaged medium, before anything is read: what the system refuses is tried again,
  // then sector by sector. A read whose bytes are not all there still fails.
  void bySectors() { sectors_ = std::make_unique<SectorReader>(); }

  // Fills the pieces from consecutive bytes. Returns the bytes read: fewer than asked for at the
  // end of the file, and, with a note, where reading fails.
  [[nodiscard]] std::uint64_t read(std::uint64_t position, std::span<const WritableBytes> pieces);
  // Exactly bytes.size() bytes, through the page cache: for many small reads.
  [[nodiscard]] bool readSmall(std::uint64_t position, WritableBytes bytes);
  // To be called before the file is written there.
  void forget(std::uint64_t position, std::uint64_t length) { pages_.forget(position, length); }

  // The first read that the system refused, or for which the file had become too short: what, where
  // and why. "" when none did. It is among the problems, too.
  const std::string& error() const { return error_; }
  // How many reads failed so: who sees it grow knows that bytes are unknown, not wrong, and that
  // another attempt may get them.
  std::uint64_t failures() const { return failures_; }

  // The first bytes between `from` and `end` that were found to be unreadable by sectors; empty, at
  // `end`, when there are none. What is unreadable stays so.
  ByteRange nextUnreadable(std::uint64_t from, std::uint64_t end) const;
  // Why the last of them could not be read, in the system's words.
  std::string unreadableReason() const;

 private:
  static constexpr std::uint64_t kNoPosition = ~std::uint64_t{0};

  [[nodiscard]] ReadResult readRaw(std::uint64_t position, std::span<const WritableBytes> pieces);
  [[nodiscard]] bool loadPage(std::uint64_t number);
  std::uint64_t promised(std::uint64_t position, std::uint64_t length) const;
  void noteFailure(std::uint64_t position, std::uint64_t length, const std::string& why);

  ProblemLog& problems_;
  SystemFile* file_ = nullptr;
  std::unique_ptr<SectorReader> sectors_;  // null: the system's first word is taken
  PageCache pages_;
  std::uint64_t size_ = 0;  // of the file when it was opened
  std::string error_;
  std::uint64_t failures_ = 0;
  std::uint64_t lastFailure_ = kNoPosition;
};

}  // namespace tolvex
