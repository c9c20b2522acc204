#include <string_view>
#include <utility>

#include "Mdf4/base/System.h"
#include "Mdf4/reader/ChannelDescription.h"
#include "Mdf4/reader/ReaderState.h"

namespace tolvex {
namespace {

constexpr std::int64_t kNsPerMinute = 60'000'000'000;
constexpr std::uint8_t kLocalTime = 0x01;
constexpr std::uint8_t kOffsetsValid = 0x02;

constexpr const char* kOutOfMemory = "reading ran out of memory: something is left out";

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

}  // namespace

ReaderState::~ReaderState() {
  file.Close();
}

std::shared_ptr<ReaderState> ReaderState::forCopy(const std::shared_ptr<ReaderState>& state) {
  if (state->wasOpened) return state;
  auto own = std::make_shared<ReaderState>();
  own->longestText = state->longestText;
  own->loggerRules = state->loggerRules;
  own->missed = state->missed;
  return own;
}

M4DGBlock* ReaderState::findGroup(int dg) const {
  const TreeDataGroup* const found = tree.findGroup(dg);
  return found == nullptr ? nullptr : found->block.get();
}

M4CGBlock* ReaderState::findGroup(int dg, int cg) const {
  const TreeGroup* const found = tree.findGroup(dg, cg);
  return found == nullptr ? nullptr : found->block.get();
}

M4CNBlock* ReaderState::findChannel(int dg, int cg, int cn) const {
  const TreeChannel* const found = tree.findChannel(dg, cg, cn);
  return found == nullptr ? nullptr : found->block.get();
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
  group.unsorted = data->dg_rec_id_size != 0 || tree.findGroup(dg)->groups.size() > 1;
  return true;
}

m4DataStream ReaderState::openStream(std::uint64_t dataLink, std::uint64_t expectedSize) {
  std::shared_ptr<SegmentTable>& table = tables[dataLink];
  if (table == nullptr) table = std::make_shared<SegmentTable>(file, dataLink, expectedSize);
  return {file, table};
}

std::optional<RecordCursor> ReaderState::openRecords(int dg, int cg) {
  const M4DGBlock* const data = findGroup(dg);
  const M4CGBlock* const group = findGroup(dg, cg);
  if (data == nullptr || group == nullptr) return std::nullopt;
  const std::uint64_t dataLink = data->link(link::dg_data);
  if (dataLink == 0) return std::nullopt;
  const m4DataStream stream = openStream(dataLink, group->cg_cycle_count * recordSizeOf(*group));
  if (!stream.valid()) return std::nullopt;
  return RecordCursor::over(stream, *group, tables[dataLink]->columnStorage());
}

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
    // What was listed before stays where this opening lists nothing.
    FileTree tree(state.file, state.texts, state.loggerRules);
    tree.keepRestOf(state.tree);
    state.tree = std::move(tree);
    state.missed.forgetFound(state.tree);
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
  return static_cast<int>(state_->tree.dataGroups().size() + state_->missed.count());
}
int MdfBaseReader::getCGCount(int dg) {
  const TreeDataGroup* const found = state_->tree.findGroup(dg);
  const std::size_t groups = found == nullptr ? 0 : found->groups.size();
  return static_cast<int>(groups + state_->missed.count(dg));
}
int MdfBaseReader::getCNCount(int dg, int cg) {
  const TreeGroup* const found = state_->tree.findGroup(dg, cg);
  const std::size_t channels = found == nullptr ? 0 : found->channels.size();
  return static_cast<int>(channels + state_->missed.count(dg, cg));
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
  return state_->lookUp(state_->findGroup(dg), dg);
}
m4Block* MdfBaseReader::getCGBlock(int dg, int cg) {
  return state_->lookUp(state_->findGroup(dg, cg), dg, cg);
}
m4Block* MdfBaseReader::getCNBlock(int dg, int cg, int cn) {
  return state_->lookUp(state_->findChannel(dg, cg, cn), dg, cg, cn);
}

}  // namespace tolvex
