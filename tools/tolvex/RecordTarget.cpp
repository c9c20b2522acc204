#include "RecordTarget.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <utility>

namespace tolvex {

namespace {

std::optional<struct stat> statusOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
}

bool isOpen(int descriptor, const struct stat& file) {
  struct stat opened {};
  return ::fstat(descriptor, &opened) == 0 && opened.st_dev == file.st_dev &&
         opened.st_ino == file.st_ino;
}

// Whether a file that is there may be overwritten; complains if not.
ExitCode allowOverwriting(const std::string& path, const struct stat& file,
                          const RecordTarget::Rules& rules) {
  if (isOpen(rules.input, file)) {
    complain(path, "is the input itself; name another output");
    return kWrongUse;
  }
  if (!rules.overwrite) {
    complain(path, "exists; --force overwrites it");
    return kWrongUse;
  }
  return kDone;
}

std::string nameBehind(const std::string& path, const std::string& number) {
  const std::size_t dot = path.rfind('.');
  return path.substr(0, dot) + '_' + number + path.substr(dot);
}

// The number by which the file `name` follows `first`; "" when it does not.
std::string numberOf(const std::string& name, const std::string& first) {
  constexpr std::size_t kMaxDigits = 6;  // longer ones are dates and the like
  const std::size_t begin = first.rfind('.') + 1;
  const std::size_t size = name.size() > first.size() ? name.size() - first.size() - 1 : 0;
  const std::string number = name.substr(std::min(begin, name.size()), size);
  const bool isNumber = !number.empty() && number.size() <= kMaxDigits && number[0] != '0' &&
                        std::ranges::all_of(number, [](char c) { return c >= '0' && c <= '9'; });
  return isNumber && nameBehind(first, number) == name ? number : "";
}

}  // namespace

bool canBeSplit(const std::string& path) {
  return std::filesystem::path(path).filename().string().find('.') != std::string::npos;
}

ExitCode RecordTarget::claim(const Rules& rules) {
  constexpr mode_t kMode = 0666;
  int descriptor = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode);
  created_ = descriptor >= 0;
  if (const auto file = created_ || errno != EEXIST ? std::nullopt : statusOf(path_)) {
    if (const ExitCode code = allowOverwriting(path_, *file, rules); code != kDone) {
      return code;
    }
    if (!S_ISREG(file->st_mode) && !S_ISDIR(file->st_mode)) {
      complain(path_, "is no regular file, which a recording needs");
      return kWrongUse;
    }
    descriptor = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
  }
  if (descriptor < 0) {
    complain(path_, std::strerror(errno));
    return kFailed;
  }
  ::close(descriptor);
  split_ = rules.split;
  const ExitCode code = split_ ? claimFollowing(rules) : kDone;
  if (code != kDone) {
    abandon();
  }
  return code;
}

// Nobody knows yet how many will be needed, so every one that is there counts.
ExitCode RecordTarget::claimFollowing(const Rules& rules) const {
  const std::filesystem::path path(path_);
  const std::filesystem::path folder = path.has_parent_path() ? path.parent_path() : ".";
  std::error_code error;
  std::filesystem::directory_iterator entries(folder, error);
  for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
    const std::string number = numberOf(entries->path().filename(), path.filename());
    const auto file = number.empty() ? std::nullopt : statusOf(nameBehind(path_, number));
    if (file) {
      const ExitCode code = allowOverwriting(nameBehind(path_, number), *file, rules);
      if (code != kDone) {
        return code;
      }
      if (!S_ISREG(file->st_mode)) {
        complain(nameBehind(path_, number), "is no regular file, which a recording needs");
        return kWrongUse;
      }
    }
  }
  return kDone;
}

void RecordTarget::abandon() {
  const auto file = created_ ? statusOf(path_) : std::nullopt;
  if (file && file->st_size == 0) {
    ::unlink(path_.c_str());
  }
  created_ = false;
}

// Files of an earlier recording are older than the first one of this.
unsigned RecordTarget::finish() const {
  const auto changeOf = [](const struct stat& file) {
    return std::pair(file.st_mtim.tv_sec, file.st_mtim.tv_nsec);
  };
  const auto first = statusOf(path_);
  unsigned files = 1;
  if (!first || !split_) {
    return files;
  }
  for (;; ++files) {
    const std::string path = nameBehind(path_, std::to_string(files));
    const auto file = statusOf(path);
    if (file && changeOf(*file) < changeOf(*first)) {
      complain(path, "is of an earlier recording");
    } else if (file) {
      continue;
    }
    return files;
  }
}

}  // namespace tolvex
