#include "tolvex/MdfFrameReader.h"

#include <algorithm>
#include <limits>
#include <new>
#include <tuple>
#include <utility>

#include "Mdf4/can/FrameChoice.h"
#include "Mdf4/can/FrameFile.h"

namespace tolvex {
namespace {

constexpr const char* kOutOfMemory = "out of memory";
constexpr std::int64_t kLast = std::numeric_limits<std::int64_t>::max();
constexpr std::size_t kLoopBatch = 1024;  // frames
constexpr std::size_t kLongestRun = 4096;

// A lane in the merge, with the time of its next frame. Equal times go by file and lane.
struct Head {
  std::int64_t timeNs;
  std::size_t file;
  std::size_t lane;
  std::span<const std::int64_t> ready;  // times

  bool isBefore(const Head& other) const {
    return std::tie(timeNs, file, lane) < std::tie(other.timeNs, other.file, other.lane);
  }
  // The standard heap puts the greatest on top: that is the earliest.
  bool operator<(const Head& other) const { return other.isBefore(*this); }
};

}  // namespace

struct MdfFrameReaderState {
  // One of the files, open while its frames are read. With several files none is opened before the
  // merge comes to its first frame.
  struct Part {
    std::string path;
    std::unique_ptr<FrameFile> file;
    std::int64_t startNs = 0;
    std::int64_t firstNs = kLast;  // of its frames
    bool hasFrames = false;
    bool isBegun = false;
    std::size_t lanesLeft = 0;
    std::vector<std::string> problems;  // of all openings so far
    std::string notice;
  };

  explicit MdfFrameReaderState(std::vector<std::string> filePaths) : paths(std::move(filePaths)) {}

  [[nodiscard]] bool open();
  void close();
  void describe(Part& part);
  [[nodiscard]] bool openPart(Part& part);
  void closePart(Part& part);
  static void noteProblems(Part& part);
  // With several files their paths stand in front.
  std::string textOf(const Part& part, const std::string& problem) const {
    return parts.size() == 1 ? problem : part.path + ": " + problem;
  }
  void select(const MdfFrameFilter& filter);
  void beginDueParts();
  void begin(std::size_t index);
  void refill(Head head);
  std::size_t runOf(const Head& head) const;
  void next(MdfFrameBatch& batch, std::size_t most);
  bool timeRange(std::int64_t& firstNs, std::int64_t& lastNs);

