/*
 * Operations on system strings by code point: substrings, searches, comparison, joining and
 * formatting. Invalid UTF-8 handed to the substring and search functions panics.
 */
#ifndef TESMAR_UNICODE_OPERATIONS_H
#define TESMAR_UNICODE_OPERATIONS_H

#include <stdbool.h>
#include <stddef.h>
#include <sys/types.h>

#include "log.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Code points [start, start + length) (clamped; a negative length means to the end). */
char *Unicode_Substr(const char *str, ssize_t start, ssize_t length);

/*
 * The first (last) code-point index at or after strStart where the needle's range occurs
 * wholly inside the string's range; an empty needle gives strStart; -1 when not found (or, for
 * the last, when the needle is longer than the range). Negative lengths mean to the end.
 */
ssize_t Unicode_FindSubstrInRange(const char *str, ssize_t strStart, ssize_t strLength,
                                  const char *strToFind, ssize_t strToFindStart,
                                  ssize_t strToFindLength);
ssize_t Unicode_FindLastSubstrInRange(const char *str, ssize_t strStart, ssize_t strLength,
                                      const char *strToFind, ssize_t strToFindStart,
                                      ssize_t strToFindLength);

/*
 * Compares two ranges by UTF-16 code unit (code point order across surrogates), optionally
 * with simple case folding: -1, 0 or 1. A range that cannot be converted compares as -1.
 */
int Unicode_CompareRange(const char *str1, ssize_t str1Start, ssize_t str1Length, const char *str2,
                         ssize_t str2Start, ssize_t str2Length, bool ignoreCase);

/* The concatenation of a NULL-terminated list of strings; NULL first gives NULL. */
char *Unicode_Join(const char *first, ...);
/* A new formatted string; NULL on failure. */
char *Unicode_Format(const char *fmt, ...) TESMAR_PRINTF(1, 2);

#ifdef __cplusplus
}
#endif

#endif
