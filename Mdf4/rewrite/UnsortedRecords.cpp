#include "Mdf4/rewrite/UnsortedRecords.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/rewrite/Notes.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kLongestValue = 64 << 20;        // bytes; longer ones are none
constexpr std::size_t kMostChannels = 64;                // with values, of a group
constexpr std::size_t kPairsAtATime = 32 << 10;          // bytes
constexpr std::uint64_t kSlack = sizeof(std::uint64_t);  // an id is loaded as 8 bytes
constexpr int kSequence = 8;                             // so many records in a row are no accident

constexpr std::uint64_t bit(std::size_t channel) {
  return std::uint64_t{1} << channel;
}

}  // namespace

SplitGroup::SplitGroup(SourceGroup& group, DataWriter& records, RecordValues& values, bool byOrder,
                       const WorkSizes& sizes)
    : group_(group),
      records_(records),
      values_(values),
      byOrder_(byOrder),
      sizes_(sizes),
      channels_(std::min(values.count(), kMostChannels)) {}

bool SplitGroup::takeRecord(const std::uint8_t* bytes) {
  const std::uint64_t size = group_.recordSize();
  if (channels_.empty()) return records_.append({bytes, inMemory(size)});
  Waiting record = {{bytes, bytes + size}};
  bool kept = true;
  for (std::size_t i = 0; i < channels_.size() && kept; ++i) {
    Channel& channel = channels_[i];
    if (!channel.expected || !values_.isValid(i, bytes)) continue;
    const std::uint64_t key = byOrder_ ? channel.nextRecord++ : values_.offset(i, bytes);
    if (!channel.inStep && channel.orphan) {
      // The value in front of it is its own, as those before the missing bytes were.
      channel.recent.assign(1, {key, channel.orphan->offset});
      channel.nextKey = key + channel.orphan->step;
      channel.inStep = true;
      channel.orphan.reset();
    }
    const auto placed = std::lower_bound(
        channel.recent.begin(), channel.recent.end(), key,
        [](const Placed& value, std::uint64_t wanted) { return value.key < wanted; });
    if (placed != channel.recent.end() && placed->key == key) {
      values_.setOffset(i, record.record.data(), placed->offset);
      channel.valueFirst = true;
    } else if (channel.inStep && key < channel.nextKey) {
      kept = values_.loseValue(i, record.record.data());
    } else {
      values_.setOffset(i, record.record.data(), key);
      record.channels |= bit(i);
    }
  }
  if (!kept) {
    ++group_.report.lostRecords;
    return true;
  }
  if (record.channels == 0 && waiting_.empty()) return forward(record.record);
  waiting_.push_back(std::move(record));
  if (waiting_.size() <= sizes_.waiting) return true;
  // Their values do not come: nobody knows any more which value is next.
  for (Channel& channel : channels_) channel.inStep = false;
  return giveUpFirst();
}

std::uint64_t SplitGroup::takePairs(const PairLayout& layout, ByteSpan bytes, bool& written) {
  Channel& channel = channels_[layout.channel];
  const ValueChannel& place = values_.channel(layout.channel);
  if (values_.count() != 1 || !channel.inStep || byOrder_ || !waiting_.empty() ||
      place.bytes != sizeof(std::uint64_t) || (place.flags & kCnFlagInvalidBit) != 0) {
    return 0;
  }
  DataWriter& data = values_.data(layout.channel).writer();
  const std::uint64_t recordSize = group_.recordSize();
  const std::uint64_t idSize = layout.idSize;
  const std::uint64_t least = 2 * idSize + recordSize + kValuePrefix;
  bytes = bytes.first(std::min<std::size_t>(bytes.size(), kPairsAtATime));
  std::uint8_t* const records = records_.room(bytes.size());
  constexpr std::uint64_t kStep =
      kValuePrefix + sizeof(std::uint64_t);  // most values are no longer
  std::uint8_t* const values = data.room(bytes.size() + kStep);
  written = records != nullptr && values != nullptr;
  if (!written) return 0;
  const std::uint64_t firstOffset = data.size();
  std::uint64_t recordBytes = 0;
  std::uint64_t valueBytes = 0;
  const auto idAt = [&](const std::uint8_t* at) {
    return loadNumber<std::uint64_t>(at) & layout.idMask;
  };
  std::uint64_t at = 0;
  // The id behind a value tells whether its length is right.
  while (bytes.size() - at >= least + sizeof(std::uint64_t)) {
    const std::uint8_t* const record = bytes.data() + at + idSize;
    const std::uint8_t* const value = record + recordSize + idSize;
    const std::uint64_t size = kValuePrefix + loadNumber<std::uint32_t>(value);
    if (idAt(bytes.data() + at) != layout.recordId || idAt(record + recordSize) != layout.valueId ||
        size - kValuePrefix > bytes.size() - at - least - sizeof(std::uint64_t) ||
        idAt(value + size) != layout.recordId ||
        loadNumber<std::uint64_t>(record + place.byteOffset) != channel.nextKey) {
      break;
    }
    std::uint8_t* const copied = records + recordBytes;
    copyRecord(copied, record, inMemory(recordSize));
    const std::uint64_t offset = firstOffset + valueBytes;
    std::memcpy(copied + place.byteOffset, &offset, sizeof offset);
    if (size <= kStep) {  // an id follows, so as many bytes can be read
      std::memcpy(values + valueBytes, value, kStep);
    } else {
      copyRecord(values + valueBytes, value, inMemory(size));
    }
    recordBytes += recordSize;
    valueBytes += size;
    channel.nextKey += size;
    at += 2 * idSize + recordSize + size;
  }
  channel.valueFirst = channel.valueFirst && at == 0;
  written = records_.commit(recordBytes) && data.commit(valueBytes);
  return at;
}

