#include "Mdf4/model/MixedRecords.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <iterator>
#include <utility>

#include "Mdf4/base/Diagnostics.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kLengthBytes = sizeof(std::uint32_t);
constexpr std::uint64_t kLongToPass = 4096;  // bytes of a record that nobody wants: not read

}  // namespace

MixedRecords::MixedRecords(DirectFile& file, std::shared_ptr<SegmentTable> table,
                           std::uint8_t recordIdSize, std::vector<MixedGroup> groups)
    : file_(file),
      table_(std::move(table)),
      idSize_(recordIdSize),
      groups_(std::move(groups)),
      known_(groups_.size()) {
  for (std::size_t i = 0; i < groups_.size(); ++i) byId_.try_emplace(groups_[i].recordId, i);
}

std::uint64_t MixedRecords::count(std::size_t group) {
  if (!complete_) {
    Walk walk(*this, group);
    walk.seekRecord(~std::uint64_t{0});
    while (walk.next(false)) {
    }
  }
  return known_[group].records;
}

std::uint64_t MixedRecords::size() const {
  return table_->totalSize();
}

void MixedRecords::reportMissing(std::uint64_t value, bool isNumber) {
  file_.report(formatText("values among the records in data of %" PRIu64
                          " bytes: expected one %s %" PRIu64 ", found none",
                          size(), isNumber ? "with the number" : "at offset", value));
}

// A record that nobody came to before.
void MixedRecords::note(std::size_t group, std::uint64_t position, std::uint64_t size) {
  Known& known = known_[group];
  if (known.records % kStride == 0) known.marks.push_back({position, known.valueBytes});
  ++known.records;
  if (groups_[group].holdsValues) known.valueBytes += size;
  knownUpTo_ = position + idSize_ + size;
}

// No record begins there.
void MixedRecords::noteEnd(std::uint64_t position) {
  if (std::exchange(complete_, true) || position >= table_->totalSize()) return;
  file_.report(formatText("data of %" PRIu64
                          " bytes: no whole record of a known group is at %" PRIu64
                          ", nor are those behind it read",
                          table_->totalSize(), position));
}

MixedRecords::Walk::Walk(MixedRecords& records, std::size_t group)
    : records_(records), group_(group), stream_(records.file_, records.table_) {}

void MixedRecords::Walk::seekRecord(std::uint64_t number) {
  const std::vector<Mark>& marks = records_.known_[group_].marks;
  if (marks.empty()) return begin({records_.knownUpTo_, 0}, 0);
  const auto mark =
      static_cast<std::size_t>(std::min<std::uint64_t>(number / kStride, marks.size() - 1));
  const std::uint64_t first = mark * kStride;
  if (number_ < first || number_ > number) begin(marks[mark], first);
}

void MixedRecords::Walk::seekValue(std::uint64_t offset) {
  Known& known = records_.known_[group_];
  const std::vector<Mark>& marks = known.marks;
  if (marks.empty()) return begin({records_.knownUpTo_, 0}, 0);
  const auto behind = std::ranges::upper_bound(marks, offset, {}, &Mark::value);
  const auto mark =
      static_cast<std::size_t>(behind - marks.begin()) - (behind == marks.begin() ? 0 : 1);
  // Whoever goes back will do it again, and where a second one begins there will be a third.
  bool isOften = value_ > offset;
  if (std::exchange(isNew_, false) || value_ < marks[mark].value || isOften) {
    begin(marks[mark], mark * kStride);
    isOften = std::exchange(known.begunAt, mark) == mark || isOften;
  }
  const auto found = known.fine.find(mark);
  if (found == known.fine.end() && !isOften) return;
  const std::vector<Mark>& fine = found != known.fine.end() ? found->second : makeFine(mark);
  const auto last = std::ranges::upper_bound(fine, offset, {}, &Mark::value);
  if (last == fine.begin() || std::prev(last)->value <= value_) return;
  begin(*std::prev(last),
        mark * kStride + static_cast<std::size_t>(last - fine.begin() - 1) * kFineStride);
}

const std::vector<MixedRecords::Mark>& MixedRecords::Walk::makeFine(std::size_t mark) const {
  Known& known = records_.known_[group_];
  std::vector<Mark> fine;
  Walk walk(records_, group_);
  walk.begin(known.marks[mark], mark * kStride);
  for (std::uint64_t i = 0; i < kStride; ++i) {
    if (i % kFineStride == 0) fine.push_back({walk.position_, walk.value_});
    if (!walk.next(false)) break;
  }
  if (known.fine.size() >= kMostFine) known.fine.clear();
  return known.fine[mark] = std::move(fine);
}

