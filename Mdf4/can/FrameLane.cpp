#include "Mdf4/can/FrameLane.h"

#include <algorithm>
#include <cinttypes>

#include "Mdf4/base/Diagnostics.h"

namespace tolvex {

void FrameLane::begin(const FrameChoice& choice) {
  choice_ = &choice;
  entries_.clear();
  next_ = 0;
  ready_ = 0;
  atEnd_ = false;
  takenNs_ = std::numeric_limits<std::int64_t>::min();
  seek(choice.startNs());
}

std::span<const FrameEntry> FrameLane::ready() {
  while (next_ == ready_ && !(atEnd_ && next_ == entries_.size())) refill();
  return std::span(entries_).subspan(next_, ready_ - next_);
}

void FrameLane::take(std::size_t count) {
  if (count == 0) return;
  next_ += count;
  takenNs_ = entries_[next_ - 1].timeNs;
}

void FrameLane::append(std::span<const FrameEntry> entries, MdfFrameBatch& out) {
  const std::size_t first = out.count;
  decode(entries, out);
  if (reportedPayload_) return;
  const auto begin = out.flags.begin() + static_cast<std::ptrdiff_t>(first);
  const auto end = out.flags.begin() + static_cast<std::ptrdiff_t>(out.count);
  const auto missing = std::find_if(
      begin, end, [](std::uint16_t flags) { return (flags & MdfFrameFlag::kPayloadMissing) != 0; });
  if (missing == end) return;
  reportedPayload_ = true;  // once: it is mostly all of them
  const auto row = static_cast<std::size_t>(missing - out.flags.begin());
  file_.report(formatText("data group %d: record %" PRIu64
                          ": its payload is not in the file or cannot be read",
                          int{settings_.dataGroup}, out.record[row]));
}

void FrameLane::refill() {
  entries_.erase(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(next_));
  moved(next_, false);
  next_ = 0;
  const std::size_t ordered = entries_.size();
  if (!atEnd_) atEnd_ = !collect();
  sort(ordered);
  const std::size_t held = atEnd_ ? 0 : settings_.held;
  ready_ = complete(entries_.size() - std::min(entries_.size(), held));
}

// The first `ordered` entries are.
void FrameLane::sort(std::size_t ordered) {
  const auto begin = entries_.begin() + static_cast<std::ptrdiff_t>(ordered == 0 ? 0 : ordered - 1);
  if (!std::is_sorted(begin, entries_.end(), [](const FrameEntry& a, const FrameEntry& b) {
        return a.timeNs < b.timeNs;
      })) {
    std::ranges::stable_sort(entries_, {}, &FrameEntry::timeNs);
    moved(0, true);
  }
  if (!entries_.empty() && entries_.front().timeNs < takenNs_) reportDisorder(entries_.front());
}

void FrameLane::reportDisorder(const FrameEntry& entry) {
  if (std::exchange(reportedDisorder_, true)) return;
  file_.report(formatText(
      "data group %d: record %" PRIu64 " is %" PRId64
      " ns earlier than records more than %zu in front of it: such frames are not in order",
      int{settings_.dataGroup}, entry.number, takenNs_ - entry.timeNs, settings_.held));
}

void FrameLane::keepPending() {
  std::size_t size = 0;
  for (const FrameEntry& entry : entries_) {
    size += recordSize(entry);
    if (entry.payload != nullptr) size += entry.payloadLength;
  }
  keptBefore_.resize(size);
  std::uint8_t* to = keptBefore_.data();
  const auto keep = [&to](const std::uint8_t*& bytes, std::size_t count) {
    bytes = std::copy_n(bytes, count, to) - count;
    to += count;
  };
  for (FrameEntry& entry : entries_) {
    keep(entry.record, recordSize(entry));
    if (entry.payload != nullptr) keep(entry.payload, entry.payloadLength);
  }
  kept_.swap(keptBefore_);
}

std::int64_t FrameLane::latest() {
  std::int64_t latest = std::numeric_limits<std::int64_t>::min();
  const FrameChoice all;
  begin(all);
  seek(kEnd);
  for (;;) {
    const std::span<const FrameEntry> entries = ready();
    if (entries.empty()) break;
    latest = std::max(latest, entries.back().timeNs);
    take(entries.size());
  }
  choice_ = nullptr;
  return latest;
}

}  // namespace tolvex
