// Preloaded into a program: its allocation with the number in TOLVEX_FAILING_ALLOCATION fails, and
// all that follow; those before main count.
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

bool fails() {
  static std::uint64_t allocations = 0;
  const char* const failing = std::getenv("TOLVEX_FAILING_ALLOCATION");
  return failing != nullptr && ++allocations >= std::strtoull(failing, nullptr, 10);
}

}  // namespace

__attribute__((visibility("default"))) void* operator new(std::size_t size) {
  // NOLINTNEXTLINE(cppcoreguidelines-no-malloc): this is where memory comes from.
  void* const memory = fails() ? nullptr : std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
