/*
 * String utilities.
 */
#ifndef TESMAR_STRUTIL_H
#define TESMAR_STRUTIL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A new string such as "1.5 MB" or "1 byte"; the caller frees it. */
char *StrUtil_FormatByteCount(uint64_t size);

#ifdef __cplusplus
}
#endif

#endif
