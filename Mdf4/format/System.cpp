#include "Mdf4/format/System.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <limits>
#include <system_error>
#include <utility>

namespace tolvex {
namespace {

constexpr std::size_t kPiecesPerCall = 128;
constexpr std::uint64_t kMaxPosition = std::numeric_limits<off_t>::max();

class PosixFile final : public SystemFile {
 public:
  explicit PosixFile(int descriptor) : descriptor_(descriptor) {}
  PosixFile(const PosixFile&) = delete;
  PosixFile& operator=(const PosixFile&) = delete;
  ~PosixFile() override {
    if (descriptor_ >= 0) ::close(descriptor_);
  }

  bool size(std::uint64_t& bytes) override {
    struct stat status = {};
    if (::fstat(descriptor_, &status) != 0 || status.st_size < 0) return false;
    bytes = static_cast<std::uint64_t>(status.st_size);
    return true;
  }

  std::uint64_t read(std::uint64_t position, std::span<const WritableBytes> pieces) override {
    return transfer(position, pieces, [this](const iovec* part, int count, off_t at) {
      return ::preadv(descriptor_, part, count, at);
    });
  }

  bool write(std::uint64_t position, std::span<const ByteSpan> pieces) override {
    std::uint64_t wanted = 0;
    for (const ByteSpan& piece : pieces) wanted += piece.size();
    errno = 0;
    const std::uint64_t done =
        transfer(position, pieces, [this](const iovec* part, int count, off_t at) {
          return count == 1 ? ::pwrite(descriptor_, part->iov_base, part->iov_len, at)
                            : ::pwritev(descriptor_, part, count, at);
        });
    if (done == wanted) return true;
    error_ = errno != 0 ? errno : EIO;
    return false;
  }

  bool close() override {
    const int descriptor = std::exchange(descriptor_, -1);
    if (descriptor < 0 || ::close(descriptor) == 0) return true;
    error_ = errno;
    return false;
  }

  std::string error() const override { return std::generic_category().message(error_); }

 private:
  // Calls `move` until all pieces are done, it moves nothing more or it fails. Returns the bytes
  // moved.
  template <class Piece, class Move>
  static std::uint64_t transfer(std::uint64_t position, std::span<const Piece> pieces, Move move) {
    std::uint64_t done = 0;
    std::size_t first = 0;        // the first piece that is not complete
    std::size_t firstOffset = 0;  // bytes of it that are
    while (first < pieces.size()) {
      if (pieces[first].size() == firstOffset) {
        ++first;
        firstOffset = 0;
        continue;
      }
      if (position > kMaxPosition - done) return done;
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
      if (moved <= 0) return done;
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
    return done;
  }

  int descriptor_;
  int error_ = 0;  // of the last call that failed
};

}  // namespace

std::unique_ptr<SystemFile> openSystemFile(const std::string& path, OpenMode mode,
                                           std::string& error) {
  int flags = O_CLOEXEC;
  switch (mode) {
    case OpenMode::Read:
      flags |= O_RDONLY;
      break;
    case OpenMode::Update:
      flags |= O_RDWR;
      break;
    case OpenMode::Create:
      flags |= O_RDWR | O_CREAT | O_TRUNC;
      break;
  }
  const int descriptor = ::open(path.c_str(), flags, 0666);
  if (descriptor < 0) {
    error = std::generic_category().message(errno);
    return nullptr;
  }
  auto file = std::make_unique<PosixFile>(descriptor);
  struct stat status = {};
  if (::fstat(descriptor, &status) != 0 || S_ISDIR(status.st_mode)) {
    error = "is a directory";
    return nullptr;
  }
  return file;
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
