// What a recovery tells of its input, as it meets it.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "tolvex/Mdf4.h"

namespace tolvex {

// Of the texts of a report or of one of its groups, the first ones of each kind are kept.
inline constexpr std::size_t kMostNotes = 100;

template <class Report>
void noteLoss(Report& report, std::string text) {
  if (report.losses.size() < kMostNotes) report.losses.push_back(std::move(text));
}
template <class Report>
void noteRepair(Report& report, std::string text) {
  if (report.repairs.size() < kMostNotes) report.repairs.push_back(std::move(text));
}

}  // namespace tolvex
