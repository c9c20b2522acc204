// A recording that is open, for a reader of the plain functions and the streams made of it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/base/Mutex.h"
#include "Mdf4/plain/Plain.h"
#include "tolvex/MdfColumnReader.h"

namespace tolvex::plain {

// Shared by those that read it, which may be on threads of their own: they take turns.
class OpenRecording {
 public:
  explicit OpenRecording(std::vector<std::string> paths) : reader_(std::move(paths)) {}

  // Before it is shared. False with the reason in `error`.
  [[nodiscard]] bool open(std::string& error) {
    const MutexLock lock(mutex_);
    if (reader_.open()) return true;
    error = reader_.error();
    return false;
  }

  // What never changes while it is open.
  const MdfRecordingInfo& info() const TOLVEX_NOT_ANALYSED { return reader_.info(); }
  const std::vector<MdfColumnGroup>& groups() const TOLVEX_NOT_ANALYSED { return reader_.groups(); }

  // Calls `work` with the reader, when it is its turn.
  template <class Work>
  auto with(Work work) {
    const MutexLock lock(mutex_);
    return work(reader_);
  }

 private:
  Mutex mutex_;
  MdfColumnReader reader_ TOLVEX_GUARDED_BY(mutex_);
};

// Columns of channels that there are.
tolvex_status readColumns(OpenRecording& recording, LastError& error, std::int32_t group,
                          const std::vector<std::int32_t>& channels, std::uint64_t first,
                          std::uint64_t count, const MdfReadOptions& options,
                          std::vector<MdfColumn>& columns);

// False when the struct does not say its size.
[[nodiscard]] bool takeReadOptions(const tolvex_read_options* options, MdfReadOptions& taken);

// Null, with the reader's error, when there is no such group or channel.
const MdfColumnGroup* groupOf(tolvex_reader& reader, std::int32_t group);
const MdfColumnChannel* channelOf(tolvex_reader& reader, std::int32_t group, std::int32_t channel);

// Bytes of a number or code of the type; 0: others.
std::uint32_t widthOf(MdfColumnType type);

}  // namespace tolvex::plain

struct tolvex_reader {
  std::shared_ptr<tolvex::plain::OpenRecording> recording;  // null: none is open
  tolvex::plain::LastError error;
  tolvex::plain::TextList problems;
  tolvex::plain::TextList notices;
};
