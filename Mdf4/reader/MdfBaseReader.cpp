#include <strings.h>

#include <algorithm>
#include <cinttypes>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/base/System.h"
#include "Mdf4/format/BlockLoader.h"
#include "Mdf4/reader/ReaderState.h"

namespace tolvex {
namespace {

constexpr std::int64_t kNsPerMinute = 60'000'000'000;
constexpr std::uint8_t kLocalTime = 0x01;
constexpr std::uint8_t kOffsetsValid = 0x02;

constexpr const char* kOutOfMemory = "reading ran out of memory: something is left out";

// Channels that share a long name would make much of it.
constexpr std::size_t kLongestTrace = 1 << 20;

// The sum, or `time` unchanged when it would leave the range.
std::uint64_t addGuarded(std::uint64_t time, std::int64_t amount) {
  const std::uint64_t size =
      amount < 0 ? 0 - static_cast<std::uint64_t>(amount) : static_cast<std::uint64_t>(amount);
  if (amount < 0) return size > time ? time : time - size;
  return size > ~std::uint64_t{0} - time ? time : time + size;
}

std::uint64_t utcStartTime(const m4HDRecord& header) {
  const std::int64_t localOffsetMinutes = -std::int64_t{timeZoneSeconds()} / 60;
  std::uint64_t time = header.hd_start_time_ns;
  if ((header.hd_time_flags & kLocalTime) != 0) {
    time = addGuarded(time, localOffsetMinutes * -kNsPerMinute);
  } else if ((header.hd_time_flags & kOffsetsValid) != 0) {
    const std::int64_t stated = header.hd_tz_offset_min + header.hd_dst_offset_min;
    time = addGuarded(time, stated * kNsPerMinute);
    time = addGuarded(time, localOffsetMinutes * -kNsPerMinute);
  }
  return time;
}

// A padded text of the identification block.
template <std::size_t Size>
std::string trimmed(const char (&text)[Size]) {
  std::string_view view(text, Size);
  view = view.substr(0, view.find('\0'));
  return std::string(view.substr(0, view.find_last_not_of(' ') + 1));
}

bool isBusLogName(const SharedText& name, bool loggerRules) {
  if (name == nullptr) return false;
  for (const char* const known : {"CAN_DataFrame", "CAN_ErrorFrame", "CAN_FdErrorFrame"}) {
    if (strcasecmp(name->c_str(), known) == 0) return true;
  }
  return loggerRules && strcasecmp(name->c_str(), "CAN_RemoteFrame") == 0;
}

bool isMasterTime(const M4CNBlock& channel) {
  return channel.cn_type == channel_type::kMaster && channel.cn_sync_type == kSyncTime;
}

}  // namespace

ReaderState::~ReaderState() {
  file.Close();
}

std::shared_ptr<ReaderState> ReaderState::forCopy(const std::shared_ptr<ReaderState>& state) {
  if (state->wasOpened) return state;
  auto own = std::make_shared<ReaderState>();
  own->longestText = state->longestText;
  own->loggerRules = state->loggerRules;
  own->dgBlocks = state->dgBlocks;  // empty entries of look-ups
  own->cgBlocks = state->cgBlocks;
  own->cnBlocks = state->cnBlocks;
  return own;
}

const M4DGBlock* ReaderState::findGroup(int dg) const {
  const auto found = dgBlocks.find(dg);
  return found == dgBlocks.end() ? nullptr : static_cast<const M4DGBlock*>(found->second);
}

const M4CGBlock* ReaderState::findGroup(int dg, int cg) const {
  const auto groups = cgBlocks.find(dg);
  if (groups == cgBlocks.end()) return nullptr;
  const auto found = groups->second.find(cg);
  return found == groups->second.end() ? nullptr : static_cast<const M4CGBlock*>(found->second);
}

const M4CNBlock* ReaderState::findChannel(int dg, int cg, int cn) const {
  const auto groups = cnBlocks.find(dg);
  if (groups == cnBlocks.end()) return nullptr;
  const auto channels = groups->second.find(cg);
  if (channels == groups->second.end()) return nullptr;
  const auto found = channels->second.find(cn);
  return found == channels->second.end() ? nullptr : static_cast<const M4CNBlock*>(found->second);
}

const MdfCNInfo* ReaderState::findTimeChannel(int dg, int cg) const {
  const auto found = timeChannels.lower_bound({dg, std::max(cg, 0)});
  if (found == timeChannels.end() || found->first.first != dg) return nullptr;
  return cg < 0 || found->first.second == cg ? &found->second : nullptr;
}

std::string ReaderState::textAt(std::uint64_t position) {
  return file.isOpen() ? textUpTo(texts.whole(position), longestText) : std::string();
}

bool ReaderState::describe(int dg, int cg, MdfGroupInfo& group) const {
  const M4DGBlock* const data = findGroup(dg);
  const M4CGBlock* const block = findGroup(dg, cg);
  if (data == nullptr || block == nullptr) return false;
  group.dgIndex = dg;
  group.cgIndex = cg;
  group.recordCount = block->cg_cycle_count;
  group.recordSize = recordSizeOf(*block);
  group.dataBytes = block->cg_data_bytes;
  group.invalBytes = block->cg_inval_bytes;
  group.recordIdSize = data->dg_rec_id_size;
  group.flags = block->cg_flags;
  const auto& groups = cgBlocks.at(dg);
  const auto isAnother = [cg](const auto& entry) {
    return entry.first != cg && entry.second != nullptr;
  };
  group.unsorted =
      data->dg_rec_id_size != 0 || std::any_of(groups.begin(), groups.end(), isAnother);
  return true;
}

m4DataStream ReaderState::openStream(std::uint64_t dataLink, std::uint64_t expectedSize) {
  std::shared_ptr<SegmentTable>& table = tables[dataLink];
  if (table == nullptr) table = std::make_shared<SegmentTable>(file, dataLink, expectedSize);
  return {file, table};
}

std::unique_ptr<m4DataStream> ReaderState::openRecords(int dg, int cg) {
  const M4DGBlock* const data = findGroup(dg);
  const M4CGBlock* const group = findGroup(dg, cg);
  if (data == nullptr || group == nullptr) return nullptr;
  const std::uint64_t dataLink = data->link(link::dg_data);
  if (dataLink == 0) return nullptr;
  auto stream = std::make_unique<m4DataStream>(
      openStream(dataLink, group->cg_cycle_count * recordSizeOf(*group)));
  if (!stream->valid()) return nullptr;
  if (tables[dataLink]->columnStorage() && group->cg_inval_bytes != 0) {
    const std::uint32_t recordSize = recordSizeOf(*group);
    if (recordSize == 0 || recordSize > kLargestRecord) return nullptr;
    stream->mergeInvalidation(group->cg_data_bytes, group->cg_inval_bytes);
  }
  return stream;
}

std::uint32_t recordSizeOf(const M4CGBlock& group) {
  if ((group.cg_flags & kCgFlagVlsd) != 0) return group.cg_data_bytes;
  const std::uint64_t size = std::uint64_t{group.cg_data_bytes} + group.cg_inval_bytes;
  return size > ~std::uint32_t{0} ? 0 : static_cast<std::uint32_t>(size);
}

void seekRecord(m4DataStream& records, std::uint32_t recordSize, std::uint32_t invalBytes,
                std::int64_t index) {
  const std::uint32_t bytes = records.merges() ? recordSize - invalBytes : recordSize;
  records.Seek(static_cast<std::uint64_t>(index) * bytes);
}

// Walks the tree of an opened file into the reader's maps and lists. What a walk before listed
// stays until this one is done; then the blocks that it replaced in the maps go, with what is
// listed of them.
class TreeWalk {
 public:
  explicit TreeWalk(ReaderState& state)
      : state_(state),
        file_(state.file),
        visited_(state.file),
        blocksBefore_(state.blocks.size()),
        valuesBefore_(state.valueChannels.size()),
        canBefore_(state.canChannels.size()) {}

