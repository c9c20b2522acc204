// The problems of one open file.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace tolvex {

// The damage that was met in a file: what, where, expected and found. Keeps the first 100 texts,
// each once.
class ProblemLog {
 public:
  void add(std::string problem) {
    if (texts_.size() >= kMost) return;
    if (std::find(texts_.begin(), texts_.end(), problem) == texts_.end()) keep(std::move(problem));
  }
  // However many there are already.
  void keep(std::string problem) { texts_.push_back(std::move(problem)); }

  const std::vector<std::string>& texts() const { return texts_; }

 private:
  static constexpr std::size_t kMost = 100;

  std::vector<std::string> texts_;
};

}  // namespace tolvex
