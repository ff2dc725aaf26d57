/*
 * Logging, warnings, panic and the fatal checks.
 *
 * Every entry is a local-time stamp, a prefix and the message, written unbuffered to one
 * process-wide descriptor (standard output unless changed). Logging never allocates.
 */
#ifndef TESMAR_LOG_H
#define TESMAR_LOG_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TESMAR_PRINTF(fmtIndex, argIndex) __attribute__((format(printf, fmtIndex, argIndex)))
#define TESMAR_NORETURN __attribute__((noreturn))

void Log(const char *fmt, ...) TESMAR_PRINTF(1, 2);
void LogV(const char *fmt, va_list args);
void Warning(const char *fmt, ...) TESMAR_PRINTF(1, 2);
void WarningV(const char *fmt, va_list args);
void Panic(const char *fmt, ...) TESMAR_PRINTF(1, 2) TESMAR_NORETURN;
void PanicV(const char *fmt, va_list args) TESMAR_NORETURN;

/* Opens path (write-only, created, truncated, mode 0644) as the log; -1 silences all output. */
int Log_SetOutputFile(const char *path);

/* The process-wide log descriptor; -1 disables all output. */
int Log_GetOutputFd(void);
void Log_SetOutputFd(int fd);

/*
 * Source paths in panic messages: a file's path relative to the top of the tree without its
 * extension ("lib/string/str"). The build maps __FILE__ to the relative path; these report the
 * length to print, so nothing is copied or allocated.
 */
int Log_SourcePathLength(const char *file);

/* Fatal checks; each panics with its message and ends the process with status 1. */
void Panic_Verify(const char *file, int line) TESMAR_NORETURN;
void Panic_VerifyBug(const char *file, int line, int bugNr) TESMAR_NORETURN;
void Panic_NotReached(const char *file, int line) TESMAR_NORETURN;
void Panic_NotImplemented(const char *file, int line) TESMAR_NORETURN;
void Panic_MemAlloc(const char *file, int line) TESMAR_NORETURN;

#define VERIFY(cond) ((cond) ? (void)0 : Panic_Verify(__FILE__, __LINE__))
#define VERIFY_BUG(bugNr, cond) ((cond) ? (void)0 : Panic_VerifyBug(__FILE__, __LINE__, (bugNr)))
#define NOT_REACHED() Panic_NotReached(__FILE__, __LINE__)
#define NOT_IMPLEMENTED() Panic_NotImplemented(__FILE__, __LINE__)

#ifdef NDEBUG
#define ASSERT(cond) ((void)0)
#else
#define ASSERT(cond) VERIFY(cond)
#endif

#ifdef __cplusplus
}
#endif

#endif
