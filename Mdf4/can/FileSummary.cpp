#include "Mdf4/can/FileSummary.h"

#include <algorithm>
#include <cinttypes>
#include <limits>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/can/BusLogGroups.h"
#include "Mdf4/format/FieldRules.h"
#include "Mdf4/reader/ColumnFile.h"
#include "Mdf4/reader/ColumnRead.h"

namespace tolvex {
namespace {

void add(std::uint64_t& sum, std::uint64_t more) {
  sum += std::min(more, std::numeric_limits<std::uint64_t>::max() - sum);
}

class Summing {
 public:
  Summing(ColumnFile& file, FileSummary& summary) : file_(file), summary_(summary) {}

  void run() {
    summary_.info = file_.info();
    summary_.bytes = file_.size();
    summary_.isFinalized = file_.notice().empty();
    for (const ModelGroup& group : file_.tree().groups) take(group);
    const std::size_t problems = file_.problems().texts().size();
    summary_.problems = problems - (summary_.isFinalized ? 0 : 1);
  }

 private:
  void take(const ModelGroup& group) {
    ++summary_.groups;
    summary_.channels += group.channels.size();
    if (group.holdsValues()) return;
    const std::uint64_t records = recordsOf(group);
    add(summary_.records, records);
    if (holdsFrames(group)) add(summary_.frames, records);
  }

  std::uint64_t recordsOf(const ModelGroup& group) {
    const std::uint64_t stated = group.record.cg_cycle_count;
    const bool isCounted = stated != 0 || summary_.isFinalized;
    const ModelDataGroup& data = file_.tree().dataGroups[static_cast<std::size_t>(group.dataGroup)];
    const bool isSorted = data.recordIdSize == 0 && data.groups == 1;
    if (!isSorted) return file_.hasCounts() ? stated : 0;
    const auto records = file_.data().batches(group);
    const std::uint64_t there = records != nullptr ? records->count() : 0;
    addTimes(group, there);
    if (!isCounted || !file_.hasCounts()) return there;
    if (stated != there) {
      file_.problems().add(formatText("data group %" PRId32 ": it states %" PRIu64
                                      " records, and has %" PRIu64,
                                      group.dataGroup, stated, there));
    }
    return stated;
  }

  void addTimes(const ModelGroup& group, std::uint64_t records) {
    if (records == 0 || group.master == ModelChannel::kNone) return;
    if (!givesTime(group.channels[static_cast<std::size_t>(group.master)].record)) return;
    addTime(group, 0);
    if (records > 1) addTime(group, records - 1);
  }

  void addTime(const ModelGroup& group, std::uint64_t record) {
    std::int64_t timeNs = kMdfNoTime;
    const ColumnPart part = {&file_, &group, record, 1};
    const WantedColumn wanted = {group.master, ColumnForm::Nanoseconds, {&timeNs}};
    const auto columns = readColumns({&part, 1}, {&wanted, 1}, 1);
    if (columns[0].type() == MdfColumnType::None || timeNs == kMdfNoTime) return;
    const bool isFirst = summary_.firstNs == kMdfNoTime;
    summary_.firstNs = isFirst ? timeNs : std::min(summary_.firstNs, timeNs);
    summary_.lastNs = isFirst ? timeNs : std::max(summary_.lastNs, timeNs);
  }

  ColumnFile& file_;
  FileSummary& summary_;
};

}  // namespace

bool summarizeFile(const std::string& path, FileSummary& summary, std::string& error) {
  ColumnFile file(path);
  if (!file.open(ColumnFile::Extent::Groups)) {
    error = file.error();
    return false;
  }
  Summing(file, summary).run();
  return true;
}

}  // namespace tolvex
