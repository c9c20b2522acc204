/* Marks what the shared library exports. Plain C, for all public headers. */
#ifndef TOLVEX_MDF_EXPORT_H
#define TOLVEX_MDF_EXPORT_H

#if defined(_WIN32)
#define TOLVEX_EXPORT
#else
#define TOLVEX_EXPORT __attribute__((visibility("default")))
#endif

#endif
