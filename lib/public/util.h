/*
 * Safe allocators (which panic instead of failing), home-directory and variable expansion.
 */
#ifndef TESMAR_UTIL_H
#define TESMAR_UTIL_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Plain forms: a failure panics with "Unrecoverable memory allocation failure\n". */
void *UtilSafeMalloc0(size_t size);
void *UtilSafeCalloc0(size_t count, size_t size);
void *UtilSafeRealloc0(void *ptr, size_t size);
char *UtilSafeStrdup0(const char *s);
char *UtilSafeStrndup0(const char *s, size_t n);

/*
 * Located forms: a failure panics with "Unrecoverable memory allocation failure at %s:%d\n",
 * or with ".  Bug number: %d" added when bugNr is not -1. A request for zero bytes may return
 * NULL. Strdup of NULL returns NULL.
 */
void *UtilSafeMalloc1(size_t size, int bugNr, const char *file, int line);
void *UtilSafeCalloc1(size_t count, size_t size, int bugNr, const char *file, int line);
void *UtilSafeRealloc1(void *ptr, size_t size, int bugNr, const char *file, int line);
char *UtilSafeStrdup1(const char *s, int bugNr, const char *file, int line);
char *UtilSafeStrndup1(const char *s, size_t n, int bugNr, const char *file, int line);

#define Util_SafeMalloc(size) UtilSafeMalloc1((size), -1, __FILE__, __LINE__)
#define Util_SafeCalloc(count, size) UtilSafeCalloc1((count), (size), -1, __FILE__, __LINE__)
#define Util_SafeRealloc(ptr, size) UtilSafeRealloc1((ptr), (size), -1, __FILE__, __LINE__)
#define Util_SafeStrdup(s) UtilSafeStrdup1((s), -1, __FILE__, __LINE__)
#define Util_SafeStrndup(s, n) UtilSafeStrndup1((s), (n), -1, __FILE__, __LINE__)

/* Overwrites a buffer with zero bytes in a way the compiler cannot drop, then frees it. */
void Util_ZeroFree(void *buf, size_t size);
void Util_ZeroFreeString(char *str);

/*
 * A new string with a leading "~" or "~user" replaced by a home directory and every $NAME by
 * the variable's value; NULL on failure. The caller frees it.
 */
char *Util_ExpandString(const char *fileName);

/*
 * Stores a copy of path as the process-wide replacement for "~" and "~user"; NULL removes it.
 * Returns the stored copy, which stays valid until the next call.
 */
const char *Util_OverrideHomeDirectory(const char *path);

#ifdef __cplusplus
}
#endif

#endif
