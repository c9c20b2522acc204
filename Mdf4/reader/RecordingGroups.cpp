#include "Mdf4/reader/RecordingGroups.h"

#include <algorithm>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace tolvex {
namespace {

bool isSame(const MdfColumnChannel& a, const MdfColumnChannel& b) {
  return a.name == b.name && a.unit == b.unit && a.type == b.type && a.rawType == b.rawType &&
         a.shape == b.shape && a.channelType == b.channelType && a.syncType == b.syncType &&
         a.parent == b.parent;
}

bool isSame(const MdfColumnGroup& a, const MdfColumnGroup& b) {
  return a.name == b.name && a.sourceName == b.sourceName && a.sourcePath == b.sourcePath &&
         a.master == b.master &&
         std::ranges::equal(a.channels, b.channels,
                            [](const auto& x, const auto& y) { return isSame(x, y); });
}

// Alike groups have the same one.
std::size_t keyOf(const MdfColumnGroup& group) {
  const std::hash<std::string_view> hash;
  std::size_t key = hash(group.name);
  for (const MdfColumnChannel& channel : group.channels) key = key * 31 + hash(channel.name);
  return key;
}

// Over several files a master of time is in seconds since the start of the first one. Gives that
// channel; -1: there is none.
std::int32_t countInSeconds(MdfColumnGroup& group) {
  if (group.master < 0) return -1;
  MdfColumnChannel& master = group.channels[static_cast<std::size_t>(group.master)];
  const bool isNumber = master.type != MdfColumnType::None && master.type < MdfColumnType::Text;
  if (master.syncType != 1 || !isNumber || !master.shape.empty()) return -1;
  master.type = MdfColumnType::Float64;
  master.unit = "s";
  return group.master;
}

}  // namespace

RecordingGroups::RecordingGroups(const std::vector<std::unique_ptr<ColumnFile>>& files) {
  std::unordered_multimap<std::size_t, std::size_t> known;  // groups by key
  for (std::size_t file = 0; file < files.size(); ++file) {
    std::vector<MdfColumnGroup> ofFile = files[file]->describe();
    for (std::size_t i = 0; i < ofFile.size(); ++i) {
      MdfColumnGroup& group = ofFile[i];
      // Of those that are alike, the first one that this file has not continued yet.
      std::size_t found = groups.size();
      const std::size_t key = keyOf(group);
      const auto [first, last] = known.equal_range(key);
      for (auto other = first; other != last; ++other) {
        const bool isContinued = groups[other->second].members.back().file == file;
        if (!isContinued && isSame(described[other->second], group)) {
          found = std::min(found, other->second);
        }
      }
      const RecordingGroup::Member member{file, i, group.records};
      if (found == groups.size()) {
        known.emplace(key, found);
        groups.push_back({{member}, -1});
        described.push_back(std::move(group));
      } else {
        groups[found].members.push_back(member);
        described[found].records += group.records;
        described[found].statedRecords += group.statedRecords;
        for (std::size_t c = 0; c < group.channels.size(); ++c) {
          described[found].channels[c].givesNumbers |= group.channels[c].givesNumbers;
        }
      }
    }
  }
  for (std::size_t i = 0; i < groups.size(); ++i) {
    if (groups[i].members.size() > 1) groups[i].inSeconds = countInSeconds(described[i]);
  }
}

}  // namespace tolvex
