#include "RecordTarget.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "Mdf4/base/Paths.h"
#include "System.h"

namespace tolvex {

namespace {

// Whether a file that is there may be overwritten; complains if not.
ExitCode allowOverwriting(const std::string& path, const RecordTarget::Rules& rules) {
  if (isOpenAs(rules.input, path)) {
    complain(path, "is the input itself; name another output");
    return kWrongUse;
  }
  if (!rules.overwrite) {
    complain(path, kExists);
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
  return pathText(pathOf(path).filename()).find('.') != std::string::npos;
}

ExitCode RecordTarget::claim(const Rules& rules) {
  int descriptor = -1;
  int error = openFile(path_, FileUse::Create, descriptor);
  created_ = error == 0;
  FileStatus status;
  if (error == EEXIST && (error = fileStatus(path_, status)) == 0) {
    if (const ExitCode code = allowOverwriting(path_, rules); code != kDone) {
      return code;
    }
    if (status.kind == FileKind::Other) {
      complain(path_, "is no regular file, which a recording needs");
      return kWrongUse;
    }
    error = openFile(path_, FileUse::Write, descriptor);
  }
  if (error != 0) {
    complain(path_, systemErrorText(error));
    return kFailed;
  }
  static_cast<void>(closeFile(descriptor));
  split_ = rules.split;
  const ExitCode code = split_ ? claimFollowing(rules) : kDone;
  if (code != kDone) {
    abandon();
  }
  return code;
}

// Nobody knows yet how many will be needed, so every one that is there counts.
ExitCode RecordTarget::claimFollowing(const Rules& rules) const {
  const std::filesystem::path path = pathOf(path_);
  const std::string first = pathText(path.filename());
  for (const std::string& found : namesIn(pathText(folderOf(path)))) {
    const std::string number = numberOf(found, first);
    const std::string name = nameBehind(path_, number);
    FileStatus status;
    if (!number.empty() && fileStatus(name, status) == 0) {
      if (const ExitCode code = allowOverwriting(name, rules); code != kDone) {
        return code;
      }
      if (status.kind != FileKind::Regular) {
        complain(name, "is no regular file, which a recording needs");
        return kWrongUse;
      }
    }
  }
  return kDone;
}

void RecordTarget::abandon() {
  FileStatus status;
  if (created_ && fileStatus(path_, status) == 0 && status.size == 0) {
    removeFile(path_);
  }
  created_ = false;
}

// Files of an earlier recording are older than the first one of this.
unsigned RecordTarget::finish() const {
  FileStatus first;
  FileStatus next;
  unsigned files = 1;
  if (!split_ || fileStatus(path_, first) != 0) {
    return files;
  }
  for (;; ++files) {
    const std::string path = nameBehind(path_, std::to_string(files));
    if (fileStatus(path, next) != 0) {
      return files;
    }
    if (next.changed < first.changed) {
      complain(path, "is of an earlier recording");
      return files;
    }
  }
}

}  // namespace tolvex
