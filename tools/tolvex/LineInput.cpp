#include "LineInput.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "StopSignals.h"
#include "System.h"

namespace tolvex {

namespace {

constexpr std::chrono::milliseconds kGrace(200);  // for a stream to end after a stop

}  // namespace

LineInput::LineInput(std::size_t longestLine)
    : buffer_(longestLine + 1) {}  // room for a line feed behind the last line

LineInput::~LineInput() {
  if (owned_) {
    static_cast<void>(closeFile(descriptor_));
  }
}

bool LineInput::open(const std::string& path) {
  if (path != "-") {
    name_ = path;
    if (const int error = openFile(path, FileUse::Read, descriptor_); error != 0) {
      return fail(error);
    }
    owned_ = true;
  }
  FileKind kind = FileKind::Other;
  if (const int error = descriptorKind(descriptor_, kind); error != 0) {
    return fail(error);
  }
  if (kind == FileKind::Folder) {
    errorNumber_ = EISDIR;
    return false;
  }
  start_ = kind == FileKind::Regular ? positionOf(descriptor_) : -1;
  isFile_ = start_ >= 0;
  return true;
}

bool LineInput::fail(int error) {
  errorNumber_ = error;
  ended_ = true;
  return false;
}

// False when the input shall end.
bool LineInput::waitForText() {
  for (;;) {
    std::optional<std::chrono::milliseconds> timeout;
    if (deadline_) {
      const auto left = *deadline_ - std::chrono::steady_clock::now();
      timeout = std::chrono::ceil<std::chrono::milliseconds>(left);
      if (timeout->count() <= 0) {
        return false;
      }
    }
    int error = 0;
    switch (waitForInput(descriptor_, endsAtStop_ && !deadline_, timeout, error)) {
      case Wake::Input:
        return true;
      case Wake::Timeout:
        break;
      case Wake::Failure:
        if (error != EINTR) {
          return fail(error);
        }
        break;
      case Wake::Stop:
        stopped_ = true;
        if (isFile_) {
          return false;
        }
        deadline_ = std::chrono::steady_clock::now() + kGrace;
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
    const auto [count, error] =
        readSome(descriptor_, buffer_.data() + end_, buffer_.size() - 1 - end_);
    if (count > 0) {
      end_ += count;
      size_ += count;
      return true;
    }
    if (error == EINTR || error == EAGAIN) {
      continue;
    }
    if (error != 0) {
      return fail(error);
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
  if (const int error = moveTo(descriptor_, start_); error != 0) {
    fail(error);
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
  return systemErrorText(errorNumber_);
}

}  // namespace tolvex
