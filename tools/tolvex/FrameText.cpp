#include "FrameText.h"

#include <fmt/format.h>

#include <array>
#include <cstring>
#include <string_view>

namespace tolvex {

namespace {

using Bytes = std::vector<std::uint8_t>;

// candump's marks: in an identifier "this is an error frame"; in the flags of a CAN FD frame.
constexpr std::uint32_t kErrorFrameFlag = 0x20000000;
constexpr std::uint32_t kIdentifierMask = 0x1FFFFFFF;
constexpr std::uint32_t kMaxStandardId = 0x7FF;
constexpr unsigned kFlagBrs = 1;
constexpr unsigned kFlagEsi = 2;
constexpr std::size_t kMaxClassicLength = 8;

// More than any line has beside its payload.
constexpr std::size_t kLineRoom = 2048;

constexpr char kHexDigits[] = "0123456789ABCDEF";

char* putText(char* at, std::string_view text) {
  std::memcpy(at, text.data(), text.size());
  return at + text.size();
}

template <typename Integer>
char* putNumber(char* at, Integer value) {
  const fmt::format_int digits(value);
  return putText(at, {digits.data(), digits.size()});
}

char* putHex(char* at, std::uint32_t value, int digits) {
  for (int i = digits; i-- > 0; value >>= 4) {
    at[i] = kHexDigits[value & 0xF];
  }
  return at + digits;
}

char* putHex(char* at, const Bytes& bytes) {
  for (const std::uint8_t byte : bytes) {
    *at++ = kHexDigits[byte >> 4];
    *at++ = kHexDigits[byte & 0xF];
  }
  return at;
}

// A point in time since 1970: whole seconds, rounded down, and nanoseconds on top.
struct Instant {
  std::int64_t seconds;
  std::uint32_t nanoseconds;
};

Instant instantOf(std::uint64_t startTimeNs, std::int64_t frameNs) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  std::int64_t seconds = frameNs / kSecond;
  std::int64_t rest = frameNs % kSecond;
  if (rest < 0) {
    rest += kSecond;
    --seconds;
  }
  seconds += static_cast<std::int64_t>(startTimeNs / kSecond);
  rest += static_cast<std::int64_t>(startTimeNs % kSecond);
  if (rest >= kSecond) {
    rest -= kSecond;
    ++seconds;
  }
  return {seconds, static_cast<std::uint32_t>(rest)};
}

// Seconds with `digits` (9 or 6) decimals; the last of 6 is rounded to the nearest.
char* putSeconds(char* at, Instant time, int digits) {
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
  at = putNumber(at, time.seconds);
  *at = '.';
  for (int i = digits; i > 0; --i, fraction /= 10) {
    at[i] = static_cast<char>('0' + fraction % 10);
  }
  return at + 1 + digits;
}

bool isRemote(const MdfCanMessage& message) {
  return message.Rtr() && !message.Edl();
}

// What of a frame's payload is known to be one.
template <typename Frame>
const Bytes& payloadOf(const Frame& frame) {
  static const Bytes kNone;
  return frame.PayloadMissing() ? kNone : frame.DataBytes();
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
  void seconds(Instant time) {
    begin();
    at_ = putSeconds(at_, time, 9);
  }
  void text(std::string_view value) {
    begin();
    quote();
    at_ = putText(at_, value);
    quote();
  }
  template <typename Frame>
  void payload(const Frame& frame) {
    if (frame.PayloadMissing()) {
      nothing(1);
      return;
    }
    begin();
    quote();
    at_ = putHex(at_, frame.DataBytes());
    quote();
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

char* putRow(Row row, const MdfCanMessage& message, std::uint64_t startTimeNs) {
  const auto timeNs = static_cast<std::int64_t>(message.Timestamp());
  row.number(timeNs);
  row.seconds(instantOf(startTimeNs, timeNs));
  row.number(message.BusChannel());
  row.text(isRemote(message) ? "remote" : "data");
  row.number(message.CanId());
  row.flag(message.ExtendedId());
  row.flag(message.Edl());
  row.flag(message.Brs());
  row.flag(message.Esi());
  row.text(message.Dir() ? "tx" : "rx");
  row.flag(message.Srr());
  row.flag(message.Rtr());
  row.flag(message.WakeUp());
  row.flag(message.SingleWire());
  row.number(message.Dlc());
  row.number(message.DataBytes().size());
  row.payload(message);
  row.number(message.DataIndex());
  row.number(message.BitPosition());
  row.number(static_cast<unsigned>(message.ErrorType()));
  row.nothing(3);  // error_flags, tec, rec
  row.number(message.TimeOffsetBRS());
  row.number(message.TimeOffsetCRCDel());
  row.number(message.Crc());
  row.number(message.BtrExtCfg());
  return row.end();
}

char* putRow(Row row, const MdfCanError& error, std::uint64_t startTimeNs) {
  const auto timeNs = static_cast<std::int64_t>(error.Timestamp());
  row.number(timeNs);
  row.seconds(instantOf(startTimeNs, timeNs));
  row.number(error.BusChannel());
  row.text("error");
  row.number(error.MessageId());
  row.flag(error.ExtendedId());
  row.flag(error.IsCanFdError());
  row.nothing(2);  // brs, esi
  row.text(error.Dir() ? "tx" : "rx");
  row.nothing(4);  // srr, rtr, wake_up, single_wire
  row.number(error.Dlc());
  row.number(error.DataLength());
  row.payload(error);
  row.nothing(2);  // record, bit_position
  if (error.ErrorType() == CanErrorType::Unknown) {
    row.nothing(1);
  } else {
    row.number(static_cast<unsigned>(error.ErrorType()));
  }
  row.number(error.ErrorFlags());
  row.number(error.Tec());
  row.number(error.Trec());
  row.number(error.TimeOffsetBRS());
  row.number(error.TimeOffsetCRCDel());
  row.number(error.Crc());
  row.number(error.BtrExtCfg());
  return row.end();
}

// "(SECONDS.MICROSECONDS) canCHANNEL ".
char* putCandumpStart(char* at, Instant time, std::uint8_t channel) {
  *at++ = '(';
  at = putSeconds(at, time, 6);
  at = putText(at, ") can");
  at = putNumber(at, channel);
  *at++ = ' ';
  return at;
}

// What follows '#' for a frame without data: its data length code; the codes above 8 stand behind
// the length.
char* putLengthCode(char* at, std::uint8_t dlc) {
  if (dlc > kMaxClassicLength) {
    at = putText(at, "8_");
  }
  return putHex(at, dlc, 1);
}

char* putCandump(char* at, const MdfCanMessage& message, std::uint64_t startTimeNs) {
  const auto timeNs = static_cast<std::int64_t>(message.Timestamp());
  at = putCandumpStart(at, instantOf(startTimeNs, timeNs), message.BusChannel());
  const bool extended = message.ExtendedId() || message.CanId() > kMaxStandardId;
  at = putHex(at, message.CanId() & kIdentifierMask, extended ? 8 : 3);
  *at++ = '#';
  const Bytes& data = payloadOf(message);
  if (isRemote(message)) {
    *at++ = 'R';
    at = putLengthCode(at, message.Dlc());
  } else if (message.Edl() || message.DataBytes().size() > kMaxClassicLength) {
    *at++ = '#';
    at = putHex(at, (message.Brs() ? kFlagBrs : 0) | (message.Esi() ? kFlagEsi : 0), 1);
    at = putHex(at, data);
  } else {
    at = putHex(at, data);
    if (data.size() == kMaxClassicLength && message.Dlc() > kMaxClassicLength) {
      *at++ = '_';
      at = putHex(at, message.Dlc(), 1);
    }
  }
  *at++ = '\n';
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

char* putCandump(char* at, const MdfCanError& error, std::uint64_t startTimeNs) {
  const auto timeNs = static_cast<std::int64_t>(error.Timestamp());
  at = putCandumpStart(at, instantOf(startTimeNs, timeNs), error.BusChannel());
  const Bytes& data = payloadOf(error);
  if (error.MessageId() == 0 && data.empty()) {
    at = putErrorType(at, error.ErrorType());
    *at++ = '\n';
    return at;
  }
  at = putHex(at, kErrorFrameFlag | (error.MessageId() & kIdentifierMask), 8);
  at = putText(at, data.size() > kMaxClassicLength ? "##0" : "#");
  at = putHex(at, data);
  *at++ = '\n';
  return at;
}

template <typename Frame>
void writeFrame(Output& out, FrameFormat format, const Frame& frame, std::uint64_t startTimeNs) {
  char* at = out.room(kLineRoom + 2 * frame.DataBytes().size());
  out.advance(format == FrameFormat::Candump ? putCandump(at, frame, startTimeNs)
                                             : putRow(Row(at, format), frame, startTimeNs));
}

}  // namespace

void FrameText::writeHeader() {
  if (format_ == FrameFormat::Csv) {
    out_.write(fmt::format("{}\n", fmt::join(kFieldNames, ",")));
  }
}

void FrameText::write(const MdfCanMessage& message) {
  writeFrame(out_, format_, message, startTimeNs_);
}

void FrameText::write(const MdfCanError& error) {
  writeFrame(out_, format_, error, startTimeNs_);
}

}  // namespace tolvex
