#include <fcntl.h>
#include <linux/magic.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <system_error>
#include <utility>

#include "Mdf4/base/Mutex.h"
#include "Mdf4/base/Paths.h"
#include "Mdf4/base/System.h"

namespace tolvex {
namespace {

constexpr std::size_t kPiecesPerCall = 128;
constexpr std::uint64_t kMaxPosition = std::numeric_limits<off_t>::max();
constexpr mode_t kPermissionBits = 0777;
constexpr mode_t kPrivate = 0600;
constexpr mode_t kUsual = 0666;  // of which the umask leaves some

class PosixFile;

// Held while a process forks. None of these is ever destroyed: files may outlive all that is.
constinit Mutex lockedFilesMutex;
constinit PosixFile* firstLocked TOLVEX_GUARDED_BY(lockedFilesMutex) = nullptr;
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
    const int unnamed = unnamedIn_.empty() ? 0 : flushFolder(unnamedIn_);
    if (unnamed != 0) return systemErrorText(unnamed);
    if (::fdatasync(descriptor_) != 0) return systemErrorText(errno);
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

  // In a child process. The locks stay with the parent.
  static void closeInherited() TOLVEX_REQUIRES(lockedFilesMutex) {
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
    const MutexLock lock(lockedFilesMutex);
    nextLocked_ = std::exchange(firstLocked, this);
  }
  void forget() const {
    const MutexLock lock(lockedFilesMutex);
    PosixFile** place = &firstLocked;
    while (*place != nullptr && *place != this) place = &(*place)->nextLocked_;
    if (*place != nullptr) *place = nextLocked_;
  }

