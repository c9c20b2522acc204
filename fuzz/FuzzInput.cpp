#include "fuzz/FuzzInput.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "tolvex/MdfEngine.h"

// Texts are made, as for a host that wants them, and dropped.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  setDiagnosticHandler([](void* /*user*/, const char* /*text*/) {}, nullptr);
  return 0;
}

namespace tolvex::fuzz {

void require(bool right, const char* claim) {
  if (right) return;
  std::fprintf(stderr, "not so: %s\n", claim);
  std::abort();
}

MemoryFile::MemoryFile(ByteSpan bytes)
    : descriptor_(::memfd_create("fuzz-input", MFD_CLOEXEC)),
      path_("/proc/self/fd/" + std::to_string(descriptor_)) {
  const auto size = static_cast<ssize_t>(bytes.size());
  if (descriptor_ < 0 || ::write(descriptor_, bytes.data(), bytes.size()) != size) {
    std::perror("cannot write the input into a file in memory");
    std::exit(1);
  }
}

MemoryFile::~MemoryFile() {
  ::close(descriptor_);
}

std::string Numbers::text() {
  const auto end = std::find(rest_.begin(), rest_.end(), 0);
  const ByteSpan bytes = take(static_cast<std::size_t>(end - rest_.begin()));
  take(1);
  return {bytes.begin(), bytes.end()};
}

Numbers steeringOf(ByteSpan file) {
  const std::size_t start = std::min(kSteeringOffset, file.size());
  return Numbers(file.subspan(start, std::min(kSteeringSize, file.size() - start)));
}

}  // namespace tolvex::fuzz
