// From the blocks that are really there to a file as the format asks for it.
#include "Mdf4/recovery/Recovery.h"

#include <algorithm>
#include <cinttypes>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/OwnedRanges.h"
#include "Mdf4/format/WorkSizes.h"
#include "Mdf4/recovery/BlockSurvey.h"
#include "Mdf4/recovery/LooseBlocks.h"
#include "Mdf4/rewrite/DataWriter.h"
#include "Mdf4/rewrite/Notes.h"
#include "Mdf4/rewrite/RecordValues.h"
#include "Mdf4/rewrite/SortedRecords.h"
#include "Mdf4/rewrite/TreeCopy.h"
#include "Mdf4/rewrite/UnsortedRecords.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfVersion.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kAllBlocks = 64 << 20;  // of all that are gathered at a time
constexpr std::uint64_t kSmallestBlock = 16 << 10;
constexpr std::uint64_t kLargestRecord = 64 << 20;            // bytes; larger ones are none
constexpr std::uint64_t kPlausible = std::uint64_t{1} << 40;  // records that a file may have lost
constexpr char kHistory[] =
    "<FHcomment><TX>Recovered: finalized and sorted.</TX><tool_id>tolvex</tool_id>"
    "<tool_vendor>tolvex</tool_vendor><tool_version>" TOLVEX_VERSION "</tool_version></FHcomment>";

class Recovery {
 public:
  Recovery(const MdfRecoverOptions& options, const WorkSizes& sizes, RecoveryResult& result)
      : options_(options), sizes_(sizes), report_(result.report), checksums_(result.checksums) {}

  // Reads `input` and writes all of the result into `output`. Fills the report; its `failure`
  // when there is no result.
  void run(std::unique_ptr<SystemFile> input, std::unique_ptr<SystemFile> output);

 private:
  // One group of an unsorted sequence.
  struct Part {
    SourceGroup* group;
    std::unique_ptr<DataWriter> records;
    std::unique_ptr<RecordValues> values;
    std::unique_ptr<SplitGroup> split;
  };

  bool readIdentification();
  void survey();
  void extendLast();
  void adoptLost();
  bool copyData();
  void keepChecksums(DataWriter& records, RecordValues& values) const;
  bool copySorted(SourceGroup& group, const FoundData& found);
  bool copyUnsorted(const SourceData& data);
  bool copyValues(SourceGroup& group, RecordValues& values, std::size_t channel);
  std::vector<Part> makeParts(const SourceData& data);
  static void addGroups(const SourceData& data, const std::vector<Part>& parts,
                        UnsortedRecords& sequence);
  std::uint8_t recordIdSize(const SourceData& data, const std::vector<Part>& parts);
  bool copyReductions(SourceGroup& group);
  bool finishGroup(SourceGroup& group, DataWriter& records, RecordValues& values,
                   const FoundData& found);
  bool writeEnd();
  void noteUnreadable();
  void advance(std::uint64_t bytes);

  const MdfRecoverOptions& options_;
  const WorkSizes sizes_;
  MdfRecoveryReport& report_;
  std::vector<GroupChecksum>& checksums_;
  DirectFile in_;
  DirectFile out_;
  IdBlock id_ = {};
  bool unfinished_ = false;
  OwnedRanges owned_;
  std::unique_ptr<TreeCopy> tree_;
  std::unique_ptr<BlockSurvey> survey_;
  std::uint64_t done_ = 0;
  std::uint64_t told_ = 0;
};