  int descriptor_ = -1;
  int error_ = 0;          // of the last call that failed
  std::string unnamedIn_;  // the folder whose disk may not have the file's name yet
  bool locked_ = false;
  bool inherited_ = false;  // by a child process
  PosixFile* nextLocked_ TOLVEX_GUARDED_BY(lockedFilesMutex) = nullptr;
};

bool watchForks() {
  const auto lock = []() TOLVEX_NOT_ANALYSED { lockedFilesMutex.lock(); };
  const auto unlock = []() TOLVEX_NOT_ANALYSED { lockedFilesMutex.unlock(); };
  const auto leave = []() TOLVEX_NOT_ANALYSED {
    PosixFile::closeInherited();
    generation.fetch_add(1, std::memory_order_relaxed);
    lockedFilesMutex.unlock();
  };
  return ::pthread_atfork(lock, unlock, leave) == 0;
}

[[maybe_unused]] const bool watching = watchForks();

bool PosixFile::open(const std::string& path, OpenMode mode, std::string& error) {
  const bool creates = mode == OpenMode::Create || mode == OpenMode::Fill;
  std::string folder;  // in front of the file, which is not made when memory runs out
  if (creates) folder = folderOf(path);
  const int flags = mode == OpenMode::Read ? O_RDONLY : O_RDWR;
  // Where a file must be new or empty, a link that leads nowhere is not followed.
  const int exclusive = mode == OpenMode::Fill ? O_EXCL : 0;
  descriptor_ =
      ::open(path.c_str(), flags | O_CLOEXEC | (creates ? O_CREAT : 0) | exclusive, kUsual);
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
  if (error == kFileHasChanged) return "it has changed since it was opened";
  return std::generic_category().message(error);
}

bool populateMemory([[maybe_unused]] WritableBytes bytes) {
#ifdef MADV_POPULATE_WRITE
  static const auto pageBytes = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const auto begin = reinterpret_cast<std::uintptr_t>(bytes.data());
  const std::uintptr_t before = begin % pageBytes;
  return madvise(bytes.data() - before, bytes.size() + before, MADV_POPULATE_WRITE) == 0;
#else
  return false;
#endif
}

long timeZoneSeconds() {
  ::tzset();
  return ::timezone;
}

int fileStatus(const std::string& path, FileStatus& status) {
  struct stat found = {};
  if (::stat(path.c_str(), &found) != 0) return errno;
  status.kind = S_ISREG(found.st_mode)   ? FileKind::Regular
                : S_ISDIR(found.st_mode) ? FileKind::Folder
                                         : FileKind::Other;
  status.permissions = static_cast<int>(found.st_mode & kPermissionBits);
  status.size = static_cast<std::uint64_t>(found.st_size);
  constexpr std::int64_t kNsPerSecond = 1'000'000'000;
  status.changed = found.st_mtim.tv_sec * kNsPerSecond + found.st_mtim.tv_nsec;
  return 0;
}

bool isSameFile(const std::string& path, const std::string& other) {
  std::error_code none;
  return std::filesystem::equivalent(path, other, none);
}

bool isOpenAs(int descriptor, const std::string& path) {
  struct stat opened = {};
  struct stat named = {};
  return ::fstat(descriptor, &opened) == 0 && ::stat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

std::optional<std::string> behindLinks(const std::string& path) {
  constexpr int kMostLinks = 40;
  std::filesystem::path at = path;
  struct stat status = {};
  for (int i = 0; i < kMostLinks && ::lstat(at.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
       ++i) {
    struct statfs system = {};
    if (::statfs(folderOf(at).c_str(), &system) == 0 && system.f_type == PROC_SUPER_MAGIC) {
      return std::nullopt;
    }
    at = at.parent_path() / std::filesystem::read_symlink(at);
  }
  return at;
}

bool isLocked(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool locked = ::flock(descriptor, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(descriptor);
  return locked;
}

int mayWrite(const std::string& path) {
  return ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0 ? 0 : errno;
}

int fillWithRandom(WritableBytes bytes) {
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t got = ::getrandom(bytes.data() + done, bytes.size() - done, 0);
    if (got < 0 && errno != EINTR) return errno;
    if (got > 0) done += static_cast<std::size_t>(got);
  }
  return 0;
}

int openFile(const std::string& path, FileUse use, int& descriptor) {
  struct stat status = {};
  int flags = O_RDONLY;
  mode_t permissions = kUsual;
  switch (use) {
    case FileUse::Read:
      break;
    case FileUse::Write:
      flags = O_WRONLY;
      break;
    case FileUse::Replace:
      // Devices and pipes that are no disks may be open for writing alone.
      flags =
          ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)
              ? O_WRONLY
              : O_RDWR | O_TRUNC;
      break;
    case FileUse::Create:
      flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW;
      break;
    case FileUse::CreatePrivate:
      flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW;
      permissions = kPrivate;
      break;
  }
  descriptor = ::open(path.c_str(), flags | O_CLOEXEC, permissions);
  return descriptor < 0 ? errno : 0;
}

int completeFile(int descriptor, int permissions) {
  // Where the file system keeps no permissions, the result has those of all its files.
  if (permissions >= 0) {
    [[maybe_unused]] const int kept = ::fchmod(descriptor, static_cast<mode_t>(permissions));
  }
  return ::fsync(descriptor) == 0 ? 0 : errno;
}

int closeFile(int descriptor) {
  return ::close(descriptor) == 0 ? 0 : errno;
}

int renameFile(const std::string& from, const std::string& to, Taken taken) {
  if (taken == Taken::Keep) {
    const char* const name = to.c_str();
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, name, RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return errno;
    // Not every kind of file system knows that.
    if (::access(name, F_OK) == 0) return EEXIST;
  }
  return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

void removeFile(const std::string& path) {
  ::unlink(path.c_str());
}

int makeFolders(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  return error.value();
}

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  std::filesystem::directory_iterator entries(folder, error);
  for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
    names.push_back(entries->path().filename());
  }
  return names;
}

int flushFolder(const std::string& folder) {
  const int descriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return 0;
  const int error = ::fsync(descriptor) == 0 || errno == EINVAL ? 0 : errno;
  ::close(descriptor);
  return error;
}

}  // namespace tolvex
