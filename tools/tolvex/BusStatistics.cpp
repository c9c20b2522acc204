#include "BusStatistics.h"

#include <algorithm>
#include <tuple>

#include "Progress.h"

namespace tolvex {

namespace {

constexpr std::size_t kAtOnce = 4096;      // frames
constexpr std::size_t kMostIds = 100'000;  // of all buses

// So many things from the first time to the last one are one interval less.
std::optional<double> rateOf(std::uint64_t count, const TimeSpan& span) {
  if (count < 2 || span.lastNs <= span.firstNs) {
    return std::nullopt;
  }
  return static_cast<double>(count - 1) / span.seconds();
}

// The time that a frame takes, from its first bit to the end of the gap behind it.
double secondsOf(const MdfFrameBatch& batch, std::size_t row, const BitRates& rates) {
  constexpr double kErrorFrame = 17;     // flag, delimiter, gap
  constexpr double kAroundPayload = 47;  // of a classic frame
  constexpr double kExtension = 20;      // of its identifier
  const std::uint16_t flags = batch.flags[row];
  const auto kind = static_cast<MdfFrameKind>(batch.kind[row]);
  const auto bytes = static_cast<double>(batch.offsets[row + 1] - batch.offsets[row]);
  const double extension = (flags & MdfFrameFlag::kExtended) != 0 ? kExtension : 0;
  if (kind == MdfFrameKind::Error || kind == MdfFrameKind::FdError) {
    return kErrorFrame / rates.nominal;
  }
  if ((flags & MdfFrameFlag::kFd) == 0) {
    return (kAroundPayload + extension + 8 * bytes) / rates.nominal;
  }
  constexpr double kBeforeSwitch = 17;  // with the bit that switches
  constexpr double kBehindSwitch = 13;  // delimiters, acknowledge, end, gap
  constexpr double kMostOfShort = 16;   // bytes, up to which the checksum is short
  // Error state, length code, and the checksum with its stuff bits, whose number is fixed.
  const double control = 5 + (bytes <= kMostOfShort ? 27 : 32);
  const double dataRate = (flags & MdfFrameFlag::kBrs) != 0 ? rates.data : rates.nominal;
  return (kBeforeSwitch + (extension > 0 ? extension - 1 : 0) + kBehindSwitch) / rates.nominal +
         (control + 8 * bytes) / dataRate;
}

class Counter {
 public:
  explicit Counter(const BitRates& rates) : rates_(rates) {}

  void add(const MdfFrameBatch& batch) {
    for (std::size_t row = 0; row < batch.count; ++row) {
      BusStatistics& bus = buses_[batch.bus[row]];
      bus.span.add(batch.timeNs[row]);
      bus.busySeconds += secondsOf(batch, row, rates_);
      const auto kind = static_cast<MdfFrameKind>(batch.kind[row]);
      if (kind == MdfFrameKind::Error || kind == MdfFrameKind::FdError) {
        ++bus.errorFrames;
      } else {
        ++bus.frames;
        addToId(batch, row, bus);
      }
    }
  }

  std::map<std::uint16_t, BusStatistics> finish() {
    for (const auto& [key, id] : ids_) {
      buses_[static_cast<std::uint16_t>(key >> kBusShift)].ids.push_back(id);
    }
    for (auto& [number, bus] : buses_) {
      std::ranges::sort(bus.ids, {},
                        [](const IdStatistics& id) { return std::tuple(id.isExtended, id.id); });
    }
    return std::move(buses_);
  }

 private:
  static constexpr int kBusShift = 40;
  static constexpr std::uint64_t kExtendedKey = std::uint64_t{1} << 32;

  void addToId(const MdfFrameBatch& batch, std::size_t row, BusStatistics& bus) {
    const std::uint16_t flags = batch.flags[row];
    const bool isExtended = (flags & MdfFrameFlag::kExtended) != 0;
    const std::uint64_t key = std::uint64_t{batch.bus[row]} << kBusShift |
                              (isExtended ? kExtendedKey : 0) | batch.id[row];
    auto found = ids_.find(key);
    const auto bytes = static_cast<std::uint8_t>(batch.offsets[row + 1] - batch.offsets[row]);
    if (found == ids_.end()) {
      if (ids_.size() == kMostIds) {
        ++bus.otherFrames;
        return;
      }
      found = ids_.emplace(key, IdStatistics{}).first;
      found->second.id = batch.id[row];
      found->second.isExtended = isExtended;
      found->second.fewestBytes = bytes;
    }
    IdStatistics& id = found->second;
    ++id.frames;
    id.remoteFrames += static_cast<MdfFrameKind>(batch.kind[row]) == MdfFrameKind::Remote ? 1 : 0;
    id.fdFrames += (flags & MdfFrameFlag::kFd) != 0 ? 1 : 0;
    id.fewestBytes = std::min(id.fewestBytes, bytes);
    id.mostBytes = std::max(id.mostBytes, bytes);
    id.span.add(batch.timeNs[row]);
  }

  const BitRates rates_;
  std::map<std::uint16_t, BusStatistics> buses_;
  std::unordered_map<std::uint64_t, IdStatistics> ids_;  // by bus and identifier
};

}  // namespace

std::optional<double> IdStatistics::rate() const {
  return rateOf(frames, span);
}

std::optional<double> BusStatistics::rate() const {
  return rateOf(frames + errorFrames, span);
}

std::optional<double> BusStatistics::load() const {
  if (span.lastNs <= span.firstNs) {
    return std::nullopt;
  }
  return busySeconds / span.seconds();
}

std::map<std::uint16_t, BusStatistics> busStatistics(MdfFrameReader& reader,
                                                     const BitRates& rates) {
  Counter counter(rates);
  MdfFrameBatch batch;
  std::uint64_t promised = 0;
  for (const MdfFrameGroup& group : reader.groups()) {
    promised += group.isRead ? group.statedRecords : 0;
  }
  Progress progress("buses", promised, "frames");
  reader.select({});
  for (std::uint64_t done = 0; reader.next(batch, kAtOnce);) {
    counter.add(batch);
    done += batch.count;
    progress.update(done);
  }
  return counter.finish();
}

}  // namespace tolvex
