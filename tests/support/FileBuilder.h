// Builds measurement files for tests, block by block from raw bytes, without the library's own
// writing code, so that reading and writing can be checked against it.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/base/Bytes.h"

namespace tolvex::test {

using Bytes = std::vector<std::uint8_t>;
using Link = std::uint64_t;  // a block's position in the file; 0 for none

static_assert(std::endian::native == std::endian::little);

// The bytes of the values, back to back and little-endian: packed(1.5, std::uint8_t{7}).
template <typename... Values>
Bytes packed(Values... values) {
  Bytes bytes(sizeof...(values) == 0 ? 0 : (sizeof(values) + ...));
  std::size_t at = 0;
  ((std::memcpy(bytes.data() + at, &values, sizeof(values)), at += sizeof(values)), ...);
  return bytes;
}

Bytes joined(const std::vector<Bytes>& parts);

// What a file holds; nothing when there is none.
std::string contentOf(const std::string& path);
Bytes fileBytes(const std::string& path);

// A new folder that disappears with the object.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string path(const std::string& name) const { return (dir_ / name).string(); }

 private:
  std::filesystem::path dir_;
};

// Identification and HD block.
struct Header {
  std::string id = "MDF     ";
  std::uint16_t version = 410;
  std::string program = "builder";
  std::uint64_t startTimeNs = 0;
  std::int16_t zoneMinutes = 0;
  std::int16_t daylightMinutes = 0;
  std::uint8_t timeFlags = 0;
};

// A channel; the fields that a record holds under the format's own names, then the links.
struct Cn {
  std::string name = {};  // gets a TX block, unless empty
  std::uint8_t type = 0;
  std::uint8_t sync = 0;
  std::uint8_t dataType = 0;
  std::uint32_t byteOffset = 0;
  std::uint8_t bitOffset = 0;
  std::uint32_t bitCount = 8;
  std::uint32_t flags = 0;
  std::uint32_t invalBitPos = 0;
  std::uint8_t precision = 0;
  std::uint16_t attachmentCount = 0;
  std::vector<double> ranges = {};  // value range, limit, extended limit: min and max each
  std::vector<Link> children = {};  // the composition: channels, or any one block
  Link source = 0;
  Link conversion = 0;
  Link data = 0;
  Link unit = 0;
  Link comment = 0;
};

struct Cc {
  std::uint8_t type = 0;
  std::vector<double> values = {};
  std::vector<Link> refs = {};
  std::uint8_t precision = 0;
  std::uint16_t flags = 0;
  double rangeMin = 0;
  double rangeMax = 0;
  Link name = 0;
  Link unit = 0;
  Link comment = 0;
};

struct Cg {
  std::string name = {};  // the acquisition name; gets a TX block, unless empty
  std::vector<Link> channels = {};
  std::uint64_t records = 0;
  std::uint32_t dataBytes = 0;
  std::uint32_t invalBytes = 0;
  std::uint16_t flags = 0;
  std::uint64_t recordId = 0;
  Link comment = 0;
  Link source = 0;
};

struct Dg {
  std::vector<Link> groups = {};
  Link data = 0;
  std::uint8_t recordIdSize = 0;
};

// One field of a bus-log record: the channel's name behind the group's, and where its bits lie.
struct BusField {
  std::string name;
  std::uint32_t byte = 0;
  std::uint8_t bit = 0;
  std::uint32_t bits = 0;
  std::uint8_t dataType = 0;
  std::vector<double> linear = {};  // offset and factor of a linear conversion
};

struct BusLayout {
  std::string group;
  std::uint32_t recordBytes = 0;
  std::vector<BusField> fields;
  double timeFactor = 1;        // seconds per unit of the time channel
  bool payloadOutside = false;  // DataBytes holds an offset into the signal data
  bool namedSource = true;      // the group's channel carries a CAN bus source block
  std::uint8_t groupBus = 0;    // the bus type of the channel group's own source block, if any
  BusField time = {"time", 0, 0, 64, 4};
  std::string timeUnit = {};
};

// As the library lays them out.
BusLayout dataFrames(std::uint32_t payloadBytes = 8);
BusLayout errorFrames();
BusLayout fdErrorFrames();
// As others write them: frames without payload, errors with a type on the bus that their group
// names, and the frames of a common hardware logger, which packs 22 bytes with the time as float64
// nanoseconds and the payload outside.
BusLayout remoteFrames();
BusLayout typedErrors();
BusLayout loggerFrames();

