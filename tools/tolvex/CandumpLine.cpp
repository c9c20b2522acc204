#include "CandumpLine.h"

#include <charconv>

namespace tolvex {

namespace {

constexpr std::uint32_t kErrorFrameFlag = 0x20000000;
constexpr std::uint32_t kMaxStandardId = 0x7FF;
constexpr std::uint32_t kMaxExtendedId = 0x1FFFFFFF;
constexpr unsigned kFlagBrs = 1;
constexpr unsigned kFlagEsi = 2;
constexpr std::uint8_t kMaxClassicLength = 8;
constexpr std::uint8_t kMaxFdLength = 64;
constexpr std::uint64_t kMaxSeconds = 9'223'372'035;  // in nanoseconds they fit 63 bits

constexpr std::uint8_t kNoDigit = 0xFF;

constexpr auto kHexValues = [] {
  std::array<std::uint8_t, 256> values{};
  values.fill(kNoDigit);
  for (std::uint8_t i = 0; i < 16; ++i) {
    values[static_cast<unsigned char>("0123456789ABCDEF"[i])] = i;
    values[static_cast<unsigned char>("0123456789abcdef"[i])] = i;
  }
  return values;
}();

std::uint8_t hexValue(char digit) {
  return kHexValues[static_cast<unsigned char>(digit)];
}

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

// Goes through the line once. Each step gives false at a fault, which is then set.
class Parser {
 public:
  Parser(std::string_view text, CandumpLine& line)
      : begin_(text.data()), at_(begin_), end_(begin_ + text.size()), line_(line) {}

  bool parse() { return time() && interface() && identifier() && content() && rest(); }
  CandumpFault fault() const { return {expected_, static_cast<std::size_t>(at_ - begin_)}; }

 private:
  bool fail(const char* at, const char* expected) {
    at_ = at;
    expected_ = expected;
    return false;
  }
  bool fail(const char* expected) { return fail(at_, expected); }

  bool take(char character) {
    const bool found = at_ != end_ && *at_ == character;
    at_ += found ? 1 : 0;
    return found;
  }
  // At least one of them.
  bool takeSpaces() {
    const char* const begin = at_;
    while (take(' ')) {
    }
    return at_ != begin;
  }

  bool time() {
    constexpr const char* kExpected = "a time such as (1436509052.249713)";
    const char* const begin = at_;
    std::uint64_t seconds = 0;
    if (!take('(')) {
      return fail(begin, kExpected);
    }
    const auto [end, error] = std::from_chars(at_, end_, seconds);
    at_ = end;
    if (error != std::errc() || !take('.')) {
      return fail(begin, kExpected);
    }
    if (seconds > kMaxSeconds) {
      return fail(begin, "a time before the year 2262");
    }
    line_.timeUs = seconds * 1'000'000;
    return fraction() && take(')') && takeSpaces() ? true : fail(begin, kExpected);
  }

  // One to nine digits, rounded to microseconds.
  bool fraction() {
    std::uint32_t nanoseconds = 0;
    std::uint32_t unit = 1'000'000'000;
    for (; at_ != end_ && isDigit(*at_) && unit > 1; ++at_) {
      unit /= 10;
      nanoseconds += unit * static_cast<std::uint32_t>(*at_ - '0');
    }
    line_.timeUs += (nanoseconds + 500) / 1000;
    return unit < 1'000'000'000;
  }

  bool interface() {
    const char* const begin = at_;
    while (at_ != end_ && *at_ != ' ') {
      ++at_;
    }
    line_.interface = {begin, static_cast<std::size_t>(at_ - begin)};
    return !line_.interface.empty() && takeSpaces() ? true
                                                    : fail(begin, "an interface and its frame");
  }