  void run() {
    dataGroups();
    for (auto& [group, channel] : timeChannels_) {
      state_.timeChannels.insert_or_assign(group, std::move(channel));
    }
    if (blocksBefore_ != 0) dropReplaced();
  }

 private:
  void dataGroups() {
    int dg = 0;
    for (std::uint64_t at = file_.header()->link(link::hd_dg_first); at != 0; ++dg) {
      M4DGBlock* const block = load<M4DGBlock>(at);
      if (block == nullptr) return;
      state_.dgBlocks[dg] = block;
      channelGroups(dg, block->link(link::dg_cg_first));
      at = block->link(link::dg_dg_next);
    }
  }

  void dropReplaced() {
    std::unordered_set<const m4Block*> alive;
    for (const auto& dg : state_.dgBlocks) alive.insert(dg.second);
    for (const auto& dg : state_.cgBlocks) {
      for (const auto& cg : dg.second) alive.insert(cg.second);
    }
    for (const auto& dg : state_.cnBlocks) {
      for (const auto& cg : dg.second) {
        for (const auto& cn : cg.second) alive.insert(cn.second);
      }
    }
    for (const MdfCNInfo& channel : state_.canChannels) {
      if (alive.count(channel.cnBlock) == 0) continue;
      for (const auto& child : channel.children) alive.insert(child.second);
    }
    const auto drop = [](auto& list, std::size_t before, const auto& isReplaced) {
      const auto end = list.begin() + static_cast<std::ptrdiff_t>(before);
      list.erase(std::remove_if(list.begin(), end, isReplaced), end);
    };
    const auto isListedInVain = [&](const MdfCNInfo& channel) {
      return alive.count(channel.cnBlock) == 0;
    };
    drop(state_.valueChannels, valuesBefore_, isListedInVain);
    drop(state_.canChannels, canBefore_, isListedInVain);
    std::erase_if(state_.timeChannels,
                  [&](const auto& entry) { return isListedInVain(entry.second); });
    drop(state_.blocks, blocksBefore_,
         [&](const auto& block) { return alive.count(block.get()) == 0; });
  }