// A record with `time`, an integer where the layout has one, the named fields' bits, and `payload`
// in DataBytes.
Bytes busRecord(const BusLayout& layout, double time,
                const std::vector<std::pair<std::string, std::uint64_t>>& fields,
                const Bytes& payload = {});

// The file under construction. Every call appends one block at a multiple of 8 and returns its
// position; dg also hangs it into the file's chain of data groups. A copy goes on by itself, but
// writes to the same path.
class FileBuilder {
 public:
  explicit FileBuilder(const Header& header = {});

  // Any block, with a header that tells the truth.
  Link block(const std::string& type, const std::vector<Link>& links, const Bytes& data);
  // A block that is there, once more.
  Link copy(Link block);

  Link tx(const std::string& text);
  Link md(const std::string& xml);
  Link dt(const Bytes& bytes) { return block("DT", {}, bytes); }
  Link sd(const Bytes& bytes) { return block("SD", {}, bytes); }
  Link rd(const Bytes& bytes) { return block("RD", {}, bytes); }
  Link dv(const Bytes& bytes) { return block("DV", {}, bytes); }
  Link di(const Bytes& bytes) { return block("DI", {}, bytes); }
  // Compresses `bytes`; zipType 1 stores them column by column, `columns` bytes a row.
  Link dz(const Bytes& bytes, const std::string& type = "DT", std::uint8_t zipType = 0,
          std::uint32_t columns = 0, const std::vector<Link>& links = {});
  // With an equal length, or listing the offsets when it is 0.
  Link dl(const std::vector<Link>& data, std::uint64_t equalLength = 0);
  Link hl(Link list, std::uint8_t zipType = 0) {
    return block("HL", {list}, {0, 0, zipType, 0, 0, 0, 0, 0});
  }
  Link ld(const std::vector<Link>& data, const std::vector<Link>& invalidation = {});
  Link cc(const Cc& cc);
  Link si(std::uint8_t type, std::uint8_t busType);
  Link cn(const Cn& cn);
  Link cg(const Cg& cg);
  Link dg(const Dg& dg);
  // Links the blocks one to the next by their first link; returns the first, or 0.
  Link chain(const std::vector<Link>& blocks);

  // A data group of one channel group: a master "time" channel (float64 seconds at byte 0), then
  // `channels`. `group` says the rest; with records given, data and sizes come from them.
  Link signalGroup(const std::vector<Cn>& channels, Cg group, Link data);
  Link signalGroup(const std::vector<Cn>& channels, const std::vector<Bytes>& records);

  // A data group in bus-log form.
  Link busLog(const BusLayout& layout, std::uint64_t records, Link data, Link signalData = 0);
  Link busLog(const BusLayout& layout, const std::vector<Bytes>& records, Link signalData = 0);

  // Looking at and changing what was written.
  std::uint64_t size() const { return bytes_.size(); }
  const std::vector<Link>& blocks() const { return blocks_; }  // in file order, HD first
  bool isA(Link block, const std::string& type) const;
  Link firstOf(const std::string& type) const;  // the first block of that type in the file
  std::uint64_t u64(std::uint64_t position) const;
  std::uint64_t linkCount(Link block) const { return u64(block + 16); }
  Link link(Link block, std::uint64_t index) const { return u64(block + 24 + 8 * index); }
  std::uint64_t dataPosition(Link block) const { return block + 24 + 8 * linkCount(block); }
  void setByte(std::uint64_t position, std::uint8_t value) {
    bytes_.at(inMemory(position)) = value;
  }
  void setU64(std::uint64_t position, std::uint64_t value);
  void setLength(Link block, std::uint64_t length) { setU64(block + 8, length); }
  void setLinkCount(Link block, std::uint64_t count) { setU64(block + 16, count); }
  void setLink(Link block, std::uint64_t index, Link to) { setU64(block + 24 + 8 * index, to); }

  // Writes the file, or its first `size` bytes, and returns its path. It lives as long as the
  // builder and its copies; a further call replaces it.
  std::string write(std::uint64_t size = ~std::uint64_t{0}) const;

 private:
  Link named(const std::string& text) { return text.empty() ? 0 : tx(text); }

  Bytes bytes_;
  std::vector<Link> blocks_;
  Link lastGroup_ = 0;
  std::shared_ptr<TempDir> dir_ = std::make_shared<TempDir>();
};

}  // namespace tolvex::test
