// Records in memory: how a data group's channels lie in a record, and a record to fill by name.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Mdf4/Channel.h"
#include "Mdf4/base/Bytes.h"

namespace tolvex {

// The channels of a data group by name, each with its place in the record.
class RecordLayout {
 public:
  static constexpr std::size_t kNone = ~std::size_t{0};

  // What filling a record needs to know of a channel.
  struct Field {
    std::uint8_t channelType;
    std::uint8_t valueType;
    std::uint32_t byteOffset;
    std::uint32_t byteCount;
    std::uint64_t bitMask;
  };

  // Enters the channel, whose byteOffset is set and whose name is new; all of it or, when it
  // throws, nothing.
  void add(const ChannelInfo& channel);
  void removeLast();

  // The number of the channel, or kNone. Quickest for the channel `likely`: records are mostly
  // filled in the order of their channels.
  std::size_t find(std::string_view name, std::size_t likely = 0) const {
    if (likely < fields_.size() && names_[likely] == name) return likely;
    return findByName(name);
  }
  const Field& field(std::size_t number) const { return fields_[number]; }
  std::uint32_t size() const { return size_; }  // bytes of a record

 private:
  std::size_t findByName(std::string_view name) const;

  std::map<std::string, std::size_t, std::less<>> byName_;
  std::vector<Field> fields_;
  std::vector<std::string> names_;  // of the fields
  std::uint32_t size_ = 0;
};

// One record's bytes, laid out for one data group as the group was when the record was made. Not
// synchronised.
class RecordData {
 public:
  explicit RecordData(std::shared_ptr<const RecordLayout> layout);

  // Sets the channel's bytes from the `size` bytes at `data`. Fewer than the channel has leave the
  // others as they are; more zero the channel and give false. With a bit mask, and at most 8 bytes,
  // the bytes are one number: its order is turned around for the value types 1 and 3, and only the
  // mask's bits are kept.
  bool setData(std::string_view name, std::uint32_t size, const std::uint8_t* data);
  // As setData("time", ...) with the 8 bytes of `seconds`.
  bool setTime(double seconds);
  // What the channel "time" holds, in seconds since the recording's start; 0 when there is none.
  double time() const {
    return timeOffset_ != kNoTime ? loadNumber<double>(bytes_.get() + timeOffset_) : 0;
  }

  std::uint8_t* data() { return bytes_.get(); }
  const std::uint8_t* data() const { return bytes_.get(); }
  std::uint32_t size() const { return size_; }
  void reset() { std::memset(bytes_.get(), 0, size_); }

 private:
  bool set(const RecordLayout::Field& field, std::uint32_t size, const std::uint8_t* data);
  bool holds(const RecordLayout::Field& field, std::uint32_t bytes) const {
    return field.byteOffset <= size_ && bytes <= size_ - field.byteOffset;
  }

  std::shared_ptr<const RecordLayout> layout_;
  static constexpr std::uint32_t kNoTime = ~std::uint32_t{0};

  std::size_t time_;                    // the channel "time", or RecordLayout::kNone
  std::uint32_t timeOffset_ = kNoTime;  // of its 8 bytes, when it has as many
  std::size_t next_ = 0;                // the channel behind the one set last
  std::uint32_t size_;
  std::unique_ptr<std::uint8_t[]> bytes_;
};

}  // namespace tolvex
