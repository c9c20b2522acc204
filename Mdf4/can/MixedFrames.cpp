#include "Mdf4/can/MixedFrames.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <utility>

#include "Mdf4/base/Diagnostics.h"

namespace tolvex {
namespace {

constexpr std::size_t kAtOnce = 2048;            // entries
constexpr std::size_t kMostUnnamed = 4096;       // values of a group
constexpr std::size_t kMostWaiting = 16 * 1024;  // frames behind one whose payload is to come

}  // namespace

MixedFrames::MixedFrames(DirectFile& file, const LaneSettings& settings,
                         std::shared_ptr<SegmentTable> table, std::uint8_t recordIdSize,
                         std::vector<Group> groups, bool byOrder)
    : FrameLane(file, settings),
      table_(std::move(table)),
      stream_(file, table_),
      idSize_(recordIdSize),
      byOrder_(byOrder),
      values_(groups.size()) {
  if (idSize_ == 1) kinds_.resize(256);
  for (std::size_t i = 0; i < groups.size(); ++i) {
    Group& group = groups[i];
    Kind kind;
    kind.isKnown = true;
    kind.recordSize = group.recordSize;
    kind.holdsValues = group.holdsValues;
    kind.values = static_cast<std::uint32_t>(i);
    kind.firstSource = static_cast<std::uint32_t>(sources_.size());
    kind.sources = static_cast<std::uint32_t>(group.frames.size());
    for (Frames& frames : group.frames) {
      if (frames.values != kNone) values_[frames.values].areWanted = true;
      sources_.push_back(std::make_unique<Source>(frames.source,
                                                  static_cast<std::size_t>(group.recordSize),
                                                  frames.values, std::move(frames.late)));
    }
    if (idSize_ != 1) {
      kindsByWideId_.try_emplace(group.recordId, kind);
    } else if (group.recordId < kinds_.size() && !kinds_[inMemory(group.recordId)].isKnown) {
      kinds_[inMemory(group.recordId)] = kind;
      values_[i].id = static_cast<int>(group.recordId);
    }
  }
  stream_.limitReadAhead(settings.readAhead);
}

// Entries of one group after the other, as they follow one another.
void MixedFrames::decode(std::size_t first, std::size_t count, MdfFrameBatch& out) {
  const std::size_t end = first + count;
  while (first < end) {
    const std::size_t next = sameSource(first, end);
    const Source& source = *sources_[entries_[first].source];
    source.columns.append(std::span(entries_).subspan(first, next - first),
                          std::span(times_).subspan(first, next - first), out);
    first = next;
  }
}

// Nobody knows where a record begins but who comes from the front.
void MixedFrames::seek(std::int64_t /*timeNs*/) {
  view_ = {};
  position_ = 0;
  needed_ = idSize_;
  behind_ = 0;
  for (const auto& source : sources_) source->records = 0;
  for (Values& values : values_) {
    values.next = 0;
    values.unnamed.clear();
    values.wanted.clear();
  }
}

bool MixedFrames::collect() {
  if (view_.size() < needed_ && !readOn()) return false;
  const std::size_t most = entries_.size() + kAtOnce;
  while (entries_.size() < most && view_.size() >= needed_) {
    if (idSize_ == 1 && choice_->anyTime() && choice_->anyField()) passUsual(most);
    needed_ = idSize_;
    if (view_.size() < needed_) break;
    const Kind* const kind = kindOf(view_.data());
    const Passed passed = kind == nullptr ? Passed::IsCutOff : pass(*kind);
    if (passed == Passed::IsCutOff) {
      reportEnd();
      fillTimes();
      return false;
    }
    if (passed == Passed::NeedsMore) break;
  }
  fillTimes();
  return behind_ <= settings_.held;
}

// What pass does with most records when all frames are wanted: frames and their payloads.
void MixedFrames::passUsual(std::size_t most) {
  const std::uint8_t* at = view_.data();
  const std::uint8_t* const end = at + view_.size();
  while (entries_.size() < most && at != end) {
    const Kind& kind = kinds_[*at];
    const auto left = static_cast<std::uint64_t>(end - at) - 1;
    if (kind.sources == 1) {
      if (left < kind.recordSize) break;
      const std::uint8_t* const before = at;
      at = passPairs(kind, at, end, most);
      if (at != before) continue;
      Source& source = *sources_[kind.firstSource];
      const std::uint8_t* const record = at + 1;
      entries_.push_back(FrameEntry{source.records, record, nullptr, 0, kind.firstSource});
      if (source.values != kNone) findPayload(source, record, &entries_.back());
      ++source.records;
      at = record + kind.recordSize;
    } else if (kind.holdsValues && left >= kValuePrefix) {
      const auto length = loadNumber<std::uint32_t>(at + 1);
      if (length > kMostOfValue || left - kValuePrefix < length) break;
      const std::uint8_t* const value = at + 1 + kValuePrefix;
      if (values_[kind.values].areWanted) addValue(values_[kind.values], value, length);
      at = value + length;
    } else {
      break;
    }
  }
  position_ += static_cast<std::uint64_t>(at - view_.data());
  view_ = {at, end};
}

// Goes over frames of one group that each stand in front of their payload, as they mostly do. Gives
// where the next record begins.
const std::uint8_t* MixedFrames::passPairs(const Kind& kind, const std::uint8_t* at,
                                           const std::uint8_t* end, std::size_t most) {
  constexpr std::size_t kBefore = 1 + kValuePrefix;  // the bytes of the payload
  Source& source = *sources_[kind.firstSource];
  if (byOrder_ || source.values == kNone || !values_[source.values].wanted.empty()) return at;
  fillTimes();
  Values& values = values_[source.values];
  const std::size_t size = source.recordSize;
  const std::size_t least = 1 + size + kBefore;
  const CanRecordDecoder::Number offset = source.decoder.payloadOffset();
  const int frameId = *at;
  const int valueId = values.id;
  const std::uint32_t index = kind.firstSource;
  std::uint64_t number = source.records;
  std::uint64_t next = values.next;
  for (std::size_t left = most - entries_.size(); left != 0; --left) {
    const auto room = static_cast<std::size_t>(end - at);
    if (room < least || *at != frameId || at[1 + size] != valueId) break;
    const std::uint8_t* const record = at + 1;
    const auto length = loadNumber<std::uint32_t>(record + size + 1);
    if (offset.read({record, size}) != next ||
        length > std::min<std::uint64_t>(kMostOfValue, room - least))
      break;
    entries_.push_back(FrameEntry{number++, record, at + least, length, index});
    next += kValuePrefix + length;
    at += least + length;
  }
  source.records = number;
  values.next = next;
  fillTimes(entries_.size());
  return at;
}

// Of the frames that passUsual came to.
void MixedFrames::fillTimes() {
  while (times_.size() < entries_.size()) fillTimes(sameSource(times_.size(), entries_.size()));
}

// Those of one group, up to `end`.
void MixedFrames::fillTimes(std::size_t end) {
  const std::size_t first = times_.size();
  if (first == end) return;
  times_.resize(end);
  const Source& source = *sources_[entries_[first].source];
  const FrameEntry* const entries = entries_.data() + first;
  source.time.nearest(
      end - first, [entries](std::size_t i) { return entries[i].record; }, source.recordSize,
      settings_.startNs, times_.data() + first);
}

// Where the entries of one group end that follow one another, at the latest at `end`.
std::size_t MixedFrames::sameSource(std::size_t first, std::size_t end) const {
  const std::uint32_t source = entries_[first].source;
  const auto differs = [&](std::size_t index) { return entries_[index].source ^ source; };
  for (; first + 4 <= end; first += 4) {  // mostly all of them
    const std::uint32_t any =
        differs(first) | differs(first + 1) | differs(first + 2) | differs(first + 3);
    if (any != 0) break;
  }
  while (first < end && entries_[first].source == source) ++first;
  return first;
}

// The next piece of the sequence, with the whole next record; false when there is none.
bool MixedFrames::readOn() {
  keepPending();
  keepValues();
  fetched_.clear();
  view_ = {};
  if (position_ < table_->totalSize()) {
    stream_.Seek(position_);
    view_ = stream_.nextAtLeast(needed_);
  }
  if (view_.size() >= needed_) return true;
  reportEnd();
  return false;
}

void MixedFrames::reportEnd() {
  const std::uint64_t rest = table_->totalSize() - std::min(position_, table_->totalSize());
  if (rest == 0) return;
  if (rest < kBlockAlignment) {  // what pads the last block of a file that was not finished
    stream_.Seek(position_);
    const ByteSpan padding = stream_.next(rest);
    if (padding.size() == rest && areZeros(padding)) return;
  }
  file_.report(formatText("data of %" PRIu64
                          " bytes: no whole record of a known group is at %" PRIu64
                          ", nor are those behind it read",
                          table_->totalSize(), position_));
}

const MixedFrames::Kind* MixedFrames::kindOf(const std::uint8_t* id) {
  if (idSize_ == 1) return kinds_[*id].isKnown ? &kinds_[*id] : nullptr;
  std::uint64_t wide = 0;
  std::memcpy(&wide, id, idSize_);
  const auto found = kindsByWideId_.find(wide);
  return found == kindsByWideId_.end() ? nullptr : &found->second;
}

// Goes over the next record, unless the view does not have all of it that is needed.
MixedFrames::Passed MixedFrames::pass(const Kind& kind) {
  std::uint64_t size = kind.recordSize;
  const bool isWanted = kind.holdsValues ? values_[kind.values].areWanted : kind.sources != 0;
  std::uint32_t length = 0;
  needed_ = idSize_;
  if (kind.holdsValues) {
    needed_ += kValuePrefix;
    if (view_.size() < needed_) return Passed::NeedsMore;
    length = loadNumber<std::uint32_t>(view_.data() + idSize_);
    size = std::uint64_t{kValuePrefix} + length;
    if (isWanted) needed_ += std::min<std::uint64_t>(length, kMostOfValue);
  } else if (isWanted) {
    needed_ += size;
  }
  if (size > table_->totalSize() - position_ - idSize_) return Passed::IsCutOff;
  if (view_.size() < needed_) return Passed::NeedsMore;
  const std::uint8_t* const record = view_.data() + idSize_;
  if (kind.holdsValues && isWanted) {
    addValue(values_[kind.values], record + kValuePrefix, length);
  } else if (isWanted) {
    addFrames(kind, record);
  }
  const std::uint64_t passed = idSize_ + size;
  position_ += passed;
  view_ = view_.subspan(inMemory(std::min<std::uint64_t>(passed, view_.size())));
  needed_ = idSize_;
  return Passed::Yes;
}

void MixedFrames::addFrames(const Kind& kind, const std::uint8_t* record) {
  fillTimes();
  const ByteSpan bytes(record, inMemory(kind.recordSize));
  for (std::uint32_t i = kind.firstSource; i < kind.firstSource + kind.sources; ++i) {
    Source& source = *sources_[i];
    const std::int64_t timeNs = timeOf(source.time, bytes);
    behind_ = choice_->isBehind(timeNs) ? behind_ + 1 : 0;
    const bool isWanted = choice_->hasTime(timeNs) &&
                          (choice_->anyField() || (choice_->hasId(source.decoder.idOf(bytes)) &&
                                                   choice_->hasBus(source.decoder.busOf(bytes))));
    FrameEntry* entry = nullptr;
    if (isWanted) {
      times_.push_back(timeNs);
      entries_.push_back(FrameEntry{source.records, record, nullptr, 0, i});
      entry = &entries_.back();
    }
    if (source.values != kNone) findPayload(source, record, entry);
    ++source.records;
  }
}

// The payload of the frame that came last; `entry` is null when nobody wants that.
void MixedFrames::findPayload(Source& source, const std::uint8_t* record, FrameEntry* entry) {
  Values& values = values_[source.values];
  const std::uint64_t key = keyOf(source, record);
  if (key >= values.next) {
    values.wanted.add({key, entry == nullptr ? kNone : entries_.size() - 1});
    return;
  }
  if (Value* const found = values.unnamed.find(key)) {
    if (entry != nullptr) {
      entry->payload = found->bytes;
      entry->payloadLength = found->length;
    }
    values.unnamed.erase(found);
  } else if (entry != nullptr) {
    fetchLate(*entry, key);
  }
}

// A payload that is not at hand.
void MixedFrames::fetchLate(FrameEntry& entry, std::uint64_t key) {
  entry.payload = nullptr;
  entry.payloadLength = 0;
  ValueSource* const late = sources_[entry.source]->late.get();
  if (late == nullptr || !late->read(key, scratch_)) return;
  const std::size_t length = std::min<std::size_t>(scratch_.size(), kMostOfValue);
  const auto& kept = fetched_.emplace_back(scratch_.data(), scratch_.data() + length);
  entry.payloadLength = static_cast<std::uint32_t>(length);
  entry.payload = length == 0 ? entry.record : kept.data();
}

void MixedFrames::addValue(Values& values, const std::uint8_t* value, std::uint32_t length) {
  const std::uint64_t key = values.next;
  values.next += byOrder_ ? 1 : std::uint64_t{kValuePrefix} + length;
  const auto kept = static_cast<std::uint32_t>(std::min<std::uint64_t>(length, kMostOfValue));
  bool isNamed = false;
  while (!values.wanted.empty() && values.wanted.front().key < values.next) {
    const Wanted& wanted = values.wanted.front();
    if (wanted.entry != kNone) {
      FrameEntry& entry = entries_[wanted.entry];
      const bool isThis = wanted.key == key;
      entry.payload = isThis ? value : nullptr;
      entry.payloadLength = isThis ? kept : 0;
    }
    isNamed = isNamed || wanted.key == key;
    values.wanted.popFront();
  }
  if (isNamed) return;
  values.unnamed.add({key, value, kept});
  if (values.unnamed.size() > kMostUnnamed) values.unnamed.popFront();
}

// Copies values that frames may yet name away from where they were read to.
void MixedFrames::keepValues() {
  std::size_t size = 0;
  for (Values& values : values_) {
    for (const Value& value : values.unnamed.all()) size += value.length;
  }
  keptValuesBefore_.resize(size);
  std::uint8_t* to = keptValuesBefore_.data();
  for (Values& values : values_) {
    for (Value& value : values.unnamed.all()) {
      copyRecord(to, value.bytes, value.length);
      value.bytes = to;
      to += value.length;
    }
  }
  keptValues_.swap(keptValuesBefore_);
}

// Likewise the records of frames, and their payloads.
void MixedFrames::keepPending() {
  std::size_t size = 0;
  for (const FrameEntry& entry : entries_) {
    size += sources_[entry.source]->recordSize;
    if (entry.payload != nullptr) size += entry.payloadLength;
  }
  keptBefore_.resize(size);
  std::uint8_t* to = keptBefore_.data();
  const auto keep = [&to](const std::uint8_t*& bytes, std::size_t count) {
    copyRecord(to, bytes, count);
    bytes = to;
    to += count;
  };
  for (FrameEntry& entry : entries_) {
    keep(entry.record, sources_[entry.source]->recordSize);
    if (entry.payload != nullptr) keep(entry.payload, entry.payloadLength);
  }
  kept_.swap(keptBefore_);
}

void MixedFrames::drop(std::size_t count) {
  entries_.erase(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(count));
  for (Values& values : values_) {
    for (Wanted& wanted : values.wanted.all()) {
      if (wanted.entry != kNone) wanted.entry -= count;
    }
  }
}

void MixedFrames::reorder(std::span<const std::size_t> order) {
  std::vector<FrameEntry> entries;
  std::vector<std::size_t> places(order.size());
  for (const std::size_t index : order) {
    places[index] = entries.size();
    entries.push_back(entries_[index]);
  }
  entries_ = std::move(entries);
  for (Values& values : values_) {
    for (Wanted& wanted : values.wanted.all()) {
      if (wanted.entry != kNone) wanted.entry = places[wanted.entry];
    }
  }
}

// Up to the first one whose payload is still to come. Where that keeps too many waiting, it is
// fetched.
std::size_t MixedFrames::complete(std::size_t count) {
  std::size_t first = count;
  for (Values& values : values_) {
    for (const Wanted& wanted : values.wanted.all()) {
      if (wanted.entry != kNone) first = std::min(first, wanted.entry);
    }
  }
  if (first == count || (entries_.size() < kMostWaiting && !isAtEnd())) return first;
  for (Values& values : values_) {
    for (const Wanted& wanted : values.wanted.all()) {
      if (wanted.entry == kNone || wanted.entry >= count) continue;
      fetchLate(entries_[wanted.entry], wanted.key);
    }
    values.wanted.eraseIf(
        [count](const Wanted& wanted) { return wanted.entry != kNone && wanted.entry < count; });
  }
  return count;
}

}  // namespace tolvex
