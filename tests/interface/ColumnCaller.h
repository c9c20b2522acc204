/* The plain functions that read, as a C program calls them. */
#ifndef TOLVEX_TESTS_COLUMN_CALLER_H
#define TOLVEX_TESTS_COLUMN_CALLER_H

#ifdef __cplusplus
extern "C" {
#endif

/* Reads what recordRamp recorded, by every function. Names on the standard error what is not as it
 * was recorded, and gives how much that is. */
int readRamp(const char* path);
/* Checks the file, and recovers it into another. Likewise. */
int checkRamp(const char* path, const char* recovered);

#ifdef __cplusplus
}
#endif

#endif
