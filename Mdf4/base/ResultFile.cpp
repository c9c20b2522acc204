#include "Mdf4/base/ResultFile.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "Mdf4/base/FlushFolder.h"

namespace tolvex {
namespace {

namespace fs = std::filesystem;

constexpr char kLocked[] = "locked by a recorder or another program";
constexpr mode_t kPermissionBits = 0777;
constexpr mode_t kPrivate = 0600;
constexpr mode_t kUsual = 0666;  // of which the umask leaves some

fs::path folderOf(const fs::path& path) {
  return path.has_parent_path() ? path.parent_path() : ".";
}

// The name that symbolic links lead to, whether it exists or not. Nothing when one of them leads to
// an open file, which has its name no longer or never had one.
std::optional<fs::path> behindLinks(fs::path path) {
  constexpr int kMostLinks = 40;
  struct stat status = {};
  for (int i = 0; i < kMostLinks && ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
       ++i) {
    struct statfs system = {};
    if (::statfs(folderOf(path).c_str(), &system) == 0 && system.f_type == PROC_SUPER_MAGIC) {
      return std::nullopt;
    }
    path = path.parent_path() / fs::read_symlink(path);
  }
  return path;
}

// A name for a file in `folder`, "" when the system has no random numbers.
std::string unforeseeableName(const fs::path& folder) {
  std::array<std::uint8_t, 16> random = {};
  for (std::size_t done = 0; done < random.size();) {
    const ssize_t got = ::getrandom(random.data() + done, random.size() - done, 0);
    if (got < 0 && errno != EINTR) return {};
    if (got > 0) done += static_cast<std::size_t>(got);
  }
  std::string name = "tolvex-";
  for (const std::uint8_t byte : random) {
    name += "0123456789abcdef"[byte >> 4];
    name += "0123456789abcdef"[byte & 0xF];
  }
  return folder / (name + ".part");
}

// Whether somebody records into the file: it would go on in a file without a name.
bool isLocked(const fs::path& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool locked = ::flock(descriptor, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(descriptor);
  return locked;
}

}  // namespace

bool ResultFile::fail(int error) {
  return fail(std::generic_category().message(error));
}

bool ResultFile::fail(std::string error) {
  error_ = std::move(error);
  return false;
}

bool ResultFile::openDirectly(bool readable) {
  descriptor_ = ::open(path_.c_str(), (readable ? O_RDWR | O_TRUNC : O_WRONLY) | O_CLOEXEC);
  return descriptor_ >= 0 || fail(errno);
}

bool ResultFile::open(const std::string& path, const std::string& model) {
  path_ = path;
  struct stat status = {};
  const bool exists = ::stat(path.c_str(), &status) == 0;
  if (!exists && errno != ENOENT) return fail(errno);
  if (exists && !S_ISREG(status.st_mode)) return openDirectly(S_ISBLK(status.st_mode));
  const std::optional<fs::path> target = behindLinks(path);
  if (!target) return openDirectly(true);
  if (!target->has_filename()) return fail(path.empty() ? ENOENT : EISDIR);
  if (isLocked(*target)) return fail(kLocked);
  // A protected file stays, unless the protection comes from an earlier result of the same kind.
  if (model.empty() && exists && ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0) {
    return fail(errno);
  }
  if (!model.empty() && ::stat(model.c_str(), &status) != 0) return fail(errno);
  if (exists || !model.empty()) permissions_ = static_cast<int>(status.st_mode & kPermissionBits);
  std::string name = unforeseeableName(folderOf(*target));
  if (name.empty()) return fail(errno);
  descriptor_ = ::open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                       permissions_ < 0 ? kUsual : kPrivate);
  if (descriptor_ < 0) return fail(errno);
  temporary_ = std::move(name);
  path_ = *target;
  return true;
}

bool ResultFile::close() {
  const int descriptor = std::exchange(descriptor_, -1);
  if (descriptor < 0) return error_.empty();
  if (!temporary_.empty()) {
    // Where the file system keeps no permissions, the result has those of all its files.
    if (permissions_ >= 0 && ::fchmod(descriptor, static_cast<mode_t>(permissions_)) != 0) {
      permissions_ = -1;
    }
    if (::fsync(descriptor) != 0) fail(errno);
  }
  if (::close(descriptor) != 0) fail(errno);
  return error_.empty();
}

bool ResultFile::publish() {
  if (!close()) return false;
  if (temporary_.empty()) return true;
  if (isLocked(path_)) return fail(kLocked);
  const fs::path folder = folderOf(path_);  // before the name is taken, as memory may run out
  if (::rename(temporary_.c_str(), path_.c_str()) != 0) return fail(errno);
  temporary_.clear();
  return flushFolder(folder) || fail(errno);
}

void ResultFile::discard() {
  if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
  if (!temporary_.empty()) ::unlink(temporary_.c_str());
  temporary_.clear();
}

}  // namespace tolvex
