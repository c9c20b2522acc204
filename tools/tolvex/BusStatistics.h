// What there is on each bus of a recording: frames and identifiers, how often, and how much.
#pragma once

#include <tolvex/MdfFrameReader.h>

#include <cstdint>
#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

#include "TimeSpan.h"

namespace tolvex {

// Bits per second. Files do not tell them.
struct BitRates {
  double nominal = 500'000;
  double data = 2'000'000;  // of the data of CAN FD frames that switch the rate
};

// Frames of one identifier.
struct IdStatistics {
  std::uint32_t id = 0;
  bool isExtended = false;
  std::uint64_t frames = 0;
  std::uint64_t remoteFrames = 0;  // of them
  std::uint64_t fdFrames = 0;      // of them
  std::uint8_t fewestBytes = 0;
  std::uint8_t mostBytes = 0;
  TimeSpan span;

  // Frames per second; nothing when they have all come at once.
  std::optional<double> rate() const;
};

struct BusStatistics {
  std::uint64_t frames = 0;  // without error frames
  std::uint64_t errorFrames = 0;
  // Frames of identifiers that are not listed: of a bus that has more than any real one.
  std::uint64_t otherFrames = 0;
  double busySeconds = 0;  // that the bits of all frames take, without stuff bits
  TimeSpan span;
  std::vector<IdStatistics> ids;  // standard ones first, rising

  std::optional<double> rate() const;
  std::optional<double> load() const;  // the part of the time that the bus was busy
};

// By bus channel, as the file numbers them.
std::map<std::uint16_t, BusStatistics> busStatistics(MdfFrameReader& reader, const BitRates& rates);

}  // namespace tolvex
