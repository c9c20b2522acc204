#include "tests/support/LoggerFile.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string_view>

namespace tolvex::test {
namespace {

// Flags of the identification block.
constexpr std::uint64_t kLastLengthUnknown = 1 << 2;
constexpr std::uint64_t kOffsetsUnknown = 1 << 6;

constexpr std::uint64_t kVlsd = 1;  // a channel's type, and a flag of channel groups

std::uint64_t number(const Bytes& bytes, std::uint64_t at, unsigned count) {
  std::uint64_t value = 0;
  for (unsigned k = 0; k < count; ++k) value |= std::uint64_t{bytes.at(inMemory(at + k))} << 8 * k;
  return value;
}

std::uint64_t bitsAt(const Bytes& bytes, std::uint64_t firstBit, unsigned count) {
  std::uint64_t value = 0;
  for (unsigned k = 0; k < std::min(count, 64U); ++k) {
    const std::uint64_t bit = firstBit + k;
    value |= static_cast<std::uint64_t>(bytes.at(inMemory(bit / 8)) >> bit % 8 & 1) << k;
  }
  return value;
}

double realOf(std::uint64_t pattern) {
  double value = 0;
  std::memcpy(&value, &pattern, sizeof value);
  return value;
}

Bytes slice(const Bytes& bytes, std::uint64_t at, std::uint64_t count) {
  const auto start = bytes.begin() + static_cast<std::ptrdiff_t>(at);
  return {start, start + static_cast<std::ptrdiff_t>(count)};
}

// Values by their offset, had they all been written back to back behind their lengths.
using Values = std::map<std::uint64_t, Bytes>;

class LoggerFile {
 public:
  explicit LoggerFile(const std::string& path) : bytes_(fileBytes(path)) {
    if (bytes_.size() < 64) throw std::runtime_error(path + " is no file of a logger");
    if (bytes_[0] == 'U') flags_ = number(bytes_, 60, 2);
  }

  std::vector<LoggerGroup> groups() {
    int index = 0;
    for (std::uint64_t dg = link(64, 0); dg != 0; dg = link(dg, 0)) readDataGroup(dg, index++);
    return std::move(groups_);
  }

 private:
  std::uint64_t u64(std::uint64_t at) const { return number(bytes_, at, 8); }
  std::uint64_t link(std::uint64_t block, unsigned index) const {
    return u64(block + 24 + 8 * index);
  }
  std::uint64_t data(std::uint64_t block) const { return block + 24 + 8 * u64(block + 16); }
  bool isA(std::uint64_t block, std::string_view type) const {
    return std::equal(type.begin(), type.end(),
                      bytes_.begin() + static_cast<std::ptrdiff_t>(block) + 2);
  }
  std::string text(std::uint64_t block) const {
    return block == 0 ? "" : reinterpret_cast<const char*>(&bytes_.at(inMemory(data(block))));
  }

  // The bytes behind a link to data: those of one block, or of the blocks that lists name.
  Bytes dataBehind(std::uint64_t block) const {
    if (block == 0) return {};
    if (!isA(block, "DL")) {
      const std::uint64_t length = u64(block + 8);
      const bool open = length <= 24 && (flags_ & kLastLengthUnknown) != 0;
      return slice(bytes_, block + 24, (open ? bytes_.size() - block : length) - 24);
    }
    Bytes all;
    for (; block != 0; block = link(block, 0)) {
      for (unsigned i = 1; i <= number(bytes_, data(block) + 4, 4); ++i) {
        const Bytes part = dataBehind(link(block, i));
        all.insert(all.end(), part.begin(), part.end());
      }
    }
    return all;
  }

  // A block and all that it leads to, but for its place.
  std::string describe(std::uint64_t block) const {
    if (block == 0) return "-";
    const bool isGroup = isA(block, "CG");
    std::string told(bytes_.begin() + static_cast<std::ptrdiff_t>(block) + 2,
                     bytes_.begin() + static_cast<std::ptrdiff_t>(block) + 4);
    char hex[3] = {};
    const std::uint64_t countsBytes = isGroup ? 16 : 0;  // record id and cycle count
    for (std::uint64_t at = data(block) + countsBytes; at < block + u64(block + 8); ++at) {
      std::snprintf(hex, sizeof hex, "%02x", bytes_.at(inMemory(at)));
      told += hex;
    }
    for (unsigned i = 0; i < u64(block + 16); ++i) {
      const bool data = isA(block, "CN") && i == 5;
      const bool otherGroup = isGroup && (i == 0 || i == 4 || i == 6);
      if (!data && !otherGroup) told.append("{").append(describe(link(block, i))).append("}");
    }
    return told;
  }

  struct Record {
    std::uint64_t cg;
    LoggerGroup group;
    std::vector<std::uint64_t> valuesAt;  // of each channel, where its link leads
  };

  void listChannels(std::uint64_t cn, Record& record) const {
    for (; cn != 0; cn = link(cn, 0)) {
      const std::uint64_t place = data(cn);
      LoggerChannel channel = {text(link(cn, 2)),
                               number(bytes_, place + 4, 4) * 8 + bytes_.at(inMemory(place + 3)),
                               static_cast<unsigned>(number(bytes_, place + 8, 4))};
      channel.variable = bytes_.at(inMemory(place)) == kVlsd;
      const std::uint64_t cc = link(cn, 4);
      if (cc != 0 && bytes_.at(inMemory(data(cc))) == 1) {
        channel.linear = {realOf(u64(data(cc) + 24)), realOf(u64(data(cc) + 32))};
      }
      record.group.channels.push_back(channel);
      record.valuesAt.push_back(link(cn, 5));
      listChannels(link(cn, 1), record);
    }
  }

