// Takes apart the records of several groups that lie in one sequence.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <unordered_map>
#include <vector>

#include "Mdf4/format/BlockBytes.h"
#include "Mdf4/rewrite/DataWriter.h"
#include "Mdf4/rewrite/FoundData.h"
#include "Mdf4/rewrite/RecordValues.h"
#include "Mdf4/rewrite/SourceGroup.h"

namespace tolvex {

// One group's part of an unsorted sequence: where its records go, and those that wait for a value.
//
// A variable-length value is a record of a group of its own, usually next to the record that names
// it by its offset among the values. A record goes on when all its values are there; they get
// offsets of their own. Borrows everything.
class SplitGroup {
 public:
  // With `byOrder` the offsets in the records are not to be trusted: the first record has the first
  // value, and so on.
  SplitGroup(SourceGroup& group, DataWriter& records, RecordValues& values, bool byOrder,
             const WorkSizes& sizes);

  SourceGroup& source() { return group_; }
  // The channel's values come as records.
  void expectValues(std::size_t channel) { channels_[channel].expected = true; }
  [[nodiscard]] bool takeRecord(const std::uint8_t* record);
  // A value with its length in front.
  [[nodiscard]] bool takeValue(std::size_t channel, ByteSpan value);
  // How records with their values behind them lie in the sequence.
  struct PairLayout {
    std::uint64_t idSize;
    std::uint64_t idMask;
    std::uint64_t recordId;
    std::uint64_t valueId;
    std::size_t channel;
  };
  // Takes as many such pairs from the front of `bytes` as follow one another and belong together.
  // Returns the bytes taken; `written` becomes false when a write fails.
  [[nodiscard]] std::uint64_t takePairs(const PairLayout& layout, ByteSpan bytes, bool& written);
  // Bytes are missing here, in the sequence of all groups: what waits goes without its values.
  [[nodiscard]] bool breakOff();

 private:
  struct Placed {
    std::uint64_t key;  // by which records name it
    std::uint64_t offset;
  };
  // A value behind missing bytes, whose key the next record will tell.
  struct Orphan {
    std::uint64_t offset;
    std::uint64_t step;
  };
  struct Channel {
    bool expected = false;
    bool inStep = true;            // nextKey is known
    bool valueFirst = false;       // a value stands in front of its record
    std::uint64_t nextKey = 0;     // of the next value
    std::uint64_t nextRecord = 0;  // by order: of the next record
    std::deque<Placed> recent = {};
    std::optional<Orphan> orphan = std::nullopt;
  };
  struct Waiting {
    std::vector<std::uint8_t> record;
    std::uint64_t channels = 0;  // a bit for each whose value is not there yet
  };

  [[nodiscard]] bool forward(std::vector<std::uint8_t>& record);
  [[nodiscard]] bool forwardReady();
  [[nodiscard]] bool giveUpFirst();

  SourceGroup& group_;
  DataWriter& records_;
  RecordValues& values_;
  const bool byOrder_;
  const WorkSizes sizes_;
  std::vector<Channel> channels_;
  std::deque<Waiting> waiting_;
};

// Borrows everything.
class UnsortedRecords {
 public:
  using Done = std::function<void(std::uint64_t bytes)>;

  UnsortedRecords(DirectFile& in, std::uint8_t recordIdSize, const WorkSizes& sizes);

  void addGroup(SplitGroup& group);
  // The group of the values that belong to the channel; without a group to none.
  void addValues(const SourceGroup& values, SplitGroup* group, std::size_t channel);
  // Whether the run begins with records of these groups; looks, and copies nothing.
  [[nodiscard]] bool startsAsSequence(const FoundData& run);
  // False when a write fails. Losses that belong to no group are noted in `report`.
  [[nodiscard]] bool copy(const FoundData& run, MdfRecoveryReport& report, const Done& done);

 private:
  struct Kind {
    std::uint64_t size = 0;  // behind the record id; of values the bytes of their length
    bool isValue = false;
    SplitGroup* group = nullptr;  // null: values that no channel has
    std::size_t channel = 0;
  };
  enum class Found : std::uint8_t { Record, Unknown, Incomplete };

  void addKind(std::uint64_t id, const Kind& kind);
  const Kind* kindAt(std::uint64_t at);
  [[nodiscard]] bool fill(std::uint64_t bytes);
  void nextBlock();
  void endPart();
  Found probe(std::uint64_t at, std::uint64_t& size);
  bool isSequence(std::uint64_t at);
  std::uint64_t findSequence(std::uint64_t from);
  bool mayBeRecord(std::uint64_t at, std::uint64_t size);
  [[nodiscard]] bool take(std::uint64_t size);
  [[nodiscard]] bool takePairs(std::uint64_t firstSize);
  [[nodiscard]] bool leaveOut(std::uint64_t bytes, MdfRecoveryReport& report);
  [[nodiscard]] bool breakOff();
  [[nodiscard]] bool copyPart(MdfRecoveryReport& report);

  DirectFile& in_;
  const std::uint8_t idSize_;
  const std::uint64_t idMask_;
  const WorkSizes sizes_;
  std::unordered_map<std::uint64_t, Kind> kinds_;  // by record id
  std::array<const Kind*, 256> usual_ = {};        // those of the smallest ids
  std::vector<SplitGroup*> groups_;

  // The part of the sequence up to where bytes are missing. Distances count from at_.
  std::optional<FoundBlocks> blocks_;
  std::optional<BlockBytes> block_;
  bool blockCut_ = false;
  std::uint64_t lastPosition_ = 0;  // of the block reached last
  std::uint64_t unreadable_ = 0;    // bytes of it that end the part; 0: it ends otherwise
  bool partEnds_ = false;           // nothing more can be read into the window
  bool ended_ = false;              // and no other part follows
  std::vector<std::uint8_t> window_;
  std::uint64_t at_ = 0;
  std::uint64_t windowEnd_ = 0;
  Done done_;
};

}  // namespace tolvex
