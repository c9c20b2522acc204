// Look-ups of blocks that a file does not have.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <utility>

#include "Mdf4/model/FileTree.h"

namespace tolvex {

// Each look-up by an index that does not exist leaves an empty entry, which the counts of data
// groups, channel groups and channels include from then on.
class MissedLookUps {
 public:
  void add(int dg) { dataGroups_.insert(dg); }
  void add(int dg, int cg) { groups_[dg].insert(cg); }
  void add(int dg, int cg, int cn) { channels_[{dg, cg}].insert(cn); }

  std::size_t count() const { return dataGroups_.size(); }
  std::size_t count(int dg) const { return sizeAt(groups_, dg); }
  std::size_t count(int dg, int cg) const { return sizeAt(channels_, std::pair(dg, cg)); }

  // Entries that are not empty any more are none of these.
  void forgetFound(const FileTree& tree) {
    std::erase_if(dataGroups_, [&](int dg) { return tree.findGroup(dg) != nullptr; });
    for (auto& entry : groups_) {
      std::erase_if(entry.second,
                    [&](int cg) { return tree.findGroup(entry.first, cg) != nullptr; });
    }
    for (auto& entry : channels_) {
      const auto [dg, cg] = entry.first;
      std::erase_if(entry.second, [&tree, dg = dg, cg = cg](int cn) {
        return tree.findChannel(dg, cg, cn) != nullptr;
      });
    }
  }

 private:
  template <class Key>
  static std::size_t sizeAt(const std::map<Key, std::set<int>>& entries, const Key& key) {
    const auto found = entries.find(key);
    return found == entries.end() ? 0 : found->second.size();
  }

  std::set<int> dataGroups_;
  std::map<int, std::set<int>> groups_;                    // by data group
  std::map<std::pair<int, int>, std::set<int>> channels_;  // by data group and channel group
};

}  // namespace tolvex