void MixedRecords::Walk::begin(const Mark& mark, std::uint64_t number) {
  position_ = mark.position;
  value_ = mark.value;
  number_ = number;
  view_ = {};
}

// The bytes from the next record on, so many of them; null when they are not all there.
const std::uint8_t* MixedRecords::Walk::look(std::uint64_t bytes) {
  if (view_.size() < bytes) {
    if (position_ >= stream_.size() || bytes > stream_.size() - position_) return nullptr;
    stream_.Seek(position_);
    view_ = stream_.nextAtLeast(bytes);
    if (view_.size() < bytes) return nullptr;
  }
  return view_.data();
}

std::optional<ByteSpan> MixedRecords::Walk::next(bool isWanted) {
  const std::size_t idSize = records_.idSize_;
  for (;;) {
    const std::uint8_t* bytes = look(idSize);
    std::uint64_t id = 0;
    if (bytes != nullptr) std::memcpy(&id, bytes, idSize);
    const auto found = records_.byId_.find(id);
    if (bytes == nullptr || found == records_.byId_.end()) break;
    const MixedGroup& group = records_.groups_[found->second];
    std::uint64_t size = group.recordSize;
    if (group.holdsValues) {
      bytes = look(idSize + kLengthBytes);
      if (bytes == nullptr) break;
      size = kLengthBytes + loadNumber<std::uint32_t>(bytes + idSize);
    }
    const std::uint64_t whole = idSize + size;
    if (whole > stream_.size() - position_) break;
    const bool isGiven = isWanted && found->second == group_;
    const bool isPassed = !isGiven && whole > kLongToPass && whole <= stream_.presentSize() &&
                          position_ <= stream_.presentSize() - whole;
    if (!isPassed) bytes = look(whole);
    if (bytes == nullptr) break;
    if (position_ == records_.knownUpTo_) records_.note(found->second, position_, size);
    position_ += whole;
    view_ = view_.subspan(inMemory(std::min<std::uint64_t>(whole, view_.size())));
    if (found->second != group_) continue;
    ++number_;
    if (group.holdsValues) value_ += size;
    return isGiven ? ByteSpan(bytes + idSize, inMemory(size)) : ByteSpan();
  }
  if (position_ == records_.knownUpTo_) records_.noteEnd(position_);
  return std::nullopt;
}

MixedBatches::MixedBatches(std::shared_ptr<MixedRecords> records, std::size_t group)
    : records_(std::move(records)), group_(group), walk_(*records_, group) {}

void MixedBatches::seek(std::uint64_t record) {
  walk_.seekRecord(record);
  while (walk_.number() < record && walk_.next(false)) {
  }
}

RecordBatch MixedBatches::next(std::uint64_t most) {
  constexpr std::uint64_t kMostGathered = 64 * 1024;  // bytes
  const std::size_t size = inMemory(records_->groups()[group_].recordSize);
  gathered_.clear();
  std::size_t count = 0;
  while (count < most && gathered_.size() < kMostGathered) {
    const std::optional<ByteSpan> record = walk_.next();
    if (!record) break;
    gathered_.insert(gathered_.end(), record->begin(), record->end());
    ++count;
  }
  return {{gathered_.data(), size, count, gathered_.data() + gathered_.size()}, 0};
}

MixedValues::MixedValues(std::shared_ptr<MixedRecords> records, std::size_t group, bool byOrder)
    : records_(std::move(records)), walk_(*records_, group), byOrder_(byOrder) {}

bool MixedValues::read(std::uint64_t offset, std::vector<std::uint8_t>& out) {
  const auto place = [&] { return byOrder_ ? walk_.number() : walk_.valueOffset(); };
  byOrder_ ? walk_.seekRecord(offset) : walk_.seekValue(offset);
  while (place() <= offset) {
    const bool isWanted = place() == offset;
    const std::optional<ByteSpan> value = walk_.next(isWanted);
    if (!value) break;
    if (!isWanted) continue;
    out.assign(value->begin() + kLengthBytes, value->end());
    return true;
  }
  records_->reportMissing(offset, byOrder_);
  return false;
}

}  // namespace tolvex
