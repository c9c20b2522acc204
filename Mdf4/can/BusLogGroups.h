// The bus-log groups of an opened file: which there are, and how their records are decoded.
#pragma once

#include <vector>

#include "Mdf4/can/FrameTime.h"
#include "Mdf4/model/BusLogLayout.h"
#include "Mdf4/model/ChannelTree.h"
#include "Mdf4/reader/ReaderState.h"

namespace tolvex {

// The CAN channels whose groups give frames, by data group, channel group and channel.
// With `requireFields` those without a single recognised field are left out, as they always are
// under logger rules.
std::vector<MdfCNInfo> busLogChannels(const ReaderState& state, bool requireFields);

// The recognised fields of a CAN channel, by name. Under logger rules those that have no bits and
// no constant are left out.
std::vector<CanFieldSlot> buildCanLayout(ReaderState& state, const MdfCNInfo& channel);

// The master time of the channel's group.
FrameTime frameTimeOf(ReaderState& state, const MdfCNInfo& channel);

// Frames that the records of a group hold, under logger rules: the members of one of its channels
// are their fields.
struct FrameSource {
  std::vector<CanFieldSlot> layout;        // without the channels' blocks
  const ModelChannel* payloads = nullptr;  // the one with payloads outside of the records, or null
  FrameTime time;
};
// Whether there are some, without looking into the fields' channels.
bool holdsFrames(const ModelGroup& group);
std::vector<FrameSource> frameSources(MDF4File& file, FileTexts& texts, const ModelGroup& group);

// Records of other sizes give no frames.
constexpr bool isFrameRecordSize(std::uint32_t bytes) {
  return bytes != 0 && bytes <= kLargestRecord;
}

}  // namespace tolvex
