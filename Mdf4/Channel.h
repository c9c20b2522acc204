// A recorded channel: its description, its conversion, and its blocks in the file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tolvex {

class DirectFile;
class M4CNBlock;

// How raw values become physical ones: a conversion of the format. A plain value.
struct Formula {
  std::uint8_t kind = 0;  // cc_type: 1 linear, 2 rational, 3 algebraic, 4 and 5 value to value with
                          // and without interpolation, 6 value range to value, 7 value to text,
                          // 8 value range to text
  std::vector<double> parameters;
  std::vector<std::string> texts;  // one for each entry of kinds 7 and 8
  std::string formulaText;         // kind 3
  double defaultValue = 0;         // kind 6
  std::string defaultText;         // kinds 7 and 8
};

// The description of a channel, as callers give it. A plain value.
struct ChannelInfo {
  std::uint8_t channelType = 0;  // cn_type: 0 value, 1 variable length (refused), 2 master
  std::uint8_t syncType = 0;     // cn_sync_type: 1 time
  std::string name;              // the key by which records are filled
  std::string unit;
  double limitMin = 0;
  double limitMax = 0;
  std::uint8_t dataType = 0;     // cn_data_type
  std::uint32_t byteCount = 0;   // bytes in the record; 0: placed by bitOffset and bitCount
  std::uint32_t byteOffset = 0;  // from the start of the record; set by DataGroup::addChannel
  std::uint8_t bitOffset = 0;    // only with a byteCount of 0
  std::uint32_t bitCount = 0;    // only with a byteCount of 0
  std::uint8_t valueType = 0;    // of the bytes given to RecordData::setData: 1, 3 big endian
  std::uint64_t bitMask = 0;     // the bits of the field that are the channel's; 0: all
  std::string comment;
  std::shared_ptr<const Formula> formula;  // null: no conversion
  std::uint32_t extraFlags = 0;            // added to cn_flags
  std::uint8_t precision = 0;              // cn_precision; goes with bit 2 of extraFlags
  double valueRangeMin = 0;                // cn_val_range_min; goes with bit 3, as the next
  double valueRangeMax = 0;
  double limitExtMin = 0;  // cn_limit_ext_min; goes with bit 5, as the next
  double limitExtMax = 0;
};

// A value channel of little-endian float64 values.
ChannelInfo float64Channel(std::string_view name);
// The master channel "time": seconds since the recording's start.
ChannelInfo timeChannel();

// One channel of a file under construction.
class Channel {
 public:
  explicit Channel(ChannelInfo info);
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  ~Channel();

  // Writes the channel's block at the end of the file, then its texts and conversion, then the
  // block again with its links. False when a write fails.
  [[nodiscard]] bool write(DirectFile& file);
  // Makes `next` the channel behind this one in its list, or the first one inside it; writes the
  // block again.
  [[nodiscard]] bool linkNext(const Channel& next);
  [[nodiscard]] bool linkComposition(const Channel& first);

  std::uint64_t position() const;  // of the block; 0 before it is written

 private:
  void place();

  ChannelInfo info_;
  std::unique_ptr<M4CNBlock> block_;
};

}  // namespace tolvex
