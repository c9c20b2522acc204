#include "Mdf4/base/RestingFile.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "Mdf4/base/Paths.h"

namespace tolvex {

std::unique_ptr<RestingFile> RestingFile::open(const std::string& path, std::string& error) {
  std::unique_ptr<SystemFile> file = openSystemFile(path, OpenMode::Read, error);
  if (file == nullptr) return nullptr;
  std::error_code none;  // then the name is as it was
  const std::filesystem::path whole = std::filesystem::absolute(pathOf(path), none);
  auto resting =
      std::unique_ptr<RestingFile>(new RestingFile(none ? path : pathText(whole), std::move(file)));
  static_cast<void>(fileStatus(path, resting->status_));  // without it, it looks changed later
  return resting;
}

bool RestingFile::size(std::uint64_t& bytes) {
  return (file_ != nullptr || wake() == 0) && file_->size(bytes);
}

ReadResult RestingFile::read(std::uint64_t position, std::span<const WritableBytes> pieces) {
  if (file_ == nullptr) {
    if (const int error = wake(); error != 0) return {0, error};
  }
  return file_->read(position, pieces);
}

// An error of the system, 0 for none.
int RestingFile::wake() {
  FileStatus status;
  if (const int error = fileStatus(path_, status); error != 0) return error;
  if (status.size != status_.size || status.changed != status_.changed) return kFileHasChanged;
  std::string error;
  file_ = openSystemFile(path_, OpenMode::Read, error);
  return file_ == nullptr ? EMFILE : 0;  // it is there, but there are too many beside it
}

}  // namespace tolvex
