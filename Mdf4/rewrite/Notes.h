// What a recovery tells of its input, as it meets it.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "tolvex/Mdf4.h"

namespace tolvex {

// Adds texts to a report or to one of its groups, the first 100 of each kind.
template <class Report>
void noteLoss(Report& report, std::string text) {
  constexpr std::size_t kMost = 100;
  if (report.losses.size() < kMost) report.losses.push_back(std::move(text));
}
template <class Report>
void noteRepair(Report& report, std::string text) {
  constexpr std::size_t kMost = 100;
  if (report.repairs.size() < kMost) report.repairs.push_back(std::move(text));
}

}  // namespace tolvex
