#include "Mdf4/check/Findings.h"

#include <utility>

namespace tolvex {

void Findings::enter(bool error, std::uint64_t position, std::string what, std::string expected,
                     std::string found) {
  constexpr std::size_t kMostKept = 1000;
  ++(error ? report_.errors : report_.warnings);
  if (report_.findings.size() >= kMostKept) return;
  report_.findings.push_back(
      {error, position, std::move(what), std::move(expected), std::move(found)});
}

}  // namespace tolvex