  template <class Block>
  Block* keep(std::unique_ptr<Block> block) {
    Block* const kept = block.get();
    if (kept != nullptr) state_.blocks.push_back(std::move(block));
    return kept;
  }

  // The next block of a chain, kept by the reader; null when it is absent, damaged or was visited.
  // Only a block of the chain's kind counts as visited: its own chain may lead to another one yet.
  template <class Block>
  Block* load(std::uint64_t position) {
    const std::uint16_t type = blockTypeAt(file_, position);
    if (type == 0) return nullptr;
    if (type != Block::kType) {
      file_.report(
          formatText("block at %" PRIu64 ": a link of another kind leads to it", position));
      return nullptr;
    }
    if (!visited_.enter(position)) return nullptr;
    return static_cast<Block*>(keep(loadBlock(file_, position)));
  }

  void channelGroups(int dg, std::uint64_t first) {
    int cg = 0;
    for (std::uint64_t at = first; at != 0; ++cg) {
      M4CGBlock* const block = load<M4CGBlock>(at);
      if (block == nullptr) return;
      state_.cgBlocks[dg][cg] = block;
      channels(dg, cg, *block);
      at = block->link(link::cg_cg_next);
    }
  }

  void channels(int dg, int cg, const M4CGBlock& group) {
    const bool canGroup = state_.loggerRules && isCanSource(group.link(link::cg_si_acq_source));
    int cn = 0;
    for (std::uint64_t at = group.link(link::cg_cn_first); at != 0; ++cn) {
      M4CNBlock* const block = load<M4CNBlock>(at);
      if (block == nullptr) return;
      state_.cnBlocks[dg][cg][cn] = block;
      list({dg, cg, cn, recordSizeOf(group), block, {}}, canGroup);
      at = block->link(link::cn_cn_next);
    }
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

  bool isCanChannel(const M4CNBlock& channel) {
    return isCanSource(channel.link(link::cn_si_source)) ||
           isBusLogName(state_.texts.whole(channel.link(link::cn_tx_name)), state_.loggerRules);
  }

  // Loggers name the bus for a whole group, its time included: `canGroup` says that they did.
  void list(MdfCNInfo info, bool canGroup) {
    const M4CNBlock& channel = *info.cnBlock;
    const bool rules = state_.loggerRules;
    const bool isCan =
        (canGroup && channel.link(link::cn_composition) != 0) || isCanChannel(channel);
    if (isCan && !(rules && isMasterTime(channel))) {
      composition(info);
      state_.canChannels.push_back(std::move(info));
    } else if (channel.cn_type == channel_type::kFixedLength ||
               channel.cn_type == channel_type::kVlsd) {
      state_.valueChannels.push_back(std::move(info));
    } else if (isMasterTime(channel)) {
      timeChannels_.try_emplace({info.dgIndex, info.cgIndex}, std::move(info));
    }
  }

  // What is no channel, such as an array, is passed over: its first link leads on.
  void composition(MdfCNInfo& info) {
    std::string trace;
    std::unordered_set<std::uint64_t> passed;
    std::uint64_t at = info.cnBlock->link(link::cn_composition);
    while (at != 0) {
      const bool isChannel = blockTypeAt(file_, at) == M4CNBlock::kType;
      if (isChannel ? !visited_.enter(at) : !passed.insert(at).second) break;
      std::unique_ptr<m4Block> block = loadBlock(file_, at);
      if (block == nullptr) break;
      at = block->link(link::cn_cn_next);
      if (!isChannel) continue;
      const auto* const child = static_cast<const M4CNBlock*>(keep(std::move(block)));
      const SharedText text = state_.texts.plain(child->link(link::cn_tx_name));
      const std::string_view name = text == nullptr ? std::string_view() : *text;
      if (name.size() <= kLongestTrace - std::min(trace.size(), kLongestTrace))
        trace.append("Name: ").append(name);
      if (info.children.find(name) == info.children.end()) info.children.emplace(name, child);
    }
    printDiagnostic("%s\n", trace.c_str());
  }

  ReaderState& state_;
  MDF4File& file_;
  VisitedBlocks visited_;
  const std::size_t blocksBefore_;  // of earlier walks, in the state's lists
  const std::size_t valuesBefore_;
  const std::size_t canBefore_;
  std::map<std::pair<int, int>, MdfCNInfo> timeChannels_;
  std::unordered_map<std::uint64_t, bool> canSources_;  // by position
};

MdfBaseReader::MdfBaseReader(const std::string& path)
    : filePath_(path), state_(std::make_shared<ReaderState>()) {}

MdfBaseReader::~MdfBaseReader() = default;
MdfBaseReader::MdfBaseReader(const MdfBaseReader& other)
    : filePath_(other.filePath_),
      errorCallback_(other.errorCallback_),
      state_(ReaderState::forCopy(other.state_)) {}
MdfBaseReader& MdfBaseReader::operator=(const MdfBaseReader& other) {
  if (this == &other) return *this;
  auto state = ReaderState::forCopy(other.state_);
  filePath_ = other.filePath_;
  errorCallback_ = other.errorCallback_;
  state_ = std::move(state);
  return *this;
}

bool MdfBaseReader::open() {
  if (filePath_.empty()) {
    if (errorCallback_) errorCallback_("File path is empty");
    return false;
  }
  ReaderState& state = *state_;
  const bool isOpen = state.orOutOfMemory(false, [&] {
    if (!state.file.Open(filePath_, false)) return false;
    state.wasOpened = true;
    state.tables.clear();
    state.texts.clear();
    const IdBlock& id = state.file.id();
    const M4HDBlock& header = *state.file.header();
    state.info = {state.file.end(), id.id_ver, trimmed(id.id_vers), trimmed(id.id_prog),
                  header.hd_start_time_ns};
    state.startTime = utcStartTime(header);
    TreeWalk(state).run();
    return true;
  });
  if (isOpen) return true;
  state.file.Close();
  if (errorCallback_) errorCallback_("Failed to open MDF4 file: " + filePath_);
  return false;
}

void MdfBaseReader::close() {
  state_->file.Close();
}

void MdfBaseReader::setLongestText(std::size_t bytes) {
  state_->longestText = bytes;
}

void MdfBaseReader::setErrorCallback(std::function<void(const std::string&)> callback) {
  errorCallback_ = std::move(callback);
}

int MdfBaseReader::getDGCount() {
  return static_cast<int>(state_->dgBlocks.size());
}
int MdfBaseReader::getCGCount(int dg) {
  return state_->orOutOfMemory(0, [&] { return static_cast<int>(state_->cgBlocks[dg].size()); });
}
int MdfBaseReader::getCNCount(int dg, int cg) {
  return state_->orOutOfMemory(0,
                               [&] { return static_cast<int>(state_->cnBlocks[dg][cg].size()); });
}

std::string MdfBaseReader::getCGName(int dg, int cg) {
  return state_->orOutOfMemory(std::string(), [&] {
    const m4Block* const block = getCGBlock(dg, cg);
    if (block == nullptr) return std::string();
    const std::uint64_t name = block->link(link::cg_tx_acq_name);
    return state_->textAt(name != 0 ? name : block->link(link::cg_md_comment));
  });
}

std::string MdfBaseReader::getCNName(int dg, int cg, int cn) {
  return state_->orOutOfMemory(std::string(), [&] {
    const m4Block* const block = getCNBlock(dg, cg, cn);
    return block == nullptr ? std::string() : state_->textAt(block->link(link::cn_tx_name));
  });
}

std::string MdfBaseReader::getLastError() const {
  return state_->orOutOfMemory(std::string(), [&] {
    if (filePath_.empty()) return std::string("the path is empty");
    const MDF4File& file = state_->file;
    if (!file.error().empty()) return file.error();
    if (!file.reads().error().empty()) return file.reads().error();
    return std::string(state_->ranOutOfMemory && !file.isOpen() ? kOutOfMemory : "");
  });
}

std::vector<std::string> MdfBaseReader::getProblems() const {
  return state_->orOutOfMemory(std::vector<std::string>(), [&] {
    std::vector<std::string> problems = state_->file.problems().texts();
    if (state_->ranOutOfMemory) problems.emplace_back(kOutOfMemory);
    return problems;
  });
}
MdfFileInfo MdfBaseReader::getFileInfo() const {
  return state_->orOutOfMemory(MdfFileInfo(), [&] { return state_->info; });
}

bool MdfBaseReader::getGroupInfo(int dg, int cg, MdfGroupInfo& info) {
  MdfGroupInfo found;
  if (!state_->describe(dg, cg, found)) return false;
  found.name = getCGName(dg, cg);
  info = std::move(found);
  return true;
}

m4Block* MdfBaseReader::getDGBlock(int dg) {
  return state_->orOutOfMemory<m4Block*>(nullptr, [&] { return state_->dgBlocks[dg]; });
}
m4Block* MdfBaseReader::getCGBlock(int dg, int cg) {
  return state_->orOutOfMemory<m4Block*>(nullptr, [&] { return state_->cgBlocks[dg][cg]; });
}
m4Block* MdfBaseReader::getCNBlock(int dg, int cg, int cn) {
  return state_->orOutOfMemory<m4Block*>(nullptr, [&] { return state_->cnBlocks[dg][cg][cn]; });
}

}  // namespace tolvex
