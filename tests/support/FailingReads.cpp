#include "tests/support/FailingReads.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

namespace tolvex::test {
namespace {

FailingReads* current = nullptr;

// From TOLVEX_FAILING_READS in the environment: "7-2 drive.mf4" for a read that fails and two
// behind it, "4096+512 drive.mf4" for 512 bytes at 4096 that cannot be read.
std::unique_ptr<FailingReads> fromEnvironment() {
  const char* const text = std::getenv("TOLVEX_FAILING_READS");
  unsigned long long first = 0;
  unsigned long long bytes = 0;
  char sign = 0;
  int length = 0;
  if (text == nullptr || std::sscanf(text, "%llu%c%llu %n", &first, &sign, &bytes, &length) != 3) {
    return nullptr;
  }
  auto faults = std::make_unique<FailingReads>(text + length);
  if (sign == '+') {
    faults->damage(first, bytes);
  } else {
    faults->fail(first, FailingReads::Fault::Error, bytes);
  }
  return faults;
}

using Call = ssize_t (*)(int, const iovec*, int, off_t);

ssize_t readFirst(Call call, int file, const iovec* pieces, int count, off_t at,
                  std::uint64_t bytes) {
  std::vector<iovec> parts(pieces, pieces + count);
  for (iovec& part : parts) {
    part.iov_len = static_cast<std::size_t>(std::min<std::uint64_t>(part.iov_len, bytes));
    bytes -= part.iov_len;
  }
  return call(file, parts.data(), count, at);
}

}  // namespace

struct FailingReadsHook {
  static bool watches(int file) {
    struct stat watched = {};
    struct stat read = {};
    return current != nullptr && ::stat(current->path_.c_str(), &watched) == 0 &&
           ::fstat(file, &read) == 0 && watched.st_ino == read.st_ino &&
           watched.st_dev == read.st_dev;
  }

  static ssize_t read(Call call, int file, const iovec* pieces, int count, off_t at) {
    constexpr std::uint64_t kFew = 100;
    FailingReads& faults = *current;
    const std::uint64_t number = faults.reads_++;
    if (number >= faults.first_ && number - faults.first_ <= faults.more_ &&
        (number - faults.first_) % faults.period_ == 0) {
      ++faults.failures_;
      switch (faults.fault_) {
        case FailingReads::Fault::Error:
          errno = EIO;
          return -1;
        case FailingReads::Fault::Interrupted:
          errno = EINTR;
          return -1;
        case FailingReads::Fault::Short:
          return readFirst(call, file, pieces, count, at, kFew);
        case FailingReads::Fault::End:
          return 0;
      }
    }
    const auto start = static_cast<std::uint64_t>(at);
    std::uint64_t end = ~std::uint64_t{0};
    for (const auto& [position, bytes] : faults.damaged_) {
      if (position + bytes > start) end = std::min(end, std::max(position, start));
    }
    if (end == start) {
      ++faults.failures_;
      errno = EIO;
      return -1;
    }
    return readFirst(call, file, pieces, count, at, end - start);
  }
};

FailingReads::FailingReads(std::string path) : path_(std::move(path)) {
  current = this;
}

FailingReads::~FailingReads() {
  current = nullptr;
}

void FailingReads::fail(std::uint64_t number, Fault fault, std::uint64_t more) {
  first_ = number;
  fault_ = fault;
  more_ = more;
}

void FailingReads::clear() {
  reads_ = failures_ = 0;
  first_ = ~std::uint64_t{0};
  period_ = 1;
  damaged_.clear();
}

}  // namespace tolvex::test

extern "C" __attribute__((visibility("default"))) ssize_t preadv(int file, const iovec* pieces,
                                                                 int count, off_t at) {
  using namespace tolvex::test;
  static const auto call = reinterpret_cast<Call>(::dlsym(RTLD_NEXT, "preadv64"));
  static const std::unique_ptr<FailingReads> given = fromEnvironment();
  return FailingReadsHook::watches(file) ? FailingReadsHook::read(call, file, pieces, count, at)
                                         : call(file, pieces, count, at);
}
