// The files that the benches read, written on first use into a temporary folder that disappears
// with the program.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/support/FileBuilder.h"

namespace tolvex::bench {

// Data blocks of this many records, named by lists of kBlocksPerList.
inline constexpr std::uint64_t kRecordsPerBlock = 512;
inline constexpr std::uint64_t kBlocksPerList = 5;

// The ids of unsorted records.
inline constexpr std::uint8_t kFrameRecordId = 1;
inline constexpr std::uint8_t kValueRecordId = 2;

// One group, and the same records back to back in a file without any structure.
struct RecordFile {
  std::string path;
  std::string plainPath;
  std::uint64_t records = 0;
  std::uint32_t recordSize = 0;

  std::uint64_t bytes() const { return records * recordSize; }
  std::uint64_t blocks() const { return (records + kRecordsPerBlock - 1) / kRecordsPerBlock; }
};

// A list of compressed blocks.
struct CompressedFile {
  std::string path;
  std::uint64_t dataLink = 0;
  std::uint64_t blockBytes = 0;  // of each block, inflated
  std::vector<test::Bytes> blocks;
  std::uint64_t checksum = 0;  // of the records

  std::uint64_t bytes() const { return blocks.size() * blockBytes; }
};

// A sum over the bytes, 8 at a time; the last bytes of an odd size do not count.
std::uint64_t checksum(const std::uint8_t* bytes, std::uint64_t size);

class Inputs {
 public:
  // A bus log of CAN data frames, 8 bytes of payload each.
  const RecordFile& frames(std::uint64_t count);
  // The same frames as a hardware logger packs them: records with ids, each in front of its
  // payload, which is a value of another group. The size of a record is that of both.
  const RecordFile& unsortedFrames(std::uint64_t count);
  // float64 seconds and a walk of 16-bit signals.
  const RecordFile& signals(std::uint64_t count, std::uint32_t recordSize);
  // float64 seconds and so many uint16 with linear conversions, in records of 64 bytes.
  const RecordFile& words(std::uint64_t count, int channels);
  // float64 seconds and so many big-endian fields of 12 bits, packed, with linear conversions.
  const RecordFile& packedFields(std::uint64_t count, int channels);
  static double factorOf(std::size_t channel) { return 0.25 + 0.5 * static_cast<double>(channel); }
  static double offsetOf(std::size_t channel) { return static_cast<double>(channel) - 40; }
  // Records of 23 bytes are CAN frames, others signals; `transposed` ones lie column by column.
  const CompressedFile& compressed(std::uint64_t blocks, std::uint32_t recordSize, bool transposed);
  // Groups of channels without records; each channel has its own name, unit and linear conversion.
  const std::string& channels(std::uint64_t groups, std::uint64_t channelsPerGroup);

 private:
  const RecordFile& columns(const std::string& name, std::uint64_t count, std::uint32_t recordSize,
                            std::vector<test::Cn> channels);
  std::string keep(const test::FileBuilder& file, const std::string& name);

  test::TempDir folder_;
  std::map<std::string, RecordFile> recordFiles_;
  std::map<std::string, CompressedFile> compressedFiles_;
  std::map<std::string, std::string> channelFiles_;
};

Inputs& inputs();

}  // namespace tolvex::bench
