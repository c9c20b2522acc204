// Short recordings of everything at once, for tests that end them at any moment, and what must come
// back of them.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Mdf4/MdfRecorder.h"
#include "tests/support/FileBuilder.h"

namespace tolvex::test {

// Is told of each write that the system took, with the number of its file in the recording.
using OnWrite =
    std::function<void(std::size_t file, std::uint64_t position, std::span<const ByteSpan> pieces)>;
FileOpener observed(FileOpener inner, OnWrite onWrite);

// Two groups of signals, data frames on two channels in both directions, error frames of both
// kinds; on the caller's thread or on one of its own, in one file or several, in bursts and with
// pauses, after which lists are written. All that follows from the seed. No two records are alike.
class MixedRecording {
 public:
  explicit MixedRecording(std::uint32_t seed);

  std::string description() const;
  // Records it all into files that `open` opens. Shared settings are as before afterwards.
  void run(const std::string& path, const FileOpener& open) const;

 private:
  enum Source : std::uint8_t { kSignals, kOtherSignals, kFrames, kErrors, kFdErrors };
  struct Step {
    Source source;
    std::uint8_t channel;  // of the bus
    bool direction;
    bool pause;
    std::uint64_t time;  // microseconds since the start
  };

  void record(MdfRecorder& recorder) const;

  std::uint32_t seed_;
  bool async_;
  std::uint64_t splitSize_;
  int payloadSize_;
  std::array<std::uint32_t, 2> signalBytes_;  // of the groups of signals
  std::vector<Step> steps_;
};

struct LoggedWrite {
  std::size_t file;
  std::uint64_t position;
  Bytes bytes;

  bool isA(std::string_view type) const;  // whether it writes the start of such a block
};

// All writes of a recording that nothing ends early.
std::vector<LoggedWrite> logOf(const MixedRecording& recording);

// A place in a file where the system took a block of records.
struct TakenBlock {
  std::uint64_t position;
  std::uint64_t size;
};

// Holds what comes back of a recording against what it would have been in the end.
class RecoveryCheck {
 public:
  explicit RecoveryCheck(const std::vector<LoggedWrite>& log);

  // What else than records without a gap, none of which was never recorded, is no fault.
  enum class Allowed : std::uint8_t {
    Nothing,
    DamagedBlocks,  // which may give records that never were
    LostPages       // gaps, and zeros at the end of a block's last record, which may be its own
  };
  // Recovers a file of the recording. "" when the result is sound, has the records of all `taken`
  // blocks, none of them twice, each in its group and in order; else what is wrong.
  std::string faults(const std::string& input, const std::vector<TakenBlock>& taken,
                     Allowed allowed) const;

 private:
  struct Place {
    std::size_t group;
    std::size_t number;
    bool endsBlock;
  };

  const Place* placeOf(const Bytes& bytes) const;
  bool endsABlock(const Bytes& record) const;

  std::map<std::string, Place> places_;   // by a record's bytes
  std::vector<std::size_t> recordSizes_;  // of each group
  std::vector<std::set<std::string>> channels_;
};

}  // namespace tolvex::test
