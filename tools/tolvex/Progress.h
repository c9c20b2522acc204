// How far a long piece of work has come.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tolvex {

// A line on the standard error that is rewritten a few times per second and goes with the object.
// Silent when the standard error is no terminal.
class Progress {
 public:
  Progress(std::string what, std::uint64_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void update(std::uint64_t done);

 private:
  std::string what_;
  std::uint64_t total_;
  bool shown_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace tolvex