// Whatever the identification says: a header block behind it makes it a measurement file.
bool Recovery::readIdentification() {
  BlockHeader header;
  const bool hasHeader =
      readSoundHeader(in_, kHeaderBlockPosition, header) && header.type == block_type::kHD;
  std::string_view fileId;
  if (in_.holds(0, sizeof id_) && in_.ReadAt(0, sizeof id_, &id_)) {
    fileId = {id_.id_file, sizeof id_.id_file};
  }
  unfinished_ = fileId == kUnfinalizedFileId;
  constexpr std::uint16_t kUsual = 410;
  const bool isKnown = fileId == kFileId || unfinished_;
  const bool isVersion = id_.id_ver >= kOldestVersion && id_.id_ver <= kNewestVersion;
  // What cannot be read may have been sound.
  const bool isUnknown =
      !in_.reads().nextUnreadable(0, kHeaderBlockPosition + kBlockHeaderSize).empty();
  if (!hasHeader && !(isKnown && isVersion) && !isUnknown) {
    report_.failure =
        "identification at 0: no measurement file in this format, and no header block at 64";
    return false;
  }
  if (!isKnown) {
    noteRepair(report_, "identification at 0: expected \"MDF     \" or \"UnFinMF \"");
  }
  if (!isVersion) {
    noteRepair(report_, formatText("version number at 28: expected 400 to 499, found %u",
                                   unsigned{id_.id_ver}));
    id_.id_ver = kUsual;
  }
  if (id_.id_custom_unfin_flags != 0) {
    noteRepair(report_, formatText("identification: steps of finalization that only the logger's "
                                   "maker knows (flags 0x%04X at 62) were not done",
                                   unsigned{id_.id_custom_unfin_flags}));
  }
  return true;
}

// Walks the data of all groups that are known by now.
void Recovery::survey() {
  for (SourceData& data : tree_->data()) {
    if (data.found == nullptr) data.found = &survey_->find(data.dataLink);
    for (const SourceGroup* const group : data.groups) {
      for (const ValueChannel& values : group->values) {
        if (data.valuesAt(values.data) == nullptr) survey_->find(values.data);
      }
      for (const SampleReduction& reduction : group->reductions) survey_->find(reduction.data);
    }
  }
  survey_->walk();
}

// Gives the last blocks of an unfinished file the length that their logger had no time to write.
void Recovery::extendLast() {
  if (!unfinished_) return;
  if (has(id_.id_unfin_flags, Unfinished::LastDataLength)) {
    for (const SourceData& data : tree_->data()) survey_->extendLast(*data.found);
  }
  if (!has(id_.id_unfin_flags, Unfinished::LastReductionLength)) return;
  for (const SourceGroup& group : tree_->groups()) {
    for (const SampleReduction& reduction : group.reductions) {
      survey_->extendLast(survey_->find(reduction.data));
    }
  }
}

// Takes in what stands where chains broke off.
void Recovery::adoptLost() {
  LooseBlocks loose(in_, owned_, *tree_, *survey_, unfinished_);
  const auto isTree = [](std::uint16_t type) {
    return type == block_type::kDG || type == block_type::kCG || type == block_type::kCN;
  };
  bool adopted = false;
  for (std::uint64_t at = loose.find(0, isTree); at != 0; at = loose.findBehind(at, isTree)) {
    adopted |= tree_->adopt(at);
  }
  if (adopted) survey();
  const auto isList = [](std::uint16_t type) {
    return type == block_type::kDL || type == block_type::kLD;
  };
  for (std::uint64_t at = loose.find(0, isList); at != 0; at = loose.findBehind(at, isList)) {
    if (const SourceData* const owner = loose.ownerOfList(at)) {
      survey_->addChain(*owner->found, at);
      survey_->walk();
    }
  }
  const bool openEnds = unfinished_ && has(id_.id_unfin_flags, Unfinished::LastDataLength);
  loose.assign(openEnds, report_);
}

void Recovery::advance(std::uint64_t bytes) {
  constexpr std::uint64_t kStep = 4 << 20;
  done_ += bytes;
  if (options_.progress && done_ - told_ >= kStep) {
    told_ = done_;
    options_.progress(std::min(done_, in_.end()), in_.end());
  }
}

bool Recovery::copyData() {
  for (SourceGroup& group : tree_->groups()) {
    if (group.holdsValues()) continue;
    // Groups of virtual channels alone have nothing but the number of their records.
    const bool isVirtual = group.recordSize() == 0 && group.report.losses.empty();
    group.report.records = isVirtual ? group.record.cg_cycle_count : 0;
    tree_->setCycleCount(group, group.report.records);
  }
  for (const SourceData& data : tree_->data()) {
    if (data.groups.empty()) continue;
    if (data.dataLink != 0 && std::exchange(data.found->taken, true)) {
      noteLoss(report_, formatText("data group at %" PRIu64 ": its data belong to another group",
                                   data.position));
      continue;
    }
    if (!(data.isSorted() ? copySorted(*data.groups[0], *data.found) : copyUnsorted(data))) {
      return false;
    }
  }
  return true;
}

