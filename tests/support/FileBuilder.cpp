#include "tests/support/FileBuilder.h"

#include <stdlib.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "Mdf4/model/BusLogLayout.h"

namespace tolvex::test {
namespace {

constexpr Link kHd = 64;

// `text` in a field of fixed width, padded with `pad`.
std::string field(std::string text, std::size_t width, char pad) {
  text.resize(width, pad);
  return text;
}

Bytes terminated(const std::string& text) {
  Bytes bytes(text.begin(), text.end());
  bytes.push_back(0);
  return bytes;
}

// Tests of other readers take the files of these tests as well: where TOLVEX_KEEP_FILES names a
// folder, each gets a copy there.
void keep(const std::string& path) {
  constexpr std::uintmax_t kLargest = std::uintmax_t{1} << 20;
  static std::atomic<unsigned> count = 0;
  const char* const folder = std::getenv("TOLVEX_KEEP_FILES");
  if (folder == nullptr || std::filesystem::file_size(path) > kLargest) return;
  const std::string name = std::to_string(count++) + ".mf4";
  std::filesystem::copy_file(path, std::filesystem::path(folder) / name);
}

// Rows of `columns` bytes stored column by column; bytes of an incomplete last row stay.
Bytes transposed(const Bytes& bytes, std::size_t columns) {
  Bytes result = bytes;
  const std::size_t rows = columns == 0 ? 0 : bytes.size() / columns;
  std::size_t to = 0;
  for (std::size_t c = 0; c < columns; ++c) {
    for (std::size_t r = 0; r < rows; ++r) result[to++] = bytes[r * columns + c];
  }
  return result;
}

Bytes deflated(const Bytes& bytes) {
  uLongf size = compressBound(static_cast<uLong>(bytes.size()));
  Bytes result(size);
  if (compress(result.data(), &size, bytes.data(), static_cast<uLong>(bytes.size())) != Z_OK) {
    throw std::runtime_error("compress failed");
  }
  result.resize(size);
  return result;
}

void setBits(Bytes& record, const BusField& field, std::uint64_t value) {
  for (std::uint32_t k = 0; k < std::min(field.bits, 64U); ++k) {
    const std::uint32_t bit = field.byte * 8 + field.bit + k;
    const auto mask = static_cast<std::uint8_t>(1U << (bit % 8));
    if ((value >> k & 1) != 0) {
      record.at(bit / 8) |= mask;
    } else {
      record.at(bit / 8) &= static_cast<std::uint8_t>(~mask);
    }
  }
}

BusLayout layoutOf(const BusLogLayout& table, std::uint32_t payloadBytes) {
  BusLayout layout = {std::string(table.group), table.recordSize(payloadBytes), {}};
  for (const BusLogChannel& channel : table.channels) {
    layout.fields.push_back({std::string(channel.suffix), channel.byteOffset, channel.bitOffset,
                             table.bitCount(channel, payloadBytes), channel.dataType});
  }
  return layout;
}

const BusField& fieldNamed(const BusLayout& layout, const std::string& name) {
  for (const BusField& field : layout.fields) {
    if (field.name == name) return field;
  }
  throw std::invalid_argument(layout.group + " has no field " + name);
}

}  // namespace

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Bytes fileBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Bytes joined(const std::vector<Bytes>& parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

TempDir::TempDir() {
  std::string name = (std::filesystem::temp_directory_path() / "tolvex-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
  dir_ = name;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

FileBuilder::FileBuilder(const Header& header) : bytes_(kHd) {
  const std::string version = std::to_string(header.version / 100) + "." +
                              std::to_string(header.version % 100 / 10) +
                              std::to_string(header.version % 10);
  const std::string texts =
      field(header.id, 8, ' ') + field(version, 8, ' ') + field(header.program, 8, ' ');
  std::copy(texts.begin(), texts.end(), bytes_.begin());
  bytes_[28] = static_cast<std::uint8_t>(header.version & 0xFF);
  bytes_[29] = static_cast<std::uint8_t>(header.version >> 8);
  block("HD", {0, 0, 0, 0, 0, 0},
        packed(header.startTimeNs, header.zoneMinutes, header.daylightMinutes, header.timeFlags,
               Bytes::value_type{0}, std::uint16_t{0}, 0.0, 0.0));
}

Link FileBuilder::block(const std::string& type, const std::vector<Link>& links,
                        const Bytes& data) {
  bytes_.resize((bytes_.size() + 7) / 8 * 8);
  const Link position = bytes_.size();
  const std::string marker = "##" + type;
  bytes_.insert(bytes_.end(), marker.begin(), marker.end());
  const std::uint64_t length = 24 + 8 * links.size() + data.size();
  std::vector<Bytes> parts = {packed(std::uint32_t{0}, length, std::uint64_t{links.size()})};
  for (const Link link : links) parts.push_back(packed(link));
  parts.push_back(data);
  const Bytes rest = joined(parts);
  bytes_.insert(bytes_.end(), rest.begin(), rest.end());
  blocks_.push_back(position);
  return position;
}

Link FileBuilder::copy(Link block) {
  bytes_.resize((bytes_.size() + 7) / 8 * 8);
  const Link position = bytes_.size();
  const auto start = bytes_.begin() + static_cast<std::ptrdiff_t>(block);
  const Bytes bytes(start, start + static_cast<std::ptrdiff_t>(u64(block + 8)));
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  blocks_.push_back(position);
  return position;
}

Link FileBuilder::tx(const std::string& text) {
  return block("TX", {}, terminated(text));
}
Link FileBuilder::md(const std::string& xml) {
  return block("MD", {}, terminated(xml));
}

Link FileBuilder::dz(const Bytes& bytes, const std::string& type, std::uint8_t zipType,
                     std::uint32_t columns, const std::vector<Link>& links) {
  const Bytes compressed = deflated(zipType == 1 ? transposed(bytes, columns) : bytes);
  const Bytes record = packed(type.at(0), type.at(1), zipType, std::uint8_t{0}, columns,
                              std::uint64_t{bytes.size()}, std::uint64_t{compressed.size()});
  return block("DZ", links, joined({record, compressed}));
}

Link FileBuilder::dl(const std::vector<Link>& data, std::uint64_t equalLength) {
  std::vector<Link> links = {0};
  links.insert(links.end(), data.begin(), data.end());
  const auto count = static_cast<std::uint32_t>(data.size());
  std::vector<Bytes> parts = {packed(std::uint32_t{equalLength != 0}, count)};
  if (equalLength != 0) {
    parts.push_back(packed(equalLength));
  } else {
    std::uint64_t offset = 0;
    for (const Link block : data) {
      parts.push_back(packed(offset));
      offset += isA(block, "DZ") ? u64(block + 32) : u64(block + 8) - 24;
    }
  }
  return block("DL", links, joined(parts));
}

Link FileBuilder::ld(const std::vector<Link>& data, const std::vector<Link>& invalidation) {
  std::vector<Link> links = {0};
  links.insert(links.end(), data.begin(), data.end());
  links.insert(links.end(), invalidation.begin(), invalidation.end());
  const std::uint32_t flags = invalidation.empty() ? 0 : 0x80000000U;
  return block("LD", links, packed(flags, static_cast<std::uint32_t>(data.size())));
}

Link FileBuilder::cc(const Cc& cc) {
  std::vector<Link> links = {cc.name, cc.unit, cc.comment, 0};
  links.insert(links.end(), cc.refs.begin(), cc.refs.end());
  std::vector<Bytes> parts = {
      packed(cc.type, cc.precision, cc.flags, static_cast<std::uint16_t>(cc.refs.size()),
             static_cast<std::uint16_t>(cc.values.size()), cc.rangeMin, cc.rangeMax)};
  for (const double value : cc.values) parts.push_back(packed(value));
  return block("CC", links, joined(parts));
}

Link FileBuilder::si(std::uint8_t type, std::uint8_t busType) {
  return block("SI", {0, 0, 0}, {type, busType, 0, 0, 0, 0, 0, 0});
}

Link FileBuilder::cn(const Cn& cn) {
  const Link children = chain(cn.children);
  const Link name = named(cn.name);
  std::vector<double> ranges = cn.ranges;
  ranges.resize(6);
  const Bytes record =
      packed(cn.type, cn.sync, cn.dataType, cn.bitOffset, cn.byteOffset, cn.bitCount, cn.flags,
             cn.invalBitPos, cn.precision, std::uint8_t{0}, cn.attachmentCount, ranges[0],
             ranges[1], ranges[2], ranges[3], ranges[4], ranges[5]);
  return block("CN", {0, children, name, cn.source, cn.conversion, cn.data, cn.unit, cn.comment},
               record);
}

Link FileBuilder::cg(const Cg& cg) {
  const Link channels = chain(cg.channels);
  const Link name = named(cg.name);
  return block("CG", {0, channels, name, cg.source, 0, cg.comment},
               packed(cg.recordId, cg.records, cg.flags, std::uint16_t{'.'}, std::uint32_t{0},
                      cg.dataBytes, cg.invalBytes));
}

Link FileBuilder::dg(const Dg& dg) {
  const Link groups = chain(dg.groups);
  const Link position =
      block("DG", {0, groups, dg.data, 0}, {dg.recordIdSize, 0, 0, 0, 0, 0, 0, 0});
  setLink(lastGroup_ == 0 ? kHd : lastGroup_, 0, position);
  lastGroup_ = position;
  return position;
}

Link FileBuilder::chain(const std::vector<Link>& blocks) {
  for (std::size_t i = 1; i < blocks.size(); ++i) setLink(blocks[i - 1], 0, blocks[i]);
  return blocks.empty() ? 0 : blocks.front();
}

Link FileBuilder::signalGroup(const std::vector<Cn>& channels, Cg group, Link data) {
  group.channels = {cn({.name = "time", .type = 2, .sync = 1, .dataType = 4, .bitCount = 64})};
  for (const Cn& channel : channels) group.channels.push_back(cn(channel));
  return dg({.groups = {cg(group)}, .data = data});
}

Link FileBuilder::signalGroup(const std::vector<Cn>& channels, const std::vector<Bytes>& records) {
  const auto size = static_cast<std::uint32_t>(records.at(0).size());
  return signalGroup(channels, {.name = "signals", .records = records.size(), .dataBytes = size},
                     dt(joined(records)));
}

Link FileBuilder::busLog(const BusLayout& layout, std::uint64_t records, Link data,
                         Link signalData) {
  std::vector<Link> children;
  for (const BusField& field : layout.fields) {
    const bool outside = layout.payloadOutside && field.name == "DataBytes";
    children.push_back(
        cn({.name = layout.group + "." + field.name,
            .type = static_cast<std::uint8_t>(outside ? 1 : 0),
            .dataType = field.dataType,
            .byteOffset = field.byte,
            .bitOffset = field.bit,
            .bitCount = field.bits,
            .flags = 0x400,
            .conversion = field.linear.empty() ? 0 : cc({.type = 1, .values = field.linear}),
            .data = outside ? signalData : 0}));
  }
  const Link time = cn(
      {.name = "time",
       .type = 2,
       .sync = 1,
       .dataType = layout.time.dataType,
       .byteOffset = layout.time.byte,
       .bitOffset = layout.time.bit,
       .bitCount = layout.time.bits,
       .conversion = layout.timeFactor == 1 ? 0 : cc({.type = 1, .values = {0, layout.timeFactor}}),
       .unit = named(layout.timeUnit)});
  const Link parent = cn({.name = layout.group,
                          .dataType = 10,
                          .byteOffset = 8,
                          .bitCount = 8 * (layout.recordBytes - 8),
                          .flags = 0x400,
                          .children = children,
                          .source = layout.namedSource ? si(2, 2) : 0});
  const Link group = cg({.name = layout.group,
                         .channels = {time, parent},
                         .records = records,
                         .dataBytes = layout.recordBytes,
                         .flags = 6,
                         .source = layout.groupBus == 0 ? 0 : si(2, layout.groupBus)});
  return dg({.groups = {group}, .data = data});
}

Link FileBuilder::busLog(const BusLayout& layout, const std::vector<Bytes>& records,
                         Link signalData) {
  return busLog(layout, records.size(), dt(joined(records)), signalData);
}

std::uint64_t FileBuilder::u64(std::uint64_t position) const {
  std::uint64_t value = 0;
  std::memcpy(&value, &bytes_.at(inMemory(position + 7)) - 7, sizeof(value));
  return value;
}

void FileBuilder::setU64(std::uint64_t position, std::uint64_t value) {
  std::memcpy(&bytes_.at(inMemory(position + 7)) - 7, &value, sizeof(value));
}

bool FileBuilder::isA(Link block, const std::string& type) const {
  return static_cast<char>(bytes_.at(inMemory(block + 2))) == type.at(0) &&
         static_cast<char>(bytes_.at(inMemory(block + 3))) == type.at(1);
}

Link FileBuilder::firstOf(const std::string& type) const {
  for (const Link block : blocks_) {
    if (isA(block, type)) return block;
  }
  throw std::invalid_argument("no block " + type);
}

std::string FileBuilder::write(std::uint64_t size) const {
  std::string path = dir_->path("built.mf4");
  std::filesystem::remove(path);  // a new file: overwriting one waits for the disk
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes_.data()),
            static_cast<std::streamsize>(std::min<std::uint64_t>(size, bytes_.size())));
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
  keep(path);
  return path;
}

Bytes busRecord(const BusLayout& layout, double time,
                const std::vector<std::pair<std::string, std::uint64_t>>& fields,
                const Bytes& payload) {
  constexpr std::uint8_t kFloat = 4;
  Bytes record(layout.recordBytes);
  setBits(record, layout.time,
          layout.time.dataType == kFloat ? std::bit_cast<std::uint64_t>(time)
                                         : static_cast<std::uint64_t>(time));
  for (const auto& [name, value] : fields) setBits(record, fieldNamed(layout, name), value);
  if (!payload.empty()) {
    std::copy(payload.begin(), payload.end(),
              record.begin() + fieldNamed(layout, "DataBytes").byte);
  }
  return record;
}

BusLayout dataFrames(std::uint32_t payloadBytes) {
  return layoutOf(kCanDataFrames, payloadBytes);
}
BusLayout errorFrames() {
  return layoutOf(kCanErrorFrames, 8);
}
BusLayout fdErrorFrames() {
  return layoutOf(kCanFdErrorFrames, 8);
}

BusLayout remoteFrames() {
  return {"CAN_RemoteFrame",
          15,
          {{"BusChannel", 8, 0, 8},
           {"DLC", 9, 0, 4},
           {"Dir", 10, 0, 1},
           {"ID", 11, 0, 29},
           {"IDE", 14, 7, 1}}};
}

BusLayout typedErrors() {
  BusLayout errors = {"CAN_ErrorFrame", 9, {{"BusChannel", 8, 0, 2}, {"ErrorType", 8, 2, 6}}};
  errors.namedSource = false;
  errors.groupBus = 2;
  return errors;
}

BusLayout loggerFrames() {
  BusLayout layout = {"CAN_DataFrame",
                      22,
                      {{"BusChannel", 8, 1, 2},
                       {"ID", 8, 3, 29},
                       {"IDE", 8, 0, 1},
                       {"DLC", 13, 4, 4},
                       {"DataLength", 12, 1, 7},
                       {"DataBytes", 14, 0, 64, 10},
                       {"Dir", 12, 0, 1},
                       {"EDL", 13, 0, 1},
                       {"ESI", 13, 2, 1},
                       {"BRS", 13, 1, 1}}};
  layout.timeFactor = 1e-9;
  layout.payloadOutside = true;
  return layout;
}

}  // namespace tolvex::test
