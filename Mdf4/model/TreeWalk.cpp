// FileTree, from the chains of an opened file.
#include <algorithm>
#include <cinttypes>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockLoader.h"
#include "Mdf4/format/FieldRules.h"
#include "Mdf4/model/BusLogLayout.h"
#include "Mdf4/model/FileTree.h"

namespace tolvex {
namespace {

// Channels that share a long name would make much of it.
constexpr std::size_t kLongestTrace = 1 << 20;

class TreeWalk {
 public:
  TreeWalk(MDF4File& file, FileTexts& texts, bool loggerRules)
      : file_(file), texts_(texts), loggerRules_(loggerRules), visited_(file) {}

  std::vector<TreeDataGroup> dataGroups() {
    std::vector<TreeDataGroup> all;
    for (std::uint64_t at = file_.header()->link(link::hd_dg_first); at != 0;) {
      auto block = load<M4DGBlock>(at);
      if (block == nullptr) break;
      at = block->link(link::dg_dg_next);
      std::vector<TreeGroup> groups = channelGroups(block->link(link::dg_cg_first));
      all.push_back({std::move(block), std::move(groups)});
    }
    return all;
  }

 private:
  std::vector<TreeGroup> channelGroups(std::uint64_t first) {
    std::vector<TreeGroup> groups;
    for (std::uint64_t at = first; at != 0;) {
      auto block = load<M4CGBlock>(at);
      if (block == nullptr) break;
      at = block->link(link::cg_cg_next);
      TreeGroup& group = groups.emplace_back();
      group.block = std::move(block);
      channels(group);
    }
    return groups;
  }

  void channels(TreeGroup& group) {
    const bool canGroup = loggerRules_ && isCanSource(group.block->link(link::cg_si_acq_source));
    for (std::uint64_t at = group.block->link(link::cg_cn_first); at != 0;) {
      auto block = load<M4CNBlock>(at);
      if (block == nullptr) return;
      at = block->link(link::cn_cn_next);
      TreeChannel channel = {std::move(block), ChannelUse::None, {}};
      channel.use = useOf(*channel.block, canGroup);
      if (channel.use == ChannelUse::Can) channel.children = composition(*channel.block);
      if (channel.use == ChannelUse::Time && group.timeIndex < 0) {
        group.timeIndex = static_cast<std::int32_t>(group.channels.size());
      }
      group.channels.push_back(std::move(channel));
    }
  }

  // The next block of a chain; null when it is absent, damaged or was visited. Only a block of the
  // chain's kind counts as visited: its own chain may lead to another one yet.
  template <class Block>
  std::unique_ptr<Block> load(std::uint64_t position) {
    const std::uint16_t type = blockTypeAt(file_, position);
    if (type == 0) return nullptr;
    if (type != Block::kType) {
      file_.report(
          formatText("block at %" PRIu64 ": a link of another kind leads to it", position));
      return nullptr;
    }
    return visited_.enter(position) ? loadBlockAs<Block>(file_, position) : nullptr;
  }

  // Loggers name the bus for a whole group, its time included: `canGroup` says that they did.
  ChannelUse useOf(const M4CNBlock& channel, bool canGroup) {
    const bool isCan =
        (canGroup && channel.link(link::cn_composition) != 0) || isCanChannel(channel);
    if (isCan && !(loggerRules_ && isTimeMaster(channel))) return ChannelUse::Can;
    if (channel.cn_type == channel_type::kFixedLength || channel.cn_type == channel_type::kVlsd) {
      return ChannelUse::Value;
    }
    return isTimeMaster(channel) ? ChannelUse::Time : ChannelUse::None;
  }

  bool isCanChannel(const M4CNBlock& channel) {
    if (isCanSource(channel.link(link::cn_si_source))) return true;
    const SharedText name = texts_.whole(channel.link(link::cn_tx_name));
    return name != nullptr && isBusLogName(name->c_str(), loggerRules_);
  }

  bool isCanSource(std::uint64_t position) {
    if (position == 0) return false;
    const auto found = canSources_.find(position);
    if (found != canSources_.end()) return found->second;
    const auto source = loadBlockAs<M4SIBlock>(file_, position);
    const bool isCan =
        source != nullptr && source->si_type == kSiTypeBus && source->si_bus_type == kSiBusCan;
    return canSources_.emplace(position, isCan).first->second;
  }

  // What is no channel, such as an array, is passed over: its first link leads on.
  std::vector<TreeChild> composition(const M4CNBlock& channel) {
    std::vector<TreeChild> children;
    std::string trace;
    std::unordered_set<std::uint64_t> passed;
    for (std::uint64_t at = channel.link(link::cn_composition); at != 0;) {
      const bool isChannel = blockTypeAt(file_, at) == M4CNBlock::kType;
      if (isChannel ? !visited_.enter(at) : !passed.insert(at).second) break;
      std::unique_ptr<m4Block> block = loadBlock(file_, at);
      if (block == nullptr) break;
      at = block->link(link::cn_cn_next);
      if (!isChannel) continue;
      std::unique_ptr<M4CNBlock> child(static_cast<M4CNBlock*>(block.release()));
      SharedText text = texts_.plain(child->link(link::cn_tx_name));
      children.push_back({std::move(text), std::move(child)});
      const std::string_view name = nameOf(children.back());
      if (name.size() <= kLongestTrace - std::min(trace.size(), kLongestTrace)) {
        trace.append("Name: ").append(name);
      }
    }
    printDiagnostic("%s\n", trace.c_str());
    const auto isBefore = [](const auto& a, const auto& b) { return nameOf(a) < nameOf(b); };
    const auto isSame = [](const auto& a, const auto& b) { return nameOf(a) == nameOf(b); };
    std::stable_sort(children.begin(), children.end(), isBefore);
    children.erase(std::unique(children.begin(), children.end(), isSame), children.end());
    return children;
  }

  MDF4File& file_;
  FileTexts& texts_;
  const bool loggerRules_;
  VisitedBlocks visited_;
  std::unordered_map<std::uint64_t, bool> canSources_;  // by position
};

}  // namespace

FileTree::FileTree(MDF4File& file, FileTexts& texts, bool loggerRules)
    : dataGroups_(TreeWalk(file, texts, loggerRules).dataGroups()) {}

}  // namespace tolvex
