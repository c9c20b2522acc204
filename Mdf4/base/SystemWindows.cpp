// windows.h is the first of its family.
// clang-format off
#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <ntsecapi.h>
// clang-format on

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "Mdf4/base/Paths.h"
#include "Mdf4/base/System.h"

namespace tolvex {
namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr std::size_t kMostPerCall = std::size_t{1} << 30;

// An error of the system as one of errno, or, where that has none that says as much, as a negative
// number.
int errorOf(DWORD error) {
  constexpr int kLastWithText = EILSEQ;
  if (error == ERROR_SHARING_VIOLATION) return -static_cast<int>(error);
  const std::error_condition condition =
      std::system_category().default_error_condition(static_cast<int>(error));
  return condition.category() == std::generic_category() && condition.value() <= kLastWithText
             ? condition.value()
             : -static_cast<int>(error);
}

int lastError() {
  return errorOf(::GetLastError());
}

// From UTF-8; what is not UTF-8 becomes characters that no file's name has.
std::wstring wideText(const std::string& text) {
  const auto size = static_cast<int>(text.size());
  std::wstring wide(text.size(), L'\0');  // which is enough
  const int length = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), size);
  wide.resize(static_cast<std::size_t>(length));
  return wide;
}

// The name as the system takes it. One that is too long becomes absolute, with the prefix of names
// of any length.
std::wstring wide(const std::string& path) {
  constexpr std::size_t kTooLong = MAX_PATH - 12;  // for a folder
  std::wstring name = wideText(path);
  std::wstring full(::GetFullPathNameW(name.c_str(), 0, nullptr, nullptr), L'\0');
  const auto size = static_cast<DWORD>(full.size());
  const DWORD length = ::GetFullPathNameW(name.c_str(), size, full.data(), nullptr);
  if (length < kTooLong || length >= size) return name;
  full.resize(length);
  if (full.starts_with(L"\\\\?\\") || full.starts_with(L"\\\\.\\")) return full;
  return full.starts_with(L"\\\\") ? L"\\\\?\\UNC" + full.substr(1) : L"\\\\?\\" + full;
}

bool isFolder(const std::wstring& path) {
  const DWORD attributes = ::GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

HANDLE handleOf(int descriptor) {
  return reinterpret_cast<HANDLE>(::_get_osfhandle(descriptor));
}

// What tells an open file from others.
struct Identity {
  DWORD volume = 0;
  DWORD high = 0;
  DWORD low = 0;
  bool operator==(const Identity&) const = default;
};

// Nothing for what is no file.
std::optional<Identity> identityOf(HANDLE file) {
  BY_HANDLE_FILE_INFORMATION found = {};
  if (::GetFileInformationByHandle(file, &found) == 0) return std::nullopt;
  return Identity{found.dwVolumeSerialNumber, found.nFileIndexHigh, found.nFileIndexLow};
}

std::optional<Identity> identityOf(const std::string& path) {
  const HANDLE file = ::CreateFileW(wide(path).c_str(), 0, kShareAll, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (file == INVALID_HANDLE_VALUE) return std::nullopt;
  const std::optional<Identity> identity = identityOf(file);
  ::CloseHandle(file);
  return identity;
}

DWORD makeFolder(const std::wstring& path) {
  return isFolder(path) || ::CreateDirectoryW(path.c_str(), nullptr) != 0 ? 0 : ::GetLastError();
}

std::uint64_t pairOf(DWORD high, DWORD low) {
  return std::uint64_t{high} << 32 | low;
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
    error = systemErrorText(lastError());
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
  if (error == kFileHasChanged) return "it has changed since it was opened";
  if (error == ECANCELED) return "Operation canceled";
  if (error >= 0) return std::generic_category().message(error);
  const auto number = static_cast<DWORD>(-error);
  if (number == ERROR_SHARING_VIOLATION) return "locked by another recorder or program";
  std::array<wchar_t, 512> text;
  const DWORD size = ::FormatMessageW(
      FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
      nullptr, number, 0, text.data(), static_cast<DWORD>(text.size()), nullptr);
  if (size == 0) return "error " + std::to_string(number) + " of the system";
  const std::wstring_view words(text.data(), size);
  return pathText(words.substr(0, words.find_last_not_of(L". ") + 1));
}

bool populateMemory(WritableBytes) {
  return false;
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
  BY_HANDLE_FILE_INFORMATION found = {};
  if (::GetFileInformationByHandle(handle, &found) != 0) {
    const FILETIME& time = found.ftLastWriteTime;
    status.size = pairOf(found.nFileSizeHigh, found.nFileSizeLow);
    status.changed = static_cast<std::int64_t>(pairOf(time.dwHighDateTime, time.dwLowDateTime));
  }
  ::CloseHandle(handle);
  return 0;
}

bool isSameFile(const std::string& path, const std::string& other) {
  const std::optional<Identity> identity = identityOf(path);
  return identity && identity == identityOf(other);
}

bool isOpenAs(int descriptor, const std::string& path) {
  const std::optional<Identity> identity = identityOf(path);
  return identity && identity == identityOf(handleOf(descriptor));
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

// Whoever keeps others from writing or removing it does so.
bool isLocked(const std::string& path) {
  const HANDLE handle = ::CreateFileW(wide(path).c_str(), GENERIC_WRITE | DELETE, kShareAll,
                                      nullptr, OPEN_EXISTING, 0, nullptr);
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

int renameFile(const std::string& from, const std::string& to, Taken taken) {
  const DWORD replace = taken == Taken::Replace ? MOVEFILE_REPLACE_EXISTING : 0;
  const DWORD flags = replace | MOVEFILE_WRITE_THROUGH;
  return ::MoveFileExW(wide(from).c_str(), wide(to).c_str(), flags) != 0 ? 0 : lastError();
}

void removeFile(const std::string& path) {
  ::DeleteFileW(wide(path).c_str());
}

int makeFolders(const std::string& path) {
  const std::filesystem::path name = pathOf(path);
  const std::filesystem::path parent = name.parent_path();
  DWORD error = makeFolder(wide(path));
  if (error == ERROR_PATH_NOT_FOUND && !parent.empty() && parent != name) {
    if (const int above = makeFolders(pathText(parent)); above != 0) return above;
    error = makeFolder(wide(path));
  }
  return error == 0 ? 0 : errorOf(error);
}

std::vector<std::string> namesIn(const std::string& folder) {
  struct Search {
    HANDLE handle;
    ~Search() { ::FindClose(handle); }
  };
  std::vector<std::string> names;
  WIN32_FIND_DATAW found = {};
  const Search search{::FindFirstFileW(wide(pathText(pathOf(folder) / "*")).c_str(), &found)};
  bool more = search.handle != INVALID_HANDLE_VALUE;
  for (; more; more = ::FindNextFileW(search.handle, &found) != 0) {
    names.push_back(pathText(found.cFileName));
  }
  return names;
}

// Renaming writes through.
int flushFolder(const std::string& /*folder*/) {
  return 0;
}

}  // namespace tolvex
