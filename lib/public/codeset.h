/*
 * CodeSet: conversion of byte buffers between character encodings named by strings ("UTF-8",
 * "UTF-16LE", "ISO-8859-2", ...).
 *
 * Conversions go through ICU when CodeSet_Init found its data file; otherwise built-in
 * converters handle UTF-8, UTF-16LE, UTF-16BE, US-ASCII and ISO-8859-1. The current encoding
 * is always UTF-8.
 *
 * Heap results carry four zero bytes after the data (a terminator for 8-, 16- and 32-bit
 * readers); the reported length never counts them. The caller frees them with free(). Every
 * function returns true on success; on failure the output is left as it was and nothing is
 * logged.
 */
#ifndef TESMAR_CODESET_H
#define TESMAR_CODESET_H

#include <stdbool.h>
#include <stddef.h>

#include "dynbuf.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What happens to a character that cannot be converted. */
#define CODESET_POLICY_NORMAL 0     /* the conversion fails */
#define CODESET_POLICY_SUBSTITUTE 1 /* a replacement character is written */
#define CODESET_POLICY_SKIP 2       /* the character is dropped */

/*
 * Looks for the ICU data file in icuDataDir (NULL: the product's ICU directory) and uses ICU
 * when it is there. Call once at start-up, before other threads convert. Always returns true.
 */
bool CodeSet_Init(const char *icuDataDir);

/* The process's current encoding: "UTF-8". */
const char *CodeSet_GetCurrentCodeSet(void);

/* Appends the conversion of bufIn to db. A NULL bufIn or a zero sizeIn appends nothing. */
bool CodeSet_ConvertToDynBuf(const char *codeIn, const char *bufIn, size_t sizeIn,
                             const char *codeOut, int policy, DynBuf *db);
/* The same into a new heap block (sizeOut optional). */
bool CodeSet_Convert(const char *codeIn, const char *bufIn, size_t sizeIn, const char *codeOut,
                     int policy, char **bufOut, size_t *sizeOut);

bool CodeSet_Utf8ToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSet_CurrentToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSet_Utf16leToUtf8Db(const char *bufIn, size_t sizeIn, DynBuf *db);
bool CodeSet_Utf16leToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSet_Utf8ToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSet_CurrentToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSet_Utf16leToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSet_Utf16beToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);

/*
 * Unicode normalisation of UTF-8 text to the precomposed (C) or decomposed (D) form. The input
 * ends at sizeIn or at its first NUL; the result is NUL-terminated and *sizeOut its length.
 */
bool CodeSet_Utf8NormalizeC(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSet_Utf8NormalizeD(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);

/* Whether conversions from and to the named encoding are available. */
bool CodeSet_IsEncodingSupported(const char *name);

/* Whether the whole buffer is valid in the encoding; a zero size is valid. */
bool CodeSet_Validate(const char *buf, size_t size, const char *code);

#ifdef __cplusplus
}
#endif

#endif
