#include "Output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tolvex {

namespace {

constexpr std::size_t kBufferSize = 256 * 1024;

}  // namespace

Output::Output()
    : name_("standard output"),
      descriptor_(STDOUT_FILENO),
      terminal_(::isatty(STDOUT_FILENO) == 1),
      buffer_(kBufferSize) {}

Output::~Output() {
  if (owned_) {
    ::close(descriptor_);
  }
}

Output::Opened Output::open(const std::string& path, const std::string& input) {
  name_ = path;
  // Emptied only once it is known not to be the input.
  descriptor_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (descriptor_ < 0) {
    errorNumber_ = errno;
    return Opened::Failed;
  }
  owned_ = true;
  terminal_ = ::isatty(descriptor_) == 1;
  struct stat target {};
  struct stat source {};
  if (::fstat(descriptor_, &target) != 0 || ::stat(input.c_str(), &source) != 0) {
    errorNumber_ = errno;
    return Opened::Failed;
  }
  if (target.st_dev == source.st_dev && target.st_ino == source.st_ino) {
    return Opened::IsTheInput;
  }
  if (S_ISREG(target.st_mode) && ::ftruncate(descriptor_, 0) != 0) {
    errorNumber_ = errno;
    return Opened::Failed;
  }
  return Opened::Yes;
}

void Output::write(std::string_view text) {
  char* at = room(text.size());
  std::memcpy(at, text.data(), text.size());
  used_ += text.size();
}

bool Output::pipeClosed() const {
  return errorNumber_ == EPIPE;
}

std::string Output::error() const {
  return std::strerror(errorNumber_);
}

bool Output::close() {
  flush();
  if (owned_) {
    owned_ = false;
    if (::close(descriptor_) != 0 && good()) {
      errorNumber_ = errno;
    }
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
  const char* at = buffer_.data();
  while (used_ > 0 && good()) {
    const ssize_t written = ::write(descriptor_, at, used_);
    if (written >= 0) {
      at += written;
      used_ -= static_cast<std::size_t>(written);
    } else if (errno != EINTR) {
      errorNumber_ = errno;
    }
  }
  used_ = 0;
}

}  // namespace tolvex
