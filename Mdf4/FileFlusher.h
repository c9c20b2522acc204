// Recordings that reach the disk while they are written.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Mdf4/WorkerThread.h"
#include "Mdf4/base/Mutex.h"
#include "Mdf4/base/System.h"

namespace tolvex {

// Flushes files on a thread of its own, so that those who write and close them never wait for it.
// For one thread at a time, but for error. Outlives its files.
class FileFlusher {
 public:
  FileFlusher() = default;
  FileFlusher(const FileFlusher&) = delete;
  FileFlusher& operator=(const FileFlusher&) = delete;
  ~FileFlusher() { finish(); }

  // A file to write to in place of `file`, which is flushed after every `period` in which it was
  // written to. Closing it returns at once; it is closed once all of it is on the disk. Throws
  // std::system_error when there can be no thread.
  [[nodiscard]] std::unique_ptr<SystemFile> watch(std::unique_ptr<SystemFile> file,
                                                  const std::string& path,
                                                  std::chrono::milliseconds period);
  // Waits until all files are on the disk. Each of them is to be closed before.
  void finish();
  // The first time that a flush, or the closing, failed: of which file and why. "" when none did.
  std::string error() const;

 private:
  struct Watched {
    std::unique_ptr<SystemFile> file;
    std::string path;
    std::atomic<bool> written = true;  // since the last flush began
    std::atomic<bool> closed = false;
  };
  class FlushedFile;
  struct State {
    Mutex mutex;
    Condition condition;
    std::vector<std::shared_ptr<Watched>> files TOLVEX_GUARDED_BY(mutex);
    std::chrono::milliseconds period TOLVEX_GUARDED_BY(mutex){};
    bool hasClosed TOLVEX_GUARDED_BY(mutex) = false;  // a file that is still to be flushed
    bool ending TOLVEX_GUARDED_BY(mutex) = false;
    std::string error TOLVEX_GUARDED_BY(mutex);
    std::thread thread;
  };

  void run();
  [[nodiscard]] static std::string flush(Watched& watched, bool close);

  ThreadState<State> state_;
};

}  // namespace tolvex
