#include "Mdf4/check/RecordWatch.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstring>
#include <iterator>

#include "Mdf4/base/Diagnostics.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kFoundOneByOne = 3;  // wrong offsets of a channel

std::uint32_t bytesOf(std::uint32_t bitOffset, std::uint32_t bits) {
  return bitOffset / 8 + (bitOffset % 8 + bits + 7) / 8;
}

// A linear conversion; none when there is another one.
struct Linear {
  double summand = 0;
  double factor = 1;
};
std::optional<Linear> conversionAt(BlockCheck& walk, const BlockLink& link) {
  Linear linear;
  if (link.target == 0) return linear;
  const BlockScan scan = scanBlock(walk.file(), link.target);
  m4CCRecord record;
  if (!scan.sound() || scan.header.type != block_type::kCC ||
      !walk.read(scan.dataPosition(), sizeof record, &record)) {
    return std::nullopt;
  }
  if (record.cc_type == conversion_type::kIdentity) return linear;
  if (record.cc_type != conversion_type::kLinear ||
      scan.dataBytes < sizeof record + sizeof linear ||
      !walk.read(scan.dataPosition() + sizeof record, sizeof linear, &linear)) {
    return std::nullopt;
  }
  return linear;
}

}  // namespace

void CheckedValues::begin(const StoredPart& part) {
  if (part.length != 0) parts_.push_back({size_, part});
  size_ += part.length;
}

bool CheckedValues::holdsValue(std::uint64_t offset) {
  if (offset > size_ || size_ - offset < kValuePrefix) return walk_.announced(Unfinished::LastList);
  if (starts_.broken() && offset >= starts_.end()) {
    std::uint32_t length = 0;
    return readPrefix(offset, length) == Prefix::Unknown || length <= size_ - offset - kValuePrefix;
  }
  return starts_.mayStart(offset, [this](std::uint64_t at, std::uint32_t& length) {
    return readPrefix(at, length) == Prefix::Read;
  });
}

void CheckedValues::end(bool complete) {
  if (!complete) starts_.breakOff();
  if (starts_.broken() || starts_.rest() == 0) return;
  const Part& part = partAt(starts_.end());
  walk_.findings().error(
      part.part.position + (part.part.zip ? 0 : starts_.end() - part.start),
      fieldName(block_type::kSD, "values"), "whole values, each a length and so many bytes",
      formatText("one of %" PRIu64 " bytes that the data end in", starts_.rest()));
}

const CheckedValues::Part& CheckedValues::partAt(std::uint64_t offset) {
  const auto holds = [&](std::size_t index) {
    return index < parts_.size() && offset >= parts_[index].start &&
           offset - parts_[index].start < parts_[index].part.length;
  };
  if (holds(last_)) return parts_[last_];
  if (holds(last_ + 1)) return parts_[++last_];
  const auto after =
      std::ranges::upper_bound(parts_, offset, {}, [](const Part& part) { return part.start; });
  last_ = static_cast<std::size_t>(std::distance(parts_.begin(), after)) - 1;
  return parts_[last_];
}

CheckedValues::Prefix CheckedValues::readPrefix(std::uint64_t offset, std::uint32_t& length) {
  std::uint8_t bytes[kValuePrefix] = {};
  for (std::uint64_t done = 0; done < kValuePrefix;) {
    const Part& part = partAt(offset + done);
    const std::uint64_t at = offset + done - part.start;
    const std::uint64_t count = std::min(kValuePrefix - done, part.part.length - at);
    if (part.part.zip) {
      if (!inflate(part)) return Prefix::Unknown;
      std::memcpy(bytes + done, inflated_->bytes.data() + at, inMemory(count));
    } else if (!walk_.read(part.part.position + at, count, bytes + done)) {
      return Prefix::Unknown;
    }
    done += count;
  }
  std::memcpy(&length, bytes, sizeof length);
  return Prefix::Read;
}

bool CheckedValues::inflate(const Part& part) {
  if (inflatedAt_ != part.part.position) {
    inflatedAt_ = part.part.position;
    inflated_ = delivery_.inflate(part.part);
  }
  return inflated_ != nullptr;
}

RecordWatch::RecordWatch(BlockCheck& walk, const CheckedGroup& group,
                         const std::vector<CheckedValues*>& values, bool withInvalidation)
    : walk_(walk),
      dataBytes_(group.record.cg_data_bytes),
      recordSize_(withInvalidation ? group.recordSize() : dataBytes_) {
  if (group.time) watchTime(*group.time);
  for (std::size_t i = 0; i < group.values.size(); ++i) {
    if (walk.announced(Unfinished::ValueOffsets)) break;
    watchValue(group.values[i], values[i], withInvalidation);
  }
}

RecordWatch::Field RecordWatch::field(std::uint64_t offset, std::uint32_t length) {
  const Field field = {offset, length, static_cast<std::uint32_t>(kept_.size())};
  kept_.resize(kept_.size() + length);
  return field;
}

void RecordWatch::watchTime(const WatchedChannel& channel) {
  const m4CNRecord& record = channel.record;
  const std::optional<Linear> linear =
      conversionAt(walk_, walk_.link(channel.block, link::cn_cc_conversion));
  const std::uint32_t length = bytesOf(record.cn_bit_offset, record.cn_bit_count);
  if (!linear || record.cn_bit_count == 0 || record.cn_bit_count > 64 || length > dataBytes_ ||
      record.cn_byte_offset > dataBytes_ - length) {
    return;
  }
  Time time;
  time.field = field(record.cn_byte_offset, length);
  time.summand = linear->summand;
  time.factor = linear->factor;
  time.plain = record.cn_data_type == data_type::kFloat && record.cn_bit_count == 64 &&
               record.cn_bit_offset == 0;
  time.channel.dataType = record.cn_data_type;
  time.channel.bitOffset = record.cn_bit_offset;
  time.channel.bitCount = static_cast<std::uint8_t>(record.cn_bit_count);
  time.channel.initDataTypeInfo();
  time_ = std::move(time);
}