// Fetches the values of a channel that has signal data of its own.
bool Recovery::copyValues(SourceGroup& group, RecordValues& values, std::size_t channel) {
  const std::uint64_t link = group.values[channel].data;
  if (link == 0) return true;
  FoundData& found = survey_->find(link);
  if (std::exchange(found.taken, true)) {
    noteLoss(group.report,
             formatText("signal data at %" PRIu64 ": they belong to another channel", link));
    return true;
  }
  ValueData& data = values.data(channel);
  if (!data.copy(in_, found)) return false;
  if (data.lostBytes() != 0 || data.openEnd()) {
    noteLoss(group.report,
             formatText("signal data at %" PRIu64 ": %" PRIu64 " bytes%s", link, data.lostBytes(),
                        data.openEnd() ? " and what stands behind them" : ""));
  }
  advance(found.bytes);
  return true;
}

void Recovery::keepChecksums(DataWriter& records, RecordValues& values) const {
  if (!options_.verify) return;
  records.keepChecksum();
  for (std::size_t i = 0; i < values.count(); ++i) values.data(i).writer().keepChecksum();
}

bool Recovery::copySorted(SourceGroup& group, const FoundData& found) {
  const std::uint64_t size = group.recordSize();
  RecordValues values(out_, group, sizes_);
  if (size == 0 || size > kLargestRecord) {
    if (found.bytes != 0) {
      noteLoss(group.report, formatText("records of %" PRIu64 " bytes cannot be told apart", size));
    }
    return copyReductions(group);
  }
  DataWriter records(out_, block_type::kDT, size, sizes_);
  keepChecksums(records, values);
  for (std::size_t i = 0; i < values.count(); ++i) {
    if (!copyValues(group, values, i)) return false;
  }
  MdfRecoveredGroup& report = group.report;
  const std::size_t before = report.losses.size();
  SortedRecords copy(in_, group, values, records, sizes_);
  if (!copy.copy(found, [this](std::uint64_t bytes) { advance(bytes); })) return false;
  if (records.units() == group.record.cg_cycle_count && values.lostValues() == 0 &&
      report.lostRecords == 0 && !copy.lostInvalidation()) {
    // All that is counted is there: of what was missing nothing is lost.
    const auto first = report.losses.begin() + static_cast<std::ptrdiff_t>(before);
    for (auto loss = first; loss != report.losses.end(); ++loss) noteRepair(report, *loss);
    report.losses.erase(first, report.losses.end());
  }
  return finishGroup(group, records, values, found);
}

// What the groups of an unsorted sequence are copied with. Groups of values have no part.
std::vector<Recovery::Part> Recovery::makeParts(const SourceData& data) {
  const bool byOrder = unfinished_ && has(id_.id_unfin_flags, Unfinished::ValueOffsets);
  WorkSizes sizes = sizes_;
  sizes.block = std::min(std::max(kAllBlocks / data.groups.size(), kSmallestBlock), sizes_.block);
  std::vector<Part> parts;
  for (SourceGroup* const group : data.groups) {
    const std::uint64_t size = group->recordSize();
    if (group->holdsValues() || size == 0 || size > kLargestRecord) continue;
    Part part;
    part.group = group;
    part.records = std::make_unique<DataWriter>(out_, block_type::kDT, size, sizes);
    part.values = std::make_unique<RecordValues>(out_, *group, sizes_);
    keepChecksums(*part.records, *part.values);
    part.split = std::make_unique<SplitGroup>(*group, *part.records, *part.values, byOrder, sizes_);
    parts.push_back(std::move(part));
  }
  return parts;
}

// Tells the sequence of all groups that it consists of.
void Recovery::addGroups(const SourceData& data, const std::vector<Part>& parts,
                         UnsortedRecords& sequence) {
  std::set<const SourceGroup*> known;
  for (const Part& part : parts) {
    sequence.addGroup(*part.split);
    for (std::size_t i = 0; i < part.group->values.size(); ++i) {
      const SourceGroup* const source = data.valuesAt(part.group->values[i].data);
      if (source != nullptr && known.insert(source).second) {
        sequence.addValues(*source, part.split.get(), i);
      }
    }
  }
  for (const SourceGroup* const group : data.groups) {
    if (group->holdsValues() && known.insert(group).second) {
      sequence.addValues(*group, nullptr, 0);
    }
  }
}

