#include "tolvex/MdfVersion.h"

const char* tolvex_version() {
  return TOLVEX_VERSION;
}