void RecordWatch::watchValue(const WatchedChannel& channel, CheckedValues* data,
                             bool withInvalidation) {
  const m4CNRecord& record = channel.record;
  const std::uint32_t length = bytesOf(record.cn_bit_offset, record.cn_bit_count);
  const bool mayBeInvalid = (record.cn_flags & kCnFlagInvalidBit) != 0;
  if ((record.cn_flags & kCnFlagAllInvalid) != 0 || record.cn_bit_offset > 7 ||
      record.cn_bit_count == 0 || record.cn_bit_count > 64 || length > dataBytes_ ||
      record.cn_byte_offset > dataBytes_ - length || (mayBeInvalid && !withInvalidation)) {
    return;
  }
  Value value;
  value.field = field(record.cn_byte_offset, length);
  value.offset = BitField(0, record.cn_bit_offset, record.cn_bit_count);
  if (mayBeInvalid) {
    const std::uint64_t byte = dataBytes_ + record.cn_inval_bit_pos / 8;
    if (byte >= recordSize_) return;
    value.invalid = field(byte, 1);
    value.invalidMask = static_cast<std::uint8_t>(1U << record.cn_inval_bit_pos % 8);
  }
  value.data = data;
  value.group = data == nullptr ? channel.data.target : 0;
  value.block = channel.block.position;
  values_.push_back(value);
}

void RecordWatch::keep(ByteSpan piece, std::uint64_t offset) {
  const auto keepField = [&](const Field& field) {
    const std::uint64_t from = std::max(field.offset, offset);
    const std::uint64_t to = std::min(field.offset + field.length, offset + piece.size());
    if (from >= to) return;
    std::memcpy(kept_.data() + field.keptAt + (from - field.offset), piece.data() + (from - offset),
                inMemory(to - from));
  };
  if (time_) keepField(time_->field);
  for (const Value& value : values_) {
    keepField(value.field);
    if (value.invalid) keepField(*value.invalid);
  }
}

void RecordWatch::look(View record, std::uint64_t position) {
  if (time_) {
    const std::uint8_t* const bytes = record.at(time_->field);
    double time = 0;
    std::string text;
    if (time_->plain) {
      std::memcpy(&time, bytes, sizeof time);
      lookAtTime(time, position);
    } else if (time_->channel.convertToPhysical(bytes, time_->field.length, time, text)) {
      lookAtTime(time, position);
    }
  }
  for (Value& value : values_) lookAtValue(value, record, position);
}

void RecordWatch::lookAtTime(double stored, std::uint64_t position) {
  Time& times = *time_;
  const double time = stored * times.factor + times.summand;
  if (time >= times.last) {
    times.last = time;
    return;
  }
  // It falls, or is no number.
  if (times.notRising++ == 0) {
    times.firstPosition = position;
    times.firstRecord = records_;
    times.firstBefore = times.last;
    times.firstTime = time;
  }
  if (!std::isnan(time)) times.last = time;
}

void RecordWatch::lookAtValue(Value& value, View record, std::uint64_t position) {
  if (value.invalid && (*record.at(*value.invalid) & value.invalidMask) != 0) return;
  const std::uint64_t offset = value.offset.read({record.at(value.field), value.field.length});
  if (value.group != 0) {
    if (offset >= value.greatest) {
      value.greatest = offset;
      value.greatestPosition = position;
    }
    return;
  }
  if (value.data != nullptr && value.data->holdsValue(offset)) return;
  if (value.wrong++ >= kFoundOneByOne) return;
  walk_.findings().error(position, fieldName(block_type::kCN, "offset of a variable-length value"),
                         formatText("that of a value in %" PRIu64 " bytes of signal data",
                                    value.data == nullptr ? std::uint64_t{0} : value.data->size()),
                         formatText("%" PRIu64 " in record %" PRIu64 ", of the channel at %" PRIu64,
                                    offset, records_, value.block));
}

void RecordWatch::end(const std::unordered_map<std::uint64_t, std::uint64_t>& valueBytes) {
  if (time_ && time_->notRising != 0) {
    walk_.findings().warning(
        time_->firstPosition, fieldName(block_type::kCN, "master channel of time"),
        formatText("at least %.9g, the time before", time_->firstBefore),
        formatText("%.9g in record %" PRIu64 " (%" PRIu64 " of %" PRIu64 " times do not rise)",
                   time_->firstTime, time_->firstRecord, time_->notRising, records_));
  }
  for (const Value& value : values_) {
    if (value.wrong > kFoundOneByOne) {
      walk_.findings().error(
          value.block, fieldName(block_type::kCN, "offsets of variable-length values"),
          "those of values in the signal data",
          formatText("%" PRIu64 " of %" PRIu64 " records with another one", value.wrong, records_));
    }
    const auto group = valueBytes.find(value.group);
    if (value.group == 0 || records_ == 0 || group == valueBytes.end()) continue;
    if (group->second >= kValuePrefix && value.greatest <= group->second - kValuePrefix) continue;
    walk_.findings().error(
        value.greatestPosition, fieldName(block_type::kCN, "offset of a variable-length value"),
        formatText("that of a value in %" PRIu64 " bytes of values", group->second),
        formatText("%" PRIu64 ", of the channel at %" PRIu64, value.greatest, value.block));
  }
}

}  // namespace tolvex