  void readDataGroup(std::uint64_t dg, int index) {
    const unsigned idSize = bytes_.at(inMemory(data(dg)));
    std::map<std::uint64_t, Record> byId;
    std::map<std::uint64_t, Values> values;  // by channel group or block of data
    std::vector<std::uint64_t> order;
    for (std::uint64_t cg = link(dg, 1), i = 0; cg != 0; cg = link(cg, 0), ++i) {
      const std::uint64_t id = idSize == 0 ? 0 : u64(data(cg));
      Record& record = byId[id];
      record.cg = cg;
      const std::string name = text(link(cg, 2));
      record.group = {name.empty() ? text(link(cg, 5)) : name,
                      index,
                      static_cast<int>(i),
                      describe(cg),
                      {},
                      {}};
      listChannels(link(cg, 1), record);
      order.push_back(id);
    }
    const Bytes all = dataBehind(link(dg, 2));
    for (std::uint64_t at = 0; at + idSize < all.size();) {
      const Record& next = byId.at(number(all, at, idSize));
      at += readRecord(all, at + idSize, next.cg, byId[number(all, at, idSize)].group,
                       values[next.cg]);
      at += idSize;
    }
    for (const std::uint64_t id : order) {
      Record& record = byId[id];
      if ((number(bytes_, data(record.cg) + 16, 2) & kVlsd) != 0) continue;
      for (std::size_t i = 0; i < record.valuesAt.size(); ++i) {
        if (!record.group.channels[i].variable) continue;
        const std::uint64_t from = record.valuesAt[i];
        if (!isA(from, "CG")) values[from] = valuesOf(dataBehind(from));
        fillValues(record.group, record.group.channels[i], values[from]);
      }
      for (const LoggerChannel& channel : record.group.channels) {
        if (!channel.variable) continue;
        record.group.records.resize(std::min(record.group.records.size(), channel.values.size()));
      }
      groups_.push_back(std::move(record.group));
    }
  }

  // Returns the bytes that the record fills.
  std::uint64_t readRecord(const Bytes& all, std::uint64_t at, std::uint64_t cg, LoggerGroup& group,
                           Values& values) const {
    const std::uint64_t place = data(cg);
    const bool isValue = (number(bytes_, place + 16, 2) & kVlsd) != 0;
    std::uint64_t size = number(bytes_, place + 24, 4) + number(bytes_, place + 28, 4);
    if (isValue) size = 4 + (at + 4 <= all.size() ? number(all, at, 4) : 0);
    if (all.size() - at < size) return all.size() - at;
    if (isValue) {
      const auto last = values.empty() ? values.end() : std::prev(values.end());
      const std::uint64_t offset = values.empty() ? 0 : last->first + 4 + last->second.size();
      values[offset] = slice(all, at + 4, size - 4);
    } else {
      group.records.push_back(slice(all, at, size));
    }
    return size;
  }

  static Values valuesOf(const Bytes& all) {
    Values values;
    for (std::uint64_t at = 0; at < all.size();) {
      const std::uint64_t size = number(all, at, 4);
      values[at] = slice(all, at + 4, size);
      at += 4 + size;
    }
    return values;
  }

  void fillValues(const LoggerGroup& group, LoggerChannel& channel, const Values& values) const {
    auto inOrder = values.begin();
    for (const Bytes& record : group.records) {
      auto found = values.find(bitsAt(record, channel.firstBit, channel.bitCount));
      if ((flags_ & kOffsetsUnknown) != 0) found = inOrder == values.end() ? inOrder : inOrder++;
      if (found == values.end()) break;
      channel.values.push_back(found->second);
    }
  }

  Bytes bytes_;
  std::uint64_t flags_ = 0;
  std::vector<LoggerGroup> groups_;
};

}  // namespace

const LoggerChannel* LoggerGroup::channel(const std::string& wanted) const {
  const auto found = std::find_if(channels.begin(), channels.end(),
                                  [&](const LoggerChannel& each) { return each.name == wanted; });
  return found == channels.end() ? nullptr : &*found;
}

std::uint64_t LoggerGroup::field(std::size_t record, const std::string& of) const {
  const LoggerChannel* const place = channel(of);
  return place == nullptr ? 0 : bitsAt(records.at(record), place->firstBit, place->bitCount);
}

std::vector<LoggerGroup> readLoggerFile(const std::string& path) {
  return LoggerFile(path).groups();
}

std::vector<std::string> frameLines(const std::vector<LoggerGroup>& groups) {
  std::multimap<long long, std::string> lines;
  for (const LoggerGroup& group : groups) {
    if (group.name != "CAN_DataFrame") continue;
    const auto& linear = group.channels.at(0).linear;
    for (std::size_t i = 0; i < group.records.size(); ++i) {
      const auto bits = [&](const char* name) {
        return static_cast<unsigned>(group.field(i, std::string("CAN_DataFrame.") + name));
      };
      const double time = realOf(bitsAt(group.records[i], group.channels[0].firstBit, 64));
      const long long ns = std::llround((time * linear.at(1) + linear.at(0)) * 1e9);
      char line[64];
      std::snprintf(line, sizeof line, "%lld %X%s %u %u %u%u%u%u ", ns, bits("ID"),
                    bits("IDE") != 0 ? "x" : "", bits("BusChannel") - 1, bits("DLC"), bits("Dir"),
                    bits("EDL"), bits("BRS"), bits("ESI"));
      std::string text = line;
      for (const std::uint8_t byte : group.channel("CAN_DataFrame.DataBytes")->values.at(i)) {
        std::snprintf(line, sizeof line, "%02x", byte);
        text += line;
      }
      lines.emplace(ns, text);
    }
  }
  std::vector<std::string> result;
  for (auto& [ns, text] : lines) result.push_back(std::move(text));
  return result;
}

}  // namespace tolvex::test
