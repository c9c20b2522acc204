#include "Mdf4/can/FrameLane.h"

#include <algorithm>
#include <cinttypes>
#include <numeric>
#include <utility>

#include "Mdf4/base/Diagnostics.h"

namespace tolvex {
namespace {

// As std::is_sorted, which stops at the first descent: mostly there is none.
bool ascend(std::span<const std::int64_t> times) {
  unsigned descents = 0;
  for (std::size_t i = 1; i < times.size(); ++i) descents |= unsigned{times[i] < times[i - 1]};
  return descents == 0;
}

}  // namespace

void FrameLane::begin(const FrameChoice& choice) {
  choice_ = &choice;
  drop(times_.size());
  times_.clear();
  next_ = 0;
  ready_ = 0;
  atEnd_ = false;
  takenNs_ = std::numeric_limits<std::int64_t>::min();
  seek(choice.startNs());
}

std::span<const std::int64_t> FrameLane::ready() {
  while (next_ == ready_ && !(atEnd_ && next_ == times_.size())) refill();
  return std::span(times_).subspan(next_, ready_ - next_);
}

void FrameLane::append(std::size_t count, MdfFrameBatch& out) {
  const std::size_t first = out.count;
  decode(next_, count, out);
  reportMissingPayload(out, first);
  next_ += count;
  takenNs_ = times_[next_ - 1];
}

// Once, as it is mostly all of them, however many problems there are already.
void FrameLane::reportMissingPayload(const MdfFrameBatch& out, std::size_t first) {
  if (reportedPayload_) return;
  const std::uint16_t* const flags = out.flags.data();
  std::uint16_t any = 0;
  for (std::size_t row = first; row < out.count; ++row) any |= flags[row];
  if ((any & MdfFrameFlag::kPayloadMissing) == 0) return;
  reportedPayload_ = true;
  std::size_t row = first;
  while ((flags[row] & MdfFrameFlag::kPayloadMissing) == 0) ++row;
  file_.problems().keep(formatText("data group %d: record %" PRIu64
                                   ": its payload is not in the file or cannot be read",
                                   int{settings_.dataGroup}, out.record[row]));
}

void FrameLane::refill() {
  drop(next_);
  times_.erase(times_.begin(), times_.begin() + static_cast<std::ptrdiff_t>(next_));
  next_ = 0;
  const std::size_t ordered = times_.size();
  if (!atEnd_) atEnd_ = !collect();
  sort(ordered);
  const std::size_t held = atEnd_ ? 0 : settings_.held;
  ready_ = complete(times_.size() - std::min(times_.size(), held));
}

// The first `ordered` times are.
void FrameLane::sort(std::size_t ordered) {
  const std::size_t from = ordered == 0 ? 0 : ordered - 1;
  if (!ascend(std::span(times_).subspan(from))) {
    std::vector<std::size_t> order(times_.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::stable_sort(order, {}, [this](std::size_t index) { return times_[index]; });
    reorder(order);
    std::ranges::sort(times_);
  }
  if (!times_.empty() && times_.front() < takenNs_) reportDisorder();
}

void FrameLane::reportDisorder() {
  if (std::exchange(reportedDisorder_, true)) return;
  file_.problems().keep(
      formatText("data group %d: record %" PRIu64 " is %" PRIu64
                 " ns earlier than one that is more than %zu records in front of it: such "
                 "frames are not in order",
                 int{settings_.dataGroup}, numberOf(0),
                 static_cast<std::uint64_t>(takenNs_) - static_cast<std::uint64_t>(times_.front()),
                 settings_.held));
}

std::int64_t FrameLane::latest() {
  std::int64_t latest = std::numeric_limits<std::int64_t>::min();
  const FrameChoice all;
  begin(all);
  seek(kEnd);
  for (;;) {
    const std::span<const std::int64_t> times = ready();
    if (times.empty()) break;
    latest = std::max(latest, times.back());
    next_ += times.size();
    takenNs_ = times.back();
  }
  choice_ = nullptr;
  return latest;
}

}  // namespace tolvex
