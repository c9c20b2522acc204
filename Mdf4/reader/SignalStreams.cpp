#include "Mdf4/reader/SignalStreams.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace tolvex {
namespace {

// Groups that were read lately keep what they read ahead and inflated, together so many bytes.
// Not fewer: groups read in turn would inflate a block of some MiB for every record.
constexpr std::uint64_t kMostHeld = 64 << 20;
constexpr std::size_t kMostRecent = 256;

bool hasValues(const TreeGroup& group) {
  return std::ranges::find(group.channels, ChannelUse::Value, &TreeChannel::use) !=
         group.channels.end();
}

}  // namespace

void SignalStreams::touch(m4DataStream& stream) {
  if (!recent.empty() && recent.front() == &stream) return;
  recent.remove(&stream);
  recent.push_front(&stream);
  std::uint64_t held = 0;
  for (m4DataStream* const other : recent) {
    if (held > kMostHeld) other->releaseBuffers();
    held += other->heldBytes();
  }
  if (recent.size() > kMostRecent) {
    recent.back()->releaseBuffers();
    recent.pop_back();
  }
}

GroupRecords* SignalStreams::find(int dg, int cg) {
  const auto found = records.lower_bound({dg, std::max(cg, 0)});
  if (found == records.end() || found->first.first != dg) return nullptr;
  if (cg >= 0 && found->first.second != cg) return nullptr;
  GroupRecords& wanted = found->second;
  if (!wanted.cursor.data().file().isOpen()) return nullptr;
  touch(wanted.cursor.data());
  return &wanted;
}

std::shared_ptr<SignalStreams> SignalStreams::forCopy(const std::shared_ptr<SignalStreams>& streams,
                                                      const ReaderState& state) {
  if (state.wasOpened) return streams;
  auto own = std::make_shared<SignalStreams>();
  own->readAllGroups = streams->readAllGroups;
  return own;
}

void SignalStreams::clear() {
  recent.clear();
  records.clear();
  values.clear();
  texts.clear();
}

void SignalStreams::open(ReaderState& state) {
  for (int dg = 0; const TreeDataGroup& data : state.tree.dataGroups()) {
    for (int cg = 0; const TreeGroup& group : data.groups) {
      if (readAllGroups || hasValues(group)) {
        const std::optional<RecordCursor> cursor = state.openRecords(dg, cg);
        if (cursor) records.emplace(std::pair(dg, cg), GroupRecords{dg, cg, *cursor});
      }
      for (const TreeChannel& channel : group.channels) {
        texts.emplace(channel.block.get(), state.texts.load(*channel.block));
      }
      ++cg;
    }
    ++dg;
  }
}

m4DataStream& SignalStreams::valuesOf(ReaderState& state, const M4CNBlock& channel) {
  auto found = values.find(&channel);
  if (found == values.end()) {
    found = values.emplace(&channel, state.openStream(channel.link(link::cn_data))).first;
  }
  touch(found->second);
  return found->second;
}

bool SignalStreams::describe(ReaderState& state, const m4Block* channel, Tables tables,
                             MdfSigCCInfo& out) const {
  const auto found = texts.find(channel);
  if (found == texts.end()) return false;
  return state.orOutOfMemory(false, [&] {
    out = describeChannel(static_cast<const M4CNBlock&>(*channel), found->second, tables,
                          state.longestText);
    return true;
  });
}

}  // namespace tolvex
