/* Marks what the shared library exports. Plain C, for all public headers. */
#ifndef TOLVEX_MDF_EXPORT_H
#define TOLVEX_MDF_EXPORT_H

/* TOLVEX_STATIC is defined for the static library and for all that use it (the CMake package and
 * pkg-config see to that): a library that is made with it does not export it again. */
#if defined(TOLVEX_STATIC)
#define TOLVEX_EXPORT
#elif defined(_WIN32) && defined(TOLVEX_BUILDS_LIBRARY)
#define TOLVEX_EXPORT __declspec(dllexport)
#elif defined(_WIN32)
#define TOLVEX_EXPORT __declspec(dllimport)
#else
#define TOLVEX_EXPORT __attribute__((visibility("default")))
#endif

/* A plain function. */
#define TOLVEX_API TOLVEX_EXPORT

#endif
