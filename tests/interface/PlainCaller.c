#include "PlainCaller.h"

#include <string.h>
#include <tolvex/MdfEngine.h>

static void count(void* user, const char* text) {
  DiagnosticCount* counted = user;
  const size_t length = strlen(text);
  ++counted->texts;
  if (length == 0 || text[length - 1] != '\n') ++counted->unterminated;
}

void countDiagnostics(DiagnosticCount* counted) {
  setDiagnosticHandler(count, counted);
}

void dropDiagnostics(void) {
  setDiagnosticHandler(NULL, NULL);
}
