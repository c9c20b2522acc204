#include "Mdf4/can/FrameMerge.h"

#include <algorithm>
#include <cinttypes>

#include "Mdf4/format/Diagnostics.h"

namespace tolvex {
namespace {

template <class Frame>
std::shared_ptr<Frame> cloned(const std::shared_ptr<Frame>& frame) {
  return frame == nullptr ? nullptr : std::make_shared<Frame>(*frame);
}

MdfFrame cloned(const MdfFrame& frame) {
  return std::visit([](const auto& pointer) -> MdfFrame { return cloned(pointer); }, frame);
}

}  // namespace

FrameMerge::FrameMerge(const FrameMerge& other)
    : payloadByDlc(other.payloadByDlc),
      requireFields(other.requireFields),
      stashedMessage(cloned(other.stashedMessage)),
      stashedError(cloned(other.stashedError)),
      started_(other.started_),
      groups_(other.groups_),
      heap_(other.heap_) {
  for (Group& group : groups_) group.pending = cloned(group.pending);
}

void FrameMerge::start(ReaderState& state) {
  if (started_) return;
  started_ = true;
  const LoadBudget budget(state.file);
  for (const MdfCNInfo* const channel : busLogChannels(state, requireFields)) {
    open(state, *channel);
  }
  for (std::size_t i = 0; i < groups_.size(); ++i) {
    if (!advance(groups_[i])) continue;
    heap_.push_back({MdfReader::getSignedTimestampNsFromVariant(groups_[i].pending), i});
    std::push_heap(heap_.begin(), heap_.end());
  }
}

void FrameMerge::open(ReaderState& state, const MdfCNInfo& channel) {
  const auto records = state.openRecords(channel.dgIndex, channel.cgIndex);
  if (records == nullptr) return;
  const std::vector<CanFieldSlot> layout = layoutOf(state, channel);
  std::optional<SignalData> payloads;
  for (const CanFieldSlot& slot : layout) {
    if (slot.field == CanField::DataBytes && slot.variableLength) {
      payloads.emplace(state.openStream(slot.cn->link(link::cn_data)));
    }
  }
  groups_.push_back({channel.dgIndex, channel.recordSize, *records,
                     std::make_shared<CanRecordDecoder>(layout, payloadByDlc),
                     frameTimeOf(state, channel), std::move(payloads)});
}

// Makes the group's next frame its pending one; false at the end of its records.
bool FrameMerge::advance(Group& group) {
  if (!isFrameRecordSize(group.recordSize) || !group.records.file().isOpen()) return false;
  const ByteSpan record = group.records.next(group.recordSize);
  if (record.empty()) return false;
  if (record.size() < group.recordSize) {
    group.records.file().report(
        formatText("data group %d: record %" PRIu64 " has %zu of its %u bytes", int{group.dg},
                   group.nextIndex, record.size(), unsigned{group.recordSize}));
  }
  group.pending = group.decoder->decode(record, group.time.nearest(record), group.nextIndex++,
                                        group.payloads ? &*group.payloads : nullptr);
  return true;
}

MdfFrame FrameMerge::next() {
  if (heap_.empty()) return {};
  const std::size_t index = heap_.front().group;
  Group& group = groups_[index];
  MdfFrame frame = std::move(group.pending);
  const bool more = advance(group);
  if (more && heap_.size() == 1) return frame;  // its place in the heap is always the first
  std::pop_heap(heap_.begin(), heap_.end());
  heap_.pop_back();
  if (more) {
    heap_.push_back({MdfReader::getSignedTimestampNsFromVariant(group.pending), index});
    std::push_heap(heap_.begin(), heap_.end());
  }
  return frame;
}

}  // namespace tolvex
