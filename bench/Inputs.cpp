#include "bench/Inputs.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

#include "bench/Bench.h"

namespace tolvex::bench {
namespace {

using test::Bytes;
using test::FileBuilder;
using test::Link;

constexpr std::uint32_t kFrameBytes = 23;
constexpr std::uint64_t kCompressedBlockBytes = 4 * 1024 * 1024;
constexpr double kPeriod = 0x1p-13;  // seconds between records: multiples are exact

template <class Number>
void store(std::uint8_t* to, Number number) {
  std::memcpy(to, &number, sizeof number);
}

// Forty identifiers, each with a counter, two slow signals and some noise.
Bytes frameRecords(std::uint64_t count) {
  constexpr std::uint32_t kIds = 40;
  std::minstd_rand random(1);
  Bytes bytes(count * kFrameBytes);
  std::uint8_t* record = bytes.data();
  for (std::uint64_t i = 0; i < count; ++i, record += kFrameBytes) {
    const auto number = static_cast<std::uint32_t>(random() % kIds);
    store(record, static_cast<double>(i) * kPeriod);
    record[8] = 1;                                  // bus channel
    record[9] = 8;                                  // data length code
    record[10] = static_cast<std::uint8_t>(i & 1);  // flags: direction
    store(record + 11, std::uint32_t{0x100} + 7 * number);
    record[15] = static_cast<std::uint8_t>(i);
    store(record + 16, static_cast<std::uint16_t>(i / 64 + number));
    store(record + 18, static_cast<std::uint16_t>(0x4000 - i / 300));
    record[20] = static_cast<std::uint8_t>(random() % 16);
    record[21] = static_cast<std::uint8_t>(random());
  }
  return bytes;
}

Bytes signalRecords(std::uint64_t count, std::uint32_t recordSize) {
  std::minstd_rand random(1);
  std::vector<std::uint16_t> values((recordSize - sizeof(double)) / 2, 0x4000);
  Bytes bytes(count * recordSize);
  std::uint8_t* record = bytes.data();
  for (std::uint64_t i = 0; i < count; ++i, record += recordSize) {
    store(record, static_cast<double>(i) * kPeriod);
    for (std::size_t k = 0; k < values.size(); ++k) {
      values[k] = static_cast<std::uint16_t>(values[k] + random() % (2 + k % 6) - k % 6 / 2);
      store(record + sizeof(double) + 2 * k, values[k]);
    }
  }
  return bytes;
}

Bytes part(const Bytes& bytes, std::uint64_t start, std::uint64_t size) {
  const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(start);
  return {begin, begin + static_cast<std::ptrdiff_t>(std::min(size, bytes.size() - start))};
}

// The records in blocks and lists; the link of the first list.
Link listed(FileBuilder& file, const Bytes& records, std::uint64_t blockBytes) {
  std::vector<Link> lists;
  std::vector<Link> blocks;
  for (std::uint64_t at = 0; at < records.size(); at += blockBytes) {
    blocks.push_back(file.dt(part(records, at, blockBytes)));
    if (blocks.size() < kBlocksPerList && at + blockBytes < records.size()) continue;
    lists.push_back(file.dl(blocks, blockBytes));
    blocks.clear();
  }
  return file.chain(lists);
}

void writePlain(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace

std::uint64_t checksum(const std::uint8_t* bytes, std::uint64_t size) {
  std::uint64_t sum = 0;
  for (std::uint64_t at = 0; size - at >= sizeof sum; at += sizeof sum) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes + at, sizeof word);
    sum = sum * 3 + word;
  }
  return sum;
}

// The builder's own file goes with the builder; this one stays.
std::string Inputs::keep(const FileBuilder& file, const std::string& name) {
  std::string path = folder_.path(name + ".mf4");
  std::filesystem::rename(file.write(), path);
  return path;
}

const RecordFile& Inputs::frames(std::uint64_t count) {
  const std::string name = fmt::format("frames-{}", count);
  const auto [entry, isNew] = recordFiles_.try_emplace(name);
  if (isNew) {
    const Bytes records = frameRecords(count);
    FileBuilder file;
    const Link data = listed(file, records, kRecordsPerBlock * kFrameBytes);
    file.busLog(test::dataFrames(), count, data);
    entry->second = {keep(file, name), folder_.path(name), count, kFrameBytes};
    writePlain(entry->second.plainPath, records);
  }
  return entry->second;
}

const RecordFile& Inputs::unsortedFrames(std::uint64_t count) {
  constexpr std::uint32_t kPair = 1 + 22 + 1 + 4 + 8;  // a frame and its value, with their ids
  constexpr std::uint64_t kBlockBytes = 1 << 20;
  const std::string name = fmt::format("unsorted-{}", count);
  const auto [entry, isNew] = recordFiles_.try_emplace(name);
  if (isNew) {
    const Bytes records = frameRecords(count);
    Bytes sequence(count * kPair);
    for (std::uint64_t i = 0; i < count; ++i) {
      const std::uint8_t* const from = records.data() + i * kFrameBytes;
      std::uint8_t* const to = sequence.data() + i * kPair;
      to[0] = kFrameRecordId;
      store(to + 1, static_cast<double>(i) * 1e5);  // nanoseconds
      std::uint32_t id = 0;
      std::memcpy(&id, from + 11, sizeof id);
      store(to + 9, id << 3 | 1U << 1);       // bus channel 1
      to[13] = from[10];                      // direction
      to[14] = 8 << 4;                        // code
      store(to + 15, std::uint64_t{12} * i);  // where the payload is among the values
      to[23] = kValueRecordId;
      store(to + 24, std::uint32_t{8});
      std::memcpy(to + 28, from + 15, 8);
    }
    FileBuilder file;
    const Link values = file.cg({.records = count, .flags = 1, .recordId = kValueRecordId});
    const Link group =
        file.busLog(test::loggerFrames(), count, listed(file, sequence, kBlockBytes), values);
    const Link frames = file.link(group, 1);
    file.setByte(file.dataPosition(group), 1);  // dg_rec_id_size
    file.setU64(file.dataPosition(frames), kFrameRecordId);
    file.chain({frames, values});
    entry->second = {keep(file, name), folder_.path(name), count, kPair};
    writePlain(entry->second.plainPath, sequence);
  }
  return entry->second;
}

const RecordFile& Inputs::signals(std::uint64_t count, std::uint32_t recordSize) {
  const std::string name = fmt::format("signals-{}-{}", count, recordSize);
  const auto [entry, isNew] = recordFiles_.try_emplace(name);
  if (isNew) {
    const Bytes records = signalRecords(count, recordSize);
    FileBuilder file;
    const Link data = listed(file, records, kRecordsPerBlock * recordSize);
    file.signalGroup({{.name = "first", .byteOffset = sizeof(double), .bitCount = 16}},
                     {.name = "signals", .records = count, .dataBytes = recordSize}, data);
    entry->second = {keep(file, name), folder_.path(name), count, recordSize};
    writePlain(entry->second.plainPath, records);
  }
  return entry->second;
}

// Signals, and the channels that lie in them.
const RecordFile& Inputs::columns(const std::string& name, std::uint64_t count,
                                  std::uint32_t recordSize, std::vector<test::Cn> channels) {
  const auto [entry, isNew] = recordFiles_.try_emplace(fmt::format("{}-{}", name, count));
  if (isNew) {
    const Bytes records = signalRecords(count, recordSize);
    FileBuilder file;
    for (std::size_t i = 0; i < channels.size(); ++i) {
      channels[i].name = fmt::format("channel{}", i);
      channels[i].conversion = file.cc({.type = 1, .values = {offsetOf(i), factorOf(i)}});
    }
    const Link data = listed(file, records, kRecordsPerBlock * recordSize);
    file.signalGroup(channels, {.name = name, .records = count, .dataBytes = recordSize}, data);
    entry->second = {keep(file, entry->first), folder_.path(entry->first), count, recordSize};
    writePlain(entry->second.plainPath, records);
  }
  return entry->second;
}

const RecordFile& Inputs::words(std::uint64_t count, int channels) {
  std::vector<test::Cn> all;
  for (int i = 0; i < channels; ++i) {
    all.push_back({.byteOffset = static_cast<std::uint32_t>(8 + 2 * i), .bitCount = 16});
  }
  return columns("words", count, 64, all);
}

const RecordFile& Inputs::packedFields(std::uint64_t count, int channels) {
  std::vector<test::Cn> all;
  for (int i = 0; i < channels; ++i) {
    all.push_back({.dataType = 1,
                   .byteOffset = static_cast<std::uint32_t>(8 + i * 12 / 8),
                   .bitOffset = static_cast<std::uint8_t>(i % 2 == 0 ? 4 : 0),
                   .bitCount = 12});
  }
  return columns("packed", count, static_cast<std::uint32_t>(8 + channels * 12 / 8), all);
}

const CompressedFile& Inputs::compressed(std::uint64_t blocks, std::uint32_t recordSize,
                                         bool transposed) {
  const std::string name = fmt::format("compressed-{}-{}-{}", blocks, recordSize, transposed);
  const auto [entry, isNew] = compressedFiles_.try_emplace(name);
  CompressedFile& result = entry->second;
  if (isNew) {
    const std::uint64_t perBlock = scaled(kCompressedBlockBytes) / recordSize;
    const std::uint64_t count = blocks * perBlock;
    const Bytes records =
        recordSize == kFrameBytes ? frameRecords(count) : signalRecords(count, recordSize);
    result.blockBytes = perBlock * recordSize;
    result.checksum = checksum(records.data(), records.size());
    FileBuilder file;
    std::vector<Link> links;
    std::vector<std::uint64_t> ends;
    for (std::uint64_t i = 0; i < blocks; ++i) {
      links.push_back(file.dz(part(records, i * result.blockBytes, result.blockBytes), "DT",
                              transposed ? 1 : 0, transposed ? recordSize : 0));
      ends.push_back(file.size());
    }
    result.dataLink = file.dl(links, result.blockBytes);
    file.signalGroup({{.name = "first", .byteOffset = sizeof(double), .bitCount = 16}},
                     {.name = "signals", .records = count, .dataBytes = recordSize},
                     result.dataLink);
    result.path = keep(file, name);
    std::ifstream in(result.path, std::ios::binary);
    for (std::uint64_t i = 0; i < blocks; ++i) {
      constexpr std::uint64_t kBeforeCompressed = 48;  // header and record of the block
      const std::uint64_t start = links[i] + kBeforeCompressed;
      Bytes& block = result.blocks.emplace_back(ends[i] - start);
      in.seekg(static_cast<std::streamoff>(start));
      in.read(reinterpret_cast<char*>(block.data()), static_cast<std::streamsize>(block.size()));
    }
  }
  return result;
}

const std::string& Inputs::channels(std::uint64_t groups, std::uint64_t channelsPerGroup) {
  const std::string name = fmt::format("channels-{}-{}", groups, channelsPerGroup);
  const auto [entry, isNew] = channelFiles_.try_emplace(name);
  if (isNew) {
    FileBuilder file;
    for (std::uint64_t group = 0; group < groups; ++group) {
      std::vector<test::Cn> channels;
      for (std::uint32_t i = 0; i < channelsPerGroup; ++i) {
        const Link conversion = file.cc({.type = 1, .values = {-40, 0.1}});
        channels.push_back({.name = fmt::format("Drive.Group{}.Signal{}", group, i),
                            .byteOffset = 8 + 2 * i,
                            .bitCount = 16,
                            .conversion = conversion,
                            .unit = file.tx("km/h")});
      }
      const auto recordSize = static_cast<std::uint32_t>(8 + 2 * channelsPerGroup);
      file.signalGroup(
          channels, {.name = fmt::format("Group{}", group), .records = 1, .dataBytes = recordSize},
          file.dt(Bytes(recordSize)));
    }
    entry->second = keep(file, name);
  }
  return entry->second;
}

Inputs& inputs() {
  static Inputs all;
  return all;
}

}  // namespace tolvex::bench
