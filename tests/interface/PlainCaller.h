/* The plain functions as a C program calls them. */
#ifndef TOLVEX_TESTS_PLAIN_CALLER_H
#define TOLVEX_TESTS_PLAIN_CALLER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#else
#include <stdbool.h>
#endif

/* What a handler received. */
typedef struct {
  int texts;
  int unterminated; /* texts that did not end in a line feed */
} DiagnosticCount;

/* From here on the library's texts are counted in `count`, which must stay alive. */
void countDiagnostics(DiagnosticCount* count);
void dropDiagnostics(void);

/* What recordRamp records: at i seconds the value 3 i, and a CAN frame with the identifier i. */
enum { kRampRecords = 1500 };
/* Records a ramp into a new file, on the calling thread or through a queue. The measurement starts
 * at `startTime`. Gives how many calls failed. */
int recordRamp(const char* path, uint64_t startTime, bool async);

#ifdef __cplusplus
}
#endif

#endif
