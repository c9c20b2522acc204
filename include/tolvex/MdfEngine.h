/* Plain functions of tolvex, for any language that can call C. */
#ifndef TOLVEX_MDF_ENGINE_H
#define TOLVEX_MDF_ENGINE_H

#if defined(_WIN32)
#define TOLVEX_API
#else
#define TOLVEX_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Directs the library's diagnostic texts, which go to the standard output until the first call.
 * `handler` receives each text (complete lines, ending in a line feed) with `user`, on the thread
 * that met the event, possibly on several at once; the text is the handler's only during the call.
 * A null handler drops all texts. One setting for the process; a call that is under way in another
 * thread may still use the earlier one. */
TOLVEX_API void setDiagnosticHandler(void (*handler)(void* user, const char* text), void* user);

#ifdef __cplusplus
}
#endif

#endif
