#include "Mdf4/Record.h"

#include <algorithm>
#include <utility>

#include "Mdf4/Blocks.h"
#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockRecords.h"

namespace tolvex {
namespace {

constexpr std::string_view kTime = "time";

bool isBigEndian(std::uint8_t valueType) {
  return valueType == 1 || valueType == 3;
}

std::uint32_t bytesInRecord(const RecordLayout::Field& field) {
  return field.channelType == channel_type::kVlsd ? 0 : field.byteCount;
}

}  // namespace

void RecordLayout::add(const ChannelInfo& channel) {
  makeRoom(fields_);
  makeRoom(names_);
  std::string name = channel.name;
  byName_.emplace(name, fields_.size());
  fields_.push_back({channel.channelType, channel.valueType, channel.byteOffset, channel.byteCount,
                     channel.bitMask});
  names_.push_back(std::move(name));
  size_ += bytesInRecord(fields_.back());
}

void RecordLayout::removeLast() {
  byName_.erase(names_.back());
  size_ -= bytesInRecord(fields_.back());
  names_.pop_back();
  fields_.pop_back();
}

std::size_t RecordLayout::findByName(std::string_view name) const {
  const auto found = byName_.find(name);
  return found == byName_.end() ? kNone : found->second;
}

RecordData::RecordData(std::shared_ptr<const RecordLayout> layout)
    : layout_(std::move(layout)),
      time_(layout_->find(kTime)),
      size_(layout_->size()),
      bytes_(new std::uint8_t[size_]()) {
  if (time_ == RecordLayout::kNone) return;
  const RecordLayout::Field& time = layout_->field(time_);
  if (holds(time, sizeof(double))) timeOffset_ = time.byteOffset;
}

bool RecordData::setData(std::string_view name, std::uint32_t size, const std::uint8_t* data) {
  const std::size_t number = layout_->find(name, next_);
  if (number == RecordLayout::kNone) return false;
  next_ = number + 1;
  return set(layout_->field(number), size, data);
}

bool RecordData::set(const RecordLayout::Field& field, std::uint32_t size,
                     const std::uint8_t* data) {
  if (size > 0 && data == nullptr) return false;
  if (field.channelType == channel_type::kVlsd) {
    printDiagnostic("[fatal] %s, %d: RecordData::setData: VLSD write is not supported\n", __FILE__,
                    __LINE__);
    return false;
  }
  if (size == 0) return true;
  if (!holds(field, field.byteCount)) return false;
  std::uint8_t* const place = bytes_.get() + field.byteOffset;
  if (size > field.byteCount) {
    std::memset(place, 0, field.byteCount);
    return false;
  }
  if (field.bitMask == 0 || field.byteCount > sizeof(std::uint64_t)) {
    std::memcpy(place, data, size);
    return true;
  }
  std::uint8_t number[sizeof(std::uint64_t)] = {};
  std::memcpy(number, data, size);
  if (isBigEndian(field.valueType)) std::reverse(number, number + size);
  const std::uint64_t masked = loadNumber<std::uint64_t>(number) & field.bitMask;
  std::memcpy(place, &masked, field.byteCount);
  return true;
}

bool RecordData::setTime(double seconds) {
  if (time_ == RecordLayout::kNone) return false;
  return set(layout_->field(time_), sizeof seconds, bytesOf(seconds).data());
}

}  // namespace tolvex