  std::vector<std::string> paths;
  std::vector<Part> parts;  // by their start
  std::vector<MdfFrameGroup> groups;
  std::int32_t utcOffsetMinutes = 0;
  bool startIsLocal = false;
  bool isOpen = false;
  FrameChoice choice;
  std::size_t begun = 0;  // of the parts
  std::vector<Head> heads;
  MdfFrameBatch loopBatch;
  std::string error;
};

bool MdfFrameReaderState::open() {
  for (std::size_t i = 0; i < paths.size(); ++i) {
    Part& part = parts.emplace_back();
    part.path = paths[i];
    if (!openPart(part)) return false;
    const std::size_t before = groups.size();
    groups.insert(groups.end(), part.file->groups().begin(), part.file->groups().end());
    for (std::size_t k = before; k < groups.size(); ++k) groups[k].file = i;
    part.startNs = static_cast<std::int64_t>(part.file->header().hd_start_time_ns);
    if (i == 0 || part.startNs < parts.front().startNs) describe(part);
    if (paths.size() == 1) continue;
    const FrameChoice all;
    for (const auto& lane : part.file->lanes()) {
      lane->begin(all);
      const auto ready = lane->ready();
      if (ready.empty()) continue;
      part.firstNs = std::min(part.firstNs, ready.front());
      part.hasFrames = true;
    }
    closePart(part);
  }
  std::ranges::stable_sort(parts, [](const Part& a, const Part& b) {
    return std::tie(a.startNs, a.firstNs) < std::tie(b.startNs, b.firstNs);
  });
  isOpen = true;
  return true;
}

// What the header of the first part tells.
void MdfFrameReaderState::describe(Part& part) {
  constexpr std::uint8_t kLocalTime = 0x01;
  constexpr std::uint8_t kOffsetsValid = 0x02;
  const M4HDBlock& header = part.file->header();
  startIsLocal = (header.hd_time_flags & kLocalTime) != 0;
  const bool hasOffsets = (header.hd_time_flags & kOffsetsValid) != 0;
  utcOffsetMinutes = hasOffsets ? header.hd_tz_offset_min + header.hd_dst_offset_min : 0;
}

bool MdfFrameReaderState::openPart(Part& part) {
  if (part.file != nullptr) return true;
  auto file = std::make_unique<FrameFile>();
  if (!file->open(part.path)) {
    error = paths.size() == 1 ? file->error() : part.path + ": " + file->error();
    return false;
  }
  part.file = std::move(file);
  return true;
}

void MdfFrameReaderState::closePart(Part& part) {
  noteProblems(part);
  part.file.reset();
}

void MdfFrameReaderState::noteProblems(Part& part) {
  if (part.file == nullptr) return;
  part.notice = part.file->notice();
  for (const std::string& problem : part.file->problems()) {
    if (std::ranges::find(part.problems, problem) == part.problems.end()) {
      part.problems.push_back(problem);
    }
  }
}

void MdfFrameReaderState::close() {
  heads.clear();
  parts.clear();
  groups.clear();
  error.clear();
  isOpen = false;
}

void MdfFrameReaderState::select(const MdfFrameFilter& filter) {
  heads.clear();
  error.clear();
  if (parts.size() > 1) {
    for (Part& part : parts) closePart(part);
  }
  choice = FrameChoice(filter);
  begun = 0;
}

// Opens the parts whose frames may be the next ones.
void MdfFrameReaderState::beginDueParts() {
  while (begun < parts.size()) {
    const bool isDue =
        heads.empty() || parts.size() == 1 || heads.front().timeNs >= parts[begun].firstNs;
    if (!isDue) return;
    begin(begun++);
  }
}

void MdfFrameReaderState::begin(std::size_t index) {
  Part& part = parts[index];
  const bool isOutside = choice.isBehind(part.firstNs) || (parts.size() > 1 && !part.hasFrames);
  if ((parts.size() > 1 && isOutside) || !openPart(part)) return;
  part.lanesLeft = part.file->lanes().size();
  for (std::size_t lane = 0; lane < part.lanesLeft; ++lane) {
    part.file->lanes()[lane]->begin(choice);
  }
  const std::size_t lanes = part.file->lanes().size();
  for (std::size_t lane = 0; lane < lanes; ++lane) refill({0, index, lane, {}});
}

// Puts the lane with its next frames into the heap, if it has some.
void MdfFrameReaderState::refill(Head head) {
  Part& part = parts[head.file];
  head.ready = part.file->lanes()[head.lane]->ready();
  if (!head.ready.empty()) {
    head.timeNs = head.ready.front();
    heads.push_back(head);
    std::push_heap(heads.begin(), heads.end());
  } else if (--part.lanesLeft == 0 && parts.size() > 1) {
    closePart(part);
  }
}

// How many of the lane's frames come before any other's.
std::size_t MdfFrameReaderState::runOf(const Head& head) const {
  const std::span<const std::int64_t> ready =
      head.ready.first(std::min(head.ready.size(), kLongestRun));
  const auto isBefore = [&](std::int64_t timeNs) {
    if (!heads.empty() && !Head{timeNs, head.file, head.lane, {}}.isBefore(heads.front())) {
      return false;
    }
    return begun == parts.size() || timeNs < parts[begun].firstNs;
  };
  if (isBefore(ready.back())) return ready.size();
  // Mostly there are only a few.
  std::size_t step = 1;
  while (step < ready.size() && isBefore(ready[step])) step *= 2;
  const auto begin = ready.begin() + static_cast<std::ptrdiff_t>(step / 2);
  const auto end = ready.begin() + static_cast<std::ptrdiff_t>(std::min(step, ready.size()));
  return static_cast<std::size_t>(std::partition_point(begin, end, isBefore) - ready.begin());
}

void MdfFrameReaderState::next(MdfFrameBatch& batch, std::size_t most) {
  while (batch.count < most) {
    beginDueParts();
    if (heads.empty()) return;
    std::pop_heap(heads.begin(), heads.end());
    Head head = heads.back();
    heads.pop_back();
    FrameLane& lane = *parts[head.file].file->lanes()[head.lane];
    const std::size_t count = std::clamp<std::size_t>(runOf(head), 1, most - batch.count);
    lane.append(count, batch);
    refill(head);
  }
}

bool MdfFrameReaderState::timeRange(std::int64_t& firstNs, std::int64_t& lastNs) {
  bool hasFrames = false;
  firstNs = kLast;
  lastNs = std::numeric_limits<std::int64_t>::min();
  const FrameChoice all;
  for (Part& part : parts) {
    if (!openPart(part)) return false;
    for (const auto& lane : part.file->lanes()) {
      lane->begin(all);
      const auto ready = lane->ready();
      if (ready.empty()) continue;
      hasFrames = true;
      firstNs = std::min(firstNs, ready.front());
      lastNs = std::max(lastNs, lane->latest());
    }
    if (parts.size() > 1) closePart(part);
  }
  return hasFrames;
}

MdfFrameReader::MdfFrameReader(std::string path)
    : state_(std::make_unique<MdfFrameReaderState>(std::vector<std::string>{std::move(path)})) {}
MdfFrameReader::MdfFrameReader(std::vector<std::string> paths)
    : state_(std::make_unique<MdfFrameReaderState>(std::move(paths))) {}
MdfFrameReader::~MdfFrameReader() = default;
MdfFrameReader::MdfFrameReader(MdfFrameReader&&) noexcept = default;
MdfFrameReader& MdfFrameReader::operator=(MdfFrameReader&&) noexcept = default;

bool MdfFrameReader::open() {
  close();
  MdfFrameReaderState& state = *state_;
  try {
    if (state.open()) {
      state.select({});
      return true;
    }
    std::string error = std::move(state.error);
    state.close();
    state.error = std::move(error);
  } catch (const std::bad_alloc&) {
    state.close();
    state.error = kOutOfMemory;
  }
  return false;
}

void MdfFrameReader::close() {
  state_->close();
}

const std::string& MdfFrameReader::error() const {
  return state_->error;
}

std::vector<std::string> MdfFrameReader::problems() const {
  std::vector<std::string> all;
  for (MdfFrameReaderState::Part& part : state_->parts) {
    MdfFrameReaderState::noteProblems(part);
    for (const std::string& problem : part.problems) all.push_back(state_->textOf(part, problem));
  }
  return all;
}

std::vector<std::string> MdfFrameReader::notices() const {
  std::vector<std::string> all;
  for (MdfFrameReaderState::Part& part : state_->parts) {
    MdfFrameReaderState::noteProblems(part);
    if (!part.notice.empty()) all.push_back(state_->textOf(part, part.notice));
  }
  return all;
}

std::int64_t MdfFrameReader::startTimeNs() const {
  return state_->parts.empty() ? 0 : state_->parts.front().startNs;
}

bool MdfFrameReader::startIsLocal() const {
  return state_->startIsLocal;
}

std::int32_t MdfFrameReader::utcOffsetMinutes() const {
  return state_->utcOffsetMinutes;
}

const std::vector<MdfFrameGroup>& MdfFrameReader::groups() const {
  return state_->groups;
}

bool MdfFrameReader::timeRange(std::int64_t& firstNs, std::int64_t& lastNs) {
  MdfFrameReaderState& state = *state_;
  try {
    state.heads.clear();
    state.begun = state.parts.size();
    return state.timeRange(firstNs, lastNs);
  } catch (const std::bad_alloc&) {
    state.error = kOutOfMemory;
    return false;
  }
}

void MdfFrameReader::select(const MdfFrameFilter& filter) {
  try {
    state_->select(filter);
  } catch (const std::bad_alloc&) {
    state_->error = kOutOfMemory;
    state_->begun = state_->parts.size();
  }
}

bool MdfFrameReader::next(MdfFrameBatch& batch, std::size_t most) {
  batch.count = 0;
  batch.errorRows.clear();
  batch.errors.clear();
  MdfFrameReaderState& state = *state_;
  if (!state.isOpen) return false;
  try {
    if (batch.offsets.empty()) batch.offsets.resize(1);
    batch.offsets[0] = 0;
    state.next(batch, most);
  } catch (const std::bad_alloc&) {
    batch.count = 0;
    state.error = kOutOfMemory;
  }
  return batch.count != 0;
}

MdfFrames MdfFrameReader::frames(const MdfFrameFilter& filter) {
  select(filter);
  return MdfFrames(*this);
}

MdfFrames::Iterator::Iterator(MdfFrames* frames) : frames_(frames) {
  frames_->reader_->state_->loopBatch.count = 0;
  advance();
}

void MdfFrames::Iterator::advance() {
  MdfFrameReader& reader = *frames_->reader_;
  MdfFrameBatch& batch = reader.state_->loopBatch;
  if (row_ >= batch.count) {
    row_ = 0;
    error_ = 0;
    if (!reader.next(batch, kLoopBatch)) {
      frames_ = nullptr;
      return;
    }
  }
  const std::size_t row = row_++;
  view_.timeNs = batch.timeNs[row];
  view_.record = batch.record[row];
  const std::int64_t start = batch.offsets[row];
  view_.data = batch.bytes.data() + start;
  view_.length = static_cast<std::uint8_t>(batch.offsets[row + 1] - start);
  view_.id = batch.id[row];
  view_.bus = batch.bus[row];
  view_.flags = batch.flags[row];
  view_.kind = static_cast<MdfFrameKind>(batch.kind[row]);
  view_.dlc = batch.dlc[row];
  const bool isError = error_ < batch.errorRows.size() && batch.errorRows[error_] == row;
  view_.error = isError ? &batch.errors[error_++] : nullptr;
}

MdfFrameView MdfFrameBatch::at(std::size_t row) const {
  MdfFrameView view;
  view.timeNs = timeNs[row];
  view.record = record[row];
  view.data = bytes.data() + offsets[row];
  view.length = static_cast<std::uint8_t>(offsets[row + 1] - offsets[row]);
  view.id = id[row];
  view.bus = bus[row];
  view.flags = flags[row];
  view.kind = static_cast<MdfFrameKind>(kind[row]);
  view.dlc = dlc[row];
  const auto found = std::lower_bound(errorRows.begin(), errorRows.end(), row);
  if (found != errorRows.end() && *found == row)
    view.error = &errors[static_cast<std::size_t>(found - errorRows.begin())];
  return view;
}

}  // namespace tolvex