bool SplitGroup::takeValue(std::size_t number, ByteSpan value) {
  Channel& channel = channels_[number];
  const std::uint64_t step = byOrder_ ? 1 : value.size();
  if (!channel.inStep) {
    if (channel.valueFirst) {
      channel.orphan = Orphan{values_.data(number).add(value), step};
      return true;
    }
    // The record in front of it is its own; what waits before that may be damaged.
    const auto own = std::find_if(waiting_.rbegin(), waiting_.rend(), [&](const Waiting& record) {
      return (record.channels & bit(number)) != 0;
    });
    if (own == waiting_.rend()) return true;  // its record is lost
    channel.nextKey = values_.offset(number, own->record.data());
    channel.inStep = true;
  }
  const std::uint64_t key = channel.nextKey;
  channel.nextKey += step;
  const std::uint64_t offset = values_.data(number).add(value);
  channel.recent.push_back({key, offset});
  if (channel.recent.size() > sizes_.recent) channel.recent.pop_front();
  for (Waiting& record : waiting_) {
    if ((record.channels & bit(number)) != 0 &&
        values_.offset(number, record.record.data()) == key) {
      values_.setOffset(number, record.record.data(), offset);
      record.channels &= ~bit(number);
      channel.valueFirst = false;
      break;
    }
  }
  return forwardReady();
}

bool SplitGroup::breakOff() {
  while (!waiting_.empty()) {
    if (!giveUpFirst()) return false;
  }
  for (Channel& channel : channels_) {
    channel.inStep = false;
    channel.orphan.reset();
    channel.recent.clear();
  }
  return true;
}

// Values that are copied with their blocks have their offsets changed now.
bool SplitGroup::forward(std::vector<std::uint8_t>& record) {
  for (std::size_t i = 0; i < values_.count(); ++i) {
    const bool separate = i < channels_.size() && channels_[i].expected;
    if (!separate && !values_.placeOne(i, record.data())) {
      ++group_.report.lostRecords;
      return true;
    }
  }
  return records_.append(record);
}

bool SplitGroup::forwardReady() {
  while (!waiting_.empty() && waiting_.front().channels == 0) {
    if (!forward(waiting_.front().record)) return false;
    waiting_.pop_front();
  }
  return true;
}

bool SplitGroup::giveUpFirst() {
  Waiting record = std::move(waiting_.front());
  waiting_.pop_front();
  for (std::size_t i = 0; i < channels_.size(); ++i) {
    if ((record.channels & bit(i)) != 0 && !values_.loseValue(i, record.record.data())) {
      ++group_.report.lostRecords;
      return forwardReady();
    }
  }
  return forward(record.record) && forwardReady();
}

UnsortedRecords::UnsortedRecords(DirectFile& in, std::uint8_t recordIdSize, const WorkSizes& sizes)
    : in_(in),
      idSize_(recordIdSize),
      idMask_(~std::uint64_t{0} >> (64 - 8 * recordIdSize)),
      sizes_(sizes),
      window_(kSlack) {}

