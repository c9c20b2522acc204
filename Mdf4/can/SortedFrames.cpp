#include "Mdf4/can/SortedFrames.h"

#include <algorithm>
#include <utility>

namespace tolvex {
namespace {

constexpr std::size_t kAtOnce = 1024;  // records

}  // namespace

SortedFrames::SortedFrames(DirectFile& file, const LaneSettings& settings,
                           const FrameSource& source, std::shared_ptr<RecordBatches> records,
                           std::size_t recordSize, std::unique_ptr<PayloadSource> payloads)
    : FrameLane(file, settings),
      records_(std::move(records)),
      payloads_(std::move(payloads)),
      decoder_(source.layout, true, true),
      time_(source.time),
      size_(recordSize),
      times_(kAtOnce) {
  records_->limitReadAhead(settings.readAhead);
}

void SortedFrames::decode(std::span<const FrameEntry> entries, MdfFrameBatch& out) {
  decoder_.append(entries, size_, payloads_.get(), out);
}

// Records that come late stand in front of the one that is found.
void SortedFrames::seek(std::int64_t timeNs) {
  const std::uint64_t count = records_->count();
  const std::uint64_t found = timeNs == kEnd ? count : firstAt(timeNs);
  number_ = found - std::min<std::uint64_t>(found, settings_.held);
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
    keepPending();
    const RecordBatch batch = records_->next(~std::uint64_t{0});
    if (batch.count() == 0) return false;
    number_ += batch.lost;
    rows_ = batch.rows;
  }
  const std::size_t count = std::min(rows_.count, kAtOnce);
  time_.nearest(rows_, count, size_, times_.data());
  add(count);
  rows_ = rows_.from(count);
  number_ += count;
  return behind_ <= settings_.held;
}

// Entries of the next `count` records, whose times are there.
void SortedFrames::add(std::size_t count) {
  const std::size_t before = entries_.size();
  entries_.resize(before + count);
  FrameEntry* entry = entries_.data() + before;
  const bool anyTime = choice_->anyTime();
  const bool anyField = choice_->anyField();
  const std::uint8_t* record = rows_.first;
  for (std::size_t i = 0; i < count; ++i, record += rows_.stride) {
    const auto timeNs =
        static_cast<std::int64_t>(settings_.startNs + static_cast<std::uint64_t>(times_[i]));
    if (!anyTime) {
      behind_ = choice_->isBehind(timeNs) ? behind_ + 1 : 0;
      if (!choice_->hasTime(timeNs)) continue;
    }
    const ByteSpan bytes(record, size_);
    const bool isWanted = anyField || (choice_->hasId(decoder_.idOf(bytes)) &&
                                       choice_->hasBus(decoder_.busOf(bytes)));
    if (!isWanted) continue;
    entry->timeNs = timeNs;
    entry->number = number_ + i;
    entry->record = record;
    ++entry;
  }
  entries_.resize(static_cast<std::size_t>(entry - entries_.data()));
}

}  // namespace tolvex
