#include "Mdf4/model/ChannelTree.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockLoader.h"

namespace tolvex {
namespace {

// ca_storage of elements that lie side by side in the record, and the bit of ca_flags for elements
// whose first index changes fastest.
constexpr std::uint8_t kChannelTemplate = 0;
constexpr std::uint32_t kInverseLayout = 0x40;

constexpr std::size_t kDeepest = 64;  // structures and arrays in each other
constexpr std::uint64_t kMostElements = std::uint64_t{1} << 32;

class Walk {
 public:
  Walk(MDF4File& file, FileTexts& texts, ChannelTree& tree, TreeDetail detail)
      : file_(file), texts_(texts), tree_(tree), all_(detail == TreeDetail::All), visited_(file) {}

  void dataGroups() {
    for (std::uint64_t at = file_.header()->link(link::hd_dg_first); at != 0;) {
      const auto block = load<M4DGBlock>(at);
      if (block == nullptr) return;
      const std::uint64_t position = std::exchange(at, block->link(link::dg_dg_next));
      const std::size_t first = tree_.groups.size();
      groups(block->link(link::dg_cg_first));
      tree_.dataGroups.push_back({position, block->link(link::dg_data), block->dg_rec_id_size,
                                  first, tree_.groups.size() - first});
    }
  }

 private:
  void groups(std::uint64_t first) {
    for (std::uint64_t at = first; at != 0;) {
      const auto block = load<M4CGBlock>(at);
      if (block == nullptr) return;
      ModelGroup group;
      group.position = at;
      at = block->link(link::cg_cg_next);
      group.record = *block;
      group.dataGroup = static_cast<std::int32_t>(tree_.dataGroups.size());
      if (all_) {
        group.name = texts_.plain(block->link(link::cg_tx_acq_name));
        group.comment = texts_.content(block->link(link::cg_md_comment));
      }
      group.source = source(block->link(link::cg_si_acq_source));
      channels(group.channels, block->link(link::cg_cn_first), ModelChannel::kNone, 0);
      group.master = masterOf(group.channels);
      tree_.groups.push_back(std::move(group));
    }
  }

  static bool isMaster(const m4CNRecord& channel) {
    return channel.cn_type == channel_type::kMaster ||
           channel.cn_type == channel_type::kVirtualMaster;
  }

  static std::int32_t masterOf(const std::vector<ModelChannel>& channels) {
    std::int32_t master = ModelChannel::kNone;
    for (std::int32_t i = 0; i < std::ssize(channels); ++i) {
      const m4CNRecord& record = channels[static_cast<std::size_t>(i)].record;
      if (!isMaster(record)) continue;
      if (record.cn_sync_type == kSyncTime) return i;
      if (master == ModelChannel::kNone) master = i;
    }
    return master;
  }

  // A chain of channels, of a group or the members of a structure.
  void channels(std::vector<ModelChannel>& all, std::uint64_t first, std::int32_t parent,
                std::size_t depth) {
    for (std::uint64_t at = first; at != 0;) {
      const auto block = load<M4CNBlock>(at);
      if (block == nullptr) return;
      ModelChannel channel;
      channel.position = at;
      at = block->link(link::cn_cn_next);
      channel.record = *block;
      channel.parent = parent;
      channel.conversion = block->link(link::cn_cc_conversion);
      channel.data = block->link(link::cn_data);
      const std::uint64_t inner = block->link(link::cn_composition);
      if (all_ || isMaster(channel.record)) describeValues(channel, *block);
      if (all_ || inner != 0 || parent != ModelChannel::kNone) {
        channel.name = texts_.content(block->link(link::cn_tx_name));
        channel.source = source(block->link(link::cn_si_source));
      }
      if (all_) channel.comment = texts_.content(block->link(link::cn_md_comment));
      if (parent != ModelChannel::kNone) inherit(channel, all[static_cast<std::size_t>(parent)]);
      const auto index = static_cast<std::int32_t>(all.size());
      all.push_back(std::move(channel));
      composition(all, inner, index, depth + 1);
    }
  }

  void describeValues(ModelChannel& channel, const M4CNBlock& block) {
    channel.facts = facts(channel.conversion);
    channel.unit = texts_.content(block.link(link::cn_md_unit));
    if (channel.unit == nullptr && channel.facts != nullptr) channel.unit = channel.facts->unit;
  }

  // What a member has of what it is a member of.
  void inherit(ModelChannel& member, const ModelChannel& parent) {
    member.dimensions = parent.dimensions;
    member.fault = parent.fault;
    if (member.source == nullptr) member.source = parent.source;
    if (parent.name == nullptr || member.name == nullptr) return;
    const std::string& outer = *parent.name;
    const std::string& inner = *member.name;
    const bool isNamed = inner.size() > outer.size() && inner[outer.size()] == '.' &&
                         inner.compare(0, outer.size(), outer) == 0;
    if (isNamed || !file_.budget().takeLoad(outer.size() + inner.size())) return;
    member.name = std::make_shared<const std::string>(outer + '.' + inner);
  }

