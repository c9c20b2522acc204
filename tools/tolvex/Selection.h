// Which columns of which groups a table has.
#pragma once

#include <tolvex/MdfColumnReader.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Mdf4/base/NamePattern.h"

namespace tolvex {

// A column: a channel, or an element of one that is an array.
struct TableColumn {
  std::int32_t channel = -1;
  std::uint64_t element = 0;
};

// "speed", "pair.lo", "map[1][2]".
std::string nameOf(const MdfColumnChannel& channel, std::uint64_t element);

// The number of values that a record has of the channel.
std::uint64_t elementsOf(const MdfColumnChannel& channel);

// The columns of a group that a table has. They do not count the time, which is the first column.
struct TablePart {
  std::int32_t group = -1;
  std::vector<TableColumn> columns;
  // Channels that have too many elements for columns of their own; they have none.
  std::vector<std::int32_t> tooLarge;
};

// The channel of the group's time; nothing when it has none.
std::optional<std::int32_t> timeChannelOf(const MdfColumnGroup& group);

// The channels that are wanted, by their names, those of elements or patterns; all without any.
class Selection {
 public:
  explicit Selection(const std::vector<std::string>& patterns);

  // What is wanted of the group. Nothing when that is no channel, not even its time.
  std::optional<TablePart> of(const MdfColumnReader& reader, std::int32_t group);
  // A pattern that nothing fitted so far; "" when there is none.
  std::string unused() const;

 private:
  bool wants(std::string_view name);

  std::vector<NamePattern> patterns_;
  std::set<std::string> unused_;
};

}  // namespace tolvex
