/* A shared library that uses tolvex inside. */
#include <tolvex/MdfVersion.h>

const char* versionInside(void);

const char* versionInside(void) {
  return tolvex_version();
}
