#include "fuzz/FuzzInput.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "tolvex/MdfEngine.h"

namespace {

int errorOutput = STDERR_FILENO;  // that of the process; a target's own may lead elsewhere

}  // namespace

// Nobody wants the library's texts, and claims that do not hold are told wherever the target's own
// output goes.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  setDiagnosticHandler(nullptr, nullptr);
  errorOutput = ::dup(STDERR_FILENO);
  return 0;
}

// What was freed is kept for a shorter while than by default: fresh memory for every input takes
// longer than most inputs do.
extern "C" const char* __asan_default_options() {
  return "quarantine_size_mb=16:thread_local_quarantine_size_kb=64:malloc_context_size=8";
}

namespace tolvex::fuzz {

void require(bool right, const char* claim) {
  if (right) return;
  ::dprintf(errorOutput, "not so: %s\n", claim);
  std::abort();
}

void tell(const MdfFinding& finding) {
  ::dprintf(errorOutput, "%s at %llu: expected %s, found %s\n", finding.what.c_str(),
            static_cast<unsigned long long>(finding.position), finding.expected.c_str(),
            finding.found.c_str());
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

WorkSizes workSizesFrom(Numbers& steering) {
  WorkSizes sizes;
  const std::uint64_t size = steering.next<std::uint8_t>();
  if (size == 0) return sizes;
  sizes.piece = size * 2;
  sizes.block = size * 4;
  sizes.blocksPerList = 1 + size % 7;
  sizes.farthest = size * 16;
  sizes.waiting = 1 + size % 5;
  sizes.recent = 1 + size % 9;
  sizes.held = size * 8;
  return sizes;
}

}  // namespace tolvex::fuzz