  // The members of a structure, or the shape of an array and the members of its elements.
  void composition(std::vector<ModelChannel>& all, std::uint64_t first, std::int32_t index,
                   std::size_t depth) {
    for (std::uint64_t at = first; at != 0;) {
      if (depth > kDeepest) {
        file_.report(formatText("block at %" PRIu64 ": more than %zu structures in each other", at,
                                kDeepest));
        return;
      }
      if (blockTypeAt(file_, at) != block_type::kCA) return channels(all, at, index, depth);
      const auto block = load<M4CABlock>(at);
      if (block == nullptr) return;
      addDimensions(all[static_cast<std::size_t>(index)], *block);
      at = block->link(link::ca_composition);
    }
  }

  void addDimensions(ModelChannel& channel, const M4CABlock& array) {
    const std::span<const std::uint64_t> sizes = array.extra();
    const std::size_t count = array.ca_ndim;
    if (array.ca_storage != kChannelTemplate) {
      channel.fault = "arrays whose elements have groups of their own are not supported";
      return;
    }
    if (count == 0 || count > sizes.size() || channel.dimensions.size() + count > kDeepest) {
      channel.fault =
          formatText("array at %" PRIu64 ": it states %zu dimensions, and has room for %zu",
                     array.position(), count, sizes.size());
      file_.report(channel.fault);
      return;
    }
    std::vector<ArrayDimension> dimensions(count);
    std::uint64_t step = 1;
    std::uint64_t elements = channel.elements();
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t at = (array.ca_flags & kInverseLayout) != 0 ? i : count - 1 - i;
      dimensions[at] = {
          sizes[at], array.ca_byte_offset_base * static_cast<std::int64_t>(step),
          std::int64_t{array.ca_inval_bit_pos_base} * static_cast<std::int64_t>(step)};
      if (sizes[at] == 0 || sizes[at] > kMostElements / elements) {
        channel.fault = formatText("array at %" PRIu64 ": %" PRIu64 " elements in dimension %zu",
                                   array.position(), sizes[at], at);
        file_.report(channel.fault);
        return;
      }
      step *= sizes[at];
      elements *= sizes[at];
    }
    channel.dimensions.insert(channel.dimensions.end(), dimensions.begin(), dimensions.end());
  }

  std::shared_ptr<const SignalSource> source(std::uint64_t position) {
    if (position == 0) return nullptr;
    const auto [known, isNew] = sources_.try_emplace(position);
    if (!isNew) return known->second;
    const auto block = loadBlockAs<M4SIBlock>(file_, position);
    if (block == nullptr) return nullptr;
    auto source = std::make_shared<SignalSource>();
    source->type = block->si_type;
    source->bus = block->si_bus_type;
    source->name = texts_.plain(block->link(link::si_tx_name));
    source->path = texts_.plain(block->link(link::si_tx_path));
    source->comment = texts_.content(block->link(link::si_md_comment));
    return sources_[position] = std::move(source);
  }

  std::shared_ptr<const ConversionFacts> facts(std::uint64_t position) {
    if (position == 0) return nullptr;
    const auto [known, isNew] = facts_.try_emplace(position);
    if (!isNew) return known->second;
    const auto block = loadBlockAs<M4CCBlock>(file_, position);
    if (block == nullptr) return nullptr;
    auto facts = std::make_shared<ConversionFacts>();
    facts->type = block->cc_type;
    facts->name = texts_.plain(block->link(link::cc_tx_name));
    facts->unit = texts_.content(block->link(link::cc_md_unit));
    return facts_[position] = std::move(facts);
  }

  // The next block of a chain, as FileTree has it.
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

  MDF4File& file_;
  FileTexts& texts_;
  ChannelTree& tree_;
  const bool all_;
  VisitedBlocks visited_;
  std::unordered_map<std::uint64_t, std::shared_ptr<const SignalSource>> sources_;
  std::unordered_map<std::uint64_t, std::shared_ptr<const ConversionFacts>> facts_;
};

}  // namespace

std::uint64_t ModelChannel::elements() const {
  std::uint64_t count = 1;
  for (const ArrayDimension& dimension : dimensions) count *= dimension.size;
  return count;
}

ChannelTree::ChannelTree(MDF4File& file, FileTexts& texts, TreeDetail detail) {
  Walk(file, texts, *this, detail).dataGroups();
}

}  // namespace tolvex