void UnsortedRecords::addKind(std::uint64_t id, const Kind& kind) {
  const auto [entry, isNew] = kinds_.try_emplace(id, kind);
  if (isNew && id < usual_.size()) usual_[inMemory(id)] = &entry->second;
}

void UnsortedRecords::addGroup(SplitGroup& group) {
  const SourceGroup& source = group.source();
  if (source.recordSize() > kLongestValue) return;
  addKind(source.record.cg_record_id, {source.recordSize(), false, &group, 0});
  groups_.push_back(&group);
}

void UnsortedRecords::addValues(const SourceGroup& values, SplitGroup* group, std::size_t channel) {
  if (group != nullptr) group->expectValues(channel);
  addKind(values.record.cg_record_id, {kValuePrefix, true, group, channel});
}

const UnsortedRecords::Kind* UnsortedRecords::kindAt(std::uint64_t at) {
  const auto id = loadNumber<std::uint64_t>(window_.data() + at_ + at) & idMask_;
  if (id < usual_.size()) return usual_[inMemory(id)];
  const auto found = kinds_.find(id);
  return found == kinds_.end() ? nullptr : &found->second;
}

// Makes sure that the window has `bytes` behind at_, unless the part ends before.
bool UnsortedRecords::fill(std::uint64_t bytes) {
  if (windowEnd_ - at_ >= bytes) return true;
  if (at_ > sizes_.piece) {
    std::memmove(window_.data(), window_.data() + at_, inMemory(windowEnd_ - at_));
    windowEnd_ -= at_;
    at_ = 0;
  }
  while (!partEnds_ && windowEnd_ - at_ < bytes) {
    if (!block_ || block_->left() == 0) {
      nextBlock();
      continue;
    }
    const std::uint64_t count = std::min(block_->left(), sizes_.piece);
    if (window_.size() < windowEnd_ + count + kSlack) {
      window_.resize(inMemory(windowEnd_ + count + kSlack + sizes_.piece));
    }
    const std::uint64_t got = block_->readSome(count, window_.data() + windowEnd_);
    windowEnd_ += got;
    done_(got);
    if (got == count) continue;
    unreadable_ = block_->passUnreadable();
    if (unreadable_ == 0) block_.reset();
    partEnds_ = true;
  }
  return windowEnd_ - at_ >= bytes;
}

void UnsortedRecords::nextBlock() {
  if (block_ && blockCut_) {
    blockCut_ = false;
    endPart();
    return;
  }
  ListedBlock block;
  if (!blocks_->next(block)) {
    block_.reset();
    partEnds_ = true;
    ended_ = true;
    return;
  }
  lastPosition_ = block.position;
  if (block.kind == ListedBlock::Missing) {
    endPart();
    return;
  }
  block_.emplace(in_, block);
  blockCut_ = block.cut;
  if (block_->left() == 0 && block.bytes != 0) endPart();
}

void UnsortedRecords::endPart() {
  block_.reset();
  partEnds_ = true;
}

UnsortedRecords::Found UnsortedRecords::probe(std::uint64_t at, std::uint64_t& size) {
  size = idSize_;
  if (!fill(at + size)) return Found::Incomplete;
  const Kind* const kind = kindAt(at);
  if (kind == nullptr) return Found::Unknown;
  size += kind->size;
  if (!fill(at + size)) return Found::Incomplete;
  if (!kind->isValue) return Found::Record;
  const auto length = loadNumber<std::uint32_t>(window_.data() + at_ + at + idSize_);
  if (length > kLongestValue) return Found::Unknown;
  size += length;
  return fill(at + size) ? Found::Record : Found::Incomplete;
}

// Whether records follow one another from there on, up to the end of the part if need be.
bool UnsortedRecords::isSequence(std::uint64_t at) {
  std::uint64_t size = 0;
  for (int records = 0; records < kSequence; ++records) {
    const Found found = probe(at, size);
    if (found == Found::Unknown) return false;
    if (found == Found::Incomplete) return records > 1 || (records == 1 && !fill(at + 1));
    at += size;
  }
  return true;
}

bool UnsortedRecords::take(std::uint64_t size) {
  const Kind& kind = *kindAt(0);
  const std::uint8_t* const record = window_.data() + at_ + idSize_;
  at_ += size;
  if (kind.group == nullptr) return true;
  return kind.isValue ? kind.group->takeValue(kind.channel, {record, inMemory(size - idSize_)})
                      : kind.group->takeRecord(record);
}

