#include "Output.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "StopSignals.h"
#include "System.h"

namespace tolvex {

namespace {

constexpr std::size_t kBufferSize = 256 * 1024;

}  // namespace

Output::Output()
    : name_("standard output"),
      descriptor_(kStandardOutput),
      terminal_(tolvex::isTerminal(kStandardOutput)),
      buffer_(kBufferSize) {}

Output::Opened Output::open(const std::string& path, const std::vector<std::string>& inputs,
                            bool replace) {
  name_ = path;
  if (std::ranges::any_of(inputs, [&](const auto& input) { return isSameFile(path, input); })) {
    return Opened::IsAnInput;
  }
  if (!replace) {
    if (ResultFile::wouldReplace(path)) {
      return Opened::Exists;
    }
    file_.keepExisting();
  }
  if (!file_.open(path)) {
    error_ = file_.error();
    return Opened::Failed;
  }
  descriptor_ = file_.descriptor();
  terminal_ = tolvex::isTerminal(descriptor_);
  return Opened::Yes;
}

void Output::write(std::string_view text) {
  if (text.empty()) {
    return;
  }
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
      error_ = systemErrorText(ECANCELED);
      break;
    }
    const auto [written, error] = writeSome(descriptor_, at, used_);
    at += written;
    used_ -= written;
    if (error != 0 && error != EINTR) {
      pipeClosed_ = error == EPIPE;
      error_ = systemErrorText(error);
    }
  }
  used_ = 0;
}

}  // namespace tolvex
