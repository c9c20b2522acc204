// What the program says of its use.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tolvex {

// `text` with lines of at most 80 columns. What goes on of a longer line stands below its last
// column, which two spaces or a bullet begin. Characters count as one column.
std::string wrapped(std::string_view text);

// The one of `names` that `word` is probably meant to be; "" when it is like none of them.
std::string nearestOf(const std::vector<std::string>& names, std::string_view word);

}  // namespace tolvex