bool Recovery::copyUnsorted(const SourceData& data) {
  const FoundData& found = *data.found;
  const std::vector<Part> parts = makeParts(data);
  for (const Part& part : parts) {
    for (std::size_t i = 0; i < part.group->values.size(); ++i) {
      if (data.valuesAt(part.group->values[i].data) == nullptr &&
          !copyValues(*part.group, *part.values, i)) {
        return false;
      }
    }
  }
  const std::uint8_t idSize = recordIdSize(data, parts);
  if (idSize != 0) {
    UnsortedRecords sequence(in_, idSize, sizes_);
    addGroups(data, parts, sequence);
    if (!sequence.copy(found, report_, [this](std::uint64_t bytes) { advance(bytes); })) {
      return false;
    }
  } else if (found.bytes != 0) {
    noteLoss(report_, formatText("data group at %" PRIu64 ": %" PRIu64
                                 " bytes of records that cannot be told apart",
                                 data.position, found.bytes));
  }
  return std::ranges::all_of(parts, [&](const Part& part) {
    return finishGroup(*part.group, *part.records, *part.values, found);
  });
}

// The bytes of a record id: as stated, unless only another size makes records of what is there.
std::uint8_t Recovery::recordIdSize(const SourceData& data, const std::vector<Part>& parts) {
  const std::uint8_t stated = isRecordIdSize(data.recordIdSize) ? data.recordIdSize : 0;
  for (const std::uint8_t size :
       {stated, std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{4}, std::uint8_t{8}}) {
    if (size == 0) continue;
    UnsortedRecords sequence(in_, size, sizes_);
    addGroups(data, parts, sequence);
    if (!sequence.startsAsSequence(*data.found)) continue;
    if (size != data.recordIdSize) {
      noteRepair(report_, formatText("data group at %" PRIu64 ": dg_rec_id_size: found %u, the "
                                     "records have %u",
                                     data.position, unsigned{data.recordIdSize}, unsigned{size}));
    }
    return size;
  }
  return stated;
}

bool Recovery::finishGroup(SourceGroup& group, DataWriter& records, RecordValues& values,
                           const FoundData& found) {
  if (!records.finish() || !values.finish(tree_->plan())) return false;
  MdfRecoveredGroup& report = group.report;
  report.records = records.units();
  report.foundBlocks = found.loose.size();
  tree_->plan().setLink(group.dataBlock, link::dg_data, records.link());
  tree_->setCycleCount(group, report.records);
  checksums_.push_back({records.link(), records.size(), records.checksum()});
  for (std::size_t i = 0; i < values.count(); ++i) {
    const DataWriter& data = values.data(i).writer();
    checksums_.push_back({data.link(), data.size(), data.checksum()});
  }
  if (values.lostValues() != 0) {
    noteLoss(report, formatText("%" PRIu64 " values of variable length", values.lostValues()));
  }
  const std::uint64_t counted = group.record.cg_cycle_count;
  const std::uint64_t missing = counted > report.records ? counted - report.records : 0;
  const bool explained = found.broken || !report.losses.empty() || report.lostRecords != 0;
  if (missing != 0 && missing < kPlausible && explained) {
    report.lostRecords = std::max(report.lostRecords, missing);
  } else if (counted != report.records) {
    noteRepair(report, formatText("number of records: found %" PRIu64 ", there are %" PRIu64,
                                  counted, report.records));
  }
  return copyReductions(group);
}

