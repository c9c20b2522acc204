// Files on a disk that breaks, or runs full and has room again.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/Mdf4File.h"
#include "Mdf4/base/System.h"
#include "tests/support/MemoryFile.h"

namespace tolvex::test {

// Opens files that are kept in memory, and stand under their paths once they are closed. Of a write
// that it refuses, the disk takes as much as it can, but up to a sector all or nothing. Outlives
// its files; one thread at a time.
class FailingDisk {
 public:
  // After so many more bytes it refuses whatever is written.
  void breakAfter(std::uint64_t bytes) { set(Fault::Broken, bytes); }
  // After so many more bytes it refuses one write and is sound again.
  void failOnceAfter(std::uint64_t bytes) { set(Fault::Once, bytes); }
  // After so many more bytes where nothing was written before, it refuses writes to such places.
  void fillAfter(std::uint64_t bytes) { set(Fault::Full, bytes); }
  void recover() { set(Fault::None, 0); }
  // Is called in front of each write, and may take its time.
  void beforeWrite(std::function<void()> hook) { beforeWrite_ = std::move(hook); }

  std::uint64_t refusals() const { return refusals_; }  // writes
  std::uint64_t written() const { return written_; }    // bytes, each time they were written
  std::uint64_t occupied() const { return occupied_; }  // bytes, each once
  const std::vector<std::string>& paths() const { return paths_; }  // as opened

  FileOpener opener() {
    return [this](const std::string& path, OpenMode /*mode*/, std::string& /*error*/) {
      paths_.push_back(path);
      return std::make_unique<File>(*this, path);
    };
  }

 private:
  static constexpr std::uint64_t kSector = 512;  // bytes

  enum class Fault : std::uint8_t { None, Broken, Once, Full };

  class File final : public SystemFile {
   public:
    File(FailingDisk& disk, std::string path) : disk_(disk), path_(std::move(path)) {}
    ~File() override {
      std::string error;
      const ByteSpan bytes(memory_.bytes());
      // A write that fails shows in what the file holds.
      static_cast<void>(
          openSystemFile(path_, OpenMode::Create, error)->write(0, std::span(&bytes, 1)));
    }

    bool size(std::uint64_t& bytes) override { return memory_.size(bytes); }
    ReadResult read(std::uint64_t position, std::span<const WritableBytes> pieces) override {
      return memory_.read(position, pieces);
    }
    bool write(std::uint64_t position, std::span<const ByteSpan> pieces) override {
      if (disk_.beforeWrite_) disk_.beforeWrite_();
      std::uint64_t size = 0;
      for (const ByteSpan& piece : pieces) size += piece.size();
      const std::uint64_t taken = disk_.take(used_, position, size);
      memory_.failAfter(taken);
      return memory_.write(position, pieces);
    }
    bool close() override { return true; }
    std::string error() const override { return "refused by the disk"; }

   private:
    FailingDisk& disk_;
    const std::string path_;
    MemoryFile memory_;
    std::vector<bool> used_;  // by position
  };

  void set(Fault fault, std::uint64_t bytes) {
    fault_ = fault;
    room_ = bytes;
  }

  // How many of the bytes the disk takes.
  std::uint64_t take(std::vector<bool>& used, std::uint64_t position, std::uint64_t size) {
    if (used.size() < position + size) used.resize(inMemory(position + size));
    const auto at = used.begin() + static_cast<std::ptrdiff_t>(position);
    const bool limited = fault_ != Fault::None;
    std::uint64_t needed = 0;
    std::uint64_t taken = 0;
    for (; taken < size; ++taken) {
      const bool needsRoom = fault_ != Fault::Full || !at[static_cast<std::ptrdiff_t>(taken)];
      if (limited && needsRoom && needed == room_) break;
      needed += needsRoom ? 1U : 0U;
    }
    if (taken < size) {
      ++refusals_;
      if (size <= kSector) taken = needed = 0;
    }
    if (limited) room_ -= needed;
    if (taken < size && fault_ == Fault::Broken) room_ = 0;
    if (taken < size && fault_ == Fault::Once) fault_ = Fault::None;
    const auto end = at + static_cast<std::ptrdiff_t>(taken);
    occupied_ += static_cast<std::uint64_t>(std::count(at, end, false));
    std::fill(at, end, true);
    written_ += taken;
    return taken;
  }

  std::function<void()> beforeWrite_;
  Fault fault_ = Fault::None;
  std::uint64_t room_ = 0;  // bytes
  std::uint64_t refusals_ = 0;
  std::uint64_t written_ = 0;
  std::uint64_t occupied_ = 0;
  std::vector<std::string> paths_;
};

}  // namespace tolvex::test
