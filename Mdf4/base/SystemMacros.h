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
