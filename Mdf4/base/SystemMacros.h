// What depends on the compiler.
#pragma once

// Of a function: its arguments are those of the standard's printf.
#if defined(__MINGW32__)  // where printf is not that of the standard
#define TOLVEX_PRINTF(formatIndex, firstArgument) \
  __attribute__((format(gnu_printf, formatIndex, firstArgument)))
#elif defined(__GNUC__)
#define TOLVEX_PRINTF(formatIndex, firstArgument) \
  __attribute__((format(printf, formatIndex, firstArgument)))
#else
#define TOLVEX_PRINTF(formatIndex, firstArgument)
#endif

// An attribute of clang's thread-safety analysis; Mutex.h has their names.
#if defined(__clang__)
#define TOLVEX_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define TOLVEX_THREAD_SAFETY(attribute)
#endif

namespace tolvex {

// Whether the build has a sanitizer, which finds more where no memory is recycled.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kMemoryIsWatched = true;
#elif defined(__has_feature)
inline constexpr bool kMemoryIsWatched = __has_feature(address_sanitizer) ||
                                         __has_feature(memory_sanitizer) ||
                                         __has_feature(thread_sanitizer);
#else
inline constexpr bool kMemoryIsWatched = false;
#endif

}  // namespace tolvex
