// The check of records: that they are whole and as many as their groups state.
#pragma once

#include <array>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "Mdf4/check/BlockReader.h"
#include "Mdf4/check/RecordWatch.h"
#include "Mdf4/check/TreeCheck.h"

namespace tolvex {

// The records of a data group with one channel group, back to back.
class SortedRecordCheck final : public ByteSink {
 public:
  // In column storage records have their data bytes only.
  SortedRecordCheck(BlockCheck& walk, const CheckedGroup& group,
                    const std::vector<CheckedValues*>& values, bool columns);

  bool wantsBytes() const override { return watch_.looksAtBytes() && recordSize_ != 0; }
  void begin(const StoredPart& part) override { moves_ = !part.zip; }
  void bytes(ByteSpan piece, std::uint64_t position) override;
  void skip(std::uint64_t length) override;
  void end(bool complete) override;

 private:
  BlockCheck& walk_;
  const CheckedGroup& group_;
  const std::uint64_t recordSize_;
  RecordWatch watch_;
  std::uint64_t total_ = 0;     // bytes
  std::uint64_t inRecord_ = 0;  // bytes of the record that has begun
  std::uint64_t recordPosition_ = 0;
  bool hasHole_ = false;  // in that record
  bool moves_ = true;     // positions go on with the bytes
};

// The records of several channel groups, told apart by the ids in front of them; those of groups of
// variable-length signal data state their length.
class UnsortedRecordCheck final : public ByteSink {
 public:
  // `values` has an entry for each group, as RecordWatch has it.
  UnsortedRecordCheck(BlockCheck& walk, const CheckedDataGroup& group,
                      const std::vector<std::vector<CheckedValues*>>& values);

  bool wantsBytes() const override { return true; }
  void begin(const StoredPart& part) override { moves_ = !part.zip; }
  void bytes(ByteSpan piece, std::uint64_t position) override;
  void skip(std::uint64_t length) override { lost_ |= length != 0; }
  void end(bool complete) override;

 private:
  enum class Awaited : std::uint8_t { Id, Length, Body };

  struct Group {
    const CheckedGroup* group;
    RecordWatch watch;
    std::uint64_t valueBytes = 0;  // without their lengths
  };

  std::size_t take(ByteSpan piece, std::uint64_t position);
  bool gather(ByteSpan piece, std::size_t size, std::size_t& used);
  void beginRecord();
  void beginBody(std::uint64_t size);
  void checkCounts(const Group& group);

  BlockCheck& walk_;
  const std::size_t idSize_;
  std::vector<Group> groups_;
  std::unordered_map<std::uint64_t, std::size_t> byId_;
  Awaited awaited_ = Awaited::Id;
  std::array<std::uint8_t, 8> head_ = {};  // an id or a length, as far as it came
  std::size_t headSize_ = 0;
  std::size_t current_ = 0;  // group of the record
  std::uint64_t bodySize_ = 0;
  std::uint64_t bodyLeft_ = 0;
  std::uint64_t recordPosition_ = 0;
  bool moves_ = true;
  bool lost_ = false;  // where the next record begins is not known
};

// The records of a sample reduction: only their number is checked.
class ReductionRecords final : public ByteSink {
 public:
  ReductionRecords(BlockCheck& walk, const CheckedReduction& reduction)
      : walk_(walk), reduction_(reduction) {}

  void skip(std::uint64_t length) override { total_ += length; }
  void end(bool complete) override;

 private:
  BlockCheck& walk_;
  const CheckedReduction& reduction_;
  std::uint64_t total_ = 0;
};

}  // namespace tolvex
