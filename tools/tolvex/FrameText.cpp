#include "FrameText.h"

#include <fmt/format.h>
#include <tolvex/Mdf4.h>

#include <array>
#include <cstring>
#include <string_view>

namespace tolvex {

namespace {

// candump's marks: in an identifier "this is an error frame"; in the flags of a CAN FD frame.
constexpr std::uint32_t kErrorFrameFlag = 0x20000000;
constexpr std::uint32_t kIdentifierMask = 0x1FFFFFFF;
constexpr std::uint32_t kMaxStandardId = 0x7FF;
constexpr unsigned kFlagBrs = 1;
constexpr unsigned kFlagEsi = 2;
constexpr std::size_t kMaxClassicLength = 8;

// More than any line has.
constexpr std::size_t kLineRoom = 2048;

constexpr char kHexDigits[] = "0123456789ABCDEF";

// Two characters for each number: "00" to "99", and "00" to "FF".
constexpr auto kPairs = [] {
  std::array<char, 200> pairs{};
  for (std::size_t i = 0; i < 100; ++i) {
    pairs[2 * i] = static_cast<char>('0' + i / 10);
    pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
  }
  return pairs;
}();
constexpr auto kHexPairs = [] {
  std::array<char, 512> pairs{};
  for (std::size_t i = 0; i < 256; ++i) {
    pairs[2 * i] = kHexDigits[i >> 4];
    pairs[2 * i + 1] = kHexDigits[i & 0xF];
  }
  return pairs;
}();

char* putText(char* at, std::string_view text) {
  std::memcpy(at, text.data(), text.size());
  return at + text.size();
}

template <typename Integer>
char* putNumber(char* at, Integer value) {
  const fmt::format_int digits(value);
  return putText(at, {digits.data(), digits.size()});
}

// The last so many digits.
char* putDigits(char* at, std::uint32_t value, int digits) {
  int i = digits;
  for (; i > 1; i -= 2, value /= 100) {
    std::memcpy(at + i - 2, &kPairs[value % 100 * 2], 2);
  }
  if (i == 1) {
    *at = static_cast<char>('0' + value % 10);
  }
  return at + digits;
}

char* putHex(char* at, std::uint32_t value, int digits) {
  for (int i = digits; i-- > 0; value >>= 4) {
    at[i] = kHexDigits[value & 0xF];
  }
  return at + digits;
}

char* putData(char* at, const MdfFrameView& frame) {
  for (std::size_t i = 0; i < frame.length; ++i, at += 2) {
    std::memcpy(at, &kHexPairs[std::size_t{2} * frame.data[i]], 2);
  }
  return at;
}

bool has(const MdfFrameView& frame, std::uint16_t flag) {
  return (frame.flags & flag) != 0;
}

// Files count from 1.
std::uint8_t channelOf(const MdfFrameView& frame) {
  return static_cast<std::uint8_t>(frame.bus - 1);
}

// The bytes that a message had on the bus, also when they are lost.
std::size_t lengthOf(const MdfFrameView& frame) {
  return frame.isPayloadMissing() ? MdfCanMessage::DlcToLength(frame.dlc) : frame.length;
}

// The fields of a line in csv and ndjson. A frame has a value, or nothing, for each of them.
constexpr std::array<std::string_view, 27> kFieldNames = {"time_ns",
                                                          "time",
                                                          "channel",
                                                          "type",
                                                          "id",
                                                          "extended",
                                                          "fd",
                                                          "brs",
                                                          "esi",
                                                          "dir",
                                                          "srr",
                                                          "rtr",
                                                          "wake_up",
                                                          "single_wire",
                                                          "dlc",
                                                          "length",
                                                          "data",
                                                          "record",
                                                          "bit_position",
                                                          "error_type",
                                                          "error_flags",
                                                          "tec",
                                                          "rec",
                                                          "time_offset_brs",
                                                          "time_offset_crc_del",
                                                          "crc",
                                                          "btr_ext_cfg"};

// Puts one line: the values of all fields, each call the next one's.
class Row {
 public:
  Row(char* at, FrameFormat format) : at_(at), json_(format == FrameFormat::Ndjson) {}

