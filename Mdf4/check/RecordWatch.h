// What a check looks at in records: their times, and the values that they point at.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "Mdf4/base/BitField.h"
#include "Mdf4/check/BlockReader.h"
#include "Mdf4/check/TreeCheck.h"
#include "Mdf4/model/ValueStarts.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

// The values of variable-length channels, as their blocks come: a length and so many bytes each.
class CheckedValues final : public ByteSink {
 public:
  CheckedValues(BlockCheck& walk, BlockReader& delivery) : walk_(walk), delivery_(delivery) {}

  bool wantsBytes() const override { return true; }
  void begin(const StoredPart& part) override;
  void bytes(ByteSpan piece, std::uint64_t /*position*/) override { starts_.take(piece); }
  void skip(std::uint64_t length) override {
    if (length != 0) starts_.breakOff();
  }
  void end(bool complete) override;
  std::uint64_t size() const { return size_; }
  // Whether a value stands there, as far as that can be told: not in a damaged block.
  bool holdsValue(std::uint64_t offset);

 private:
  struct Part {
    std::uint64_t start;
    StoredPart part;
  };
  enum class Prefix : std::uint8_t { Read, Unknown };

  const Part& partAt(std::uint64_t offset);
  Prefix readPrefix(std::uint64_t offset, std::uint32_t& length);
  bool inflate(const Part& part);

  BlockCheck& walk_;
  BlockReader& delivery_;
  std::vector<Part> parts_;  // none empty
  ValueStarts starts_;
  std::uint64_t size_ = 0;
  std::size_t last_ = 0;                           // of parts_, looked at last
  std::uint64_t inflatedAt_ = 0;                   // position of the part that was inflated last
  std::shared_ptr<const InflatedBlock> inflated_;  // null: it could not be
};

// Looks at the records of one channel group. Of a record that comes in pieces, it keeps the bytes
// that it looks at.
class RecordWatch {
 public:
  // `values` has an entry for each of the group's variable-length channels; null: not looked at.
  RecordWatch(BlockCheck& walk, const CheckedGroup& group,
              const std::vector<CheckedValues*>& values, bool withInvalidation);

  bool looksAtBytes() const { return time_.has_value() || !values_.empty(); }
  std::uint64_t records() const { return records_; }

  // The next record, whole.
  void check(const std::uint8_t* record, std::uint64_t position) {
    look({record, false}, position);
    ++records_;
  }
  // A piece of the next record, and its end.
  void keep(ByteSpan piece, std::uint64_t offset);
  void checkKept(std::uint64_t position) {
    look({kept_.data(), true}, position);
    ++records_;
  }
  // Records that nobody can look at.
  void pass(std::uint64_t records) { records_ += records; }
  // `valueBytes` by position of their channel groups: of values that stand among the records.
  void end(const std::unordered_map<std::uint64_t, std::uint64_t>& valueBytes);

 private:
  struct Field {
    std::uint64_t offset = 0;  // in a record
    std::uint32_t length = 0;
    std::uint32_t keptAt = 0;
  };
  struct View {
    const std::uint8_t* bytes;
    bool kept;
    const std::uint8_t* at(const Field& field) const {
      return bytes + (kept ? field.keptAt : field.offset);
    }
  };
  struct Time {
    Field field;
    MdfSigCCInfo channel;
    bool plain = false;  // a float64 as it stands
    double summand = 0;  // of the conversion
    double factor = 1;
    double last = -std::numeric_limits<double>::infinity();
    std::uint64_t notRising = 0;
    std::uint64_t firstPosition = 0;
    std::uint64_t firstRecord = 0;
    double firstBefore = 0;
    double firstTime = 0;
  };
  struct Value {
    Field field;
    BitField offset;  // in the field's bytes
    std::optional<Field> invalid;
    std::uint8_t invalidMask = 0;
    CheckedValues* data = nullptr;
    std::uint64_t group = 0;  // where the values stand among the records, when there is no data
    std::uint64_t block = 0;  // of the channel
    std::uint64_t wrong = 0;
    std::uint64_t greatest = 0;  // offset, of those into a group
    std::uint64_t greatestPosition = 0;
  };

  Field field(std::uint64_t offset, std::uint32_t length);
  void watchTime(const WatchedChannel& channel);
  void watchValue(const WatchedChannel& channel, CheckedValues* data, bool withInvalidation);
  void look(View record, std::uint64_t position);
  void lookAtTime(double stored, std::uint64_t position);
  void lookAtValue(Value& value, View record, std::uint64_t position);

  BlockCheck& walk_;
  const std::uint64_t dataBytes_;
  const std::uint64_t recordSize_;
  std::uint64_t records_ = 0;
  std::optional<Time> time_;
  std::vector<Value> values_;
  std::vector<std::uint8_t> kept_;
};

}  // namespace tolvex
