#include "Mdf4/recovery/DataCopy.h"

#include <algorithm>
#include <cinttypes>
#include <set>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/rewrite/Notes.h"
#include "Mdf4/rewrite/SortedRecords.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kAllBlocks = 64 << 20;  // of all that are gathered at a time
constexpr std::uint64_t kSmallestBlock = 16 << 10;
constexpr std::uint64_t kLargestRecord = 64 << 20;            // bytes; larger ones are none
constexpr std::uint64_t kPlausible = std::uint64_t{1} << 40;  // records that a file may have lost

}  // namespace

void DataCopy::advance(std::uint64_t bytes) {
  constexpr std::uint64_t kStep = 4 << 20;
  done_ += bytes;
  if (options_.progress && done_ - reported_ >= kStep) {
    reported_ = done_;
    options_.progress(std::min(done_, in_.end()), in_.end());
  }
}

bool DataCopy::copyAll() {
  for (SourceGroup& group : tree_.groups()) {
    if (group.holdsValues()) continue;
    // Groups of virtual channels alone have nothing but the number of their records.
    const bool isVirtual = group.recordSize() == 0 && group.report.losses.empty();
    group.report.records = isVirtual ? group.record.cg_cycle_count : 0;
    tree_.setCycleCount(group, group.report.records);
  }
  for (const SourceData& data : tree_.data()) {
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
bool DataCopy::copyValues(SourceGroup& group, RecordValues& values, std::size_t channel) {
  const std::uint64_t link = group.values[channel].data;
  if (link == 0) return true;
  FoundData& found = survey_.find(link);
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

void DataCopy::keepChecksums(DataWriter& records, RecordValues& values) const {
  if (!options_.verify) return;
  records.keepChecksum();
  for (std::size_t i = 0; i < values.count(); ++i) values.data(i).writer().keepChecksum();
}

bool DataCopy::copySorted(SourceGroup& group, const FoundData& found) {
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
std::vector<DataCopy::Part> DataCopy::makeParts(const SourceData& data) {
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
    part.split =
        std::make_unique<SplitGroup>(*group, *part.records, *part.values, byOrder_, sizes_);
    parts.push_back(std::move(part));
  }
  return parts;
}

// Tells the sequence of all groups that it consists of.
void DataCopy::addGroups(const SourceData& data, const std::vector<Part>& parts,
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

bool DataCopy::copyUnsorted(const SourceData& data) {
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
std::uint8_t DataCopy::recordIdSize(const SourceData& data, const std::vector<Part>& parts) {
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

bool DataCopy::finishGroup(SourceGroup& group, DataWriter& records, RecordValues& values,
                           const FoundData& found) {
  if (!records.finish() || !values.finish(tree_.plan())) return false;
  MdfRecoveredGroup& report = group.report;
  report.records = records.units();
  report.foundBlocks = found.loose.size();
  tree_.plan().setLink(group.dataBlock, link::dg_data, records.link());
  tree_.setCycleCount(group, report.records);
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

bool DataCopy::copyReductions(SourceGroup& group) {
  for (const SampleReduction& reduction : group.reductions) {
    const std::uint64_t size = reduction.recordSize;
    std::uint64_t link = 0;
    std::uint64_t cycles = 0;
    FoundData& found = survey_.find(reduction.data);
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
    tree_.setReduction(reduction.block, cycles, link);
  }
  return true;
}

}  // namespace tolvex