  bool identifier() {
    constexpr std::ptrdiff_t kStandardDigits = 3;
    constexpr std::ptrdiff_t kExtendedDigits = 8;
    const char* const begin = at_;
    std::uint32_t id = 0;
    for (; at_ != end_ && hexValue(*at_) != kNoDigit && at_ - begin < kExtendedDigits; ++at_) {
      id = id << 4 | hexValue(*at_);
    }
    const std::ptrdiff_t digits = at_ - begin;
    if ((digits != kStandardDigits && digits != kExtendedDigits) || !take('#')) {
      return fail(begin, "an identifier of 3 or 8 hexadecimal digits and \"#\"");
    }
    line_.extended = digits == kExtendedDigits;
    line_.error = line_.extended && (id & kErrorFrameFlag) != 0;
    if (line_.error) {
      line_.extended = false;
      id &= ~kErrorFrameFlag;
    }
    line_.id = id;
    if (digits == kStandardDigits && id > kMaxStandardId) {
      return fail(begin, "an identifier up to 7FF");
    }
    if (id > kMaxExtendedId) {
      return fail(begin, "an identifier up to 1FFFFFFF, or 20000000 more for an error frame");
    }
    return true;
  }

  bool content() {
    line_.remote = false;
    line_.fd = false;
    line_.brs = false;
    line_.esi = false;
    line_.dlc = 0;
    line_.length = 0;
    if (!line_.error && take('R')) {
      line_.remote = true;
      return remoteLength();
    }
    if (take('#')) {
      line_.fd = true;
      return fdFlags() && data(kMaxFdLength, "at most 64 bytes of data");
    }
    return data(kMaxClassicLength, "at most 8 bytes of data") && (line_.error || rawCode());
  }

  bool remoteLength() {
    if (at_ == end_ || hexValue(*at_) == kNoDigit) {
      return true;
    }
    if (hexValue(*at_) > kMaxClassicLength) {
      return fail("a length up to 8");
    }
    line_.dlc = hexValue(*at_++);
    return line_.dlc < kMaxClassicLength || rawCode();
  }

  // "_" and a data length code above 8, which only frames of 8 bytes have.
  bool rawCode() {
    if (at_ == end_ || *at_ != '_' || (!line_.remote && line_.length != kMaxClassicLength)) {
      return true;
    }
    ++at_;
    if (at_ == end_ || hexValue(*at_) == kNoDigit || hexValue(*at_) <= kMaxClassicLength) {
      return fail("a data length code from 9 to F");
    }
    line_.dlc = hexValue(*at_++);
    return true;
  }

  bool fdFlags() {
    if (at_ == end_ || hexValue(*at_) == kNoDigit) {
      return fail("a hexadecimal digit of flags");
    }
    const unsigned flags = hexValue(*at_++);
    line_.brs = (flags & kFlagBrs) != 0;
    line_.esi = (flags & kFlagEsi) != 0;
    return true;
  }

  bool data(std::uint8_t most, const char* expected) {
    while (end_ - at_ >= 2) {
      const unsigned high = hexValue(at_[0]);
      const unsigned low = hexValue(at_[1]);
      if ((high | low) > 0xF) {
        break;
      }
      if (line_.length == most) {
        return fail(expected);
      }
      line_.data[line_.length++] = static_cast<std::uint8_t>(high << 4 | low);
      at_ += 2;
    }
    const bool isOdd = at_ != end_ && hexValue(*at_) != kNoDigit;
    return isOdd ? fail("two hexadecimal digits for each byte") : true;
  }

  // The direction, where candump states it, and what some systems end their lines with.
  bool rest() {
    line_.transmitted = false;
    if (takeSpaces()) {
      line_.transmitted = take('T');
      if (line_.transmitted || take('R')) {
        takeSpaces();
      }
    }
    take('\r');
    return at_ == end_ ? true : fail("the end of the line");
  }

  const char* const begin_;
  const char* at_;
  const char* const end_;
  CandumpLine& line_;
  const char* expected_ = nullptr;
};

}  // namespace

std::optional<CandumpFault> parseCandumpLine(std::string_view text, CandumpLine& line) {
  Parser parser(text, line);
  if (parser.parse()) {
    return std::nullopt;
  }
  return parser.fault();
}

}  // namespace tolvex
