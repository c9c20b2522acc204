// The check of a whole file.
#include <algorithm>
#include <array>
#include <cinttypes>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <queue>
#include <string_view>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/check/DataCheck.h"
#include "Mdf4/check/RecordCheck.h"
#include "Mdf4/check/TreeCheck.h"
#include "Mdf4/format/WorkSizes.h"

namespace tolvex {
namespace {

class FileCheck {
 public:
  FileCheck(DirectFile& file, MdfCheckReport& report, const MdfProgress& progress,
            const WorkSizes& sizes)
      : file_(file),
        findings_(report),
        progress_(progress),
        walk_(file, findings_),
        delivery_(walk_, sizes, [this](std::uint64_t bytes) { advance(bytes); }),
        tree_(walk_, sizes) {}

  void run();

 private:
  using Walks = std::vector<std::unique_ptr<DataCheck>>;

  bool checkIdentification();
  void checkUnfinished(const IdBlock& id, std::string_view fileId);
  void checkVersion(const IdBlock& id);
  bool hasHeaderBlock();
  void planValues(Walks& walks);
  void planRecords(Walks& walks);
  std::unique_ptr<ByteSink> recordsOf(const CheckedDataGroup& group, bool columns);
  std::vector<CheckedValues*> valuesOf(const CheckedGroup& group);
  bool inColumns(const BlockLink& data);
  void add(Walks& walks, const BlockLink& link, DataRole place, std::unique_ptr<ByteSink> sink,
           std::uint64_t recordBytes = 0, std::uint64_t invalBytes = 0);
  void takeTurns(const Walks& walks);
  void checkGaps();
  void checkGap(OwnedRanges::Range gap, std::uint64_t& budget);
  void advance(std::uint64_t bytes);

