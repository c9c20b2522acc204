/* The version of the headers, and that of the library that a program runs with. Plain C. */
#ifndef TOLVEX_MDF_VERSION_H
#define TOLVEX_MDF_VERSION_H

#include "tolvex/MdfExport.h"

#define TOLVEX_VERSION_MAJOR 0
#define TOLVEX_VERSION_MINOR 1
#define TOLVEX_VERSION_PATCH 0
#define TOLVEX_VERSION "0.1.0"

#ifdef __cplusplus
extern "C" {
#endif

/* The library's version, as TOLVEX_VERSION was when it was built: a shared library may be newer
 * than the headers that a program was compiled with. Static text, never null. */
TOLVEX_API const char* tolvex_version(void);

#ifdef __cplusplus
}
#endif

#endif