bool Recovery::copyReductions(SourceGroup& group) {
  for (const SampleReduction& reduction : group.reductions) {
    const std::uint64_t size = reduction.recordSize;
    std::uint64_t link = 0;
    std::uint64_t cycles = 0;
    FoundData& found = survey_->find(reduction.data);
    const bool isUsable = reduction.data != 0 && size != 0 && size <= kLargestRecord;
    if (isUsable && !std::exchange(found.taken, true)) {
      SourceGroup plain;  // its records are just bytes
      plain.record.cg_data_bytes = static_cast<std::uint32_t>(size);
      RecordValues none(out_, plain, sizes_);
      DataWriter records(out_, block_type::kRD, size, sizes_);
      SortedRecords copy(in_, plain, none, records, sizes_);
      if (!copy.copy(found, [this](std::uint64_t bytes) { advance(bytes); }) || !records.finish()) {
        return false;
      }
      link = records.link();
      cycles = records.units();
      if (!plain.report.losses.empty()) {
        noteLoss(group.report, "sample reduction: " + plain.report.losses.front());
      }
    }
    tree_->setReduction(reduction.block, cycles, link);
  }
  return true;
}

bool Recovery::writeEnd() {
  tree_->addHistory(kHistory);
  if (!tree_->plan().write()) return false;
  const std::string version = formatText("%u.%02u    ", id_.id_ver / 100U, id_.id_ver % 100U);
  IdBlock id = {};
  std::copy(kFileId.begin(), kFileId.end(), id.id_file);
  std::copy_n(version.begin(), sizeof id.id_vers, id.id_vers);
  std::copy_n(id_.id_prog, sizeof id.id_prog, id.id_prog);
  id.id_ver = id_.id_ver;
  return out_.WriteAt(0, sizeof id, &id) && out_.Close();
}

void Recovery::run(std::unique_ptr<SystemFile> input, std::unique_ptr<SystemFile> output) {
  if (!in_.attach(std::move(input)) || !out_.attach(std::move(output))) {
    report_.failure = "a file's size is unknown";
    return;
  }
  in_.reads().bySectors();
  if (!readIdentification()) return;
  out_.Allocate(kIdBlockSize, false);
  const bool counted = !unfinished_ || !has(id_.id_unfin_flags, Unfinished::CycleCounts);
  tree_ = std::make_unique<TreeCopy>(in_, out_, owned_, report_, counted);
  survey_ = std::make_unique<BlockSurvey>(in_, owned_);
  tree_->readHeader();
  survey();
  extendLast();
  adoptLost();
  const std::deque<SourceGroup>& groups = tree_->groups();
  if (std::ranges::all_of(groups, [](const SourceGroup& group) { return group.holdsValues(); })) {
    report_.failure = "nothing usable: no channel group was found";
    if (!in_.reads().error().empty()) report_.failure += "; " + in_.reads().error();
    return;
  }
  if (!copyData() || !writeEnd()) {
    report_.failure = out_.writeError().empty() ? "the input cannot be read" : out_.writeError();
    return;
  }
  noteUnreadable();
  for (const SourceGroup& group : groups) {
    if (!group.holdsValues()) report_.groups.push_back(group.report);
  }
  if (options_.progress) options_.progress(in_.end(), in_.end());
}

// Whatever cannot be read may have been a loss; it comes before what was seen to be missing.
void Recovery::noteUnreadable() {
  constexpr std::size_t kMost = 100;
  std::vector<std::string> texts;
  ByteRange bad;
  while (texts.size() < kMost && !(bad = in_.reads().nextUnreadable(bad.end, in_.end())).empty()) {
    texts.push_back(formatText("reading %" PRIu64 " bytes at %" PRIu64 " failed: %s",
                               bad.end - bad.start, bad.start,
                               in_.reads().unreadableReason().c_str()));
  }
  if (texts.empty() && !in_.reads().error().empty()) texts.push_back(in_.reads().error());
  if (!out_.reads().error().empty()) texts.push_back("the result: " + out_.reads().error());
  report_.losses.insert(report_.losses.begin(), texts.begin(), texts.end());
  report_.losses.resize(std::min(report_.losses.size(), kMost));
}

}  // namespace

RecoveryResult recoverBetween(std::unique_ptr<SystemFile> input, std::unique_ptr<SystemFile> output,
                              const MdfRecoverOptions& options, const WorkSizes& sizes) {
  RecoveryResult result;
  Recovery recovery(options, sizes, result);
  recovery.run(std::move(input), std::move(output));
  return result;
}

}  // namespace tolvex