// Takes records with the values behind them, as they mostly come. False when a write fails.
bool UnsortedRecords::takePairs(std::uint64_t firstSize) {
  const Kind& kind = *kindAt(0);
  const Kind& next = *kindAt(firstSize);
  if (kind.isValue || !next.isValue || kind.group == nullptr || kind.group != next.group) {
    return true;
  }
  const auto idAt = [&](std::uint64_t at) {
    return loadNumber<std::uint64_t>(window_.data() + at_ + at) & idMask_;
  };
  const SplitGroup::PairLayout layout = {idSize_, idMask_, idAt(0), idAt(firstSize), next.channel};
  bool written = true;
  const ByteSpan bytes(window_.data() + at_, inMemory(windowEnd_ - at_));
  at_ += kind.group->takePairs(layout, bytes, written);
  return written;
}

// The distance to the next sequence of records, from `from` on; that to the end of the part when
// there is none, or as far as it makes sense to look at a time.
std::uint64_t UnsortedRecords::findSequence(std::uint64_t from) {
  while (from < sizes_.farthest && fill(from + 1) && !isSequence(from)) ++from;
  return from;
}

// Whether a damaged record of a known size may have stood there.
bool UnsortedRecords::mayBeRecord(std::uint64_t at, std::uint64_t size) {
  return std::any_of(kinds_.begin(), kinds_.end(), [&](const auto& entry) {
    const Kind& kind = entry.second;
    if (!kind.isValue) return size == idSize_ + kind.size;
    return size >= idSize_ + kValuePrefix &&
           loadNumber<std::uint32_t>(window_.data() + at_ + at + idSize_) ==
               size - idSize_ - kValuePrefix;
  });
}

// Leaves out bytes that are no records.
bool UnsortedRecords::leaveOut(std::uint64_t bytes, MdfRecoveryReport& report) {
  const bool unused = areZeros(ByteSpan(window_).subspan(inMemory(at_), inMemory(bytes)));
  at_ += bytes;
  if (unused && !fill(1)) return true;
  noteLoss(report, formatText("data block at %" PRIu64 ": %" PRIu64 " bytes that are no records",
                              lastPosition_, bytes));
  return breakOff();
}

bool UnsortedRecords::breakOff() {
  return std::all_of(groups_.begin(), groups_.end(), [](SplitGroup* g) { return g->breakOff(); });
}

// Takes the records up to the next missing bytes.
bool UnsortedRecords::copyPart(MdfRecoveryReport& report) {
  std::uint64_t size = 0;
  Found found = probe(0, size);
  while (fill(1)) {
    std::uint64_t nextSize = 0;
    const Found nextFound = found == Found::Record ? probe(size, nextSize) : Found::Unknown;
    if (nextFound != Found::Unknown) {
      const std::uint64_t before = at_;
      if (nextFound == Found::Record && !takePairs(size)) return false;
      if (at_ != before) {
        found = probe(0, size);
        continue;
      }
      if (!take(size)) return false;
      found = nextFound;
      size = nextSize;
      continue;
    }
    const std::uint64_t next = findSequence(1);
    if (found == Found::Record && next >= size &&
        (next == size || !fill(next + 1) || mayBeRecord(size, next - size))) {
      // This one is sound, what follows is not.
      if (!take(size) || !leaveOut(next - size, report)) return false;
    } else if (!leaveOut(next, report)) {
      return false;
    }
    found = probe(0, size);
  }
  return true;
}

bool UnsortedRecords::copy(const FoundData& run, MdfRecoveryReport& report, const Done& done) {
  done_ = done;
  blocks_.emplace(in_, run);
  for (bool first = true; !ended_; first = false) {
    partEnds_ = false;
    if (!first) {
      noteLoss(report, unreadable_ != 0
                           ? formatText("data block at %" PRIu64 ": %" PRIu64 " unreadable bytes",
                                        lastPosition_, unreadable_)
                           : formatText("data block at %" PRIu64 ": it is missing or ends early",
                                        lastPosition_));
      unreadable_ = 0;
      if (!breakOff()) return false;
      const std::uint64_t start = findSequence(0);
      if (start != 0 && fill(1) && !leaveOut(std::min(start, windowEnd_ - at_), report))
        return false;
    }
    if (!copyPart(report)) return false;
  }
  return breakOff();
}

bool UnsortedRecords::startsAsSequence(const FoundData& run) {
  done_ = [](std::uint64_t) {};
  blocks_.emplace(in_, run);
  return isSequence(0);
}

}  // namespace tolvex
