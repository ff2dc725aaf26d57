/*
 * Internals shared by the Unicode sources (and their tests): the encoding-name table.
 */
#ifndef TESMAR_UNICODE_INT_H
#define TESMAR_UNICODE_INT_H

#include <stddef.h>
#include <stdint.h>

#include "unicodeTypes.h"

#define UNICODE_ENCODING_MAX_NAMES 21
#define UNICODE_NO_CODE_PAGE 0xFFFFFFFFu

typedef struct UnicodeEncodingRow {
   int32_t ianaMibEnum;      /* -1 where IANA has none */
   uint32_t windowsCodePage; /* UNICODE_NO_CODE_PAGE where there is none */
   StringEncoding encoding;
   bool supported;
   uint32_t preferredName;                            /* index into names */
   const char *names[UNICODE_ENCODING_MAX_NAMES + 1]; /* NULL-terminated */
} UnicodeEncodingRow;

/* The table in its fixed order, and its row count. */
const UnicodeEncodingRow *UnicodeEncodingTable(size_t *count);

/* The row that a name selects by the lookup rules, ignoring the cache; NULL when none. */
const UnicodeEncodingRow *UnicodeFindEncodingRow(const char *name);

#endif
