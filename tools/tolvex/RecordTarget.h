// The files that a recording goes into: what may be overwritten, and what was written.
#pragma once

#include <string>

#include "Command.h"

namespace tolvex {

// Guards the path of a new measurement file and, for a recording that is split, of those that
// follow it: NAME_1.EXT, NAME_2.EXT, ... behind NAME.EXT.
class RecordTarget {
 public:
  explicit RecordTarget(std::string path) : path_(std::move(path)) {}

  struct Rules {
    bool overwrite = false;  // existing files
    bool split = false;      // others follow
    int input = -1;          // the descriptor of the file that is never overwritten
  };
  // Creates the file when there is none, so that a path that cannot be written shows at once. An
  // existing one stays as it is until recording begins. kDone, or the exit code, said why.
  ExitCode claim(const Rules& rules);
  // Removes the file if claim made it, unless another recording has begun in it. For a recording
  // that never began.
  void abandon();

  // The number of files that the finished recording went into. Says so when files of an earlier one
  // follow these.
  unsigned finish() const;
  const std::string& path() const { return path_; }

 private:
  ExitCode claimFollowing(const Rules& rules) const;

  std::string path_;
  bool created_ = false;
  bool split_ = false;
};

// Whether the files that follow `path` when it is split can be named: the number goes before the
// extension of the last part of the path.
bool canBeSplit(const std::string& path);

}  // namespace tolvex
