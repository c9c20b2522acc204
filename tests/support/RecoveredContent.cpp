#include "tests/support/RecoveredContent.h"

#include <algorithm>
#include <functional>

#include "tests/support/LoggerFile.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {

bool RecoveredGroup::mayBe(RecoveredRecord part, RecoveredRecord record) const {
  if (part.bytes.size() != record.bytes.size()) return false;
  for (RecoveredRecord* const each : {&part, &record}) {
    for (const auto& [at, bytes] : offsets) {
      std::fill_n(each->bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes, std::uint8_t{0});
    }
  }
  const auto marks = part.bytes.begin() + static_cast<std::ptrdiff_t>(dataBytes);
  if (std::all_of(marks, part.bytes.end(), [](std::uint8_t byte) { return byte == 0; })) {
    std::fill(record.bytes.begin() + static_cast<std::ptrdiff_t>(dataBytes), record.bytes.end(),
              std::uint8_t{0});
  }
  return part.bytes == record.bytes && std::ranges::all_of(part.values, [&](const auto& value) {
           return value.second.empty() || value.second == record.values[value.first];
         });
}

bool RecoveredGroup::mayBe(const RecoveredGroup& part) const {
  auto at = records.begin();
  for (const RecoveredRecord& record : part.records) {
    at = std::find_if(at, records.end(),
                      [&](const RecoveredRecord& other) { return mayBe(record, other); });
    if (at == records.end()) return false;
    ++at;
  }
  return true;
}

RecoveredContent recoveredContent(const std::string& path) {
  MdfSigReader reader(path);
  if (!reader.open()) return {};
  RecoveredContent groups;
  for (const LoggerGroup& logged : readLoggerFile(path)) {
    RecoveredGroup& group = groups.emplace_back();
    MdfGroupInfo about;
    reader.getGroupInfo(logged.dg, logged.cg, about);
    group.dataBytes = about.dataBytes;
    for (const Bytes& record : logged.records) group.records.push_back({record});
    for (const LoggerChannel& channel : logged.channels) {
      if (!channel.variable) continue;
      const std::uint64_t at = channel.firstBit / 8;
      group.offsets[at] = channel.bitCount / 8;
      for (std::size_t i = 0; i < channel.values.size(); ++i) {
        group.records[i].values[at] = channel.values[i];
      }
    }
  }
  return groups;
}

bool isPart(const RecoveredContent& part, const RecoveredContent& whole) {
  constexpr std::size_t kNone = ~std::size_t{0};
  std::vector<std::size_t> taken(whole.size(), kNone);  // by which group of `part`
  std::vector<bool> tried;
  // Finds a place for the group, if need be by finding others for those in its way.
  const std::function<bool(std::size_t)> place = [&](std::size_t group) {
    for (std::size_t i = 0; i < whole.size(); ++i) {
      if (tried[i] || !whole[i].mayBe(part[group])) continue;
      tried[i] = true;
      if (taken[i] != kNone && !place(taken[i])) continue;
      taken[i] = group;
      return true;
    }
    return false;
  };
  for (std::size_t group = 0; group < part.size(); ++group) {
    tried.assign(whole.size(), false);
    if (!part[group].records.empty() && !place(group)) return false;
  }
  return true;
}

std::string firstError(const std::string& path) {
  const MdfCheckReport report = checkFile(path);
  for (const MdfFinding& finding : report.findings) {
    if (finding.error) return finding.what + " at " + std::to_string(finding.position);
  }
  return report.failure;
}

std::size_t count(const RecoveredContent& groups) {
  std::size_t records = 0;
  for (const RecoveredGroup& group : groups) records += group.records.size();
  return records;
}

}  // namespace tolvex::test
