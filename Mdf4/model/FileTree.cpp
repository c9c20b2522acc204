#include "Mdf4/model/FileTree.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>

#include "Mdf4/model/RecordCursor.h"

namespace tolvex {
namespace {

template <class Item>
const Item* find(const std::vector<Item>& items, int index) {
  return index >= 0 && static_cast<std::size_t>(index) < items.size()
             ? &items[static_cast<std::size_t>(index)]
             : nullptr;
}

// Calls `both` for the items that stand at the same place in both.
template <class Item, class Both>
void forEachOfBoth(std::vector<Item>& now, std::vector<Item>& before, Both both) {
  for (std::size_t i = 0; i < std::min(now.size(), before.size()); ++i) both(now[i], before[i]);
}

template <class Item>
void makeRoom(std::vector<Item>& now, const std::vector<Item>& before) {
  if (before.size() > now.size()) now.reserve(before.size());
}

template <class Item>
void moveRest(std::vector<Item>& now, std::vector<Item>& before) {
  for (std::size_t i = now.size(); i < before.size(); ++i) now.push_back(std::move(before[i]));
}

}  // namespace

const TreeDataGroup* FileTree::findGroup(int dg) const {
  return find(dataGroups_, dg);
}

const TreeGroup* FileTree::findGroup(int dg, int cg) const {
  const TreeDataGroup* const found = findGroup(dg);
  return found == nullptr ? nullptr : find(found->groups, cg);
}

const TreeChannel* FileTree::findChannel(int dg, int cg, int cn) const {
  const TreeGroup* const found = findGroup(dg, cg);
  return found == nullptr ? nullptr : find(found->channels, cn);
}

const TreeChannel* FileTree::findTime(int dg, int cg) const {
  if (cg >= 0) {
    const TreeGroup* const group = findGroup(dg, cg);
    return group == nullptr ? nullptr : group->time();
  }
  const TreeDataGroup* const found = findGroup(dg);
  if (found == nullptr) return nullptr;
  for (const TreeGroup& group : found->groups) {
    if (const TreeChannel* const time = group.time()) return time;
  }
  return nullptr;
}

std::vector<MdfCNInfo> FileTree::list(ChannelUse use) const {
  std::vector<MdfCNInfo> channels;
  for (std::int32_t dg = 0; const TreeDataGroup& data : dataGroups_) {
    for (std::int32_t cg = 0; const TreeGroup& group : data.groups) {
      for (std::int32_t cn = 0; const TreeChannel& channel : group.channels) {
        if (channel.use == use) {
          channels.push_back(
              {dg, cg, cn, recordSizeOf(*group.block), channel.block.get(), &channel.children});
        }
        ++cn;
      }
      ++cg;
    }
    ++dg;
  }
  return channels;
}

void FileTree::keepRestOf(FileTree& before) {
  makeRoom(dataGroups_, before.dataGroups_);
  const auto forEachGroup = [&](const auto& both) {
    forEachOfBoth(dataGroups_, before.dataGroups_,
                  [&](TreeDataGroup& now, TreeDataGroup& old) { both(now.groups, old.groups); });
  };
  forEachGroup([](std::vector<TreeGroup>& now, std::vector<TreeGroup>& old) {
    makeRoom(now, old);
    forEachOfBoth(now, old, [](TreeGroup& group, const TreeGroup& oldGroup) {
      makeRoom(group.channels, oldGroup.channels);
    });
  });
  forEachGroup([](std::vector<TreeGroup>& now, std::vector<TreeGroup>& old) {
    forEachOfBoth(now, old, [](TreeGroup& group, TreeGroup& oldGroup) {
      const bool movesTime = oldGroup.timeIndex >= std::ssize(group.channels);
      if (group.timeIndex < 0 && movesTime) group.timeIndex = oldGroup.timeIndex;
      moveRest(group.channels, oldGroup.channels);
    });
    moveRest(now, old);
  });
  moveRest(dataGroups_, before.dataGroups_);
}

}  // namespace tolvex
