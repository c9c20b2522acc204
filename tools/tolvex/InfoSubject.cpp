#include "InfoSubject.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "Mdf4/base/System.h"
#include "Selection.h"
#include "TimeText.h"

namespace tolvex {

namespace {

std::uint64_t sizeOf(const std::string& path) {
  FileStatus status;
  static_cast<void>(fileStatus(path, status));
  return status.size;
}

}  // namespace

InfoSubject::InfoSubject(MdfColumnReader& reader, const std::vector<std::string>& files)
    : reader_(reader), files_(files) {
  for (std::size_t group = 0; group < reader.groups().size(); ++group) {
    times_.push_back(readTimes(group));
    if (times_.back()) {
      span_.add(times_.back()->span);
    }
  }
}

std::optional<GroupTimes> InfoSubject::readTimes(std::size_t group) {
  const std::uint64_t records = groups()[group].records;
  const auto index = static_cast<std::int32_t>(group);
  if (records == 0 || !timeChannelOf(groups()[group])) {
    return std::nullopt;
  }
  std::int64_t ns[2] = {};
  GroupTimes times;
  if (reader_.readNanoseconds(index, 0, 1, &ns[0]) != 1 ||
      reader_.readNanoseconds(index, records - 1, 1, &ns[1]) != 1 ||
      reader_.readSeconds(index, 0, 1, &times.firstSeconds) != 1 ||
      reader_.readSeconds(index, records - 1, 1, &times.lastSeconds) != 1) {
    problems_.push_back(reader_.error());
    return std::nullopt;
  }
  if (std::ranges::count(ns, kMdfNoTime) != 0 || !(times.duration() >= 0) ||
      !std::isfinite(times.duration())) {
    return std::nullopt;
  }
  times.span = {ns[0], ns[1]};
  return times;
}

void InfoSubject::countFrames(const BitRates& rates) {
  MdfFrameReader reader(files_);
  const auto isRead = [](const MdfFrameGroup& group) { return group.isRead; };
  if (!reader.open()) {
    problems_.push_back(reader.error());
    return;
  }
  if (std::ranges::none_of(reader.groups(), isRead)) {
    return;
  }
  buses_ = busStatistics(reader, rates);
  if (!reader.error().empty()) {
    problems_.push_back(reader.error());
  }
  const std::vector<std::string> known = reader_.problems();
  for (const std::string& problem : reader.problems()) {
    if (std::ranges::find(known, problem) == known.end()) {
      problems_.push_back(problem);
    }
  }
}

std::uint64_t InfoSubject::size() const {
  std::uint64_t size = 0;
  for (const std::string& file : files_) {
    size += sizeOf(file);
  }
  return size;
}

void InfoSubject::forEachFile(const std::function<void(const InfoFile&)>& visit) const {
  if (files_.size() == 1) {
    visit({files_.front(), sizeOf(files_.front()), reader_.info(), reader_.notices()});
    return;
  }
  for (const std::string& file : files_) {
    MdfColumnReader reader(file);
    if (reader.open()) {
      visit({file, sizeOf(file), reader.info(), reader.notices()});
    }
  }
}

double InfoSubject::secondsOf(std::int64_t timeNs) const {
  const std::int64_t startNs = recording().startTimeNs;
  return timeNs < startNs ? -TimeSpan{timeNs, startNs}.seconds()
                          : TimeSpan{startNs, timeNs}.seconds();
}

std::string shortened(std::string_view text, std::size_t longest) {
  if (text.size() <= longest) {
    return std::string(text);
  }
  return std::string(text.substr(0, longest)) + "...";
}

std::string_view titleOf(const MdfColumnGroup& group) {
  return group.name.empty() ? group.comment : group.name;
}

std::string isoText(std::int64_t timeNs, bool isLocal) {
  const CalendarTime time(timeNs);
  std::string text = fmt::format(
      "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(time.date.year()),
      static_cast<unsigned>(time.date.month()), static_cast<unsigned>(time.date.day()),
      time.clock.hours().count(), time.clock.minutes().count(), time.clock.seconds().count());
  if (time.nanoseconds != 0) {
    text += fmt::format(".{:09}", time.nanoseconds);
    text.erase(text.find_last_not_of('0') + 1);
  }
  return isLocal ? text : text + 'Z';
}

}  // namespace tolvex
