#include "Mdf4/can/FrameMerge.h"

#include <algorithm>
#include <cinttypes>
#include <new>

#include "Mdf4/base/Diagnostics.h"

namespace tolvex {
namespace {

// All groups are read at once: they share the room for reading ahead.
constexpr std::uint64_t kReadAhead = 64 << 20;
constexpr std::size_t kUsualGroups = 256;
constexpr std::uint64_t kLeastReadAhead = 4096;

template <class Frame>
std::shared_ptr<Frame> cloned(const std::shared_ptr<Frame>& frame) {
  return frame == nullptr ? nullptr : std::make_shared<Frame>(*frame);
}

bool isPayloadMissing(const MdfFrame& frame) {
  return std::visit([](const auto& pointer) { return pointer->PayloadMissing(); }, frame);
}

}  // namespace

FrameMerge::FrameMerge(const FrameMerge& other)
    : payloadByDlc(other.payloadByDlc),
      requireFields(other.requireFields),
      stashedMessage(cloned(other.stashedMessage)),
      stashedError(cloned(other.stashedError)),
      started_(other.started_),
      given_(other.given_),
      groups_(other.groups_),
      heap_(other.heap_) {
  for (Group& group : groups_) {
    group.copied.assign(group.record.begin(), group.record.end());
    group.record = group.copied;
  }
}

void FrameMerge::initCanStream(ReaderState& state) {
  if (started_) return;
  try {
    openAll(state);
  } catch (...) {
    heap_.clear();
    groups_.clear();
    throw;
  }
  started_ = true;
}

void FrameMerge::openAll(ReaderState& state) {
  for (const MdfCNInfo& channel : busLogChannels(state, requireFields)) {
    open(state, channel);
  }
  const std::uint64_t share = kReadAhead / std::max<std::size_t>(groups_.size(), kUsualGroups);
  for (Group& group : groups_)
    group.records.data().limitReadAhead(std::max(share, kLeastReadAhead));
  heap_.reserve(groups_.size());
  for (std::size_t i = 0; i < groups_.size(); ++i) {
    if (!readStreamNextMsg(groups_[i])) continue;
    heap_.push_back({static_cast<std::int64_t>(groups_[i].timestampNs), i});
    std::push_heap(heap_.begin(), heap_.end());
  }
}

void FrameMerge::open(ReaderState& state, const MdfCNInfo& channel) {
  const auto records = state.openRecords(channel.dgIndex, channel.cgIndex);
  if (!records) return;
  const std::vector<CanFieldSlot> layout = buildCanLayout(state, channel);
  std::optional<SignalData> payloads;
  for (const CanFieldSlot& slot : layout) {
    if (slot.field == CanField::DataBytes && slot.variableLength) {
      payloads.emplace(state.openStream(slot.cn->link(link::cn_data)));
    }
  }
  groups_.push_back({channel.dgIndex, *records,
                     std::make_shared<CanRecordDecoder>(layout, payloadByDlc || state.loggerRules,
                                                        state.loggerRules),
                     frameTimeOf(state, channel), std::move(payloads)});
}

// Goes to the group's next frame, which is decoded when it is its turn; false at the end of its
// records.
bool FrameMerge::readStreamNextMsg(Group& group) {
  const std::uint32_t size = group.records.recordSize();
  if (!isFrameRecordSize(size) || !group.records.data().file().isOpen()) return false;
  group.record = group.records.next();
  if (group.record.empty()) return false;
  if (group.record.size() < size) {
    group.records.data().file().report(
        formatText("data group %d: record %" PRIu64 " has %zu of its %u bytes", int{group.dg},
                   group.nextIndex, group.record.size(), unsigned{size}));
  }
  group.timestampNs = group.time.nearest(group.record);
  ++group.nextIndex;
  return true;
}

// Once for a group: it is mostly all of them.
void FrameMerge::reportMissingPayload(Group& group) {
  group.reportedPayload = true;
  group.records.data().file().report(formatText(
      "data group %d: record %" PRIu64 ": its payload is not in the file or cannot be read",
      int{group.dg}, group.nextIndex - 1));
}

MdfFrame FrameMerge::next() {
  if (given_) goOn();
  return heap_.empty() ? MdfFrame() : giveFirst();
}

MdfFrame FrameMerge::giveFirst() {
  Group& group = groups_[heap_.front().group];
  MdfFrame frame = group.decoder->decode(group.record, group.timestampNs, group.nextIndex - 1,
                                         group.payloads ? &*group.payloads : nullptr);
  if (!group.reportedPayload && isPayloadMissing(frame)) reportMissingPayload(group);
  given_ = true;
  try {
    goOn();
  } catch (const std::bad_alloc&) {  // with the next frame, then
  }
  return frame;
}

// From the frame that was given to the next one.
void FrameMerge::goOn() {
  const std::size_t index = heap_.front().group;
  const bool more = readStreamNextMsg(groups_[index]);
  given_ = false;
  if (more && heap_.size() == 1) return;  // its place in the heap is always the first
  std::pop_heap(heap_.begin(), heap_.end());
  heap_.pop_back();
  if (!more) return;
  heap_.push_back({static_cast<std::int64_t>(groups_[index].timestampNs), index});
  std::push_heap(heap_.begin(), heap_.end());
}

}  // namespace tolvex