  template <typename Integer>
  void number(Integer value) {
    begin();
    at_ = putNumber(at_, value);
  }
  void flag(bool value) {
    begin();
    at_ = json_ ? putText(at_, value ? "true" : "false") : putText(at_, value ? "1" : "0");
  }
  // Where to put the next value, and behind it.
  char* place() {
    begin();
    return at_;
  }
  void putUpTo(char* end) { at_ = end; }
  void text(std::string_view value) {
    begin();
    quote();
    at_ = putText(at_, value);
    quote();
  }
  void payload(const MdfFrameView& frame) {
    if (frame.isPayloadMissing()) {
      nothing(1);
      return;
    }
    begin();
    quote();
    at_ = putData(at_, frame);
    quote();
  }
  void zeros(int fields) {
    for (; fields > 0; --fields) {
      number(0);
    }
  }
  void nothing(int fields) {
    for (; fields > 0; --fields) {
      begin();
      at_ = json_ ? putText(at_, "null") : at_;
    }
  }
  char* end() { return putText(at_, json_ ? "}\n" : "\n"); }

 private:
  void begin() {
    if (json_) {
      *at_++ = field_ == 0 ? '{' : ',';
      quote();
      at_ = putText(at_, kFieldNames[field_]);
      quote();
      *at_++ = ':';
    } else if (field_ > 0) {
      *at_++ = ',';
    }
    ++field_;
  }
  void quote() {
    if (json_) {
      *at_++ = '"';
    }
  }