  DirectFile& file_;
  Findings findings_;
  const MdfProgress& progress_;
  BlockCheck walk_;
  BlockReader delivery_;
  TreeCheck tree_;
  std::vector<std::unique_ptr<ByteSink>> sinks_;
  std::map<std::uint64_t, CheckedValues*> values_;  // by data link
  std::uint64_t done_ = 0;                          // bytes
  std::uint64_t told_ = 0;
};

void FileCheck::run() {
  if (!checkIdentification()) return;
  tree_.check();
  Walks values;
  planValues(values);
  takeTurns(values);
  Walks records;
  planRecords(records);
  takeTurns(records);
  checkGaps();
  if (progress_) progress_(file_.end(), file_.end());
}

// False when there is nothing to go on with.
bool FileCheck::checkIdentification() {
  IdBlock id = {};
  const std::uint64_t size = std::min<std::uint64_t>(file_.end(), sizeof id);
  if (!walk_.read(0, size, &id)) id = {};
  walk_.owned().add(0, sizeof id);
  const std::string_view fileId(id.id_file, sizeof id.id_file);
  const bool known = fileId == kFileId || fileId == kUnfinalizedFileId;
  if (size < sizeof id || (!known && !hasHeaderBlock())) {
    findings_.error(
        0, "identification block: id_file", quoted(kFileId),
        size < sizeof id ? formatText("a file of %" PRIu64 " bytes", file_.end()) : quoted(fileId));
    return false;
  }
  checkUnfinished(id, fileId);
  checkVersion(id);
  const auto reserved = [&](std::size_t offset, const char* field, ByteSpan bytes) {
    if (areZeros(bytes)) return;
    findings_.warning(offset, std::string("identification block: ") + field, "0", "other bytes");
  };
  reserved(offsetof(IdBlock, id_reserved1), "id_reserved1", bytesOf(id.id_reserved1));
  reserved(offsetof(IdBlock, id_reserved2), "id_reserved2", bytesOf(id.id_reserved2));
  if (hasHeaderBlock()) return true;
  findings_.error(kHeaderBlockPosition, "HD block", "\"##HD\"", "no such block");
  return false;
}

bool FileCheck::hasHeaderBlock() {
  const BlockScan scan = scanBlock(file_, kHeaderBlockPosition);
  return scan.isBlock() && scan.header.type == block_type::kHD;
}

void FileCheck::checkUnfinished(const IdBlock& id, std::string_view fileId) {
  static constexpr std::array kMeanings = {
      "cycle counters of CG",     "cycle counters of SR",  "length of the last DT",
      "length of the last RD",    "last DL of each chain", "byte counts of VLSD channel groups",
      "offsets of VLSD channels",
  };
  std::string found;
  const auto say = [&found](const std::string& text) {
    found += (found.empty() ? "" : ", ") + text;
  };
  if (fileId != kFileId) say(quoted(fileId));
  for (unsigned bit = 0; bit < 16; ++bit) {
    if ((id.id_unfin_flags >> bit & 1U) == 0) continue;
    say(bit < kMeanings.size() ? kMeanings[bit] : formatText("flag %u", bit));
  }
  if (id.id_custom_unfin_flags != 0) {
    say(formatText("custom flags 0x%04X", unsigned{id.id_custom_unfin_flags}));
  }
  if (found.empty()) return;
  walk_.setUnfinished(fileId == kUnfinalizedFileId ? id.id_unfin_flags : std::uint16_t{0});
  findings_.error(id.id_unfin_flags == 0 ? 0 : offsetof(IdBlock, id_unfin_flags),
                  id.id_unfin_flags == 0 ? "identification block: id_file"
                                         : "identification block: id_unfin_flags",
                  "a finalized file, " + quoted(kFileId) + " without flags",
                  (fileId == kUnfinalizedFileId ? "unfinalized: " : "") + found);
}

void FileCheck::checkVersion(const IdBlock& id) {
  const unsigned number = id.id_ver;
  if (number < kOldestVersion || number > kNewestVersion) {
    findings_.error(offsetof(IdBlock, id_ver), "identification block: id_ver",
                    formatText("%u to %u", kOldestVersion, kNewestVersion), std::to_string(number));
  }
  std::string text(id.id_vers, sizeof id.id_vers);
  text.erase(std::min(text.find_last_not_of(std::string(" \0", 2)) + 1, text.size()));
  const std::string expected = formatText("%u.%02u", number / 100, number % 100);
  if (text != expected) {
    findings_.warning(offsetof(IdBlock, id_vers), "identification block: id_vers",
                      quoted(expected) + ", as the number", quoted(text));
  }
}

void FileCheck::add(Walks& walks, const BlockLink& link, DataRole place,
                    std::unique_ptr<ByteSink> sink, std::uint64_t recordBytes,
                    std::uint64_t invalBytes) {
  walks.push_back(
      std::make_unique<DataCheck>(walk_, delivery_, link, place, *sink, recordBytes, invalBytes));
  sinks_.push_back(std::move(sink));
}

// The values of variable-length channels come first: the records are held against them.
void FileCheck::planValues(Walks& walks) {
  for (const CheckedDataGroup& dataGroup : tree_.groups) {
    for (const CheckedGroup& group : dataGroup.groups) {
      for (const WatchedChannel& channel : group.values) {
        const BlockLink& link = channel.data;
        if (link.target == 0 || walk_.kindAt(link) == block_type::kCG) continue;
        const auto [entry, isNew] = values_.try_emplace(link.target);
        if (!isNew) continue;
        auto values = std::make_unique<CheckedValues>(walk_, delivery_);
        entry->second = values.get();
        add(walks, link, DataRole::Values, std::move(values));
      }
    }
  }
}

void FileCheck::planRecords(Walks& walks) {
  for (const CheckedDataGroup& group : tree_.groups) {
    const bool columns = inColumns(group.data);
    std::uint64_t recordBytes = 0;
    std::uint64_t invalBytes = 0;
    if (columns && group.groups.size() == 1) {
      recordBytes = group.groups[0].record.cg_data_bytes;
      invalBytes = group.groups[0].record.cg_inval_bytes;
    }
    add(walks, group.data, DataRole::Records, recordsOf(group, columns), recordBytes, invalBytes);
  }
  for (const CheckedReduction& reduction : tree_.reductions) {
    add(walks, reduction.data, DataRole::Reduction,
        std::make_unique<ReductionRecords>(walk_, reduction));
  }
  for (const BlockLink& link : tree_.arrays) {
    add(walks, link, DataRole::Array, std::make_unique<ByteSink>());
  }
}

std::unique_ptr<ByteSink> FileCheck::recordsOf(const CheckedDataGroup& group, bool columns) {
  const std::uint8_t idSize = group.record.dg_rec_id_size;
  const bool single = group.groups.size() == 1;
  if (single && idSize == 0 && !group.groups[0].holdsValues()) {
    return std::make_unique<SortedRecordCheck>(walk_, group.groups[0], valuesOf(group.groups[0]),
                                               columns);
  }
  if ((single && idSize == 0) || (!group.groups.empty() && isRecordIdSize(idSize))) {
    std::vector<std::vector<CheckedValues*>> values;
    for (const CheckedGroup& each : group.groups) values.push_back(valuesOf(each));
    return std::make_unique<UnsortedRecordCheck>(walk_, group, values);
  }
  return std::make_unique<ByteSink>();  // nobody can tell the records apart
}

std::vector<CheckedValues*> FileCheck::valuesOf(const CheckedGroup& group) {
  std::vector<CheckedValues*> values;
  for (const WatchedChannel& channel : group.values) {
    const auto found = values_.find(channel.data.target);
    values.push_back(found == values_.end() ? nullptr : found->second);
  }
  return values;
}

bool FileCheck::inColumns(const BlockLink& data) {
  BlockLink link = data;
  if (walk_.kindAt(link) == block_type::kHL) {
    link.position = link.target + kBlockHeaderSize;
    if (!walk_.read(link.position, sizeof link.target, &link.target)) return false;
  }
  const std::uint16_t kind = walk_.kindAt(link);
  return kind == block_type::kLD || kind == block_type::kDV;
}

// Steps the walk whose next block comes first in the file: so a file of several groups is gone
// through from front to back.
void FileCheck::takeTurns(const Walks& walks) {
  using Turn = std::pair<std::uint64_t, DataCheck*>;
  std::priority_queue<Turn, std::vector<Turn>, std::greater<>> turns;
  for (const std::unique_ptr<DataCheck>& walk : walks) turns.emplace(walk->next(), walk.get());
  while (!turns.empty()) {
    DataCheck* const walk = turns.top().second;
    turns.pop();
    walk->step();
    if (!walk->done()) turns.emplace(walk->next(), walk);
  }
}

void FileCheck::checkGaps() {
  OwnedRanges& owned = walk_.owned();
  for (const OwnedRanges::Range& room : walk_.reserved()) {
    owned.add(room.start, std::min(room.end, file_.end()));
  }
  // Zeros beyond this are not looked for any more, and any gap is told of.
  std::uint64_t budget = std::uint64_t{256} << 20;
  for (OwnedRanges::Range gap = owned.nextGap(0, file_.end()); gap.start < gap.end;
       gap = owned.nextGap(gap.end, file_.end())) {
    checkGap(gap, budget);
  }
}

// Bytes that no block owns: zeros are room that was reserved.
void FileCheck::checkGap(OwnedRanges::Range gap, std::uint64_t& budget) {
  std::array<std::uint8_t, 4000> piece;  // a multiple of 8
  std::uint64_t at = gap.start;
  std::uint64_t nonZero = gap.end;
  while (at < gap.end && nonZero == gap.end && budget >= piece.size()) {
    const std::uint64_t length = std::min<std::uint64_t>(piece.size(), gap.end - at);
    if (!walk_.read(at, length, piece.data())) break;
    const auto end = piece.begin() + static_cast<std::ptrdiff_t>(length);
    const auto found = std::find_if(piece.begin(), end, [](std::uint8_t b) { return b != 0; });
    if (found != end) nonZero = at + static_cast<std::uint64_t>(found - piece.begin());
    at += length;
    budget -= length;
  }
  if (at >= gap.end && nonZero == gap.end) return;
  const std::uint64_t start = std::max(gap.start, std::min(nonZero, at) / 8 * 8);
  std::array<char, 4> marker = {};
  const bool isRead =
      walk_.read(start, std::min<std::uint64_t>(marker.size(), gap.end - start), marker.data());
  const bool block = isRead && marker[0] == '#' && marker[1] == '#';
  findings_.warning(
      start, gap.end == file_.end() ? "bytes behind the last block" : "bytes that no block owns",
      "none",
      formatText("%" PRIu64 " bytes", gap.end - start) +
          (block ? ", beginning with " + quoted({marker.data(), marker.size()}) : ""));
}

void FileCheck::advance(std::uint64_t bytes) {
  constexpr std::uint64_t kStep = 1 << 20;
  done_ += bytes;
  if (!progress_ || done_ - told_ < kStep) return;
  told_ = done_;
  progress_(std::min(done_, file_.end()), file_.end());
}

// What cannot be read comes first, since much else follows from it.
void enterUnreadable(const DirectFile& file, MdfCheckReport& report) {
  constexpr std::size_t kMostKept = 1000;
  std::vector<MdfFinding> unreadable;
  const auto enter = [&](std::uint64_t position, std::string what) {
    ++report.errors;
    if (unreadable.size() < kMostKept)
      unreadable.push_back({true, position, std::move(what), "", ""});
  };
  const std::uint64_t end = file.end();
  for (ByteRange bad = file.reads().nextUnreadable(0, end); !bad.empty();
       bad = file.reads().nextUnreadable(bad.end, end)) {
    enter(bad.start, formatText("reading %" PRIu64 " bytes failed: %s", bad.end - bad.start,
                                file.reads().unreadableReason().c_str()));
  }
  if (unreadable.empty() && !file.reads().error().empty()) enter(0, file.reads().error());
  report.findings.insert(report.findings.begin(), unreadable.begin(), unreadable.end());
  report.findings.resize(std::min(report.findings.size(), kMostKept));
}

}  // namespace

MdfCheckReport checkFile(const std::string& path, const MdfProgress& progress) {
  return checkFile(path, progress, WorkSizes{});
}

MdfCheckReport checkFile(const std::string& path, const MdfProgress& progress,
                         const WorkSizes& sizes) {
  MdfCheckReport report;
  try {
    DirectFile file;
    if (file.open(path, OpenMode::Read)) {
      file.reads().bySectors();
      FileCheck(file, report, progress, sizes).run();
      enterUnreadable(file, report);
    } else {
      report.failure = file.openError();
    }
  } catch (const std::bad_alloc&) {
    report.failure = "out of memory";
  } catch (const std::exception& error) {
    report.failure = error.what();
  } catch (...) {
    report.failure = "the check was broken off";
  }
  return report;
}

}  // namespace tolvex
