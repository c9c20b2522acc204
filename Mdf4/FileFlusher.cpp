#include "Mdf4/FileFlusher.h"

#include <utility>

#include "Mdf4/base/Diagnostics.h"

namespace tolvex {

class FileFlusher::FlushedFile final : public SystemFile {
 public:
  FlushedFile(FileFlusher& flusher, std::shared_ptr<Watched> watched)
      : flusher_(flusher), watched_(std::move(watched)) {}
  FlushedFile(const FlushedFile&) = delete;
  FlushedFile& operator=(const FlushedFile&) = delete;
  ~FlushedFile() override { FlushedFile::close(); }

  bool size(std::uint64_t& bytes) override { return watched_->file->size(bytes); }
  ReadResult read(std::uint64_t position, std::span<const WritableBytes> pieces) override {
    return watched_->file->read(position, pieces);
  }
  bool write(std::uint64_t position, std::span<const ByteSpan> pieces) override {
    const bool written = watched_->file->write(position, pieces);
    watched_->written = true;
    return written;
  }
  std::string flush() override { return watched_->file->flush(); }
  bool close() override {
    if (watched_->closed.exchange(true) || flusher_.state_.inherited()) return true;
    State& state = *flusher_.state_;
    {
      const MutexLock lock(state.mutex);
      state.hasClosed = true;
    }
    state.condition.notifyAll();
    return true;
  }
  std::string error() const override { return watched_->file->error(); }

 private:
  FileFlusher& flusher_;
  const std::shared_ptr<Watched> watched_;
};

std::unique_ptr<SystemFile> FileFlusher::watch(std::unique_ptr<SystemFile> file,
                                               const std::string& path,
                                               std::chrono::milliseconds period) {
  auto watched = std::make_shared<Watched>();
  watched->file = std::move(file);
  watched->path = path;
  auto flushed = std::make_unique<FlushedFile>(*this, watched);
  State& state = *state_;
  const MutexLock lock(state.mutex);
  if (!state.thread.joinable()) {
    state.ending = false;
    state.error.clear();
    state.thread = std::thread([this] { run(); });
  }
  state.period = period;
  state.files.push_back(std::move(watched));
  return flushed;
}

void FileFlusher::finish() {
  if (state_.inherited()) return;
  State& state = *state_;
  {
    const MutexLock lock(state.mutex);
    state.ending = true;
  }
  state.condition.notifyAll();
  if (state.thread.joinable()) state.thread.join();
}

std::string FileFlusher::error() const {
  if (state_.inherited()) return "";
  const MutexLock lock(state_->mutex);
  return state_->error;
}

void FileFlusher::run() {
  State& state = *state_;
  MutexLock lock(state.mutex);
  while (!state.ending || !state.files.empty()) {
    const auto end = std::chrono::steady_clock::now() + state.period;
    while (!state.hasClosed && (!state.ending || !state.files.empty()) &&
           state.condition.waitUntil(state.mutex, end)) {
    }
    state.hasClosed = false;
    for (std::size_t i = 0; i < state.files.size();) {
      const std::shared_ptr<Watched> watched = state.files[i];
      const bool last = watched->closed;
      lock.unlock();
      std::string error;
      noteFirst(error, [&] { return flush(*watched, last); });
      lock.lock();
      if (state.error.empty()) state.error = std::move(error);
      if (last) {
        state.files.erase(state.files.begin() + static_cast<std::ptrdiff_t>(i));
      } else {
        ++i;
      }
    }
  }
}

// What went wrong.
std::string FileFlusher::flush(Watched& watched, bool close) {
  std::string error;
  if (watched.written.exchange(false)) error = watched.file->flush();
  if (!error.empty()) error = "flushing to the disk failed: " + error;
  if (close && !watched.file->close() && error.empty()) {
    error = "closing the file failed: " + watched.file->error();
  }
  return error.empty() ? error : watched.path + ": " + error;
}

}  // namespace tolvex
