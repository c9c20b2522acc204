#include "tests/support/HandReader.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>

#include "Mdf4/base/Bytes.h"

namespace tolvex::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::uint64_t bitsAt(const Bytes& bytes, std::uint64_t firstBit, unsigned count) {
  std::uint64_t value = 0;
  for (unsigned k = 0; k < count; ++k) {
    const std::uint64_t bit = firstBit + k;
    value |= static_cast<std::uint64_t>(bytes.at(inMemory(bit / 8)) >> bit % 8 & 1) << k;
  }
  return value;
}

// The file's bytes and the few places in its blocks that are needed.
struct File {
  Bytes bytes;

  std::uint64_t u64(std::uint64_t at) const { return bitsAt(bytes, at * 8, 64); }
  std::uint32_t u32(std::uint64_t at) const {
    return static_cast<std::uint32_t>(bitsAt(bytes, at * 8, 32));
  }
  double f64(std::uint64_t at) const {
    const std::uint64_t pattern = u64(at);
    double value = 0;
    std::memcpy(&value, &pattern, sizeof(value));
    return value;
  }
  std::uint64_t link(std::uint64_t block, unsigned index) const {
    return u64(block + 24 + 8 * index);
  }
  std::uint64_t data(std::uint64_t block) const { return block + 24 + 8 * u64(block + 16); }
  std::string text(std::uint64_t block) const {
    return reinterpret_cast<const char*>(&bytes.at(inMemory(data(block))));
  }
};

struct Channel {
  std::uint64_t firstBit = 0;
  unsigned bitCount = 0;
  std::uint64_t signalData = 0;
};

// All channels of a chain, those composed into another one included, by name.
void listChannels(const File& file, std::uint64_t cn, std::map<std::string, Channel>& channels) {
  for (; cn != 0; cn = file.link(cn, 0)) {
    const std::uint64_t record = file.data(cn);
    channels[file.text(file.link(cn, 2))] = {
        std::uint64_t{file.u32(record + 4)} * 8 + file.bytes.at(inMemory(record + 3)),
        file.u32(record + 8), file.link(cn, 5)};
    listChannels(file, file.link(cn, 1), channels);
  }
}

std::uint64_t groupNamed(const File& file, const std::string& name) {
  for (std::uint64_t dg = file.link(64, 0); dg != 0; dg = file.link(dg, 0)) {
    if (file.text(file.link(file.link(dg, 1), 2)) == name) return dg;
  }
  throw std::runtime_error("no group " + name);
}

}  // namespace

std::vector<HandFrame> readFramesByHand(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const File file = {Bytes(std::istreambuf_iterator<char>(in), {})};
  const std::uint64_t dg = groupNamed(file, "CAN_DataFrame");
  const std::uint64_t cg = file.link(dg, 1);
  const std::uint64_t frames = file.u64(file.data(cg) + 8);
  const std::uint32_t recordSize = file.u32(file.data(cg) + 24);
  const std::uint64_t records = file.data(file.link(dg, 2));

  std::map<std::string, Channel> channels;
  listChannels(file, file.link(cg, 1), channels);
  const std::uint64_t linear = file.data(file.link(file.link(cg, 1), 4)) + 24;
  const std::uint64_t payloads = file.data(channels.at("CAN_DataFrame.DataBytes").signalData);

  std::vector<HandFrame> result;
  for (std::uint64_t i = 0; i < frames; ++i) {
    const std::uint64_t record = records + i * recordSize;
    const auto field = [&](const char* name) {
      const Channel& channel = channels.at(std::string("CAN_DataFrame.") + name);
      return bitsAt(file.bytes, record * 8 + channel.firstBit, channel.bitCount);
    };
    HandFrame frame;
    frame.seconds = file.f64(record) * file.f64(linear + 8) + file.f64(linear);
    frame.id = static_cast<std::uint32_t>(field("ID"));
    frame.extended = field("IDE") != 0;
    frame.busChannel = static_cast<std::uint32_t>(field("BusChannel"));
    frame.dlc = static_cast<std::uint32_t>(field("DLC"));
    frame.dir = field("Dir") != 0;
    frame.edl = field("EDL") != 0;
    frame.brs = field("BRS") != 0;
    frame.esi = field("ESI") != 0;
    const std::uint64_t entry = payloads + field("DataBytes");
    for (std::uint64_t k = 0; k < file.u32(entry); ++k) {
      frame.payload.push_back(file.bytes.at(inMemory(entry + 4 + k)));
    }
    result.push_back(frame);
  }
  return result;
}

double DbcSignal::decode(const std::vector<std::uint8_t>& payload) const {
  return static_cast<double>(bitsAt(payload, startBit, bitCount)) * factor + offset;
}

std::vector<DbcMessage> readDbc(const std::string& path) {
  std::ifstream in(path);
  std::vector<DbcMessage> messages;
  for (std::string line; std::getline(in, line);) {
    char name[65] = {};
    DbcSignal signal;
    DbcMessage message;
    if (std::sscanf(line.c_str(), "BO_ %u %64[^:]:", &message.id, name) == 2) {
      message.name = name;
      messages.push_back(message);
    } else if (std::sscanf(line.c_str(), " SG_ %64s : %u|%u@1+ (%lf,%lf)", name, &signal.startBit,
                           &signal.bitCount, &signal.factor, &signal.offset) == 5) {
      signal.name = name;
      messages.at(messages.size() - 1).signals.push_back(signal);
    }
  }
  return messages;
}

}  // namespace tolvex::test
