#include "Mdf4/can/MixedFrames.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <map>
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
      sources_.push_back({CanRecordDecoder(frames.source.layout, true, true), frames.source.time,
                          static_cast<std::size_t>(group.recordSize), frames.values,
                          std::move(frames.late)});
    }
    if (idSize_ != 1) {
      kindsByWideId_.try_emplace(group.recordId, kind);
    } else if (group.recordId < kinds_.size() && !kinds_[inMemory(group.recordId)].isKnown) {
      kinds_[inMemory(group.recordId)] = kind;
    }
  }
  stream_.limitReadAhead(settings.readAhead);
}

// Entries of one group after the other, as they follow one another.
void MixedFrames::decode(std::span<const FrameEntry> entries, MdfFrameBatch& out) {
  while (!entries.empty()) {
    const std::uint32_t index = entries.front().source;
    const auto end = std::ranges::find_if(
        entries, [index](const FrameEntry& entry) { return entry.source != index; });
    const auto count = static_cast<std::size_t>(end - entries.begin());
    sources_[index].decoder.append(entries.first(count), sources_[index].recordSize, nullptr, out);
    entries = entries.subspan(count);
  }
}

// Nobody knows where a record begins but who comes from the front.
void MixedFrames::seek(std::int64_t /*timeNs*/) {
  view_ = {};
  position_ = 0;
  needed_ = idSize_;
  behind_ = 0;
  for (Source& source : sources_) source.records = 0;
  for (Values& values : values_) {
    values.next = 0;
    values.unnamed.clear();
    values.wanted.clear();
  }
}

bool MixedFrames::collect() {
  if (view_.size() < needed_ && !readOn()) return false;
  const std::size_t before = entries_.size();
  while (entries_.size() - before < kAtOnce && view_.size() >= needed_) {
    needed_ = idSize_;
    if (view_.size() < needed_) break;
    const Kind* const kind = kindOf(view_.data());
    const Passed passed = kind == nullptr ? Passed::IsCutOff : pass(*kind);
    if (passed == Passed::IsCutOff) {
      reportEnd();
      return false;
    }
    if (passed == Passed::NeedsMore) break;
  }
  return behind_ <= settings_.held;
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
  const ByteSpan bytes(record, inMemory(kind.recordSize));
  for (std::uint32_t i = kind.firstSource; i < kind.firstSource + kind.sources; ++i) {
    Source& source = sources_[i];
    const std::int64_t timeNs = timeOf(source.time, bytes);
    behind_ = choice_->isBehind(timeNs) ? behind_ + 1 : 0;
    const bool isWanted = choice_->hasTime(timeNs) &&
                          (choice_->anyField() || (choice_->hasId(source.decoder.idOf(bytes)) &&
                                                   choice_->hasBus(source.decoder.busOf(bytes))));
    FrameEntry* entry = nullptr;
    if (isWanted) {
      entry = &entries_.emplace_back();
      entry->timeNs = timeNs;
      entry->number = source.records;
      entry->record = record;
      entry->source = i;
    }
    if (source.values != kNone) findPayload(source, i, record, entry);
    ++source.records;
  }
}

// The payload of the frame that came last; `entry` is null when nobody wants that.
void MixedFrames::findPayload(Source& source, std::uint32_t index, const std::uint8_t* record,
                              FrameEntry* entry) {
  Values& values = values_[source.values];
  const std::uint64_t key =
      byOrder_ ? source.records : source.decoder.payloadOffset({record, source.recordSize});
  if (key >= values.next) {
    const auto place = std::ranges::upper_bound(values.wanted, key, {}, &Wanted::key);
    values.wanted.insert(
        place, {key, source.records, entry == nullptr ? kNone : entries_.size() - 1, index});
    if (entry != nullptr) entry->payloadLength = FrameEntry::kNotYet;
    return;
  }
  const auto found = std::ranges::lower_bound(values.unnamed, key, {}, &Value::key);
  if (found != values.unnamed.end() && found->key == key) {
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
  ValueSource* const late = sources_[entry.source].late.get();
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
    values.wanted.pop_front();
  }
  if (isNamed) return;
  values.unnamed.push_back({key, value, kept});
  if (values.unnamed.size() > kMostUnnamed) values.unnamed.pop_front();
}

// Copies values that frames may yet name away from where they were read to.
void MixedFrames::keepValues() {
  std::size_t size = 0;
  for (const Values& values : values_) {
    for (const Value& value : values.unnamed) size += value.length;
  }
  keptValuesBefore_.resize(size);
  std::uint8_t* to = keptValuesBefore_.data();
  for (Values& values : values_) {
    for (Value& value : values.unnamed) {
      value.bytes = std::copy_n(value.bytes, value.length, to) - value.length;
      to += value.length;
    }
  }
  keptValues_.swap(keptValuesBefore_);
}

// Those that wait for their payloads have other places now.
void MixedFrames::moved(std::size_t dropped, bool sorted) {
  std::map<std::pair<std::uint32_t, std::uint64_t>, std::size_t> places;
  if (sorted) {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (entries_[i].payloadLength != FrameEntry::kNotYet) continue;
      places[{entries_[i].source, entries_[i].number}] = i;
    }
  }
  for (Values& values : values_) {
    for (Wanted& wanted : values.wanted) {
      if (wanted.entry == kNone) continue;
      wanted.entry = sorted ? places.at({wanted.source, wanted.number}) : wanted.entry - dropped;
    }
  }
}

// Up to the first one whose payload is still to come. Where that keeps too many waiting, it is
// fetched.
std::size_t MixedFrames::complete(std::size_t count) {
  const auto isWaiting = [](const FrameEntry& entry) {
    return entry.payloadLength == FrameEntry::kNotYet;
  };
  const auto begin = entries_.begin();
  auto first = std::find_if(begin, begin + static_cast<std::ptrdiff_t>(count), isWaiting);
  if (entries_.size() < kMostWaiting && !isAtEnd()) return static_cast<std::size_t>(first - begin);
  for (Values& values : values_) {
    for (const Wanted& wanted : values.wanted) {
      if (wanted.entry == kNone || wanted.entry >= count) continue;
      fetchLate(entries_[wanted.entry], wanted.key);
    }
    std::erase_if(values.wanted, [count](const Wanted& wanted) {
      return wanted.entry != kNone && wanted.entry < count;
    });
  }
  return count;
}

}  // namespace tolvex
