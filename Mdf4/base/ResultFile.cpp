#include "Mdf4/base/ResultFile.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <utility>

#include "Mdf4/base/Paths.h"

namespace tolvex {
namespace {

constexpr char kLocked[] = "locked by a recorder or another program";

// A name for a file in `folder`.
int unforeseeableName(const std::filesystem::path& folder, std::string& path) {
  std::array<std::uint8_t, 16> random = {};
  if (const int error = fillWithRandom(random); error != 0) return error;
  std::string name = "tolvex-";
  for (const std::uint8_t byte : random) {
    name += "0123456789abcdef"[byte >> 4];
    name += "0123456789abcdef"[byte & 0xF];
  }
  path = pathText(folder / (name + ".part"));
  return 0;
}

}  // namespace

bool ResultFile::fail(int error) {
  return fail(systemErrorText(error));
}

bool ResultFile::fail(std::string error) {
  error_ = std::move(error);
  return false;
}

bool ResultFile::openDirectly() {
  const int error = openFile(path_, FileUse::Replace, descriptor_);
  return error == 0 || fail(error);
}

bool ResultFile::wouldReplace(const std::string& path) {
  FileStatus status;
  return fileStatus(path, status) == 0 && status.kind == FileKind::Regular && behindLinks(path);
}

bool ResultFile::open(const std::string& path, const std::string& model) {
  path_ = path;
  FileStatus status;
  const int missing = fileStatus(path, status);
  const bool exists = missing == 0;
  if (!exists && missing != ENOENT) return fail(missing);
  if (exists && status.kind != FileKind::Regular) return openDirectly();
  const std::optional<std::string> target = behindLinks(path);
  if (!target) return openDirectly();
  if (exists && taken_ == Taken::Keep) return fail(EEXIST);
  if (!pathOf(*target).has_filename()) return fail(path.empty() ? ENOENT : EISDIR);
  if (isLocked(*target)) return fail(kLocked);
  // A protected file stays, unless the protection comes from an earlier result of the same kind.
  if (model.empty() && exists) {
    if (const int error = mayWrite(path); error != 0) return fail(error);
  }
  if (!model.empty()) {
    if (const int error = fileStatus(model, status); error != 0) return fail(error);
  }
  if (exists || !model.empty()) permissions_ = status.permissions;
  std::string name;
  int error = unforeseeableName(folderOf(pathOf(*target)), name);
  if (error == 0) {
    const FileUse use = permissions_ < 0 ? FileUse::Create : FileUse::CreatePrivate;
    error = openFile(name, use, descriptor_);
  }
  if (error != 0) return fail(error);
  temporary_ = std::move(name);
  path_ = *target;
  return true;
}

bool ResultFile::close() {
  const int descriptor = std::exchange(descriptor_, -1);
  if (descriptor < 0) return error_.empty();
  if (!temporary_.empty()) {
    if (const int error = completeFile(descriptor, permissions_); error != 0) fail(error);
  }
  if (const int error = closeFile(descriptor); error != 0) fail(error);
  return error_.empty();
}

bool ResultFile::publish() {
  if (!close()) return false;
  if (temporary_.empty()) return true;
  if (isLocked(path_)) return fail(kLocked);
  // Before the name is taken, as memory may run out.
  const std::string folder = pathText(folderOf(pathOf(path_)));
  int error = renameFile(temporary_, path_, taken_);
  if (error != 0) return fail(error);
  temporary_.clear();
  error = flushFolder(folder);
  return error == 0 || fail(error);
}

void ResultFile::discard() {
  if (descriptor_ >= 0) static_cast<void>(closeFile(std::exchange(descriptor_, -1)));
  if (!temporary_.empty()) removeFile(temporary_);
  temporary_.clear();
}

}  // namespace tolvex
