// Reads real files by hand: bytes at offsets, one bit after the other, sharing nothing with the
// library, so that its answers can be compared with these. For sound, sorted files only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tolvex::test {

struct HandFrame {
  double seconds = 0;
  std::uint32_t id = 0;
  bool extended = false;
  std::uint32_t busChannel = 0;  // as the file counts, from 1
  std::uint32_t dlc = 0;
  bool dir = false;
  bool edl = false;
  bool brs = false;
  bool esi = false;
  std::vector<std::uint8_t> payload;
};

// The frames of the file's CAN_DataFrame group in file order, payload from one SD block.
std::vector<HandFrame> readFramesByHand(const std::string& path);

// A little-endian unsigned signal of a CAN message.
struct DbcSignal {
  std::string name;
  unsigned startBit = 0;
  unsigned bitCount = 0;
  double factor = 1;
  double offset = 0;

  double decode(const std::vector<std::uint8_t>& payload) const;
};

struct DbcMessage {
  std::uint32_t id = 0;
  std::string name;
  std::vector<DbcSignal> signals;
};

std::vector<DbcMessage> readDbc(const std::string& path);

}  // namespace tolvex::test
