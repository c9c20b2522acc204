// A new file that takes a name which may be taken.
#pragma once

#include <string>

#include "Mdf4/base/System.h"

namespace tolvex {

// A result that stands under its name only when it is whole: until then, whatever stood there
// stays.
//
// The bytes go into a new file in the same folder, whose name nobody can foresee and which goes
// with the object unless it was published. A device, a pipe or an open file under /proc is written
// directly. Symbolic links are followed, as in any other writing. Not synchronised.
class ResultFile {
 public:
  ResultFile() = default;
  ResultFile(const ResultFile&) = delete;
  ResultFile& operator=(const ResultFile&) = delete;
  ~ResultFile() { discard(); }

  // Whether there is a file that a result of that name would take the place of.
  static bool wouldReplace(const std::string& path);
  // Before open: a file that has the name when the result is published, keeps it, and that fails.
  void keepExisting() { taken_ = Taken::Keep; }

  // Once for each object. False when there cannot be such a file, or the name is that of a running
  // recording. The result gets the permissions of the file `model`; without one, those
  // of the file that it replaces, or those that the umask leaves a new one. Until it is published
  // nobody else can read a result whose permissions are such a file's.
  [[nodiscard]] bool open(const std::string& path, const std::string& model = {});
  // For writing; owned by this object.
  int descriptor() const { return descriptor_; }
  // Where the bytes are for now.
  const std::string& currentPath() const { return temporary_.empty() ? path_ : temporary_; }

  // Has all bytes on the disk and closes the file, which may still be published or discarded.
  [[nodiscard]] bool close();
  // Closes, gives the file its name and has that on the disk.
  [[nodiscard]] bool publish();
  // Removes what was not published.
  void discard();
  // Why the first call that failed did so, in the system's words; those that follow fail as well.
  const std::string& error() const { return error_; }

 private:
  [[nodiscard]] bool openDirectly();
  bool fail(int error);
  bool fail(std::string error);

  std::string path_;       // of the result
  std::string temporary_;  // what is to take its place; "" when it is written directly or published
  Taken taken_ = Taken::Replace;
  int descriptor_ = -1;
  int permissions_ = -1;  // to be given at the end; -1: it has them
  std::string error_;
};

}  // namespace tolvex
