// windows.h is the first of its family.
// clang-format off
#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <ntsecapi.h>
// clang-format on

#include <algorithm>
#include <cerrno>
#include <new>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Mdf4/base/Paths.h"
#include "Mdf4/base/System.h"

namespace tolvex {
namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr std::size_t kMostPerCall = std::size_t{1} << 30;

// An error of the system as one of errno, or, where that has none like it, as a negative number.
int errorOf(DWORD error) {
  const std::error_condition condition =
      std::system_category().default_error_condition(static_cast<int>(error));
  return condition.category() == std::generic_category() ? condition.value()
                                                         : -static_cast<int>(error);
}

int lastError() {
  return errorOf(::GetLastError());
}

bool isFolder(const std::wstring& path) {
  const DWORD attributes = ::GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

std::wstring wide(const std::string& path) {
  return pathOf(path).wstring();
}

HANDLE handleOf(int descriptor) {
  return reinterpret_cast<HANDLE>(::_get_osfhandle(descriptor));
}

OVERLAPPED placeAt(std::uint64_t position) {
  OVERLAPPED place = {};
  place.Offset = static_cast<DWORD>(position);
  place.OffsetHigh = static_cast<DWORD>(position >> 32);
  return place;
}

// A file that is created denies others to write it. That is its lock.
class WindowsFile final : public SystemFile {
 public:
  WindowsFile() = default;
  explicit WindowsFile(HANDLE handle) : handle_(handle) {}
  WindowsFile(const WindowsFile&) = delete;
  WindowsFile& operator=(const WindowsFile&) = delete;
  ~WindowsFile() override { WindowsFile::close(); }

  // Once. False when it cannot be opened; `error` says why.
  bool open(const std::string& path, OpenMode mode, std::string& error);

  bool size(std::uint64_t& bytes) override {
    LARGE_INTEGER size = {};
    if (::GetFileSizeEx(handle_, &size) == 0) return false;
    bytes = static_cast<std::uint64_t>(size.QuadPart);
    return true;
  }

  ReadResult read(std::uint64_t position, std::span<const WritableBytes> pieces) override {
    ReadResult result;
    for (WritableBytes piece : pieces) {
      while (!piece.empty()) {
        OVERLAPPED place = placeAt(position + result.bytes);
        DWORD got = 0;
        const auto wanted = static_cast<DWORD>(std::min(piece.size(), kMostPerCall));
        if (::ReadFile(handle_, piece.data(), wanted, &got, &place) == 0) {
          const DWORD error = ::GetLastError();
          if (error != ERROR_HANDLE_EOF) result.error = errorOf(error);
          return result;
        }
        if (got == 0) return result;
        result.bytes += got;
        piece = piece.subspan(got);
      }
    }
    return result;
  }

  // In one call, as what a killed process leaves must be whole.
  bool write(std::uint64_t position, std::span<const ByteSpan> pieces) override {
    if (pieces.size() == 1) return writeAt(position, pieces[0]);
    try {
      gathered_.clear();
      for (const ByteSpan& piece : pieces) {
        gathered_.insert(gathered_.end(), piece.begin(), piece.end());
      }
    } catch (const std::bad_alloc&) {
      error_ = ENOMEM;
      return false;
    }
    return writeAt(position, gathered_);
  }

  std::string flush() override {
    return ::FlushFileBuffers(handle_) != 0 ? "" : systemErrorText(lastError());
  }

  bool close() override {
    const HANDLE handle = std::exchange(handle_, INVALID_HANDLE_VALUE);
    if (handle == INVALID_HANDLE_VALUE || ::CloseHandle(handle) != 0) return true;
    error_ = lastError();
    return false;
  }

  std::string error() const override { return systemErrorText(error_); }

 private:
  bool writeAt(std::uint64_t position, ByteSpan bytes) {
    while (!bytes.empty()) {
      OVERLAPPED place = placeAt(position);
      DWORD done = 0;
      const auto wanted = static_cast<DWORD>(std::min(bytes.size(), kMostPerCall));
      if (::WriteFile(handle_, bytes.data(), wanted, &done, &place) == 0 || done == 0) {
        error_ = lastError();
        return false;
      }
      position += done;
      bytes = bytes.subspan(done);
    }
    return true;
  }

  HANDLE handle_ = INVALID_HANDLE_VALUE;
  int error_ = 0;                       // of the last call that failed
  std::vector<std::uint8_t> gathered_;  // pieces of one write
};

bool WindowsFile::open(const std::string& path, OpenMode mode, std::string& error) {
  const std::wstring name = wide(path);
  const bool creates = mode == OpenMode::Create || mode == OpenMode::Fill;
  const DWORD access = mode == OpenMode::Read ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE;
  if (isFolder(name)) {
    error = "is a directory";
    return false;
  }
  handle_ = ::CreateFileW(name.c_str(), access, creates ? FILE_SHARE_READ : kShareAll, nullptr,
                          creates ? OPEN_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle_ == INVALID_HANDLE_VALUE) {
    const DWORD reason = ::GetLastError();
    error = creates && reason == ERROR_SHARING_VIOLATION ? "locked by another recorder or program"
                                                         : systemErrorText(errorOf(reason));
    return false;
  }
  const bool isFile = ::GetFileType(handle_) == FILE_TYPE_DISK;
  if (mode == OpenMode::Read && !isFile) {
    error = "is a pipe or the like, which cannot be read at any position: store it in a file first";
    return false;
  }
  std::uint64_t bytes = 0;
  const bool empty = isFile && size(bytes) && bytes == 0;
  if (mode == OpenMode::Fill && !empty) {
    error = "exists";
    return false;
  }
  if (mode == OpenMode::Create && isFile && !empty && ::SetEndOfFile(handle_) == 0) {
    error = systemErrorText(lastError());
    return false;
  }
  return true;
}

}  // namespace

std::unique_ptr<SystemFile> openSystemFile(const std::string& path, OpenMode mode,
                                           std::string& error) {
  auto file = std::make_unique<WindowsFile>();
  if (!file->open(path, mode, error)) return nullptr;
  return file;
}

std::unique_ptr<SystemFile> systemFileOn(int descriptor, std::string& error) {
  const HANDLE process = ::GetCurrentProcess();
  HANDLE copy = INVALID_HANDLE_VALUE;
  if (::DuplicateHandle(process, handleOf(descriptor), process, &copy, 0, FALSE,
                        DUPLICATE_SAME_ACCESS) != 0) {
    return std::make_unique<WindowsFile>(copy);
  }
  error = systemErrorText(lastError());
  return nullptr;
}

unsigned processGeneration() {
  return 1;
}

std::string systemErrorText(int error) {
  return error < 0 ? std::system_category().message(-error)
                   : std::generic_category().message(error);
}

long timeZoneSeconds() {
  constexpr long kSecondsPerMinute = 60;
  TIME_ZONE_INFORMATION zone = {};
  if (::GetTimeZoneInformation(&zone) == TIME_ZONE_ID_INVALID) return 0;
  return (zone.Bias + zone.StandardBias) * kSecondsPerMinute;
}

int fileStatus(const std::string& path, FileStatus& status) {
  const std::wstring name = wide(path);
  if (isFolder(name)) {
    status.kind = FileKind::Folder;
    return 0;
  }
  const HANDLE handle =
      ::CreateFileW(name.c_str(), 0, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return lastError();
  status.kind = ::GetFileType(handle) == FILE_TYPE_DISK ? FileKind::Regular : FileKind::Other;
  ::CloseHandle(handle);
  return 0;
}

std::optional<std::string> behindLinks(const std::string& path) {
  const std::wstring name = wide(path);
  const DWORD attributes = ::GetFileAttributesW(name.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
    return path;
  }
  const HANDLE handle =
      ::CreateFileW(name.c_str(), 0, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return path;
  std::wstring target(::GetFinalPathNameByHandleW(handle, nullptr, 0, 0), L'\0');
  const auto size = static_cast<DWORD>(target.size());
  const DWORD length = ::GetFinalPathNameByHandleW(handle, target.data(), size, 0);
  ::CloseHandle(handle);
  if (length == 0 || length >= size) return path;
  target.resize(length);
  return pathText(target);
}

bool isLocked(const std::string& path) {
  const HANDLE handle = ::CreateFileW(wide(path).c_str(), GENERIC_WRITE, kShareAll, nullptr,
                                      OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return ::GetLastError() == ERROR_SHARING_VIOLATION;
  ::CloseHandle(handle);
  return false;
}

int mayWrite(const std::string& path) {
  const DWORD attributes = ::GetFileAttributesW(wide(path).c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return lastError();
  return (attributes & FILE_ATTRIBUTE_READONLY) != 0 ? EACCES : 0;
}

int fillWithRandom(WritableBytes bytes) {
  const auto size = static_cast<ULONG>(bytes.size());
  return ::RtlGenRandom(bytes.data(), size) != 0 ? 0 : EIO;
}

int openFile(const std::string& path, FileUse use, int& descriptor) {
  const std::wstring name = wide(path);
  if (isFolder(name)) return use == FileUse::Create ? EEXIST : EISDIR;
  const bool creates = use == FileUse::Create || use == FileUse::CreatePrivate;
  const DWORD access = use == FileUse::Read ? GENERIC_READ
                       : creates            ? GENERIC_READ | GENERIC_WRITE
                                            : GENERIC_WRITE;
  const HANDLE handle =
      ::CreateFileW(name.c_str(), access, kShareAll, nullptr, creates ? CREATE_NEW : OPEN_EXISTING,
                    FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return lastError();
  if (use == FileUse::Replace) ::SetEndOfFile(handle);  // nothing, where a device is written
  descriptor = ::_open_osfhandle(reinterpret_cast<std::intptr_t>(handle), _O_BINARY);
  if (descriptor >= 0) return 0;
  ::CloseHandle(handle);
  return EMFILE;
}

// A new file has the permissions of its folder.
int completeFile(int descriptor, int /*permissions*/) {
  return ::FlushFileBuffers(handleOf(descriptor)) != 0 ? 0 : lastError();
}

int closeFile(int descriptor) {
  return ::_close(descriptor) == 0 ? 0 : errno;
}

int renameFile(const std::string& from, const std::string& to) {
  const DWORD flags = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
  return ::MoveFileExW(wide(from).c_str(), wide(to).c_str(), flags) != 0 ? 0 : lastError();
}

void removeFile(const std::string& path) {
  ::DeleteFileW(wide(path).c_str());
}

// Renaming writes through.
int flushFolder(const std::string& /*folder*/) {
  return 0;
}

}  // namespace tolvex
