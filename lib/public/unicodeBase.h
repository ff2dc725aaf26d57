/*
 * System strings: NUL-terminated UTF-8 on the heap, owned by the receiver and released with
 * free(). These functions make them from buffers in any supported encoding and turn them back
 * into encoded bytes.
 *
 * A length of -1 means "up to the terminator", a terminator as wide as the encoding's unit (8,
 * 16 or 32 bits); an encoding of -1 means the current encoding.
 */
#ifndef TESMAR_UNICODE_BASE_H
#define TESMAR_UNICODE_BASE_H

#include <stdbool.h>
#include <stddef.h>
#include <sys/types.h>

#include "unicodeTypes.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A new string from the buffer, substituting invalid input. NULL buffer gives NULL; a buffer
 * that cannot be converted at all panics.
 */
char *Unicode_AllocWithLength(const void *buffer, ssize_t lengthInBytes, StringEncoding encoding);
/* As Unicode_AllocWithLength, but NULL on failure; strict refuses invalid input. */
char *Unicode_AllocInternal(const void *buffer, ssize_t lengthInBytes, StringEncoding encoding,
                            bool strict);
static inline char *Unicode_Alloc(const void *buffer, StringEncoding encoding)
{
   return Unicode_AllocWithLength(buffer, -1, encoding);
}

/*
 * Without unescape a copy of the ASCII text; with unescape, "\uXXXX", "\UXXXXXXXX" and "\c"
 * escapes are decoded. Non-ASCII input, a code point above U+10FFFF or a missing hexadecimal
 * digit panics.
 */
char *Unicode_FromEscapedAscii(const char *ascii, bool unescape);

/*
 * Converts each element of an array (count -1: the array ends with NULL, and so does the
 * result) into a new array of strings. Unicode_AllocList panics on an element it cannot
 * convert; Unicode_GetAllocList encodes strings into the encoding and returns NULL (freeing
 * everything) when one element fails.
 */
char **Unicode_AllocList(char **srcArray, ssize_t count, StringEncoding encoding);
char **Unicode_GetAllocList(char *const *srcArray, ssize_t count, StringEncoding encoding);

/*
 * The string encoded in a new block (with zero bytes after it), NULL when it cannot be encoded
 * (a failure to encode as UTF-16LE panics). lengthInBytes -1: the whole string.
 */
void *Unicode_GetAllocBytes(const char *str, StringEncoding encoding);
void *Unicode_GetAllocBytesWithLength(const char *str, StringEncoding encoding,
                                      ssize_t lengthInBytes, size_t *retLength);

/*
 * Encodes into a fixed buffer of maxLengthInBytes, truncating and terminating; *retLength (if
 * given) is the number of bytes kept. True when nothing was cut.
 */
bool Unicode_CopyBytes(void *destBuffer, const char *str, size_t maxLengthInBytes,
                       size_t *retLength, StringEncoding encoding);

/* An upper bound for the size of the string encoded, terminator included. */
size_t Unicode_BytesRequired(const char *str, StringEncoding encoding);

/* True for NULL or when the string can be encoded. */
bool Unicode_CanGetBytesWithEncoding(const char *str, StringEncoding encoding);

/* True for NULL or when the buffer is valid in the encoding. */
bool Unicode_IsBufferValid(const void *buffer, ssize_t lengthInBytes, StringEncoding encoding);

/* Bytes before the terminator (as wide as the encoding's unit). */
size_t Unicode_LengthInBytes(const void *buffer, StringEncoding encoding);

#ifdef __cplusplus
}
#endif

#endif
