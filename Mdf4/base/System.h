// Everything that depends on the operating system: files with 64-bit positions, their names, the
// clock, the time zone. Names of files are UTF-8, errors are numbers of errno, 0 for none.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Mdf4/base/Bytes.h"

namespace tolvex {

enum class OpenMode : std::uint8_t {
  Read,    // an existing file, "rb"
  Update,  // an existing file for reading and writing, "r+b"
  Create,  // a new or emptied file for reading and writing, "wb"
  Fill,    // as Create, but a file that exists must be empty
};

// Beside the numbers of errno: a file is not what it was when it was opened first.
inline constexpr int kFileHasChanged = std::numeric_limits<int>::max();

// How far a read got. Fewer bytes than asked for with an error of 0: the file ends there.
struct ReadResult {
  std::uint64_t bytes = 0;
  int error = 0;  // of the system, which refused to read on; 0: none
};

// An open file, addressed by position. An interface, so that a test can put a failing one below
// DirectFile. Not synchronised.
//
// A file opened to be created is locked until it is closed: nobody else can create it meanwhile. It
// belongs to the process that opened it. In a child (fork) it is closed, and every call fails.
class SystemFile {
 public:
  virtual ~SystemFile() = default;

  [[nodiscard]] virtual bool size(std::uint64_t& bytes) = 0;
  // Fills the pieces in order from `position` on, up to the end of the file.
  [[nodiscard]] virtual ReadResult read(std::uint64_t position,
                                        std::span<const WritableBytes> pieces) = 0;
  // Writes the pieces in order from `position` on. False unless every byte was taken.
  [[nodiscard]] virtual bool write(std::uint64_t position, std::span<const ByteSpan> pieces) = 0;
  // Has on the disk what was written before, and the file's name: "", or why that failed, in the
  // system's words. May run on a thread of its own beside all but close.
  [[nodiscard]] virtual std::string flush() { return ""; }
  // Closes the file; false when the system reports that something was not written.
  [[nodiscard]] virtual bool close() = 0;
  // Why the last write or the closing failed, in the system's words.
  virtual std::string error() const = 0;
};

// Opens a file, or null; `error` then says why in the system's words.
[[nodiscard]] std::unique_ptr<SystemFile> openSystemFile(const std::string& path, OpenMode mode,
                                                         std::string& error);

// A file that is open for reading and writing; the descriptor stays the caller's. Null when the
// system has no more; `error` then says so.
[[nodiscard]] std::unique_ptr<SystemFile> systemFileOn(int descriptor, std::string& error);

// ---------------------------------------------------------------------------------------------
// Files by their names, whose bytes go through a descriptor

enum class FileKind : std::uint8_t { Regular, Folder, Other };

struct FileStatus {
  FileKind kind = FileKind::Other;
  int permissions = -1;      // as completeFile takes them; -1: none of its own
  std::uint64_t size = 0;    // bytes
  std::int64_t changed = 0;  // when it was last written, to be compared
};

// Of what `path` and its symbolic links lead to. An error leaves `status` as it is.
[[nodiscard]] int fileStatus(const std::string& path, FileStatus& status);
// Whether both names lead to one file, or the descriptor is of the file that `path` leads to.
[[nodiscard]] bool isSameFile(const std::string& path, const std::string& other);
[[nodiscard]] bool isOpenAs(int descriptor, const std::string& path);
// The name that symbolic links lead to, whether it exists or not. Nothing when one of them leads to
// an open file, which has its name no longer or never had one.
std::optional<std::string> behindLinks(const std::string& path);
// Whether somebody records into the file: it would go on in a file without a name.
bool isLocked(const std::string& path);
// Why the file cannot be written; 0 when it can.
[[nodiscard]] int mayWrite(const std::string& path);
[[nodiscard]] int fillWithRandom(WritableBytes bytes);

enum class FileUse : std::uint8_t {
  Read,           // what exists, pipes included
  Write,          // what exists, left as it is
  Replace,        // for writing from the start of what exists; a file is emptied
  Create,         // a new file that others may use as usual
  CreatePrivate,  // one that only its owner may
};
// `descriptor` is not inherited by other programs.
[[nodiscard]] int openFile(const std::string& path, FileUse use, int& descriptor);
// Gives the file its permissions, unless they are -1, and has its bytes on the disk.
[[nodiscard]] int completeFile(int descriptor, int permissions);
[[nodiscard]] int closeFile(int descriptor);
enum class Taken : std::uint8_t { Replace, Keep };
// Takes the name `to` from whatever has it, at once; or EEXIST, where that is to keep it.
[[nodiscard]] int renameFile(const std::string& from, const std::string& to, Taken taken);
void removeFile(const std::string& path);
// Makes the folder and those that it lies in, where they are missing.
[[nodiscard]] int makeFolders(const std::string& path);
// The names of what lies in the folder, as far as they can be read.
[[nodiscard]] std::vector<std::string> namesIn(const std::string& folder);
// Has the names in a folder on the disk. A folder that cannot be read, or of a system that does not
// know this, is left to the system.
[[nodiscard]] int flushFolder(const std::string& folder);

// ---------------------------------------------------------------------------------------------
// Memory, errors, processes, time

// Has memory at hand that will be written to, without changing what is in it. False where the
// system does not do that.
[[nodiscard]] bool populateMemory(WritableBytes bytes);

// What an error number means, in the system's words.
std::string systemErrorText(int error);

// The current time in 100-nanosecond ticks since 1970-01-01 00:00 UTC.
std::uint64_t systemTicks();

// Changes in a child process (fork), where none of the parent's other threads exists.
unsigned processGeneration();

// Milliseconds of a monotonic clock.
std::uint64_t steadyMilliseconds();

// Seconds to add to local standard time to get UTC; 0 when unknown.
long timeZoneSeconds();

}  // namespace tolvex
