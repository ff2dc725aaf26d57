/*
 * String utilities.
 */
#ifndef TESMAR_STRUTIL_H
#define TESMAR_STRUTIL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The value of a hexadecimal digit of either case, or -1. */
static inline int StrUtil_HexDigitValue(unsigned char c)
{
   if (c >= '0' && c <= '9') {
      return c - '0';
   }
   if (c >= 'a' && c <= 'f') {
      return c - 'a' + 10;
   }
   if (c >= 'A' && c <= 'F') {
      return c - 'A' + 10;
   }
   return -1;
}

/* A new string such as "1.5 MB" or "1 byte"; the caller frees it. */
char *StrUtil_FormatByteCount(uint64_t size);

#ifdef __cplusplus
}
#endif

#endif
