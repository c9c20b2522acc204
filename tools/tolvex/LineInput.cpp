#include "LineInput.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tolvex {

namespace {

constexpr std::chrono::milliseconds kGrace(200);  // for a stream to end after a stop

}  // namespace

LineInput::LineInput(std::size_t longestLine)
    : buffer_(longestLine + 1) {}  // room for a line feed behind the last line

LineInput::~LineInput() {
  if (owned_) {
    ::close(descriptor_);
  }
}

bool LineInput::open(const std::string& path) {
  if (path != "-") {
    name_ = path;
    descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor_ < 0) {
      return fail();
    }
    owned_ = true;
  }
  struct stat status {};
  if (::fstat(descriptor_, &status) != 0) {
    return fail();
  }
  if (S_ISDIR(status.st_mode)) {
    errorNumber_ = EISDIR;
    return false;
  }
  start_ = S_ISREG(status.st_mode) ? ::lseek(descriptor_, 0, SEEK_CUR) : -1;
  isFile_ = start_ >= 0;
  return true;
}

bool LineInput::fail() {
  errorNumber_ = errno;
  ended_ = true;
  return false;
}

// False when the input shall end.
bool LineInput::waitForText() {
  pollfd waits[] = {{descriptor_, POLLIN, 0}, {stopDescriptor_, POLLIN, 0}};
  for (;;) {
    int timeoutMs = -1;
    if (deadline_) {
      using std::chrono::milliseconds;
      const auto left = *deadline_ - std::chrono::steady_clock::now();
      timeoutMs = static_cast<int>(std::chrono::ceil<milliseconds>(left).count());
      if (timeoutMs <= 0) {
        return false;
      }
      waits[1].fd = -1;
    }
    const int ready = ::poll(waits, 2, timeoutMs);
    if (ready < 0 && errno != EINTR) {
      return fail();
    }
    if (ready > 0 && waits[1].revents != 0) {
      stopped_ = true;
      if (isFile_) {
        return false;
      }
      deadline_ = std::chrono::steady_clock::now() + kGrace;
    } else if (ready > 0) {
      return true;
    }
  }
}

bool LineInput::read() {
  if (ended_) {
    return false;
  }
  std::copy(buffer_.data() + at_, buffer_.data() + end_, buffer_.data());
  end_ -= at_;
  at_ = 0;
  for (;;) {
    if (!waitForText()) {
      ended_ = true;
      return false;
    }
    const ssize_t count = ::read(descriptor_, buffer_.data() + end_, buffer_.size() - 1 - end_);
    if (count > 0) {
      end_ += static_cast<std::size_t>(count);
      size_ += static_cast<std::size_t>(count);
      return true;
    }
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
      continue;
    }
    if (count < 0) {
      return fail();
    }
    ended_ = true;
    if (end_ == 0) {
      return false;
    }
    buffer_[end_++] = '\n';  // the last line lacks its own
    return true;
  }
}

bool LineInput::next(std::string_view& line) {
  for (;;) {
    const char* const begin = buffer_.data() + at_;
    const std::size_t size = end_ - at_;
    const auto* const lineEnd = static_cast<const char*>(std::memchr(begin, '\n', size));
    if (lineEnd != nullptr) {
      line = {begin, static_cast<std::size_t>(lineEnd - begin)};
      at_ += line.size() + 1;
    } else if (cut_ || size == buffer_.size() - 1) {
      line = {begin, size};
      at_ = end_;
    } else {
      return false;
    }
    const bool isRest = cut_;
    cut_ = lineEnd == nullptr;
    if (!isRest) {
      ++lineNumber_;
      return true;
    }
    if (cut_) {
      return false;
    }
  }
}

void LineInput::rewind() {
  if (::lseek(descriptor_, start_, SEEK_SET) < 0) {
    fail();
    return;
  }
  ended_ = stopped_ || !good();
  cut_ = false;
  at_ = 0;
  end_ = 0;
  lineNumber_ = 0;
  size_ = 0;
}

std::string LineInput::error() const {
  return std::strerror(errorNumber_);
}

}  // namespace tolvex
