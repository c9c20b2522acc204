// What a check of a file finds, and the words for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "tolvex/Mdf4.h"

namespace tolvex {

// Enters findings into a report: all of them are counted, the first 1000 kept.
class Findings {
 public:
  explicit Findings(MdfCheckReport& report) : report_(report) {}

  // A reader that follows the format reads something wrong there, or cannot read it.
  void error(std::uint64_t position, std::string what, std::string expected, std::string found) {
    enter(true, position, std::move(what), std::move(expected), std::move(found));
  }
  // Odd, but read as it was meant.
  void warning(std::uint64_t position, std::string what, std::string expected, std::string found) {
    enter(false, position, std::move(what), std::move(expected), std::move(found));
  }

 private:
  void enter(bool error, std::uint64_t position, std::string what, std::string expected,
             std::string found) {
    constexpr std::size_t kMostKept = 1000;
    ++(error ? report_.errors : report_.warnings);
    if (report_.findings.size() >= kMostKept) return;
    report_.findings.push_back(
        {error, position, std::move(what), std::move(expected), std::move(found)});
  }

  MdfCheckReport& report_;
};

}  // namespace tolvex