  char* at_;
  bool json_;
  std::size_t field_ = 0;
};

void putMessage(Row& row, const MdfFrameView& frame) {
  row.flag(has(frame, MdfFrameFlag::kBrs));
  row.flag(has(frame, MdfFrameFlag::kEsi));
  row.text(frame.isTransmitted() ? "tx" : "rx");
  row.flag(has(frame, MdfFrameFlag::kSrr));
  row.flag(has(frame, MdfFrameFlag::kRtr));
  row.flag(has(frame, MdfFrameFlag::kWakeUp));
  row.flag(has(frame, MdfFrameFlag::kSingleWire));
  row.number(frame.dlc);
  row.number(lengthOf(frame));
  row.payload(frame);
  row.number(frame.record);
  row.zeros(2);    // bit_position, error_type
  row.nothing(3);  // error_flags, tec, rec
  row.zeros(4);    // time_offset_brs, time_offset_crc_del, crc, btr_ext_cfg
}

void putError(Row& row, const MdfFrameView& frame) {
  const MdfFrameError& error = *frame.error;
  row.nothing(2);  // brs, esi
  row.text(frame.isTransmitted() ? "tx" : "rx");
  row.nothing(4);  // srr, rtr, wake_up, single_wire
  row.number(frame.dlc);
  row.number(error.dataLength);
  row.payload(frame);
  row.nothing(2);  // record, bit_position
  if (static_cast<CanErrorType>(error.errorType) == CanErrorType::Unknown) {
    row.nothing(1);
  } else {
    row.number(error.errorType);
  }
  row.number(error.errorFlags);
  row.number(error.tec);
  row.number(error.rec);
  row.number(error.timeOffsetBrs);
  row.number(error.timeOffsetCrcDel);
  row.number(error.crc);
  row.number(error.btrExtCfg);
}

// What follows '#' for a frame without data: its data length code; the codes above 8 stand behind
// the length.
char* putLengthCode(char* at, std::uint8_t dlc) {
  if (dlc > kMaxClassicLength) {
    at = putText(at, "8_");
  }
  return putHex(at, dlc, 1);
}

char* putMessage(char* at, const MdfFrameView& frame) {
  const bool extended = frame.isExtended() || frame.id > kMaxStandardId;
  at = putHex(at, frame.id & kIdentifierMask, extended ? 8 : 3);
  *at++ = '#';
  if (frame.kind == MdfFrameKind::Remote) {
    *at++ = 'R';
    return putLengthCode(at, frame.dlc);
  }
  if (frame.isFd() || lengthOf(frame) > kMaxClassicLength) {
    *at++ = '#';
    at = putHex(at,
                (has(frame, MdfFrameFlag::kBrs) ? kFlagBrs : 0) |
                    (has(frame, MdfFrameFlag::kEsi) ? kFlagEsi : 0),
                1);
    return putData(at, frame);
  }
  at = putData(at, frame);
  if (frame.length == kMaxClassicLength && frame.dlc > kMaxClassicLength) {
    *at++ = '_';
    at = putHex(at, frame.dlc, 1);
  }
  return at;
}

// The kind of an error of which nothing else is known, as SocketCAN states it: class and data.
char* putErrorType(char* at, CanErrorType type) {
  switch (type) {
    case CanErrorType::Bit:
      return putText(at, "20000008#0000010000000000");
    case CanErrorType::Form:
      return putText(at, "20000008#0000020000000000");
    case CanErrorType::BitStuffing:
      return putText(at, "20000008#0000040000000000");
    case CanErrorType::Crc:
      return putText(at, "20000008#0000000800000000");
    case CanErrorType::Acknowledge:
      return putText(at, "20000020#0000000000000000");
    default:
      return putText(at, "20000000#");
  }
}

char* putError(char* at, const MdfFrameView& frame) {
  if (frame.id == 0 && frame.length == 0) {
    return putErrorType(at, static_cast<CanErrorType>(frame.error->errorType));
  }
  at = putHex(at, kErrorFrameFlag | (frame.id & kIdentifierMask), 8);
  at = putText(at, frame.length > kMaxClassicLength ? "##0" : "#");
  return putData(at, frame);
}

}  // namespace

FrameText::Instant FrameText::instantOf(const MdfFrameView& frame) const {
  constexpr std::int64_t kSecond = 1'000'000'000;
  std::int64_t seconds = shiftNs_ / kSecond;  // whole ones
  std::int64_t rest = sinceStart(frame) % kSecond;
  seconds += sinceStart(frame) / kSecond;
  if (rest < 0) {
    rest += kSecond;
    --seconds;
  }
  seconds += static_cast<std::int64_t>(startTimeNs_ / kSecond);
  rest += static_cast<std::int64_t>(startTimeNs_ % kSecond);
  if (rest >= kSecond) {
    rest -= kSecond;
    ++seconds;
  }
  return {seconds, static_cast<std::uint32_t>(rest)};
}

// Seconds with `digits` (9 or 6) decimals; the last of 6 is rounded to the nearest.
char* FrameText::putSeconds(char* at, Instant time, int digits) {
  std::uint32_t unit = 1'000'000'000;
  std::uint32_t fraction = time.nanoseconds;
  if (digits == 6) {
    unit = 1'000'000;
    fraction = (fraction + 500) / 1000;
    if (fraction == unit) {
      fraction = 0;
      ++time.seconds;
    }
  }
  if (time.seconds < 0) {
    *at++ = '-';
    time.seconds = -time.seconds;
    if (fraction > 0) {
      --time.seconds;
      fraction = unit - fraction;
    }
  }
  if (time.seconds != lastSeconds_) {
    lastSeconds_ = time.seconds;
    const fmt::format_int text(time.seconds);
    lastSecondsText_.assign(text.data(), text.size());
  }
  at = putText(at, lastSecondsText_);
  *at++ = '.';
  return putDigits(at, fraction, digits);
}

// "(SECONDS.MICROSECONDS) canCHANNEL ", then the frame.
char* FrameText::putCandump(char* at, const MdfFrameView& frame) {
  *at++ = '(';
  at = putSeconds(at, instantOf(frame), 6);
  at = putText(at, ") can");
  at = putNumber(at, channelOf(frame));
  *at++ = ' ';
  at = frame.error == nullptr ? putMessage(at, frame) : putError(at, frame);
  *at++ = '\n';
  return at;
}

char* FrameText::putRow(char* at, const MdfFrameView& frame) {
  Row row(at, format_);
  row.number(sinceStart(frame));
  row.putUpTo(putSeconds(row.place(), instantOf(frame), 9));
  row.number(channelOf(frame));
  row.text(frame.error != nullptr               ? "error"
           : frame.kind == MdfFrameKind::Remote ? "remote"
                                                : "data");
  row.number(frame.id);
  row.flag(frame.isExtended());
  row.flag(frame.isFd());
  if (frame.error == nullptr) {
    putMessage(row, frame);
  } else {
    putError(row, frame);
  }
  return row.end();
}

void FrameText::writeHeader() {
  if (format_ == FrameFormat::Csv) {
    out_.write(fmt::format("{}\n", fmt::join(kFieldNames, ",")));
  }
}

void FrameText::write(const MdfFrameView& frame) {
  char* const at = out_.room(kLineRoom);
  out_.advance(format_ == FrameFormat::Candump ? putCandump(at, frame) : putRow(at, frame));
}

}  // namespace tolvex
