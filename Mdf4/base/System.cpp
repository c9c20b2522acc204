#include "Mdf4/base/System.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <limits>
#include <mutex>
#include <system_error>
#include <utility>

#include "Mdf4/base/FlushFolder.h"

namespace tolvex {
namespace {

constexpr std::size_t kPiecesPerCall = 128;
constexpr std::uint64_t kMaxPosition = std::numeric_limits<off_t>::max();

class PosixFile;

// Held while a process forks. None of these is ever destroyed: files may outlive all that is.
constinit std::mutex lockedFilesMutex;
constinit PosixFile* firstLocked = nullptr;  // guarded by lockedFilesMutex
constinit std::atomic<unsigned> generation = 1;

class PosixFile final : public SystemFile {
 public:
  PosixFile() = default;
  explicit PosixFile(int descriptor) : descriptor_(descriptor) {}
  PosixFile(const PosixFile&) = delete;
  PosixFile& operator=(const PosixFile&) = delete;
  ~PosixFile() override { PosixFile::close(); }

  // Once. False when it cannot be opened; `error` says why.
  bool open(const std::string& path, OpenMode mode, std::string& error);

  bool size(std::uint64_t& bytes) override {
    struct stat status = {};
    if (::fstat(descriptor_, &status) != 0 || status.st_size < 0) return false;
    bytes = static_cast<std::uint64_t>(status.st_size);
    return true;
  }

  ReadResult read(std::uint64_t position, std::span<const WritableBytes> pieces) override {
    return transfer(position, pieces, [this](const iovec* part, int count, off_t at) {
      return ::preadv(descriptor_, part, count, at);
    });
  }

  bool write(std::uint64_t position, std::span<const ByteSpan> pieces) override {
    std::uint64_t wanted = 0;
    for (const ByteSpan& piece : pieces) wanted += piece.size();
    const ReadResult result =
        transfer(position, pieces, [this](const iovec* part, int count, off_t at) {
          return count == 1 ? ::pwrite(descriptor_, part->iov_base, part->iov_len, at)
                            : ::pwritev(descriptor_, part, count, at);
        });
    if (result.bytes == wanted) return true;
    error_ = result.error != 0 ? result.error : EIO;
    return false;
  }

  std::string flush() override {
    const bool named = unnamedIn_.empty() || flushFolder(unnamedIn_);
    if (!named || ::fdatasync(descriptor_) != 0) return systemErrorText(errno);
    unnamedIn_.clear();
    return "";
  }

  bool close() override {
    const bool locked = std::exchange(locked_, false);
    if (locked) forget();
    const int descriptor = std::exchange(descriptor_, -1);
    if (descriptor < 0) return true;
    // A child of another thread may hold the file until its exec.
    if (locked) ::flock(descriptor, LOCK_UN);
    if (::close(descriptor) == 0) return true;
    error_ = errno;
    return false;
  }

  std::string error() const override {
    return inherited_ ? "the file belongs to the parent process" : systemErrorText(error_);
  }

  // In a child process, with lockedFilesMutex held. The locks stay with the parent.
  static void closeInherited() {
    for (PosixFile* file = std::exchange(firstLocked, nullptr); file != nullptr;
         file = file->nextLocked_) {
      ::close(std::exchange(file->descriptor_, -1));
      file->inherited_ = true;
    }
  }

 private:
  // Calls `move` until all pieces are done, it moves nothing more or it fails.
  template <class Piece, class Move>
  static ReadResult transfer(std::uint64_t position, std::span<const Piece> pieces, Move move) {
    std::uint64_t done = 0;
    std::size_t first = 0;        // the first piece that is not complete
    std::size_t firstOffset = 0;  // bytes of it that are
    while (first < pieces.size()) {
      if (pieces[first].size() == firstOffset) {
        ++first;
        firstOffset = 0;
        continue;
      }
      if (position > kMaxPosition - done) return {done, EOVERFLOW};
      std::array<iovec, kPiecesPerCall> parts;
      const std::size_t count = std::min(parts.size(), pieces.size() - first);
      for (std::size_t i = 0; i < count; ++i) {
        const Piece& piece = pieces[first + i];
        const std::size_t skip = i == 0 ? firstOffset : 0;
        parts[i].iov_base = const_cast<std::uint8_t*>(piece.data()) + skip;
        parts[i].iov_len = piece.size() - skip;
      }
      const ssize_t moved =
          move(parts.data(), static_cast<int>(count), static_cast<off_t>(position + done));
      if (moved < 0 && errno == EINTR) continue;
      if (moved <= 0) return {done, moved < 0 ? errno : 0};
      done += static_cast<std::uint64_t>(moved);
      for (auto left = static_cast<std::size_t>(moved); left > 0;) {
        const std::size_t step = std::min(left, pieces[first].size() - firstOffset);
        left -= step;
        firstOffset += step;
        if (firstOffset == pieces[first].size()) {
          ++first;
          firstOffset = 0;
        }
      }
    }
    return {done, 0};
  }

