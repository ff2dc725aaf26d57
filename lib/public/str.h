/*
 * Bounded string copying and formatting on the library's own printf engine.
 *
 * Fixed-buffer routines panic with "<source>:<line> Buffer too small" rather than truncate,
 * except Str_Snprintf/Str_Vsnprintf, which cut at a UTF-8 character boundary and return -1.
 */
#ifndef TESMAR_STR_H
#define TESMAR_STR_H

#include <stdarg.h>
#include <stddef.h>

#include "log.h"

#ifdef __cplusplus
extern "C" {
#endif

int Str_Sprintf(char *buf, size_t maxSize, const char *fmt, ...) TESMAR_PRINTF(3, 4);
int Str_SprintfCLocale(char *buf, size_t maxSize, const char *fmt, ...) TESMAR_PRINTF(3, 4);
int Str_Snprintf(char *buf, size_t size, const char *fmt, ...) TESMAR_PRINTF(3, 4);
int Str_Vsnprintf(char *buf, size_t size, const char *fmt, va_list args);
char *Str_Asprintf(size_t *length, const char *fmt, ...) TESMAR_PRINTF(2, 3);
char *Str_Vasprintf(size_t *length, const char *fmt, va_list args);
char *Str_SafeAsprintf(size_t *length, const char *fmt, ...) TESMAR_PRINTF(2, 3);
char *Str_SafeVasprintf(size_t *length, const char *fmt, va_list args);

char *Str_Strcpy(char *dst, const char *src, size_t maxSize);
char *Str_Strncpy(char *dst, size_t dstSize, const char *src, size_t n);
char *Str_Strcat(char *dst, const char *src, size_t maxSize);
char *Str_Strncat(char *dst, size_t dstSize, const char *src, size_t n);
size_t Str_Strlen(const char *src, size_t maxLen);
char *Str_Strnstr(const char *src, const char *sub, size_t n);
char *Str_ToLower(char *string);
char *Str_ToUpper(char *string);

/*
 * The engine entries. *outbuf NULL selects allocating mode (a new heap buffer is stored there),
 * otherwise fixed mode into *outbuf of bufSize bytes. Returns the length of the complete output
 * without its NUL, or -1.
 */
int bsd_vsnprintf(char **outbuf, size_t bufSize, const char *fmt, va_list args);
int bsd_vsnprintf_posix(char **outbuf, size_t bufSize, const char *fmt, va_list args);

#ifdef __cplusplus
}
#endif

#endif
