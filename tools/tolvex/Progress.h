// How far a long piece of work has come.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace tolvex {

// A line on the standard error that is rewritten a few times per second and goes with the object.
// Silent when the standard error is no terminal.
class Progress {
 public:
  explicit Progress(std::string_view what, std::uint64_t total = 0, std::string unit = "records");
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // The number of units done, of those in total.
  void update(std::uint64_t done);

  // Writes the line now, for work that reports no progress.
  void show(std::string_view state);
  // Makes room for a message; the line returns with the next update.
  void clear();

 private:
  std::string what_;
  std::uint64_t total_;
  std::string unit_;
  bool shown_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace tolvex
