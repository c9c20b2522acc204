/* The plain functions as a C program calls them. */
#ifndef TOLVEX_TESTS_PLAIN_CALLER_H
#define TOLVEX_TESTS_PLAIN_CALLER_H

#ifdef __cplusplus
extern "C" {
#endif

/* What a handler received. */
typedef struct {
  int texts;
  int unterminated; /* texts that did not end in a line feed */
} DiagnosticCount;

/* From here on the library's texts are counted in `count`, which must stay alive. */
void countDiagnostics(DiagnosticCount* count);
void dropDiagnostics(void);

#ifdef __cplusplus
}
#endif

#endif
