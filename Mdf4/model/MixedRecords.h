// Records of several groups in one sequence: an unsorted data group.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "Mdf4/format/m4DataStream.h"
#include "Mdf4/model/RecordBatches.h"
#include "Mdf4/model/ValueSource.h"

namespace tolvex {

// One channel group of an unsorted data group.
struct MixedGroup {
  std::uint64_t recordId = 0;
  std::uint64_t recordSize = 0;  // bytes behind the id
  bool holdsValues = false;      // records are values: a 32-bit length and so many bytes
};

// What is known of the sequence so far: where every so manieth record of each group is. Grows while
// whoever goes along the sequence gets further than anyone before. Borrows the file.
class MixedRecords {
 public:
  // Of groups that each have a record id of their own, of 1, 2, 4 or 8 bytes.
  MixedRecords(DirectFile& file, std::shared_ptr<SegmentTable> table, std::uint8_t recordIdSize,
               std::vector<MixedGroup> groups);

  // Where a record is.
  struct Mark {
    std::uint64_t position = 0;  // in the sequence
    std::uint64_t value = 0;     // of a value: its offset among them
  };

  // Goes along the records of one group.
  class Walk {
   public:
    Walk(MixedRecords& records, std::size_t group);

    // Some way towards the record, or the value with that offset, and not behind it.
    void seekRecord(std::uint64_t number);
    void seekValue(std::uint64_t offset);
    // The next record without its id, of a value with its length, or no bytes of it when it is not
    // wanted; nothing at the end, where it cannot be read, and where no record begins. It lasts
    // until the next call.
    std::optional<ByteSpan> next(bool isWanted = true);
    // Of the record that comes next.
    std::uint64_t number() const { return number_; }
    std::uint64_t valueOffset() const { return value_; }

   private:
    void begin(const Mark& mark, std::uint64_t number);
    const std::vector<Mark>& makeFine(std::size_t mark) const;
    const std::uint8_t* look(std::uint64_t bytes);

    MixedRecords& records_;
    const std::size_t group_;
    m4DataStream stream_;
    ByteSpan view_ = {};          // of the sequence, from position_ on
    std::uint64_t position_ = 0;  // of the next record
    std::uint64_t number_ = 0;
    std::uint64_t value_ = 0;
    bool isNew_ = true;  // it has not looked for a value yet
  };

  const std::vector<MixedGroup>& groups() const { return groups_; }
  // The records of a group: goes along the whole sequence the first time.
  std::uint64_t count(std::size_t group);
  std::uint64_t size() const;  // bytes of the whole sequence
  // Reports that a record names a value, by its offset or number, that is not there.
  void reportMissing(std::uint64_t value, bool isNumber);

 private:
  static constexpr std::uint64_t kStride = 4096;  // records
  static constexpr std::uint64_t kFineStride = 64;
  static constexpr std::size_t kMostFine = 256;  // strides of a group: 256 KiB

  struct Known {
    std::vector<Mark> marks;  // of every record whose number is a multiple of kStride
    // From some of those marks on: of every record whose number is a multiple of kFineStride.
    std::unordered_map<std::size_t, std::vector<Mark>> fine;
    std::size_t begunAt = ~std::size_t{0};  // the mark where somebody began last, to find a value
    std::uint64_t records = 0;
    std::uint64_t valueBytes = 0;
  };

  void note(std::size_t group, std::uint64_t position, std::uint64_t size);
  void noteEnd(std::uint64_t position);

  DirectFile& file_;
  std::shared_ptr<SegmentTable> table_;
  const std::uint8_t idSize_;
  std::vector<MixedGroup> groups_;
  std::unordered_map<std::uint64_t, std::size_t> byId_;
  std::vector<Known> known_;     // by group
  std::uint64_t knownUpTo_ = 0;  // in the sequence
  bool complete_ = false;
};

// The records of one of its groups.
class MixedBatches final : public RecordBatches {
 public:
  MixedBatches(std::shared_ptr<MixedRecords> records, std::size_t group);

  std::uint64_t count() override { return records_->count(group_); }
  void seek(std::uint64_t record) override;
  RecordBatch next(std::uint64_t most) override;

 private:
  std::shared_ptr<MixedRecords> records_;
  const std::size_t group_;
  MixedRecords::Walk walk_;
  std::vector<std::uint8_t> gathered_;
};

// The values of one of its groups, by their offsets, or by their numbers when no logger came to
// write these.
class MixedValues final : public ValueSource {
 public:
  MixedValues(std::shared_ptr<MixedRecords> records, std::size_t group, bool byOrder);

  [[nodiscard]] bool read(std::uint64_t offset, std::vector<std::uint8_t>& out) override;
  std::uint64_t size() const override { return records_->size(); }
  bool isByOrder() const override { return byOrder_; }

 private:
  std::shared_ptr<MixedRecords> records_;
  MixedRecords::Walk walk_;
  const bool byOrder_;
};

}  // namespace tolvex
