#include "Output.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "StopSignals.h"

namespace tolvex {

namespace {

constexpr std::size_t kBufferSize = 256 * 1024;

}  // namespace

Output::Output()
    : name_("standard output"),
      descriptor_(STDOUT_FILENO),
      terminal_(::isatty(STDOUT_FILENO) == 1),
      buffer_(kBufferSize) {}

Output::Opened Output::open(const std::string& path, const std::string& input) {
  name_ = path;
  std::error_code none;
  if (std::filesystem::equivalent(path, input, none)) {
    return Opened::IsTheInput;
  }
  if (!file_.open(path)) {
    error_ = file_.error();
    return Opened::Failed;
  }
  descriptor_ = file_.descriptor();
  terminal_ = ::isatty(descriptor_) == 1;
  return Opened::Yes;
}

void Output::write(std::string_view text) {
  char* at = room(text.size());
  std::memcpy(at, text.data(), text.size());
  used_ += text.size();
}

bool Output::complete() {
  flush();
  buffer_ = std::vector<char>();  // its memory too: many files may wait for their names
  if (good() && !file_.close()) {
    error_ = file_.error();
  }
  return good();
}

bool Output::close() {
  if (complete() && !file_.publish()) {
    error_ = file_.error();
  }
  return good();
}

void Output::makeRoom(std::size_t size) {
  flush();
  if (buffer_.size() < size) {
    buffer_.resize(size);
  }
}

void Output::flush() {
  if (budget_ != nullptr && good()) {
    if (used_ > budget_->left) {
      error_ = fmt::format("would be larger than the limit of {} bytes; --max-output changes it",
                           budget_->limit);
    } else {
      budget_->left -= used_;
    }
  }
  const char* at = buffer_.data();
  while (used_ > 0 && good()) {
    if (StopSignals::received() != 0) {
      error_ = std::strerror(ECANCELED);
      break;
    }
    const ssize_t written = ::write(descriptor_, at, used_);
    if (written >= 0) {
      at += written;
      used_ -= static_cast<std::size_t>(written);
    } else if (errno != EINTR) {
      pipeClosed_ = errno == EPIPE;
      error_ = std::strerror(errno);
    }
  }
  used_ = 0;
}

}  // namespace tolvex
