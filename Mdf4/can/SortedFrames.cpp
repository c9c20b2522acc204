#include "Mdf4/can/SortedFrames.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tolvex {
namespace {

constexpr std::size_t kAtOnce = 4096;  // records

}  // namespace

SortedFrames::SortedFrames(DirectFile& file, const LaneSettings& settings,
                           const FrameSource& source, std::shared_ptr<RecordBatches> records,
                           std::size_t recordSize, std::unique_ptr<PayloadSource> payloads)
    : FrameLane(file, settings),
      records_(std::move(records)),
      payloads_(std::move(payloads)),
      decoder_(source.layout, true, true),
      columns_(decoder_, recordSize),
      time_(source.time),
      size_(recordSize) {
  records_->limitReadAhead(settings.readAhead);
}

// Records that come late stand in front of the one that is found.
void SortedFrames::seek(std::int64_t timeNs) {
  const std::uint64_t count = records_->count();
  const std::uint64_t found = timeNs == kEnd ? count : firstAt(timeNs);
  number_ = found - std::min<std::uint64_t>(found, 2 * settings_.held);
  records_->seek(number_);
  rows_ = {};
  behind_ = 0;
}

// The first record of that time or later, where times ascend.
std::uint64_t SortedFrames::firstAt(std::int64_t timeNs) {
  if (timeNs == std::numeric_limits<std::int64_t>::min()) return 0;
  std::uint64_t low = 0;
  std::uint64_t high = records_->count();
  while (low < high) {
    const std::uint64_t middle = low + (high - low) / 2;
    const std::optional<Timed> found = firstFrom(middle);
    if (found && found->number < high && found->timeNs < timeNs) {
      low = found->number + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

// The first record from there on that can be read, as far as a few damaged blocks go.
std::optional<SortedFrames::Timed> SortedFrames::firstFrom(std::uint64_t record) {
  constexpr int kMostDamaged = 64;
  records_->seek(record);
  for (int i = 0; i < kMostDamaged; ++i) {
    const RecordBatch batch = records_->next(records_->count() - record);
    if (batch.count() == 0) return std::nullopt;
    if (batch.lost == 0) return Timed{record, timeOf(time_, {batch.rows.first, size_})};
    record += batch.lost;
  }
  return std::nullopt;
}

bool SortedFrames::collect() {
  if (rows_.count == 0) {
    keep();
    const RecordBatch batch = records_->next(~std::uint64_t{0});
    if (batch.count() == 0) return false;
    number_ += batch.lost;
    rows_ = batch.rows;
  }
  const std::size_t count = std::min(rows_.count, kAtOnce);
  if (choice_->anyTime() && choice_->anyField()) {
    addAll(count);
  } else {
    addChosen(count);
  }
  rows_ = rows_.from(count);
  number_ += count;
  return behind_ <= settings_.held;
}

// The next `count` records.
void SortedFrames::addAll(std::size_t count) {
  const std::size_t before = times_.size();
  times_.resize(before + count);
  const RecordRows rows = rows_;
  time_.nearest(
      count, [rows](std::size_t i) { return rows.first + i * rows.stride; }, size_,
      settings_.startNs, times_.data() + before);
  addRun({rows_.first, rows_.stride, count, number_, before});
}

// Those of the next `count` records that are wanted.
void SortedFrames::addChosen(std::size_t count) {
  const std::uint8_t* record = rows_.first;
  for (std::size_t i = 0; i < count; ++i, record += rows_.stride) {
    const ByteSpan bytes(record, size_);
    const std::int64_t timeNs = timeOf(time_, bytes);
    behind_ = choice_->isBehind(timeNs) ? behind_ + 1 : 0;
    if (!choice_->hasTime(timeNs) || !choice_->hasId(decoder_.idOf(bytes)) ||
        !choice_->hasBus(decoder_.busOf(bytes))) {
      continue;
    }
    addRun({record, rows_.stride, 1, number_ + i, times_.size()});
    times_.push_back(timeNs);
  }
}

// Behind the others, of which the last one may go on with it.
void SortedFrames::addRun(const Run& run) {
  if (!runs_.empty()) {
    Run& last = runs_.back();
    const bool goesOn = last.stride == run.stride &&
                        last.first + last.count * last.stride == run.first &&
                        last.number + last.count == run.number;
    if (goesOn) {
      last.count += run.count;
      return;
    }
  }
  runs_.push_back(run);
}

std::size_t SortedFrames::runOf(std::size_t index) const {
  const auto behind = std::ranges::upper_bound(runs_, index, {}, &Run::before);
  return static_cast<std::size_t>(behind - runs_.begin()) - 1;
}

std::uint64_t SortedFrames::numberOf(std::size_t index) const {
  const Run& run = runs_[runOf(index)];
  return run.number + (index - run.before);
}

void SortedFrames::decode(std::size_t first, std::size_t count, MdfFrameBatch& out) {
  for (std::size_t index = runOf(first); count != 0; ++index) {
    const Run& run = runs_[index];
    const std::size_t skipped = first - run.before;
    const std::size_t part = std::min(count, run.count - skipped);
    columns_.append({run.first + skipped * run.stride, run.stride, run.number + skipped,
                     std::span<const std::int64_t>(times_).subspan(first, part)},
                    payloads_.get(), out);
    first += part;
    count -= part;
  }
}

void SortedFrames::drop(std::size_t count) {
  std::size_t gone = 0;  // whole runs
  for (; gone < runs_.size() && runs_[gone].before + runs_[gone].count <= count; ++gone) {
  }
  runs_.erase(runs_.begin(), runs_.begin() + static_cast<std::ptrdiff_t>(gone));
  for (Run& run : runs_) {
    const std::size_t part = count - std::min(count, run.before);
    run.first += part * run.stride;
    run.number += part;
    run.count -= part;
    run.before = run.before + part - count;
  }
}

void SortedFrames::reorder(std::span<const std::size_t> order) {
  const std::vector<Run> before = std::exchange(runs_, {});
  for (std::size_t place = 0; place < order.size(); ++place) {
    const auto behind = std::ranges::upper_bound(before, order[place], {}, &Run::before);
    const Run& run = *std::prev(behind);
    const std::size_t skipped = order[place] - run.before;
    addRun({run.first + skipped * run.stride, run.stride, 1, run.number + skipped, place});
  }
}

// Copies the records away from where they were read to.
void SortedFrames::keep() {
  std::size_t count = 0;
  for (const Run& run : runs_) count += run.count;
  keptBefore_.resize(count * size_);
  std::uint8_t* to = keptBefore_.data();
  for (Run& run : runs_) {
    const std::uint8_t* const first = to;
    for (std::size_t i = 0; i < run.count; ++i, to += size_) {
      std::copy_n(run.first + i * run.stride, size_, to);
    }
    run.first = first;
    run.stride = size_;
  }
  kept_.swap(keptBefore_);
}

}  // namespace tolvex