  void remember() {
    const std::lock_guard guard(lockedFilesMutex);
    nextLocked_ = std::exchange(firstLocked, this);
  }
  void forget() const {
    const std::lock_guard guard(lockedFilesMutex);
    PosixFile** place = &firstLocked;
    while (*place != nullptr && *place != this) place = &(*place)->nextLocked_;
    if (*place != nullptr) *place = nextLocked_;
  }

  int descriptor_ = -1;
  int error_ = 0;                    // of the last call that failed
  std::filesystem::path unnamedIn_;  // the folder whose disk may not have the file's name yet
  bool locked_ = false;
  bool inherited_ = false;           // by a child process
  PosixFile* nextLocked_ = nullptr;  // guarded by lockedFilesMutex
};

bool watchForks() {
  const auto lock = [] { lockedFilesMutex.lock(); };
  const auto unlock = [] { lockedFilesMutex.unlock(); };
  const auto leave = [] {
    PosixFile::closeInherited();
    generation.fetch_add(1, std::memory_order_relaxed);
    lockedFilesMutex.unlock();
  };
  return ::pthread_atfork(lock, unlock, leave) == 0;
}

[[maybe_unused]] const bool watching = watchForks();

bool PosixFile::open(const std::string& path, OpenMode mode, std::string& error) {
  const bool creates = mode == OpenMode::Create || mode == OpenMode::Fill;
  std::filesystem::path folder;  // in front of the file, which is not made when memory runs out
  if (creates) {
    const std::filesystem::path name(path);
    folder = name.has_parent_path() ? name.parent_path() : ".";
  }
  constexpr mode_t kPermissions = 0666;
  const int flags = mode == OpenMode::Read ? O_RDONLY : O_RDWR;
  // Where a file must be new or empty, a link that leads nowhere is not followed.
  const int exclusive = mode == OpenMode::Fill ? O_EXCL : 0;
  descriptor_ =
      ::open(path.c_str(), flags | O_CLOEXEC | (creates ? O_CREAT : 0) | exclusive, kPermissions);
  if (descriptor_ < 0 && exclusive != 0 && errno == EEXIST) {
    descriptor_ = ::open(path.c_str(), flags | O_CLOEXEC);
  }
  if (descriptor_ < 0) {
    error = systemErrorText(errno);
    return false;
  }
  // File systems without locks are written to without.
  if (creates && ::flock(descriptor_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    error = "locked by another recorder or program";
    return false;
  }
  locked_ = creates;
  if (locked_) {
    remember();
    unnamedIn_ = std::move(folder);
  }
  struct stat status = {};
  if (::fstat(descriptor_, &status) != 0 || S_ISDIR(status.st_mode)) {
    error = "is a directory";
    return false;
  }
  if (mode == OpenMode::Read && ::lseek(descriptor_, 0, SEEK_CUR) < 0) {
    error = "is a pipe or the like, which cannot be read at any position: store it in a file first";
    return false;
  }
  if (mode == OpenMode::Fill && (!S_ISREG(status.st_mode) || status.st_size != 0)) {
    error = "exists";
    return false;
  }
  if (mode == OpenMode::Create && status.st_size != 0 && ::ftruncate(descriptor_, 0) != 0) {
    error = systemErrorText(errno);
    return false;
  }
  return true;
}

}  // namespace

std::unique_ptr<SystemFile> openSystemFile(const std::string& path, OpenMode mode,
                                           std::string& error) {
  auto file = std::make_unique<PosixFile>();
  if (!file->open(path, mode, error)) return nullptr;
  return file;
}

std::unique_ptr<SystemFile> systemFileOn(int descriptor, std::string& error) {
  const int copy = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
  if (copy >= 0) return std::make_unique<PosixFile>(copy);
  error = systemErrorText(errno);
  return nullptr;
}

unsigned processGeneration() {
  return generation.load(std::memory_order_relaxed);
}

std::string systemErrorText(int error) {
  return std::generic_category().message(error);
}

std::uint64_t systemTicks() {
  timespec now = {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 10'000'000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 100;
}

std::uint64_t steadyMilliseconds() {
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000;
}

long timeZoneSeconds() {
  ::tzset();
  return ::timezone;
}

}  // namespace tolvex
