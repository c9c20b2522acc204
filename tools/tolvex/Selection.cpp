#include "Selection.h"

#include <fmt/format.h>

#include <algorithm>

namespace tolvex {

namespace {

constexpr std::uint64_t kMostColumns = 65'536;  // of a table

}  // namespace

std::uint64_t elementsOf(const MdfColumnChannel& channel) {
  std::uint64_t elements = 1;
  for (const std::uint64_t size : channel.shape) {
    elements = size > kMostColumns ? kMostColumns + 1 : std::min(elements * size, kMostColumns + 1);
  }
  return elements;
}

std::string nameOf(const MdfColumnChannel& channel, std::uint64_t element) {
  std::string indices;
  for (std::size_t i = channel.shape.size(); i-- > 0;) {
    indices.insert(0, fmt::format("[{}]", element % channel.shape[i]));
    element /= channel.shape[i];
  }
  return std::string(channel.name) + indices;
}

std::optional<std::int32_t> timeChannelOf(const MdfColumnGroup& group) {
  constexpr std::uint8_t kTime = 1;           // a synchronisation type
  constexpr std::uint8_t kMaster = 2;         // channel types
  constexpr std::uint8_t kVirtualMaster = 3;  //
  if (group.master < 0) {
    return std::nullopt;
  }
  const MdfColumnChannel& master = group.channels[static_cast<std::size_t>(group.master)];
  const bool isMaster = master.channelType == kMaster || master.channelType == kVirtualMaster;
  const bool isNumber = master.type >= MdfColumnType::Int8 && master.type <= MdfColumnType::Float64;
  if (master.syncType != kTime || !isMaster || !isNumber || !master.shape.empty()) {
    return std::nullopt;
  }
  return group.master;
}

Selection::Selection(const std::vector<std::string>& patterns)
    : patterns_(patterns.begin(), patterns.end()), unused_(patterns.begin(), patterns.end()) {}

bool Selection::wants(std::string_view name) {
  bool isWanted = false;
  for (const NamePattern& pattern : patterns_) {
    if (pattern.matches(name)) {
      unused_.erase(pattern.text());
      isWanted = true;
    }
  }
  return isWanted;
}

std::string Selection::unused() const {
  return unused_.empty() ? "" : *unused_.begin();
}

std::optional<TablePart> Selection::of(const MdfColumnReader& reader, std::int32_t group) {
  const MdfColumnGroup& described = reader.groups()[static_cast<std::size_t>(group)];
  const std::optional<std::int32_t> time = timeChannelOf(described);
  TablePart part{group, {}, {}};
  bool isWanted = patterns_.empty();
  for (std::int32_t index = 0; const MdfColumnChannel& channel : described.channels) {
    const std::int32_t number = index++;
    const bool all = patterns_.empty() || wants(channel.name);
    isWanted = isWanted || all;
    if (time == number) {
      continue;
    }
    const std::uint64_t elements = elementsOf(channel);
    if (elements > kMostColumns - std::min<std::uint64_t>(kMostColumns, part.columns.size())) {
      if (all) {
        part.tooLarge.push_back(number);
      }
      continue;
    }
    for (std::uint64_t element = 0; element < elements; ++element) {
      if (all || (!channel.shape.empty() && wants(nameOf(channel, element)))) {
        part.columns.push_back({number, element});
      }
    }
  }
  if (!isWanted && part.columns.empty()) {
    return std::nullopt;
  }
  return part;
}

}  // namespace tolvex
